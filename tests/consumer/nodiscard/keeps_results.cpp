// A consumer that keeps what publish and the listings return: compiles
// cleanly under -Werror (the control for discards_*.cpp).
#include <endpointregistry/endpoint.hpp>

using agent::spf::endpointregistry::Endpoint;

int main() {
  const Endpoint endpoint = Endpoint::publish("10.0.0.1", "8080", "web");
  const Endpoint constructed({"10.0.0.2", "8080"}, "web");
  (void)Endpoint::list();  // discarded on purpose, and said so
  return Endpoint::filter("web").size() == 2 && endpoint ? 0 : 1;
}
