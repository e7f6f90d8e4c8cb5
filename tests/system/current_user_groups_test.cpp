// The current user's group names and the trustee rule built on them.
//
// Every scenario runs in a forked child that sets its own supplementary
// groups and reports back through its pipe. Unusual group entries (two ids
// under one name, entries of many KiB) are written to a private copy of the
// group database, bind-mounted over /etc/group in a mount namespace of the
// child alone, so the machine's own database is never edited. Failures of
// getgroups() are provoked with a seccomp filter whose answers a thread of the
// child supplies.
#include <gtest/gtest.h>

#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "discovery/current_user_groups.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/system_accounts.hpp"
#include "support/text.hpp"

namespace registry = agent::spf::endpointregistry;
using er::test::ChildProcess;

namespace {

// A child that cannot set up its scenario (no mount namespace, no seccomp)
// leaves with this code; the test is then skipped.
constexpr int unsupportedCode = 77;
constexpr int setupFailedCode = 78;

const char* const refusalText = "Trustees can only be groups of the current user";

struct Report {
  std::optional<int> code;
  std::vector<std::string> lines;
};

// Runs `body` in a child and gathers every line it sends until it ends.
Report runScenario(const ChildProcess::Body& body) {
  ChildProcess child(body);
  Report report;
  while (auto line = child.readFromChild()) report.lines.push_back(*line);
  report.code = child.wait();
  return report;
}

#define RUN_SCENARIO(report, body)                                                    \
  const Report report = runScenario(body);                                            \
  if (report.code == unsupportedCode)                                                 \
    GTEST_SKIP() << "not supported here: " << ::testing::PrintToString(report.lines); \
  ASSERT_EQ(report.code, 0) << ::testing::PrintToString(report.lines)

std::string joined(const std::set<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ",") + name;
  return text;
}

// Child side: the outcome of `call` as one line.
std::string outcome(const std::function<std::string()>& call) {
  try {
    return "value:" + call();
  } catch (const std::length_error& e) {
    return std::string("length_error:") + e.what();
  } catch (const std::invalid_argument& e) {
    return std::string("invalid_argument:") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("runtime_error:") + e.what();
  } catch (const std::exception& e) {
    return std::string("other:") + e.what();
  }
}

std::string groupsOutcome() {
  return outcome([] { return joined(registry::getCurrentUserGroups()); });
}

std::string trusteeOutcome(const std::string& trustee) {
  return outcome([&] { return registry::Endpoint::Impl::checkTrustee(trustee); });
}

// Child side: one line per captured record, "log:<channel>|<level>|<message>".
void reportLog(ChildProcess& child, er::test::LogCapture& capture) {
  for (const auto& record : capture.records()) {
    child.tellParent("log:" + record.channel + "|" + std::to_string(record.level) + "|" + record.message);
  }
}

std::string logLine(const std::string& message) { return "log:agent::spf::endpointregistry|512|" + message; }

// Child side: the ids getgroups() reports, in its order.
std::string currentIds() {
  std::vector<gid_t> ids(static_cast<std::size_t>(getgroups(0, nullptr)));
  ids.resize(static_cast<std::size_t>(getgroups(static_cast<int>(ids.size()), ids.data())));
  std::string text = "ids:";
  for (std::size_t i = 0; i < ids.size(); ++i) text += er::test::concat(i == 0 ? "" : ",", std::to_string(ids[i]));
  return text;
}

// Child side: makes `content` the group database of this process alone.
bool replaceGroupDatabase(const std::string& content) {
  if (unshare(CLONE_NEWNS) != 0) return false;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const std::string path = "/tmp/ert-group-" + std::to_string(getpid());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) {
      std::remove(path.c_str());
      return false;
    }
  }
  const bool mounted = mount(path.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0;
  std::remove(path.c_str());  // the mount keeps the file alive
  return mounted;
}

