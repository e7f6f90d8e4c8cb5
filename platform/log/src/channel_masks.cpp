#include "channel_masks.hpp"

#include <charconv>
#include <mutex>
#include <stdexcept>

#include <foundation/log/diagnostic_logger.hpp>

namespace foundation::log::detail {
namespace {

struct MaskRegistry {
  std::mutex mutex;
  ChannelFilter filter;  // empty at load time: every channel silent
  std::map<std::string, std::shared_ptr<std::atomic<unsigned>>> masks;
};

MaskRegistry& registry() {
  // Never destroyed: loggers that are themselves statics may log during exit.
  static MaskRegistry* instance = new MaskRegistry;
  return *instance;
}

unsigned levelsFor(const ChannelFilter& filter, const std::string& channel) {
  auto found = filter.find(channel);
  return found == filter.end() ? 0u : found->second;
}

[[noreturn]] void malformed(const std::string& text, const std::string& why) {
  throw std::invalid_argument("Malformed channel filter \"" + text + "\": " + why);
}

unsigned parseLevels(const std::string& text, const std::string& levels) {
  if (levels == "all") return ~0u;
  if (levels == "none") return 0u;
  unsigned mask = 0;
  std::size_t start = 0;
  for (;;) {
    std::size_t bar = levels.find('|', start);
    std::string number = levels.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
    unsigned value = 0;
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (number.empty() || error != std::errc() || end != number.data() + number.size()) {
      malformed(text, "levels must be \"all\", \"none\" or '|'-separated decimal numbers, not \"" + levels + "\"");
    }
    mask |= value;
    if (bar == std::string::npos) return mask;
    start = bar + 1;
  }
}

}  // namespace

std::shared_ptr<std::atomic<unsigned>> channelMask(const std::string& channel) {
  MaskRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  auto& mask = r.masks[channel];
  if (!mask) mask = std::make_shared<std::atomic<unsigned>>(levelsFor(r.filter, channel));
  return mask;
}

void applyChannelFilter(const ChannelFilter& filter) {
  MaskRegistry& r = registry();
  std::lock_guard lock(r.mutex);
  r.filter = filter;
  for (auto& [channel, mask] : r.masks) mask->store(levelsFor(filter, channel), std::memory_order_relaxed);
}

ChannelFilter parseChannelFilter(const std::string& text) {
  ChannelFilter filter;
  std::size_t start = 0;
  while (start <= text.size() && !text.empty()) {
    std::size_t semicolon = text.find(';', start);
    std::string item = text.substr(start, semicolon == std::string::npos ? std::string::npos : semicolon - start);
    if (!item.empty()) {
      std::size_t equals = item.find('=');
      if (equals == std::string::npos) malformed(text, "\"" + item + "\" lacks '='");
      std::string channel = item.substr(0, equals);
      if (channel.empty()) malformed(text, "empty channel name");
      filter[channel] |= parseLevels(text, item.substr(equals + 1));
    }
    if (semicolon == std::string::npos) break;
    start = semicolon + 1;
  }
  return filter;
}

}  // namespace foundation::log::detail
