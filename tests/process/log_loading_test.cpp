// The logging library loads Boost.Log (its back end module) only once
// diagnostics are switched on: a process whose diagnostics stay off never
// maps it, whatever it publishes, lists or fails at. Each test runs its
// body in a forked child, which starts with nothing loaded as long as this
// test process has loaded nothing.
#include <gtest/gtest.h>

#include <unistd.h>
#include <fstream>
#include <stdexcept>
#include <string>

#include <endpointregistry/endpoint.hpp>
#include <foundation/log/admin.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/log/log_message.hpp>

#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace {

using agent::spf::endpointregistry::Endpoint;
using foundation::log::local::admin;

using er::test::mappedHere;

bool boostLogLoaded() { return mappedHere("libboost_log") || mappedHere("libfoundation_log_boost"); }

// Runs `body` in a forked child; its gtest failures end the child with 1.
template <class Body>
void inChild(const Body& body) {
  ASSERT_FALSE(boostLogLoaded()) << "this test process has loaded Boost.Log already";
  const std::optional<int> code = er::test::runInChild([&body](er::test::ChildProcess&) {
    body();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(code, 0);
}

TEST(LogLoading, ASilentProcessNeverLoadsBoostLog) {
  inChild([] {
    ASSERT_FALSE(boostLogLoaded());
    const std::string tag = er::test::uniqueName("erLogSilent");
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
  });
}

TEST(LogLoading, ChoosingASinkLoadsTheBackEnd) {
  inChild([] {
    ASSERT_FALSE(boostLogLoaded());
    admin::get()->setSink("stderr");
    EXPECT_TRUE(mappedHere("libfoundation_log_boost"));
    EXPECT_TRUE(mappedHere("libboost_log"));
    admin::get()->setSink("none");
  });
}

TEST(LogLoading, TheFirstRecordOfAnEnabledLevelLoadsTheBackEnd) {
  inChild([] {
    ASSERT_FALSE(boostLogLoaded());
    const std::string channel = er::test::uniqueName("erLogFirst");
    foundation::log::diagnostic_logger logger(channel);
    admin::get()->setChannelFilter(channel + "=512");
    foundation::log::logMessage(logger, 4, "not enabled");
    EXPECT_FALSE(boostLogLoaded());
    foundation::log::logMessage(logger, 512, "enabled");
    EXPECT_TRUE(boostLogLoaded());
    admin::get()->setChannelFilter("");
  });
}

TEST(LogLoading, LinesWrittenAfterLoadingReadAsBefore) {
  inChild([] {
    const std::string tag = er::test::uniqueName("erLogLines");
    er::test::LogCapture capture("agent::spf::endpointregistry=512");
    EXPECT_THROW(Endpoint({"", ""}, tag), std::invalid_argument);
    EXPECT_EQ(capture.messages(), std::vector<std::string>{"Endpoint(): Data strings cannot be both empty."});
  });
}

}  // namespace