// A group line whose member list takes about `bytes` bytes, in names of 100.
std::string groupLine(const std::string& name, gid_t gid, std::size_t bytes = 0) {
  std::string line = name + ":x:" + std::to_string(gid) + ":";
  for (std::size_t i = 0; i * 101 < bytes; ++i) {
    std::string member = er::test::concat("m", std::to_string(i));
    member.resize(100, 'x');
    line += (i == 0 ? "" : ",") + member;
  }
  return line + "\n";
}

// An id that the machine's group database does not know.
gid_t unusedGid() {
  for (gid_t gid = 3'500'000'000u;; ++gid) {
    if (getgrgid(gid) == nullptr) return gid;
  }
}

// Child side: from now on the k-th getgroups() system call of this process
// returns answers[k] (>= 0), fails with errno -answers[k] (< 0), or runs for
// real (runForReal, and every call beyond the list). `calls` counts them.
constexpr int runForReal = INT_MIN;

bool scriptGetgroups(std::vector<int> answers, std::atomic<int>& calls) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_getgroups, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  const long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
  if (listener < 0) return false;
  // The supervising thread never calls getgroups(); it lives until the child exits.
  std::thread([fd = static_cast<int>(listener), answers = std::move(answers), &calls] {
    for (;;) {
      seccomp_notif request{};
      if (ioctl(fd, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
        if (errno == EINTR || errno == ENOENT) continue;
        return;
      }
      seccomp_notif_resp response{};
      response.id = request.id;
      const std::size_t k = static_cast<std::size_t>(calls.fetch_add(1));
      if (k >= answers.size() || answers[k] == runForReal) {
        response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
      } else if (answers[k] >= 0) {
        response.val = answers[k];
      } else {
        response.error = answers[k];
      }
      ioctl(fd, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }
  }).detach();
  return true;
}

class CurrentUserGroupsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!er::test::runningAsRoot()) GTEST_SKIP() << "needs root to set groups";
  }
};

using CheckTrusteeTest = CurrentUserGroupsTest;

}  // namespace

// The process's groups, by name.

TEST_F(CurrentUserGroupsTest, NoSupplementaryGroupsGiveAnEmptySet) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({})) return setupFailedCode;
    child.tellParent(currentIds());
    child.tellParent(groupsOutcome());
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"ids:", "value:"}));
}

TEST_F(CurrentUserGroupsTest, FindsEachRealGroupOnceEvenIfListedTwice) {
  er::test::TemporaryGroup first;
  er::test::TemporaryGroup second;
  const std::vector<gid_t> ids{second.gid(), first.gid(), second.gid()};
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups(ids)) return setupFailedCode;
    child.tellParent(std::to_string(getgroups(0, nullptr)));
    child.tellParent(groupsOutcome());
    return 0;
  });
  const std::set<std::string> expected{first.name(), second.name()};
  EXPECT_EQ(report.lines, (std::vector<std::string>{"3", "value:" + joined(expected)}));
}

TEST_F(CurrentUserGroupsTest, LeavesOutAnIdWithoutEntry) {
  er::test::TemporaryGroup known;
  const gid_t unknown = unusedGid();
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({unknown, known.gid()})) return setupFailedCode;
    child.tellParent(currentIds());
    child.tellParent(groupsOutcome());
    return 0;
  });
  const gid_t low = std::min(unknown, known.gid());
  const gid_t high = std::max(unknown, known.gid());
  EXPECT_EQ(report.lines, (std::vector<std::string>{"ids:" + std::to_string(low) + "," + std::to_string(high),
                                                    "value:" + known.name()}));
}

TEST_F(CurrentUserGroupsTest, NamesTwoIdsOfOneNameOnce) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!replaceGroupDatabase(groupLine("shared", 3'000'000'101u) + groupLine("shared", 3'000'000'102u) +
                              groupLine("other", 3'000'000'103u))) {
      return unsupportedCode;
    }
    if (!er::test::setSupplementaryGroups({3'000'000'101u, 3'000'000'102u, 3'000'000'103u})) return setupFailedCode;
    child.tellParent(currentIds());
    child.tellParent(groupsOutcome());
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"ids:3000000101,3000000102,3000000103", "value:other,shared"}));
}

