// The library's channels, levels and message emission.
#include <gtest/gtest.h>

#include <boost/log/core/core.hpp>

#include <foundation/log/admin.hpp>

#include "diagnostics/diagnostics.hpp"
#include "support/log_capture.hpp"

namespace agent::spf::endpointregistry {
namespace {

// Counts how often it is written to a stream.
struct CountingPiece {
  int* writes;
};
std::ostream& operator<<(std::ostream& out, const CountingPiece& piece) {
  ++*piece.writes;
  return out << "counted";
}

TEST(Diagnostics, ChannelNamesAndDirectoryName) {
  EXPECT_EQ(registryDirectoryName, "qzEndpointRegistry");
  er::test::LogCapture capture(
      "agent::spf::endpointregistry=512;"
      "detail::agent::spf::endpointregistry::endpointmoveanddestruction=4");
  logMessage(mainLogger(), Error, "main");
  logMessage(lifetimeLogger(), LifetimeTrace, "lifetime");
  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].channel, "agent::spf::endpointregistry");
  EXPECT_EQ(records[0].level, 512u);
  EXPECT_EQ(records[0].message, "main");
  EXPECT_EQ(records[1].channel, "detail::agent::spf::endpointregistry::endpointmoveanddestruction");
  EXPECT_EQ(records[1].level, 4u);
  EXPECT_EQ(records[1].message, "lifetime");
}

TEST(Diagnostics, LevelsAreTheDocumentedBits) {
  EXPECT_EQ(LifetimeTrace, 4u);
  EXPECT_EQ(CaughtException, 16u);
  EXPECT_EQ(RefusedRequest, 256u);
  EXPECT_EQ(Error, 512u);
}

TEST(Diagnostics, PiecesAreWrittenBackToBackWithDecimalNumbers) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  logMessage(mainLogger(), Error, "Endpoint::getState ", std::string("Mutex in undesired state. "), "(Mutex state ",
             -22, ")", 130u, 'x');
  auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0], "Endpoint::getState Mutex in undesired state. (Mutex state -22)130x");
}

TEST(Diagnostics, DisabledLevelFormatsNothing) {
  er::test::LogCapture capture("agent::spf::endpointregistry=512");
  int writes = 0;
  logMessage(mainLogger(), RefusedRequest, CountingPiece{&writes});
  EXPECT_EQ(writes, 0);
  logMessage(mainLogger(), Error, CountingPiece{&writes});
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"counted"});
}

TEST(Diagnostics, NothingIsEmittedWhenTheCoreIsDisabled) {
  er::test::LogCapture capture("agent::spf::endpointregistry=all");
  boost::log::core::get()->set_logging_enabled(false);
  int writes = 0;
  logMessage(mainLogger(), Error, CountingPiece{&writes});
  boost::log::core::get()->set_logging_enabled(true);
  EXPECT_EQ(writes, 0);
  EXPECT_TRUE(capture.messages().empty());
}

TEST(Diagnostics, CaughtExceptionTextIsBoostsVerboseDiagnostic) {
  er::test::LogCapture capture("agent::spf::endpointregistry=16");
  try {
    throw std::runtime_error("boom");
  } catch (...) {
    logCaughtException(mainLogger());
  }
  auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].rfind("Exception caught: ", 0), 0u);
  EXPECT_NE(messages[0].find("boom"), std::string::npos);
}

TEST(Diagnostics, EnableAndDisableSwitchBothLibrariesChannels) {
  DiagnosticLogger sharedMemoryChannel("agent::spf::sharedmemory");
  enableDiagnostics();
  EXPECT_EQ(mainLogger().enabledLevels(), ~0u);
  EXPECT_EQ(sharedMemoryChannel.enabledLevels(), ~0u);
  EXPECT_EQ(lifetimeLogger().enabledLevels(), 0u);
  disableDiagnostics();
  EXPECT_EQ(mainLogger().enabledLevels(), 0u);
  EXPECT_EQ(sharedMemoryChannel.enabledLevels(), 0u);
  foundation::log::local::admin::get()->setSink("none");
}

}  // namespace
}  // namespace agent::spf::endpointregistry
