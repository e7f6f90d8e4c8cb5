// A consumer that discards a listing's result: the compiler must refuse it
// under -Werror.
#include <endpointregistry/endpoint.hpp>

using agent::spf::endpointregistry::Endpoint;

int main() {
  Endpoint::filterFromAllTrustees("web");
  return 0;
}