TEST_F(CurrentUserGroupsTest, FindsEntriesLargerThanTheFirstBuffer) {
  // The largest entry needs more than 512 KiB of buffer, so only the last
  // size tried, 1 MiB, holds it.
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!replaceGroupDatabase(groupLine("small", 3'000'000'201u) + groupLine("wide", 3'000'000'202u, 3 * 1024) +
                              groupLine("wider", 3'000'000'203u, 700 * 1024))) {
      return unsupportedCode;
    }
    if (!er::test::setSupplementaryGroups({3'000'000'201u, 3'000'000'202u, 3'000'000'203u})) return setupFailedCode;
    child.tellParent(groupsOutcome());
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"value:small,wide,wider"}));
}

TEST_F(CurrentUserGroupsTest, LeavesOutAnEntryLargerThanTheLargestBuffer) {
  // The oversized entry comes last, so looking up the small one never reads it.
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!replaceGroupDatabase(groupLine("small", 3'000'000'301u) + groupLine("huge", 3'000'000'302u, 1100 * 1024))) {
      return unsupportedCode;
    }
    if (!er::test::setSupplementaryGroups({3'000'000'301u, 3'000'000'302u})) return setupFailedCode;
    child.tellParent(groupsOutcome());
    // With enough room the oversized entry is a valid one.
    std::vector<char> buffer(4 * 1024 * 1024);
    group entry{};
    group* found = nullptr;
    getgrgid_r(3'000'000'302u, &entry, buffer.data(), buffer.size(), &found);
    child.tellParent(std::string("direct:") + (found != nullptr ? entry.gr_name : ""));
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"value:small", "direct:huge"}));
}

TEST_F(CurrentUserGroupsTest, ReturnsNamesInAscendingOrder) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!replaceGroupDatabase(groupLine("wheel", 3'000'000'401u) + groupLine("adm", 3'000'000'402u) +
                              groupLine("users", 3'000'000'403u))) {
      return unsupportedCode;
    }
    if (!er::test::setSupplementaryGroups({3'000'000'401u, 3'000'000'402u, 3'000'000'403u})) return setupFailedCode;
    child.tellParent(currentIds());
    child.tellParent(groupsOutcome());
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"ids:3000000401,3000000402,3000000403", "value:adm,users,wheel"}));
}

// Failures of getgroups().

TEST_F(CurrentUserGroupsTest, AsksAgainWhenTheCountIsZero) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({})) return setupFailedCode;
    std::atomic<int> calls{0};
    if (!scriptGetgroups({}, calls)) return unsupportedCode;
    child.tellParent(groupsOutcome());
    child.tellParent("calls:" + std::to_string(calls.load()));
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"value:", "calls:2"}));
}

TEST_F(CurrentUserGroupsTest, ReportsAFailedRepeatOfAZeroCount) {
  er::test::TemporaryGroup group;
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({group.gid()})) return setupFailedCode;
    er::test::LogCapture capture("agent::spf::endpointregistry=all");
    std::atomic<int> calls{0};
    if (!scriptGetgroups({0, -EFAULT}, calls)) return unsupportedCode;
    child.tellParent(groupsOutcome());
    child.tellParent("calls:" + std::to_string(calls.load()));
    reportLog(child, capture);
    return 0;
  });
  EXPECT_EQ(report.lines,
            (std::vector<std::string>{"runtime_error:System error: Failed to get current user groups", "calls:2",
                                      logLine("getCurrentUserGroups(): Failed to get user group ids. (Error 14)")}));
}

TEST_F(CurrentUserGroupsTest, ReportsAFailedReadOfTheIds) {
  er::test::TemporaryGroup group;
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({group.gid()})) return setupFailedCode;
    er::test::LogCapture capture("agent::spf::endpointregistry=all");
    std::atomic<int> calls{0};
    if (!scriptGetgroups({runForReal, -EIO}, calls)) return unsupportedCode;
    child.tellParent(groupsOutcome());
    child.tellParent("calls:" + std::to_string(calls.load()));
    reportLog(child, capture);
    return 0;
  });
  EXPECT_EQ(report.lines,
            (std::vector<std::string>{"runtime_error:System error: Failed to get current user groups", "calls:2",
                                      logLine("getCurrentUserGroups(): Failed to get user group ids. (Error 5)")}));
}

