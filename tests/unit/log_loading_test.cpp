// The logging library loads Boost.Log (its back end module) only once
// diagnostics are switched on: a process whose diagnostics stay off never
// maps it, whatever it publishes, lists or fails at. Each test runs in a
// process of its own, so each starts with nothing loaded.
#include <gtest/gtest.h>

#include <unistd.h>
#include <fstream>
#include <stdexcept>
#include <string>

#include <endpointregistry/endpoint.hpp>
#include <foundation/log/admin.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/log/log_message.hpp>

#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"

namespace {

using agent::spf::endpointregistry::Endpoint;
using foundation::log::local::admin;

// True when a file whose name contains `part` is mapped into this process.
bool mapped(const std::string& part) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(part) != std::string::npos) return true;
  }
  return false;
}

bool boostLogLoaded() { return mapped("libboost_log") || mapped("libfoundation_log_boost"); }

std::string uniqueTag(const char* stem) { return std::string(stem) + std::to_string(getpid()); }

TEST(LogLoading, ASilentProcessNeverLoadsBoostLog) {
  ASSERT_FALSE(boostLogLoaded());
  const std::string tag = uniqueTag("erLogSilent");
  er::test::RegistryCleanup cleanup(tag);
  {
    Endpoint endpoint({"10.0.0.1", "80"}, tag);
    EXPECT_EQ(Endpoint::filter(tag).size(), 1u);
    EXPECT_THROW(Endpoint({"", ""}, tag), std::invalid_argument);  // logs at a disabled level
  }
  admin::get()->setSink("none");
  admin::get()->setChannelFilter("");
  foundation::log::diagnostic_logger logger("erLogSilent");
  foundation::log::logMessage(logger, 512, "not enabled");
  EXPECT_FALSE(boostLogLoaded());
}

TEST(LogLoading, ChoosingASinkLoadsTheBackEnd) {
  ASSERT_FALSE(boostLogLoaded());
  admin::get()->setSink("stderr");
  EXPECT_TRUE(mapped("libfoundation_log_boost"));
  EXPECT_TRUE(mapped("libboost_log"));
  admin::get()->setSink("none");
}

TEST(LogLoading, TheFirstRecordOfAnEnabledLevelLoadsTheBackEnd) {
  ASSERT_FALSE(boostLogLoaded());
  const std::string channel = uniqueTag("erLogFirst");
  foundation::log::diagnostic_logger logger(channel);
  admin::get()->setChannelFilter(channel + "=512");
  foundation::log::logMessage(logger, 4, "not enabled");
  EXPECT_FALSE(boostLogLoaded());
  foundation::log::logMessage(logger, 512, "enabled");
  EXPECT_TRUE(boostLogLoaded());
  admin::get()->setChannelFilter("");
}

TEST(LogLoading, LinesWrittenAfterLoadingReadAsBefore) {
  const std::string tag = uniqueTag("erLogLines");
  er::test::LogCapture capture("agent::spf::endpointregistry=512");
  EXPECT_THROW(Endpoint({"", ""}, tag), std::invalid_argument);
  EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint(): Data strings cannot be both empty."});
}

}  // namespace
