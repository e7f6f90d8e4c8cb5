// Links against the installed library and uses its public headers only.
#include <endpointregistry/endpoint.hpp>
#include <foundation/log/admin.hpp>
#include <iostream>

int main() {
  // A real sink loads the logging library's Boost.Log back end from beside it.
  foundation::log::local::admin::get()->setSink("stderr");
  agent::spf::endpointregistry::Endpoint empty;
  std::cout << (empty ? "published" : "empty") << '\n';
  return empty ? 1 : 0;
}
