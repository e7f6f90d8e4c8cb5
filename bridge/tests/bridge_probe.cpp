// A helper of the bridge's tests: publishes and lists data pairs given in
// hexadecimal, so that any bytes (NUL, non-UTF-8) cross the command line.
//
//   bridge_probe publish HEXFIRST HEXSECOND TAG   prints "live NS" (NS: when
//                                                 it began to publish, see
//                                                 below), holds the endpoint
//                                                 until its standard input
//                                                 ends, then withdraws
//   bridge_probe list TAG                         prints "HEXFIRST HEXSECOND"
//                                                 per live pair, sorted
//   bridge_probe watch TAG                        prints "ready" once it
//                                                 watches, then per change
//                                                 "NS +|- HEXFIRST HEXSECOND"
//                                                 (NS: CLOCK_MONOTONIC in ns,
//                                                 the same in every pid
//                                                 namespace), until its
//                                                 standard input ends
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include <endpointregistry/endpoint.hpp>
#include <endpointregistry/watcher.hpp>

namespace {

using agent::spf::endpointregistry::Endpoint;
using agent::spf::endpointregistry::EndpointChange;
using agent::spf::endpointregistry::Watcher;

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string toHex(const std::string& bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  return hex.empty() ? "-" : hex;
}

long long monotonicNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int watch(const std::string& tag) {
  Watcher watcher(tag, {""});
  (void)watcher.changes();
  std::cout << "ready" << std::endl;
  for (;;) {
    pollfd waits[2] = {{watcher.fileDescriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) continue;
    if ((waits[1].revents & (POLLIN | POLLHUP)) != 0) return 0;
    const auto events = watcher.changes();
    const long long now = monotonicNow();
    for (const EndpointChange& event : events) {
      std::cout << now << (event.kind == EndpointChange::Appeared ? " + " : " - ") << toHex(event.data.first) << ' '
                << toHex(event.data.second) << '\n';
    }
    std::cout.flush();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  try {
    if (verb == "publish" && argc == 5) {
      const long long began = monotonicNow();
      Endpoint endpoint = Endpoint::publish(fromHex(argv[2]), fromHex(argv[3]), argv[4]);
      std::cout << "live " << began << std::endl;
      while (std::getchar() != EOF) {
      }
      return 0;
    }
    if (verb == "watch" && argc == 3) return watch(argv[2]);
    if (verb == "list" && argc == 3) {
      for (const auto& [first, second] : Endpoint::filter(argv[2]))
        std::cout << toHex(first) << ' ' << toHex(second) << '\n';
      return 0;
    }
  } catch (const std::exception& error) {
    std::cerr << "bridge_probe: " << error.what() << '\n';
    return 1;
  }
  std::cerr << "usage: bridge_probe publish HEXFIRST HEXSECOND TAG | list TAG | watch TAG\n";
  return 2;
}
