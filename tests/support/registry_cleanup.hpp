// Removes, on destruction, every record of one group tag that a test left in
// the registry: its names in the trustees' directories and its segments.
#pragma once

#include <string>
#include <vector>

namespace er::test {

class RegistryCleanup {
 public:
  // `scopes` pairs each trustee ("" or a group name) with its scope folder.
  RegistryCleanup(std::string groupTag, std::vector<std::pair<std::string, std::string>> scopes);
  // Only the current user's own records.
  explicit RegistryCleanup(std::string groupTag);
  ~RegistryCleanup();
  RegistryCleanup(const RegistryCleanup&) = delete;
  RegistryCleanup& operator=(const RegistryCleanup&) = delete;

 private:
  std::string groupTag_;
  std::vector<std::pair<std::string, std::string>> scopes_;
};

}  // namespace er::test
