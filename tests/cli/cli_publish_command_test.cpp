// publish FIRST SECOND --group TAG -- COMMAND: the endpoint is held exactly
// while the command runs, the command's exit status is the tool's, stop
// signals reach the command, and systemd hears "READY=1" when it asks.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "directory/segment_names.hpp"
#include "support/shm_files.hpp"
#include "tool_test.hpp"

namespace er::test {
namespace {

class CliPublishCommandTest : public ToolTest {
 protected:
  std::string tag = newTag("cliPubCmd");

  std::set<std::string> recordFiles() { return filesIn(scope(), agent::spf::endpointregistry::groupPrefix(tag)); }
};

TEST_F(CliPublishCommandTest, TheCommandsExitStatusIsTheTools) {
  const ToolRun run = tool({"publish", "10.0.0.1", "8080", "--group", tag, "--", "sh", "-c", "echo running; exit 3"});
  EXPECT_EQ(run.exitCode, 3);
  EXPECT_EQ(run.out, "live: 10.0.0.1 8080 (group " + tag + ")\nrunning\nwithdrawn: 10.0.0.1 8080\n");
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(recordFiles().empty());
}

TEST_F(CliPublishCommandTest, TheEndpointIsHeldWhileTheCommandRunsAndSignalsReachIt) {
  // The command says when it runs, then waits; SIGTERM to the tool reaches it.
  auto publisher = start({"publish", "10.0.0.1", "8080", "--group", tag, "--", "sh", "-c",
                          "trap 'echo got TERM; exit 7' TERM; echo started; while :; do sleep 0.05; done"});
  ASSERT_EQ(publisher->readLine(), "live: 10.0.0.1 8080 (group " + tag + ")");
  ASSERT_EQ(publisher->readLine(), "started");
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST     SECOND\n10.0.0.1  8080\n");
  publisher->signal(SIGTERM);
  EXPECT_EQ(publisher->readLine(), "got TERM");
  EXPECT_EQ(publisher->readLine(), "withdrawn: 10.0.0.1 8080");
  EXPECT_EQ(publisher->wait(), 7);
  EXPECT_EQ(tool({"list", "--group", tag, "--exit-status"}).exitCode, 3);
  EXPECT_TRUE(recordFiles().empty());
}

TEST_F(CliPublishCommandTest, ACommandThatCannotRunIs127) {
  const ToolRun run = tool({"publish", "a", "b", "--group", tag, "--", "/nonexistent/program"});
  EXPECT_EQ(run.exitCode, 127);
  EXPECT_EQ(run.err, "endpointregistry: cannot run '/nonexistent/program': No such file or directory\n");
  EXPECT_TRUE(recordFiles().empty());
}

TEST_F(CliPublishCommandTest, AThirdWordWithoutTheSeparatorIsAUsageError) {
  const ToolRun run = tool({"publish", "a", "b", "sleep", "--group", tag});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err,
            "endpointregistry: unexpected word 'sleep' (a command to run goes after --: publish FIRST SECOND --group "
            "TAG -- COMMAND)\nRun with --help for more information.\n");
}

#ifdef ENDPOINTREGISTRY_TOOL_HAS_SYSTEMD
// Under systemd (Type=notify) the tool says READY=1 once the endpoint is live.
TEST_F(CliPublishCommandTest, SystemdHearsReadyOnceTheEndpointIsLive) {
  const std::string path = "/tmp/er-notify-" + std::to_string(getpid());
  const int socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(socketFd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(path.c_str());
  ASSERT_EQ(bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  chmod(path.c_str(), 0777);  // the tool may run as another user
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  auto publisher = start({"publish", "a", "b", "--group", tag});
  unsetenv("NOTIFY_SOCKET");
  ASSERT_EQ(publisher->readLine(), "live: a b (group " + tag + ")");
  timeval patience{10, 0};
  setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  char message[64] = {};
  const ssize_t length = recv(socketFd, message, sizeof message - 1, 0);
  EXPECT_EQ(std::string(message, length > 0 ? static_cast<std::size_t>(length) : 0), "READY=1");
  publisher->signal(SIGINT);
  EXPECT_EQ(publisher->wait(), 0);
  close(socketFd);
  unlink(path.c_str());
}
#endif

}  // namespace
}  // namespace er::test
