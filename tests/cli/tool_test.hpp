// The fixture of the tool's end-to-end tests. As root, every run of the tool
// is made as a temporary user, so the test has a registry of its own: other
// processes on the machine can neither disturb its listings nor hold up its
// directory, and every listing is exact. As any other user, the tool runs as
// that user, in the user's shared registry under unique group tags, and the
// test's records are removed by group tag at the end.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "isolated_user.hpp"
#include "support/registry_cleanup.hpp"
#include "tool_process.hpp"

namespace er::test {

class ToolTest : public ::testing::Test {
 protected:
  ToolTest();

  // A group tag no other test uses.
  std::string newTag(const std::string& stem);

  // Who the tool runs as: the temporary user, or nothing (the test's user).
  std::optional<Identity> identity() const;
  // The /dev/shm scope of that user's own records.
  std::string scope() const;

  ToolRun tool(const std::vector<std::string>& arguments) const { return runTool(arguments, identity()); }
  std::unique_ptr<ToolProcess> start(const std::vector<std::string>& arguments) const {
    return std::make_unique<ToolProcess>(arguments, identity());
  }

 private:
  std::unique_ptr<IsolatedUser> user_;
  std::vector<std::unique_ptr<RegistryCleanup>> cleanups_;
};

}  // namespace er::test
