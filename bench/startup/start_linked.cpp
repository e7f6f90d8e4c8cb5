// A program that links the endpoint registry and never calls it: what
// linking the library costs a process that does not use it.
#include <endpointregistry/endpoint.hpp>

int main(int argc, char**) {
  // Never true when the benchmark starts it: the library is loaded, not called.
  if (argc > 100) return static_cast<int>(agent::spf::endpointregistry::Endpoint::list().size());
  return 0;
}
