#include "isolated_user.hpp"

#include <unistd.h>
#include <cstdio>

#include "support/shm_files.hpp"

namespace er::test {

ScopeRemoval::~ScopeRemoval() {
  for (const std::string& name : filesIn(scope_)) std::remove((scope_ + "/" + name).c_str());
  rmdir(scope_.c_str());
}

IsolatedUser::IsolatedUser(std::vector<gid_t> groups)
    : groups_(std::move(groups)), scopeRemoval_("/dev/shm/u" + std::to_string(user_.uid())) {}

std::string IsolatedUser::scope() const { return "/dev/shm/u" + std::to_string(user_.uid()); }

}  // namespace er::test
