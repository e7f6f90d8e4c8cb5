// The logging library: channel filters, sinks and the line layout.
#include <gtest/gtest.h>

#include <unistd.h>
#include <fstream>
#include <regex>
#include <stdexcept>

#include <foundation/log/admin.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include "support/log_capture.hpp"

namespace {

using foundation::log::diagnostic_logger;
using foundation::log::local::admin;

void emit(diagnostic_logger& logger, unsigned level, const std::string& text) {
  ASSERT_TRUE(logger.acceptsRecords());
  logger.write(level, text);
}

std::string uniqueChannel(const char* stem) { return std::string(stem) + std::to_string(getpid()); }

TEST(FoundationLog, ChannelsAreSilentUntilAFilterEnablesThem) {
  diagnostic_logger logger(uniqueChannel("silent"));
  EXPECT_FALSE(logger.isEnabled(512));
  EXPECT_EQ(logger.enabledLevels(), 0u);
}

TEST(FoundationLog, FilterAppliesToLoggersMadeBeforeAndAfterIt) {
  const std::string channel = uniqueChannel("before");
  diagnostic_logger before(channel);
  admin::get()->setChannelFilter(channel + "=512|256");
  diagnostic_logger after(channel);
  EXPECT_TRUE(before.isEnabled(512));
  EXPECT_TRUE(before.isEnabled(256));
  EXPECT_FALSE(before.isEnabled(16));
  EXPECT_EQ(after.enabledLevels(), 768u);
  admin::get()->setChannelFilter("");
  EXPECT_EQ(before.enabledLevels(), 0u);
  EXPECT_EQ(after.enabledLevels(), 0u);
}

TEST(FoundationLog, ChannelLevelsFollowTheFilterLikeTheChannelsLoggers) {
  const std::string channel = uniqueChannel("levels");
  const foundation::log::channel_levels levels(channel);
  EXPECT_FALSE(levels.isEnabled(512));
  admin::get()->setChannelFilter(channel + "=512");
  const diagnostic_logger logger(channel);
  EXPECT_TRUE(levels.isEnabled(512));
  EXPECT_FALSE(levels.isEnabled(256));
  EXPECT_EQ(logger.enabledLevels(), 512u);
  admin::get()->setChannelFilter(uniqueChannel("other") + "=all");
  EXPECT_FALSE(levels.isEnabled(512));
  admin::get()->setChannelFilter("");
}

TEST(FoundationLog, AllAndNoneSelectEveryLevelOrNone) {
  const std::string a = uniqueChannel("a");
  const std::string b = uniqueChannel("b");
  diagnostic_logger first(a);
  diagnostic_logger second(b);
  admin::get()->setChannelFilter(a + "=all;" + b + "=none");
  EXPECT_EQ(first.enabledLevels(), ~0u);
  EXPECT_EQ(second.enabledLevels(), 0u);
  admin::get()->setChannelFilter("");
}

TEST(FoundationLog, MalformedFilterThrowsAndChangesNothing) {
  const std::string channel = uniqueChannel("keep");
  diagnostic_logger logger(channel);
  admin::get()->setChannelFilter(channel + "=4");
  for (const std::string bad : {"x", "=512", "x=", "x=12a", "x=512||256", "x=-1", "x=al"}) {
    EXPECT_THROW(admin::get()->setChannelFilter(bad), std::invalid_argument) << bad;
    EXPECT_EQ(logger.enabledLevels(), 4u) << bad;
  }
  admin::get()->setChannelFilter("");
}

TEST(FoundationLog, MalformedSinkThrows) {
  EXPECT_THROW(admin::get()->setSink("printer"), std::invalid_argument);
  EXPECT_THROW(admin::get()->setSink("file:"), std::invalid_argument);
  EXPECT_THROW(admin::get()->setSink("file:/nonexistent-folder/x.log"), std::invalid_argument);
}

TEST(FoundationLog, RecordIsOneLineInTheDocumentedLayout) {
  const std::string channel = uniqueChannel("layout");
  er::test::LogCapture capture(channel + "=all");
  diagnostic_logger logger(channel);
  emit(logger, 512, "text: with colon");
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::string expected =
      std::to_string(getpid()) + ":" + std::to_string(gettid()) + " " + channel + " 512: text: with colon";
  std::regex layout(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} (.*)$)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[0], match, layout)) << lines[0];
  EXPECT_EQ(match[1].str(), expected);
}

// Named levels replace the numbers of their channel only, and only while named.
TEST(FoundationLog, NamedLevelsAreWrittenByName) {
  const std::string channel = uniqueChannel("named");
  const std::string other = uniqueChannel("unnamed");
  er::test::LogCapture capture(channel + "=all;" + other + "=all");
  admin::get()->setLevelNames(channel, {{512, "error"}, {256, "refused"}});
  diagnostic_logger logger(channel);
  diagnostic_logger otherLogger(other);
  emit(logger, 512, "bad");
  emit(logger, 4, "unnamed level");
  emit(otherLogger, 512, "other channel");
  admin::get()->setLevelNames(channel, {});
  emit(logger, 512, "numbers again");
  const auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 4u);
  const std::regex layout(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6} \d+:\d+ (.*)$)");
  std::vector<std::string> rest;
  for (const std::string& line : lines) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, layout)) << line;
    rest.push_back(match[1].str());
  }
  EXPECT_EQ(rest, (std::vector<std::string>{channel + " error: bad", channel + " 4: unnamed level",
                                            other + " 512: other channel", channel + " 512: numbers again"}));
}

TEST(FoundationLog, FileSinkAppendsAndClosesWhenReplaced) {
  const std::string channel = uniqueChannel("file");
  const std::string path = "/tmp/er-foundation-log-" + std::to_string(getpid()) + ".txt";
  {
    std::ofstream existing(path);
    existing << "earlier line\n";
  }
  admin::get()->setSink("file:" + path);
  admin::get()->setChannelFilter(channel + "=16");
  diagnostic_logger logger(channel);
  emit(logger, 16, "first");
  admin::get()->setSink("none");
  emit(logger, 16, "dropped");
  admin::get()->setChannelFilter("");
  std::ifstream in(path);
  std::string first;
  std::string second;
  std::string third;
  std::getline(in, first);
  std::getline(in, second);
  EXPECT_EQ(first, "earlier line");
  EXPECT_NE(second.find(" 16: first"), std::string::npos) << second;
  EXPECT_FALSE(std::getline(in, third));
  std::remove(path.c_str());
}

}  // namespace
