// Direct access to the files behind shared-memory segments, for tests that
// check byte layouts, permissions and clean-up.
#pragma once

#include <sys/types.h>
#include <set>
#include <string>
#include <vector>

namespace er::test {

// /dev/shm/u<euid> and /dev/shm/g<gid>.
std::string userScope();
std::string groupScope(gid_t gid);
// The file of the user's own segment `name`: userScope() + "/" + name.
std::string userPath(const std::string& name);

// The names of the files in a scope folder that begin with `prefix`.
std::set<std::string> filesIn(const std::string& scope, const std::string& prefix = "");
bool fileExists(const std::string& path);
// The whole content of a file (empty if it cannot be read).
std::vector<unsigned char> readBytes(const std::string& path);

// True when a file whose path contains `part` is mapped into this process
// (a line of /proc/self/maps names it).
bool mappedHere(const std::string& part);

// A name no other test process uses: `stem` + pid + a counter.
std::string uniqueName(const std::string& stem);

// Removes, on destruction, the files of a scope that begin with the given prefixes.
class ShmCleanup {
 public:
  ShmCleanup(std::string scope, std::vector<std::string> prefixes);
  ~ShmCleanup();
  ShmCleanup(const ShmCleanup&) = delete;
  ShmCleanup& operator=(const ShmCleanup&) = delete;

 private:
  std::string scope_;
  std::vector<std::string> prefixes_;
};

}  // namespace er::test
