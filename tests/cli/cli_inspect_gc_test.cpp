// inspect and gc, run as a temporary user whose registry is private to the
// test, so that every row and every count is the test's own: inspect shows
// records with their state and owner pid and clears nothing; gc clears the
// stale ones and says how many.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "directory/segment_names.hpp"
#include "isolated_user.hpp"
#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"
#include "tool_process.hpp"

namespace er::test {
namespace {

using nlohmann::json;

class CliInspectGcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningAsRoot()) GTEST_SKIP() << "needs root to run the tool as a temporary user";
    user = std::make_unique<IsolatedUser>();
  }

  ToolRun tool(const std::vector<std::string>& arguments) { return runTool(arguments, user->identity()); }

  std::unique_ptr<ToolProcess> publish(const std::string& first, const std::string& second) {
    auto publisher = std::make_unique<ToolProcess>(std::vector<std::string>{"publish", first, second, "--group", tag},
                                                   user->identity());
    EXPECT_EQ(publisher->readLine(), "live: " + first + " " + second + " (group " + tag + ")") << publisher->errors();
    return publisher;
  }

  json inspect() {
    const ToolRun run = tool({"inspect", "--json"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return json::parse(run.out);
  }

  std::string tag = uniqueName("cliInspect");
  std::unique_ptr<IsolatedUser> user;
};

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> result;
  for (std::string word; in >> word;) result.push_back(word);
  return result;
}

TEST_F(CliInspectGcTest, DirectoryThatDoesNotExistIsReported) {
  const ToolRun run = tool({"inspect"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "directory qzEndpointRegistryv0 (trustee \"\"): not found\n");
  const json parsed = inspect();
  EXPECT_EQ(parsed["base"], json::parse(R"({"name": "qzEndpointRegistryv0", "found": false})"));
  EXPECT_EQ(parsed["rows"], json::array());
  EXPECT_FALSE(parsed.contains("container"));
}

TEST_F(CliInspectGcTest, LiveRecordIsShownWithItsOwnerPid) {
  auto publisher = publish("10.0.0.1", "8080");
  const std::string pid = std::to_string(publisher->pid());
  const json parsed = inspect();

  EXPECT_EQ(parsed["trustee"], "");
  EXPECT_EQ(parsed["base"]["found"], true);
  EXPECT_EQ(parsed["base"]["initialized"], 1);
  EXPECT_EQ(parsed["problem"], nullptr);
  const unsigned active = parsed["base"]["activeSlot"];
  const json slot = parsed["base"]["slots"][active];
  EXPECT_EQ(slot["rowCount"], 10);
  EXPECT_EQ(parsed["container"]["name"], "qzEndpointRegistryv0" + slot["containerNumber"].dump());
  EXPECT_EQ(parsed["container"]["usedRows"], 1);
  EXPECT_EQ(parsed["container"]["freeRows"], 9);

  ASSERT_EQ(parsed["rows"].size(), 1u);
  const json row = parsed["rows"][0];
  const std::string name = row["strings"][0];
  EXPECT_EQ(name.rfind(agent::spf::endpointregistry::groupPrefix(tag), 0), 0u) << name;
  EXPECT_EQ(name.substr(name.size() - pid.size() - 3), "p" + pid + "v0");
  EXPECT_EQ(row["row"], 0);
  EXPECT_EQ(row["count"], 1);
  EXPECT_EQ(row["state"], "Live");
  EXPECT_EQ(row["pid"], publisher->pid());
  EXPECT_EQ(row["data"], json::parse(R"({"first": "10.0.0.1", "second": "8080"})"));

  const ToolRun text = tool({"inspect"});
  std::istringstream lines(text.out);
  std::vector<std::vector<std::string>> table;
  for (std::string line; std::getline(lines, line);) table.push_back(words(line));
  ASSERT_GE(table.size(), 2u);
  EXPECT_EQ(table[table.size() - 2], (std::vector<std::string>{"ROW", "STATE", "PID", "FIRST", "SECOND", "NAME"}));
  EXPECT_EQ(table.back(), (std::vector<std::string>{"0", "Live", pid, "10.0.0.1", "8080", name}));
}

TEST_F(CliInspectGcTest, InspectShowsStaleRecordsWithoutClearingThem) {
  auto publisher = publish("10.0.0.1", "8080");
  const pid_t pid = publisher->pid();
  publisher->signal(SIGKILL);
  ASSERT_EQ(publisher->wait(), 128 + SIGKILL);
  const std::string prefix = agent::spf::endpointregistry::groupPrefix(tag);

  for (int pass = 0; pass < 2; ++pass) {
    const json parsed = inspect();
    ASSERT_EQ(parsed["rows"].size(), 1u) << parsed;
    EXPECT_EQ(parsed["rows"][0]["state"], "Stale");
    EXPECT_EQ(parsed["rows"][0]["pid"], pid);
    EXPECT_FALSE(parsed["rows"][0].contains("data"));
    EXPECT_EQ(filesIn(user->scope(), prefix).size(), 1u);
  }

  const ToolRun gc = tool({"gc"});
  EXPECT_EQ(gc.exitCode, 0);
  EXPECT_EQ(gc.out, gcLine(1));
  EXPECT_EQ(inspect()["rows"], json::array());
  EXPECT_TRUE(filesIn(user->scope(), prefix).empty());
  EXPECT_EQ(tool({"gc"}).out, gcLine(0));
}

TEST_F(CliInspectGcTest, GcLeavesLiveRecordsAndCountsOnlyStaleOnes) {
  auto live = publish("live", "1");
  auto dead = publish("dead", "2");
  auto alsoDead = publish("gone", "3");
  dead->signal(SIGKILL);
  alsoDead->signal(SIGKILL);
  ASSERT_EQ(dead->wait(), 128 + SIGKILL);
  ASSERT_EQ(alsoDead->wait(), 128 + SIGKILL);

  EXPECT_EQ(tool({"gc", "--all-trustees"}).out, gcLine(2));
  const json rows = inspect()["rows"];
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["state"], "Live");
  EXPECT_EQ(rows[0]["pid"], live->pid());
  EXPECT_EQ(tool({"list"}).out, "FIRST  SECOND\nlive   1\n");
}

}  // namespace
}  // namespace er::test
