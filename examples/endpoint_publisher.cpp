// Publishes one endpoint and holds it until interrupted (SIGINT or SIGTERM).
//
//   endpoint_publisher FIRST SECOND GROUP_TAG [TRUSTEE_GROUP...]
//
// While it runs, any process of the same user (and of users in the trustee
// groups) finds the endpoint with endpoint_lister.
#include <csignal>
#include <cstdio>
#include <exception>
#include <set>
#include <string>

#include <endpointregistry/endpoint.hpp>

using agent::spf::endpointregistry::Endpoint;

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s FIRST SECOND GROUP_TAG [TRUSTEE_GROUP...]\n", argv[0]);
    return 2;
  }
  // Block the stop signals before the work thread starts, so that only
  // sigwait() below receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    Endpoint endpoint = Endpoint::publish(argv[1], argv[2], argv[3]);
    std::set<std::string> trustees(argv + 4, argv + argc);
    endpoint.addTrustees(trustees);
    std::printf("published (%s, %s) under %s\n", argv[1], argv[2], argv[3]);
    std::fflush(stdout);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    std::printf("withdrawing (%s, %s)\n", argv[1], argv[2]);
  } catch (const Endpoint::DuplicateEndpointError& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  }
  return 0;
}
