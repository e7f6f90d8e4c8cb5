// Diagnostic loggers: Boost.Log severity+channel loggers with a cheap level test.
//
// A basic_diagnostic_logger is made from a channel name. Its levels are bits
// (4, 16, 256, 512, ...); the set of enabled bits of a channel lives in one
// atomic mask that every logger of that channel shares and that
// local::admin::setChannelFilter() rewrites. isEnabled() is a single atomic
// load and bit test, so a disabled message costs nothing else. At load time
// every mask is empty: a library stays silent until its host turns
// diagnostics on through local::admin.
//
// Thread safety: a logger may be used from any number of threads at once
// (the underlying Boost.Log logger is the multi-threaded, read-write-locked one).
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <boost/log/sources/channel_feature.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

namespace foundation::log {

namespace detail {
// The shared mask of one channel, created on first request. Never returns null.
std::shared_ptr<std::atomic<unsigned>> channelMask(const std::string& channel);
}  // namespace detail

template <typename CharT>
class basic_diagnostic_logger
    : public boost::log::sources::severity_channel_logger_mt<unsigned, std::basic_string<CharT>> {
  using base_type = boost::log::sources::severity_channel_logger_mt<unsigned, std::basic_string<CharT>>;

 public:
  using char_type = CharT;

  // Makes a logger of the named channel; its enabled levels follow the
  // channel filter currently set, and every later change of it.
  explicit basic_diagnostic_logger(const std::basic_string<CharT>& channel)
      : base_type(boost::log::keywords::channel = channel), mask_(detail::channelMask(narrow(channel))) {}

  basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
  basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

  // True when bit `level` is in the channel's enabled set.
  bool isEnabled(unsigned level) const noexcept { return (mask_->load(std::memory_order_relaxed) & level) != 0; }

  // The enabled set of the channel as a whole.
  unsigned enabledLevels() const noexcept { return mask_->load(std::memory_order_relaxed); }

 private:
  static std::string narrow(const std::basic_string<CharT>& text) { return std::string(text.begin(), text.end()); }

  std::shared_ptr<std::atomic<unsigned>> mask_;
};

using diagnostic_logger = basic_diagnostic_logger<char>;

// The enabled levels of one channel, without a logger: the same shared mask
// that the channel's loggers test, for code that tests levels often and
// makes its logger only once something is to be written (making the first
// logger of a process sets up Boost.Log, which a silent process never needs).
class channel_levels {
 public:
  explicit channel_levels(const std::string& channel) : mask_(detail::channelMask(channel)) {}

  // True when bit `level` is in the channel's enabled set.
  bool isEnabled(unsigned level) const noexcept { return (mask_->load(std::memory_order_relaxed) & level) != 0; }

 private:
  std::shared_ptr<std::atomic<unsigned>> mask_;
};

}  // namespace foundation::log
