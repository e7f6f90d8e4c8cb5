// A consumer that discards publish's result, which would publish and
// withdraw at once: the compiler must refuse it under -Werror.
#include <endpointregistry/endpoint.hpp>

using agent::spf::endpointregistry::Endpoint;

int main() {
  Endpoint::publish("10.0.0.1", "8080", "web");
  return 0;
}
