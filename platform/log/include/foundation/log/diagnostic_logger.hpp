// Diagnostic loggers: severity+channel loggers with a cheap level test.
//
// A basic_diagnostic_logger is made from a channel name. Its levels are bits
// (4, 16, 256, 512, ...); the set of enabled bits of a channel lives in one
// atomic mask that every logger of that channel shares and that
// local::admin::setChannelFilter() rewrites. isEnabled() is a single atomic
// load and bit test, so a disabled message costs nothing else. At load time
// every mask is empty: a library stays silent until its host turns
// diagnostics on through local::admin.
//
// Records go through Boost.Log: under each channel sits a Boost.Log
// severity_channel_logger_mt (attributes "Channel" and "Severity") of the
// process's logging core. That part, with Boost.Log itself, lives in a back
// end module (libfoundation_log_boost) that is loaded on first need: when a
// sink is chosen through local::admin, or when a logger first writes a
// record of an enabled level. A process whose diagnostics stay off never
// loads it.
//
// Thread safety: a logger may be used from any number of threads at once.
#pragma once

#include <atomic>
#include <memory>
#include <string>

namespace foundation::log {

namespace detail {
// The shared mask of one channel, created on first request. Never returns null.
std::shared_ptr<std::atomic<unsigned>> channelMask(const std::string& channel);

// The back end's logger of one channel, shared by all loggers of that
// channel and never destroyed. Loads the back end on first call; null when
// it cannot be loaded (records are then dropped).
void* backEndLogger(const std::string& channel) noexcept;

// True when the back end is loaded and its logging core accepts records.
bool backEndAccepts() noexcept;

// Writes `text` as one record of `level` through `logger` (from
// backEndLogger): opens a record, which the core may filter out (then
// nothing happens), writes the text into it and pushes it.
// Throws what Boost.Log throws (std::bad_alloc, say).
void backEndWrite(void* logger, unsigned level, const std::string& text);
}  // namespace detail

template <typename CharT>
class basic_diagnostic_logger {
 public:
  using char_type = CharT;

  // Makes a logger of the named channel; its enabled levels follow the
  // channel filter currently set, and every later change of it. Loads
  // nothing.
  explicit basic_diagnostic_logger(const std::basic_string<CharT>& channel)
      : channel_(narrow(channel)), mask_(detail::channelMask(channel_)) {}

  basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
  basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

  // True when bit `level` is in the channel's enabled set.
  bool isEnabled(unsigned level) const noexcept { return (mask_->load(std::memory_order_relaxed) & level) != 0; }

  // The enabled set of the channel as a whole.
  unsigned enabledLevels() const noexcept { return mask_->load(std::memory_order_relaxed); }

  // True when a record written now would reach the logging core: the back
  // end is loaded (this call loads it on first need) and the core's logging
  // is enabled. Does not look at the level; test isEnabled() first.
  bool acceptsRecords() noexcept { return backEnd() != nullptr && detail::backEndAccepts(); }

  // Writes `text` as one record of `level` (see detail::backEndWrite);
  // nothing when the back end cannot be loaded.
  void write(unsigned level, const std::string& text) {
    if (void* logger = backEnd()) detail::backEndWrite(logger, level, text);
  }

 private:
  static std::string narrow(const std::basic_string<CharT>& text) { return std::string(text.begin(), text.end()); }

  void* backEnd() noexcept {
    void* logger = backEnd_.load(std::memory_order_acquire);
    if (logger == nullptr) {
      // Every thread that races here gets the channel's one back-end logger.
      logger = detail::backEndLogger(channel_);
      backEnd_.store(logger, std::memory_order_release);
    }
    return logger;
  }

  std::string channel_;
  std::shared_ptr<std::atomic<unsigned>> mask_;
  std::atomic<void*> backEnd_{nullptr};
};

using diagnostic_logger = basic_diagnostic_logger<char>;

// The enabled levels of one channel, without a logger: the same shared mask
// that the channel's loggers test.
class channel_levels {
 public:
  explicit channel_levels(const std::string& channel) : mask_(detail::channelMask(channel)) {}

  // True when bit `level` is in the channel's enabled set.
  bool isEnabled(unsigned level) const noexcept { return (mask_->load(std::memory_order_relaxed) & level) != 0; }

 private:
  std::shared_ptr<std::atomic<unsigned>> mask_;
};

}  // namespace foundation::log