TEST_F(CurrentUserGroupsTest, AFailedCountEndsInLengthErrorWithoutLog) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    er::test::LogCapture capture("agent::spf::endpointregistry=all");
    std::atomic<int> calls{0};
    if (!scriptGetgroups({-EPERM}, calls)) return unsupportedCode;
    child.tellParent(groupsOutcome());
    child.tellParent("calls:" + std::to_string(calls.load()));
    reportLog(child, capture);
    return 0;
  });
  EXPECT_EQ(report.lines,
            (std::vector<std::string>{"length_error:cannot create std::vector larger than max_size()", "calls:1"}));
}

// The trustee rule.

TEST_F(CheckTrusteeTest, EmptyTrusteePassesWithoutReadingGroups) {
  RUN_SCENARIO(report, [](ChildProcess& child) {
    std::atomic<int> calls{0};
    if (!scriptGetgroups({-EPERM, -EPERM, -EPERM}, calls)) return unsupportedCode;
    child.tellParent(trusteeOutcome(""));
    child.tellParent("calls:" + std::to_string(calls.load()));
    // A named trustee does read them, and their failure passes through.
    child.tellParent(trusteeOutcome("root"));
    child.tellParent("calls:" + std::to_string(calls.load()));
    return 0;
  });
  EXPECT_EQ(report.lines,
            (std::vector<std::string>{"value:", "calls:0",
                                      "length_error:cannot create std::vector larger than max_size()", "calls:1"}));
}

TEST_F(CheckTrusteeTest, AcceptsGroupsOfTheUser) {
  er::test::TemporaryGroup first;
  er::test::TemporaryGroup second;
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({first.gid(), second.gid()})) return setupFailedCode;
    er::test::LogCapture capture("agent::spf::endpointregistry=all");
    child.tellParent(trusteeOutcome(first.name()));
    child.tellParent(trusteeOutcome(second.name()));
    reportLog(child, capture);
    return 0;
  });
  EXPECT_EQ(report.lines, (std::vector<std::string>{"value:" + first.name(), "value:" + second.name()}));
}

TEST_F(CheckTrusteeTest, RefusesOtherNamesWithLogAndException) {
  er::test::TemporaryGroup member;
  er::test::TemporaryGroup stranger;
  std::string shouted = member.name();
  for (char& c : shouted) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({member.gid()})) return setupFailedCode;
    er::test::LogCapture capture("agent::spf::endpointregistry=all");
    child.tellParent(trusteeOutcome(stranger.name()));
    child.tellParent(trusteeOutcome(shouted));
    reportLog(child, capture);
    return 0;
  });
  const std::string refused = std::string("invalid_argument:") + refusalText;
  auto message = [](const std::string& name) {
    return logLine("Endpoint::Impl(): <" + name + "> is not a allowed trustee for the current user.");
  };
  EXPECT_EQ(report.lines, (std::vector<std::string>{refused, refused, message(stranger.name()), message(shouted)}));
}

TEST_F(CheckTrusteeTest, RefusesEveryNameWithoutGroupsEvenWhenNotLogging) {
  er::test::TemporaryGroup existing;
  RUN_SCENARIO(report, [&](ChildProcess& child) {
    if (!er::test::setSupplementaryGroups({})) return setupFailedCode;
    child.tellParent(trusteeOutcome(existing.name()));
    child.tellParent(trusteeOutcome("root"));
    child.tellParent(trusteeOutcome(""));
    return 0;
  });
  const std::string refused = std::string("invalid_argument:") + refusalText;
  EXPECT_EQ(report.lines, (std::vector<std::string>{refused, refused, "value:"}));
}

TEST(CurrentUserNameTest, IsTheEffectiveUsersName) {
  const passwd* entry = getpwuid(geteuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(registry::getCurrentUserName(), entry->pw_name);
}
