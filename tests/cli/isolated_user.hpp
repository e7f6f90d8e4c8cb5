// A temporary user for tests that need a registry of their own: the user's
// /dev/shm/u<uid> scope holds only what the test makes, and is removed with
// everything in it when the object goes. Creating one needs root.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

#include "support/system_accounts.hpp"
#include "tool_process.hpp"

namespace er::test {

// Removes a scope folder and every file in it on destruction.
class ScopeRemoval {
 public:
  explicit ScopeRemoval(std::string scope) : scope_(std::move(scope)) {}
  ~ScopeRemoval();
  ScopeRemoval(const ScopeRemoval&) = delete;
  ScopeRemoval& operator=(const ScopeRemoval&) = delete;

 private:
  std::string scope_;
};

class IsolatedUser {
 public:
  // `groups` become the supplementary groups of the tool runs.
  explicit IsolatedUser(std::vector<gid_t> groups = {});

  // Runs the tool as this user.
  Identity identity() const { return {user_.uid(), user_.gid(), groups_}; }
  const std::string& name() const noexcept { return user_.name(); }
  // /dev/shm/u<uid>.
  std::string scope() const;

 private:
  TemporaryUser user_;
  std::vector<gid_t> groups_;
  ScopeRemoval scopeRemoval_;
};

}  // namespace er::test
