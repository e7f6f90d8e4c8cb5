#include "tool_test.hpp"

#include "support/shm_files.hpp"
#include "support/system_accounts.hpp"

namespace er::test {

ToolTest::ToolTest() {
  if (runningAsRoot()) user_ = std::make_unique<IsolatedUser>();
}

std::string ToolTest::newTag(const std::string& stem) {
  std::string tag = uniqueName(stem);
  if (!user_) cleanups_.push_back(std::make_unique<RegistryCleanup>(tag));
  return tag;
}

std::optional<Identity> ToolTest::identity() const {
  if (!user_) return std::nullopt;
  return user_->identity();
}

std::string ToolTest::scope() const { return user_ ? user_->scope() : userScope(); }

}  // namespace er::test
