// publish and list in real processes: a publisher in the background, listings
// in the foreground, and withdrawal on SIGINT and SIGTERM.
#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>

#include "directory/segment_names.hpp"
#include "support/shm_files.hpp"
#include "tool_test.hpp"

namespace er::test {
namespace {

using nlohmann::json;

class CliPublishListTest : public ToolTest {
 protected:
  // Starts `publish first second --group tag` and waits for its live line.
  std::unique_ptr<ToolProcess> publish(const std::string& first, const std::string& second, const std::string& group) {
    auto publisher = start({"publish", first, second, "--group", group});
    const std::optional<std::string> line = publisher->readLine();
    EXPECT_EQ(line, "live: " + first + " " + second + " (group " + group + ")") << publisher->errors();
    return publisher;
  }

  // The record segments of `group` in the user's own scope.
  std::set<std::string> recordFiles(const std::string& group) {
    return filesIn(scope(), agent::spf::endpointregistry::groupPrefix(group));
  }

  std::string tag = newTag("cliPub");
  std::string otherTag = newTag("cliPubOther");
};

TEST_F(CliPublishListTest, PublishedEndpointIsListedAsATable) {
  auto publisher = publish("10.0.0.1", "8080", tag);
  const ToolRun run = tool({"list", "--group", tag});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "FIRST     SECOND\n10.0.0.1  8080\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(CliPublishListTest, JsonListIsSortedArrayOfPairs) {
  auto second = publish("b", "2", tag);
  auto first = publish("a", "1", tag);
  const ToolRun run = tool({"list", "--group", tag, "--json"});
  ASSERT_EQ(run.exitCode, 0);
  const json parsed = json::parse(run.out);
  EXPECT_EQ(parsed, json::parse(R"([{"first": "a", "second": "1"}, {"first": "b", "second": "2"}])"));
  // Into a pipe, compact unless asked otherwise.
  EXPECT_EQ(run.out, R"([{"first":"a","second":"1"},{"first":"b","second":"2"}])"
                     "\n");
  EXPECT_EQ(tool({"list", "--group", tag, "--json=short"}).out, run.out);
  EXPECT_EQ(tool({"list", "--group", tag, "--json=pretty"}).out,
            "[\n  {\n    \"first\": \"a\",\n    \"second\": \"1\"\n  },\n  {\n    \"first\": \"b\",\n    "
            "\"second\": \"2\"\n  }\n]\n");
}

TEST_F(CliPublishListTest, GroupOptionSelectsOneGroupTag) {
  auto one = publish("one", "1", tag);
  auto two = publish("two", "2", otherTag);
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST  SECOND\none    1\n");
  EXPECT_EQ(tool({"list", "--group", otherTag}).out, "FIRST  SECOND\ntwo    2\n");
  const json all = json::parse(tool({"list", "--json"}).out);
  EXPECT_NE(std::find(all.begin(), all.end(), json{{"first", "one"}, {"second", "1"}}), all.end()) << all;
  EXPECT_NE(std::find(all.begin(), all.end(), json{{"first", "two"}, {"second", "2"}}), all.end()) << all;
}

TEST_F(CliPublishListTest, ExitStatusSaysWhetherAnythingWasFound) {
  const ToolRun none = tool({"list", "--group", tag, "--exit-status"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_EQ(none.out, "FIRST  SECOND\n");
  EXPECT_EQ(tool({"list", "--group", tag}).exitCode, 0);
  EXPECT_EQ(tool({"list", "--group", tag, "--json", "--exit-status"}).exitCode, 3);

  auto publisher = publish("x", "y", tag);
  EXPECT_EQ(tool({"list", "--group", tag, "--exit-status"}).exitCode, 0);
}

TEST_F(CliPublishListTest, SigintWithdrawsTheEndpoint) {
  auto publisher = publish("10.0.0.1", "8080", tag);
  EXPECT_EQ(recordFiles(tag).size(), 1u);
  publisher->signal(SIGINT);
  EXPECT_EQ(publisher->readLine(), "withdrawn: 10.0.0.1 8080");
  EXPECT_EQ(publisher->wait(), 0);
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST  SECOND\n");
  EXPECT_TRUE(recordFiles(tag).empty());
}

TEST_F(CliPublishListTest, SigtermWithdrawsTheEndpoint) {
  auto publisher = publish("10.0.0.1", "8080", tag);
  publisher->signal(SIGTERM);
  EXPECT_EQ(publisher->readLine(), "withdrawn: 10.0.0.1 8080");
  EXPECT_EQ(publisher->wait(), 0);
  EXPECT_EQ(tool({"list", "--group", tag, "--exit-status"}).exitCode, 3);
  EXPECT_TRUE(recordFiles(tag).empty());
}

// Closing the terminal (SIGHUP) withdraws as SIGINT does, and a reader of
// the output that went before makes no difference (no death by SIGPIPE).
TEST_F(CliPublishListTest, SighupWithdrawsEvenAfterTheReaderWent) {
  auto publisher = publish("10.0.0.1", "8080", tag);
  publisher->closeOutput();
  publisher->signal(SIGHUP);
  EXPECT_EQ(publisher->wait(), 0);
  EXPECT_EQ(publisher->errors(), "");
  EXPECT_EQ(tool({"list", "--group", tag, "--exit-status"}).exitCode, 3);
  EXPECT_TRUE(recordFiles(tag).empty());
}

TEST_F(CliPublishListTest, DuplicateIsRefusedWithTheLibraryMessage) {
  auto publisher = publish("10.0.0.1", "8080", tag);
  const ToolRun duplicate = tool({"publish", "10.0.0.1", "8080", "--group", tag});
  EXPECT_EQ(duplicate.exitCode, 1);
  EXPECT_EQ(duplicate.out, "");
  EXPECT_EQ(duplicate.err, "endpointregistry: error: endpoint 10.0.0.1 8080 (group " + tag +
                               ") is already published by process " + std::to_string(publisher->pid()) +
                               ": Endpoint already exists in registry\n");
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST     SECOND\n10.0.0.1  8080\n");
}

// The user's groups as the refusals list them.
std::string yourGroups(const std::string& groupsOutput) {
  if (groupsOutput.empty()) return "you have no supplementary groups, and only those can be trustees";
  std::string text = "your groups: ";
  std::istringstream lines(groupsOutput);
  std::string line;
  for (bool first = true; std::getline(lines, line); first = false) text += (first ? "" : ", ") + line;
  return text;
}

TEST_F(CliPublishListTest, TrusteeThatIsNoGroupOfTheUserIsRefusedByName) {
  const std::string name = uniqueName("noSuchGroup");
  const ToolRun run = tool({"publish", "a", "b", "--group", tag, "--trustee", name});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  const std::string groups = yourGroups(tool({"groups"}).out);
  EXPECT_EQ(run.err, "endpointregistry: error: trustee '" + name + "': no such group (" + groups + ")\n");
  const ToolRun listing = tool({"list", "--trustee", name});
  EXPECT_EQ(listing.exitCode, 1);
  EXPECT_EQ(listing.out, "");
  EXPECT_EQ(listing.err, run.err);
  EXPECT_EQ(tool({"inspect", "--trustee", name}).err, run.err);
  EXPECT_EQ(tool({"list", "--group", tag, "--exit-status"}).exitCode, 3);
  EXPECT_TRUE(recordFiles(tag).empty());
}

// The long form: one line per record, with who published it, where, under
// which tag (its hash when no --group names it) and since when.
TEST_F(CliPublishListTest, LongFormShowsEachRecord) {
  auto one = publish("10.0.0.1", "8080", tag);
  auto two = publish("10.0.0.1", "8080", otherTag);
  const ToolRun table = tool({"list", "-l", "--group", tag});
  EXPECT_EQ(table.exitCode, 0);
  const std::regex row(
      R"(FIRST     SECOND  PID +TRUSTEE  GROUP +AGE\n10\.0\.0\.1  8080    (\d+) +\(own\)    (\S+) +\d+m?s\n)");
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(table.out, parts, row)) << table.out;
  EXPECT_EQ(parts[1], std::to_string(one->pid()));
  EXPECT_EQ(parts[2], tag);

  const json records = json::parse(tool({"list", "--long", "--json"}).out);
  std::map<std::string, json> byHash;
  for (const json& record : records) {
    if (record["first"] == "10.0.0.1") byHash[record["group_hash"].get<std::string>()] = record;
  }
  ASSERT_EQ(byHash.size(), 2u) << records;
  const json& first = byHash.at(agent::spf::endpointregistry::hashText(tag));
  EXPECT_EQ(first["pid"], one->pid());
  EXPECT_EQ(first["trustee"], "");
  EXPECT_EQ(first["second"], "8080");
  EXPECT_GE(first["age_seconds"].get<double>(), 0.0);
  EXPECT_TRUE(std::regex_match(first["published_at"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)")));
  EXPECT_EQ(byHash.at(agent::spf::endpointregistry::hashText(otherTag))["pid"], two->pid());
  // The short form shows the pair once.
  EXPECT_EQ(tool({"list", "--group", tag, "--no-legend"}).out, "10.0.0.1  8080\n");
}

TEST_F(CliPublishListTest, EmptyStringIsShownAsQuotes) {
  auto publisher = start({"publish", "", "only", "--group", tag});
  EXPECT_EQ(publisher->readLine(), "live: \"\" only (group " + tag + ")");
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST  SECOND\n\"\"     only\n");
  EXPECT_EQ(json::parse(tool({"list", "--group", tag, "--json"}).out),
            json::parse(R"([{"first": "", "second": "only"}])"));
}

}  // namespace
}  // namespace er::test
