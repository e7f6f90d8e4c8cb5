// watch in real processes: endpoints appear with "+", a publisher killed with
// SIGKILL disappears with "-" as soon as the kernel tells (nothing is
// polled), and the watcher ends on SIGINT or SIGTERM.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "directory/segment_names.hpp"
#include "support/shm_files.hpp"
#include "tool_test.hpp"

namespace er::test {
namespace {

using nlohmann::json;

class CliWatchTest : public ToolTest {
 protected:
  std::string tag = newTag("cliWatch");
};

TEST_F(CliWatchTest, SigkilledPublisherDisappears) {
  auto watcher = start({"watch", "--group", tag});
  ASSERT_EQ(watcher->readLine(), "ready");
  auto publisher = start({"publish", "10.0.0.1", "8080", "--group", tag});
  ASSERT_EQ(publisher->readLine(), "live: 10.0.0.1 8080 (group " + tag + ")");
  EXPECT_EQ(watcher->readLine(), "+ 10.0.0.1 8080");

  publisher->signal(SIGKILL);
  EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
  EXPECT_EQ(watcher->readLine(), "- 10.0.0.1 8080");
  // The watcher's listing cleared the dead publisher's record away.
  EXPECT_TRUE(filesIn(scope(), agent::spf::endpointregistry::groupPrefix(tag)).empty());

  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(watcher->output(), "");
  EXPECT_EQ(watcher->errors(), "");
}

// `watch | head -1`: once its reader goes, watch ends with status 0 at once,
// not at its next change; SIGHUP ends it as SIGINT does.
TEST_F(CliWatchTest, EndsWhenItsReaderGoesOrOnSighup) {
  auto publisher = start({"publish", "10.0.0.1", "8080", "--group", tag});
  ASSERT_EQ(publisher->readLine(), "live: 10.0.0.1 8080 (group " + tag + ")");
  auto watcher = start({"watch", "--group", tag, "--json"});
  const std::optional<std::string> appeared = watcher->readLine();
  ASSERT_TRUE(appeared);
  EXPECT_EQ(json::parse(*appeared), json::parse(R"({"event": "appeared", "first": "10.0.0.1", "second": "8080"})"));
  ASSERT_EQ(watcher->readLine(), R"({"event":"ready"})");
  watcher->closeOutput();
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(watcher->errors(), "");

  auto second = start({"watch", "--group", tag});
  ASSERT_EQ(second->readLine(), "+ 10.0.0.1 8080");
  ASSERT_EQ(second->readLine(), "ready");
  second->signal(SIGHUP);
  EXPECT_EQ(second->wait(), 0);
  publisher->signal(SIGINT);
  EXPECT_EQ(publisher->wait(), 0);
}

TEST_F(CliWatchTest, EndpointsPresentAtStartAppearFirst) {
  auto first = start({"publish", "a", "1", "--group", tag});
  auto second = start({"publish", "b", "2", "--group", tag});
  ASSERT_TRUE(first->readLine());
  ASSERT_TRUE(second->readLine());
  auto watcher = start({"watch", "--group", tag});
  EXPECT_EQ(watcher->readLine(), "+ a 1");
  EXPECT_EQ(watcher->readLine(), "+ b 2");
  EXPECT_EQ(watcher->readLine(), "ready");
  first->signal(SIGINT);
  EXPECT_EQ(first->wait(), 0);
  EXPECT_EQ(watcher->readLine(), "- a 1");
  watcher->signal(SIGTERM);
  EXPECT_EQ(watcher->wait(), 0);
}

TEST_F(CliWatchTest, JsonLinesDescribeEachChange) {
  auto watcher = start({"watch", "--group", tag, "--json"});
  ASSERT_EQ(watcher->readLine(), R"({"event":"ready"})");
  auto publisher = start({"publish", "10.0.0.1", "8080", "--group", tag});
  ASSERT_TRUE(publisher->readLine());
  const std::optional<std::string> appeared = watcher->readLine();
  ASSERT_TRUE(appeared);
  EXPECT_EQ(json::parse(*appeared), json::parse(R"({"event": "appeared", "first": "10.0.0.1", "second": "8080"})"));

  publisher->signal(SIGKILL);
  const std::optional<std::string> disappeared = watcher->readLine();
  ASSERT_TRUE(disappeared);
  EXPECT_EQ(json::parse(*disappeared),
            json::parse(R"({"event": "disappeared", "first": "10.0.0.1", "second": "8080"})"));
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
}

// With the safety re-listing on, each change is still printed once.
TEST_F(CliWatchTest, SafetyRelistingPrintsEachChangeOnce) {
  auto watcher = start({"watch", "--group", tag, "--interval", "5"});
  ASSERT_EQ(watcher->readLine(), "ready");
  auto publisher = start({"publish", "10.0.0.1", "8080", "--group", tag});
  ASSERT_TRUE(publisher->readLine());
  EXPECT_EQ(watcher->readLine(), "+ 10.0.0.1 8080");
  publisher->signal(SIGKILL);
  EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
  EXPECT_EQ(watcher->readLine(), "- 10.0.0.1 8080");
  auto again = start({"publish", "10.0.0.1", "8080", "--group", tag});
  ASSERT_TRUE(again->readLine());
  EXPECT_EQ(watcher->readLine(), "+ 10.0.0.1 8080");
  again->signal(SIGINT);
  EXPECT_EQ(again->wait(), 0);
  EXPECT_EQ(watcher->readLine(), "- 10.0.0.1 8080");
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
  EXPECT_EQ(watcher->output(), "");
}

// --timestamps begins each line with the time; strings with blanks or quotes
// are quoted, so that a line splits back into its strings.
TEST_F(CliWatchTest, TimestampsAndQuotedStrings) {
  auto watcher = start({"watch", "--group", tag, "--timestamps"});
  const std::optional<std::string> ready = watcher->readLine();
  ASSERT_TRUE(ready);
  const std::regex stamped(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (.*))");
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(*ready, parts, stamped)) << *ready;
  EXPECT_EQ(parts[1], "ready");
  auto publisher = start({"publish", "a b", "say \"hi\"", "--group", tag});
  ASSERT_TRUE(publisher->readLine());
  const std::optional<std::string> appeared = watcher->readLine();
  ASSERT_TRUE(appeared);
  ASSERT_TRUE(std::regex_match(*appeared, parts, stamped)) << *appeared;
  EXPECT_EQ(parts[1], R"(+ "a b" "say \"hi\"")");
  publisher->signal(SIGINT);
  EXPECT_EQ(publisher->wait(), 0);
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);

  auto json = start({"watch", "--group", tag, "--json", "--timestamps"});
  const std::optional<std::string> line = json->readLine();
  ASSERT_TRUE(line);
  const nlohmann::json parsed = nlohmann::json::parse(*line);
  EXPECT_EQ(parsed["event"], "ready");
  EXPECT_TRUE(std::regex_match(parsed["time"].get<std::string>(), std::regex(R"(\d{4}-.*\.\d{6}Z)")));
  json->signal(SIGINT);
  EXPECT_EQ(json->wait(), 0);
}

}  // namespace
}  // namespace er::test
