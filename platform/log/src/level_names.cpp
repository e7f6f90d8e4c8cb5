#include "level_names.hpp"

#include <atomic>
#include <mutex>

namespace foundation::log::detail {
namespace {

struct NamesSlot {
  std::mutex writer;
  std::shared_ptr<const LevelNames> names = std::make_shared<const LevelNames>();
};

// Never destroyed: threads may still write lines while the process exits.
NamesSlot& slot() {
  static auto* const instance = new NamesSlot;
  return *instance;
}

}  // namespace

std::shared_ptr<const LevelNames> levelNames() { return std::atomic_load(&slot().names); }

void setLevelNames(const std::string& channel, const std::map<unsigned, std::string>& names) {
  NamesSlot& s = slot();
  std::lock_guard lock(s.writer);
  auto replacement = std::make_shared<LevelNames>(*std::atomic_load(&s.names));
  if (names.empty()) {
    replacement->erase(channel);
  } else {
    (*replacement)[channel] = names;
  }
  std::atomic_store(&s.names, std::shared_ptr<const LevelNames>(std::move(replacement)));
}

}  // namespace foundation::log::detail
