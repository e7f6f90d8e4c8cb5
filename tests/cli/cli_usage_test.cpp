// The tool's command line: version, help, and the exit code 2 with a message
// on stderr for every kind of bad command line; exit code 1 with the
// library's message for a refused request.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tool_process.hpp"

namespace er::test {
namespace {

constexpr char moreInformation[] = "\nRun with --help for more information.\n";

TEST(CliUsageTest, VersionPrintsTheProjectVersion) {
  const ToolRun run = runTool({"--version"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, std::string("endpointregistry ") + ENDPOINTREGISTRY_VERSION + "\n");
  EXPECT_EQ(run.err, "");
}

TEST(CliUsageTest, HelpNamesEverySubcommandAndGlobalOption) {
  const ToolRun run = runTool({"--help"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out.rfind("Publish and discover endpoints in the shared-memory registry\nUsage: endpointregistry ", 0),
            0u)
      << run.out;
  for (const char* word : {"\n  list ", "\n  publish ", "\n  watch ", "\n  groups ", "\n  inspect ", "\n  gc ",
                           "--verbose", "--version"}) {
    EXPECT_NE(run.out.find(word), std::string::npos) << word;
  }
}

TEST(CliUsageTest, EverySubcommandHasHelp) {
  for (const char* command : {"list", "publish", "watch", "groups", "inspect", "gc"}) {
    const ToolRun run = runTool({command, "--help"});
    EXPECT_EQ(run.exitCode, 0) << command;
    EXPECT_NE(run.out.find(std::string("Usage: endpointregistry ") + command), std::string::npos) << run.out;
  }
}

TEST(CliUsageTest, MissingSubcommandIsAUsageError) {
  const ToolRun run = runTool({});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, std::string("endpointregistry: A subcommand is required") + moreInformation);
}

TEST(CliUsageTest, MistypedSubcommandIsNamedWithASuggestion) {
  const ToolRun run = runTool({"lst"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err,
            std::string("endpointregistry: unknown subcommand 'lst' (did you mean 'list'?)") + moreInformation);
  EXPECT_EQ(runTool({"-v", "pub", "a"}).err,
            std::string("endpointregistry: unknown subcommand 'pub' (did you mean 'publish'?)") + moreInformation);
  EXPECT_EQ(runTool({"WATCH"}).err,
            std::string("endpointregistry: unknown subcommand 'WATCH' (did you mean 'watch'?)") + moreInformation);
}

TEST(CliUsageTest, UnknownSubcommandListsTheSubcommands) {
  const ToolRun run = runTool({"bogus", "--group", "x"});
  EXPECT_EQ(run.exitCode, 2);
#ifdef ENDPOINTREGISTRY_TOOL_HAS_BRIDGE
  const std::string subcommands = "list, publish, watch, groups, inspect, gc, bridge";
#else
  const std::string subcommands = "list, publish, watch, groups, inspect, gc";
#endif
  EXPECT_EQ(run.err,
            "endpointregistry: unknown subcommand 'bogus' (the subcommands are " + subcommands + ")" + moreInformation);
}

TEST(CliUsageTest, HelpAsAWordIsHelp) {
  const ToolRun run = runTool({"help"});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, runTool({"--help"}).out);
}

TEST(CliUsageTest, UnknownGlobalOptionIsNamedWithASuggestion) {
  const ToolRun version = runTool({"-V"});
  EXPECT_EQ(version.exitCode, 2);
  EXPECT_EQ(version.err,
            std::string("endpointregistry: unknown option '-V' (did you mean '--version'?)") + moreInformation);
  EXPECT_EQ(runTool({"--verbos", "list"}).err,
            std::string("endpointregistry: unknown option '--verbos' (did you mean '--verbose'?)") + moreInformation);
  EXPECT_EQ(runTool({"--frobnicate"}).err,
            std::string("endpointregistry: unknown option '--frobnicate'") + moreInformation);
}

#ifdef ENDPOINTREGISTRY_TOOL_HAS_BRIDGE
TEST(CliUsageTest, BridgeNeedsAClusterATagAndAPasswordFileForAUser) {
  const ToolRun noCluster = runTool({"bridge", "--group", "web"});
  EXPECT_EQ(noCluster.exitCode, 2);
  EXPECT_EQ(noCluster.err, std::string("endpointregistry: --etcd is required") + moreInformation);
  EXPECT_EQ(runTool({"bridge", "--etcd", "http://127.0.0.1:1"}).err,
            std::string("endpointregistry: --group is required") + moreInformation);
  const ToolRun noPassword = runTool({"bridge", "--etcd", "http://127.0.0.1:1", "--group", "web", "--user", "u"});
  EXPECT_EQ(noPassword.exitCode, 2);
  EXPECT_EQ(noPassword.err, std::string("endpointregistry: --user requires --password-file") + moreInformation);
  EXPECT_EQ(runTool({"bridge", "--etcd", "http://127.0.0.1:1", "--group", "web", "--host", "a/b"}).err,
            "endpointregistry: error: bridge: invalid host name 'a/b'\n");
}
#endif

TEST(CliUsageTest, UnknownOptionIsAUsageError) {
  const ToolRun run = runTool({"list", "--bogus"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: unknown option '--bogus' for list") + moreInformation);
}

TEST(CliUsageTest, MistypedOptionIsNamedWithASuggestion) {
  EXPECT_EQ(
      runTool({"list", "--grup", "web"}).err,
      std::string("endpointregistry: unknown option '--grup' for list (did you mean '--group'?)") + moreInformation);
  EXPECT_EQ(
      runTool({"watch", "--jsn"}).err,
      std::string("endpointregistry: unknown option '--jsn' for watch (did you mean '--json'?)") + moreInformation);
  EXPECT_EQ(runTool({"list", "extra"}).err,
            std::string("endpointregistry: unexpected word 'extra' for list") + moreInformation);
}

TEST(CliUsageTest, ARepeatedSingleOptionNamesItsValues) {
  const ToolRun run = runTool({"list", "--group", "a", "--group", "b"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: --group given 2 times ('a', 'b'); it takes one") + moreInformation);
}

TEST(CliUsageTest, PublishNeedsAGroupTag) {
  const ToolRun run = runTool({"publish", "a", "b"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: --group is required") + moreInformation);
}

TEST(CliUsageTest, PublishNeedsBothDataStrings) {
  const ToolRun run = runTool({"publish", "a", "--group", "g"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: SECOND is required") + moreInformation);
}

TEST(CliUsageTest, TrusteeAndAllTrusteesExcludeEachOther) {
  const ToolRun run = runTool({"list", "--trustee", "adm", "--all-trustees"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: --trustee excludes --all-trustees") + moreInformation);
}

TEST(CliUsageTest, WatchIntervalMustBePositive) {
  const ToolRun run = runTool({"watch", "--interval", "0"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.err, std::string("endpointregistry: --interval: 0 is out of range (1 to 3600000 milliseconds)") +
                         moreInformation);
  EXPECT_EQ(runTool({"watch", "--interval", "abc"}).err,
            std::string("endpointregistry: --interval: 'abc' is not a whole number of milliseconds (1 to 3600000)") +
                moreInformation);
}

TEST(CliUsageTest, RefusedRequestExitsWithOneAndTheLibraryMessage) {
  const ToolRun run = runTool({"publish", "", "", "--group", "g"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "endpointregistry: error: Endpoint data strings cannot be both empty\n");
}

// Levels are written by name ("error", "refused"), not as bit values.
TEST(CliUsageTest, VerboseWritesTheLibraryDiagnosticsToStderr) {
  const ToolRun run = runTool({"--verbose", "publish", "", "", "--group", "g"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find(" agent::spf::endpointregistry error: Endpoint(): Data strings cannot be both empty.\n"),
            std::string::npos)
      << run.err;
  const ToolRun quiet = runTool({"publish", "", "", "--group", "g"});
  EXPECT_EQ(quiet.err.find("Endpoint(): Data strings cannot be both empty."), std::string::npos);
}

}  // namespace
}  // namespace er::test
