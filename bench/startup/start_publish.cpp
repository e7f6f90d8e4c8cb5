// A new process that publishes one endpoint under the group tag it is given
// and ends (which withdraws it).
#include <unistd.h>
#include <string>

#include <endpointregistry/endpoint.hpp>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  using agent::spf::endpointregistry::Endpoint;
  const Endpoint endpoint = Endpoint::publish("10.8.8.8", std::to_string(getpid()), argv[1]);
  return endpoint ? 0 : 1;
}
