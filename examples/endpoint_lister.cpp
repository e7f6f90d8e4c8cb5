// Lists the live endpoints the current user can see.
//
//   endpoint_lister [GROUP_TAG]
//
// Without a group tag every endpoint is listed: the user's own and those
// published under any group the user belongs to.
#include <cstdio>
#include <exception>
#include <string>

#include <endpointregistry/endpoint.hpp>

using agent::spf::endpointregistry::Endpoint;

int main(int argc, char** argv) {
  if (argc > 2) {
    std::fprintf(stderr, "usage: %s [GROUP_TAG]\n", argv[0]);
    return 2;
  }
  try {
    const std::string groupTag = argc == 2 ? argv[1] : "";
    const auto endpoints = Endpoint::filterFromAllTrustees(groupTag);
    std::printf("%zu endpoint(s)%s%s\n", endpoints.size(), groupTag.empty() ? "" : " in ", groupTag.c_str());
    for (const auto& [first, second] : endpoints) std::printf("  %s  %s\n", first.c_str(), second.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  }
  return 0;
}
