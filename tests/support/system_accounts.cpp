#include "support/system_accounts.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace er::test {
namespace {

std::string uniqueName(const char* kind) {
  static std::atomic<unsigned> counter{0};
  return std::string("ert") + kind + std::to_string(getpid()) + "x" + std::to_string(counter++);
}

// Runs an account command (groupadd, useradd, ...); true when it succeeded.
// Tests run side by side, and these commands fail while another one holds
// the account files' lock: such a failure is tried again, for up to 5 s.
bool tryRun(const std::string& command) {
  for (int attempt = 0; attempt < 250; ++attempt) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

void run(const std::string& command) {
  if (!tryRun(command)) throw std::runtime_error("command failed: " + command);
}

}  // namespace

bool runningAsRoot() { return geteuid() == 0; }

TemporaryGroup::TemporaryGroup(const std::vector<std::string>& members) : name_(uniqueName("g")) {
  run("groupadd " + name_);
  if (!members.empty()) {
    std::string list;
    for (const auto& m : members) list += (list.empty() ? "" : ",") + m;
    run("gpasswd -M " + list + " " + name_);
  }
  group* entry = getgrnam(name_.c_str());
  if (entry == nullptr) throw std::runtime_error("group not found after groupadd: " + name_);
  gid_ = entry->gr_gid;
}

TemporaryGroup::~TemporaryGroup() { (void)tryRun("groupdel " + name_); }

TemporaryUser::TemporaryUser() : name_(uniqueName("u")) {
  run("useradd -M -N -g nogroup -s /usr/sbin/nologin " + name_);
  passwd* entry = getpwnam(name_.c_str());
  if (entry == nullptr) throw std::runtime_error("user not found after useradd: " + name_);
  uid_ = entry->pw_uid;
  gid_ = entry->pw_gid;
}

TemporaryUser::~TemporaryUser() { (void)tryRun("userdel " + name_); }

bool becomeUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
  if (setgroups(groups.size(), groups.data()) != 0) return false;
  if (setgid(gid) != 0) return false;
  if (setuid(uid) != 0) return false;
  // A change of identity drops the signal that a child gets when its parent
  // dies (child_process.hpp); it is asked for again.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  return geteuid() == uid;
}

bool setSupplementaryGroups(const std::vector<gid_t>& groups) { return setgroups(groups.size(), groups.data()) == 0; }

}  // namespace er::test
