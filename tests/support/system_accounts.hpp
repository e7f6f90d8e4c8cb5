// Temporary Unix groups and users for tests that need real trustees. They
// exist only while the object lives; creating them needs root.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

namespace er::test {

bool runningAsRoot();

// A group made with groupadd and removed with groupdel.
class TemporaryGroup {
 public:
  // `members` become the group's member list (as written in /etc/group).
  explicit TemporaryGroup(const std::vector<std::string>& members = {});
  ~TemporaryGroup();
  TemporaryGroup(const TemporaryGroup&) = delete;
  TemporaryGroup& operator=(const TemporaryGroup&) = delete;

  const std::string& name() const noexcept { return name_; }
  gid_t gid() const noexcept { return gid_; }

 private:
  std::string name_;
  gid_t gid_ = 0;
};

// A user without home or login shell, made with useradd, removed with userdel.
class TemporaryUser {
 public:
  TemporaryUser();
  ~TemporaryUser();
  TemporaryUser(const TemporaryUser&) = delete;
  TemporaryUser& operator=(const TemporaryUser&) = delete;

  const std::string& name() const noexcept { return name_; }
  uid_t uid() const noexcept { return uid_; }
  gid_t gid() const noexcept { return gid_; }

 private:
  std::string name_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

// In a child process: become (uid, gid) with exactly `groups` as the
// supplementary groups. Returns false if any call fails.
bool becomeUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups);

// In a child process: keep the identity, replace the supplementary groups.
bool setSupplementaryGroups(const std::vector<gid_t>& groups);

}  // namespace er::test
