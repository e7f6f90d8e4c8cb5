// A helper of the bridge's tests: publishes and lists data pairs given in
// hexadecimal, so that any bytes (NUL, non-UTF-8) cross the command line.
//
//   bridge_probe publish HEXFIRST HEXSECOND TAG   prints "live", holds the
//                                                 endpoint until its standard
//                                                 input ends, then withdraws
//   bridge_probe list TAG                         prints "HEXFIRST HEXSECOND"
//                                                 per live pair, sorted
#include <cstdio>
#include <iostream>
#include <string>

#include <endpointregistry/endpoint.hpp>

namespace {

using agent::spf::endpointregistry::Endpoint;

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

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  try {
    if (verb == "publish" && argc == 5) {
      Endpoint endpoint = Endpoint::publish(fromHex(argv[2]), fromHex(argv[3]), argv[4]);
      std::cout << "live" << std::endl;
      while (std::getchar() != EOF) {
      }
      return 0;
    }
    if (verb == "list" && argc == 3) {
      for (const auto& [first, second] : Endpoint::filter(argv[2]))
        std::cout << toHex(first) << ' ' << toHex(second) << '\n';
      return 0;
    }
  } catch (const std::exception& error) {
    std::cerr << "bridge_probe: " << error.what() << '\n';
    return 1;
  }
  std::cerr << "usage: bridge_probe publish HEXFIRST HEXSECOND TAG | bridge_probe list TAG\n";
  return 2;
}
