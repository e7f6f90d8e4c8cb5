#include "support/shm_files.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace er::test {

std::string userScope() { return "/dev/shm/u" + std::to_string(geteuid()); }
std::string groupScope(gid_t gid) { return "/dev/shm/g" + std::to_string(gid); }

std::set<std::string> filesIn(const std::string& scope, const std::string& prefix) {
  std::set<std::string> names;
  DIR* dir = opendir(scope.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (name.compare(0, prefix.size(), prefix) == 0) names.insert(name);
  }
  closedir(dir);
  return names;
}

bool fileExists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

std::vector<unsigned char> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string userPath(const std::string& name) { return userScope() + "/" + name; }

std::string uniqueName(const std::string& stem) {
  static std::atomic<unsigned> counter{0};
  return stem + std::to_string(getpid()) + "n" + std::to_string(counter++);
}

ShmCleanup::ShmCleanup(std::string scope, std::vector<std::string> prefixes)
    : scope_(std::move(scope)), prefixes_(std::move(prefixes)) {}

ShmCleanup::~ShmCleanup() {
  for (const auto& prefix : prefixes_) {
    for (const auto& name : filesIn(scope_, prefix)) std::remove((scope_ + "/" + name).c_str());
  }
}

bool mappedHere(const std::string& part) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(part) != std::string::npos) return true;
  }
  return false;
}

}  // namespace er::test
