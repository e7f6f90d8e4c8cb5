#include <foundation/log/admin.hpp>

#include <sys/types.h>
#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>

#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/function.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/expressions/formatters/date_time.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/make_shared.hpp>

#include "channel_masks.hpp"

namespace foundation::log::local {
namespace {

namespace logging = boost::log;
namespace expr = boost::log::expressions;
using Sink = logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>;

// Attribute names private to this library, so a host that uses Boost.Log
// itself keeps its own attributes.
constexpr char timeAttribute[] = "FoundationLogTime";
constexpr char pidAttribute[] = "FoundationLogPid";
constexpr char tidAttribute[] = "FoundationLogTid";

// Level names by channel, replaced as a whole and read by every line.
using LevelNames = std::map<std::string, std::map<unsigned, std::string>>;
// Never destroyed: threads may still write lines while the process exits.
std::shared_ptr<const LevelNames>& levelNames() {
  static auto* const names = new std::shared_ptr<const LevelNames>(std::make_shared<const LevelNames>());
  return *names;
}

void formatRecord(const logging::record_view& record, logging::formatting_ostream& out) {
  const auto time = logging::extract<boost::posix_time::ptime>(timeAttribute, record);
  const auto pid = logging::extract<pid_t>(pidAttribute, record);
  const auto tid = logging::extract<pid_t>(tidAttribute, record);
  const auto channel = logging::extract<std::string>("Channel", record);
  const auto level = logging::extract<unsigned>("Severity", record);
  if (time) {
    const boost::gregorian::date day = time->date();
    const boost::posix_time::time_duration clock = time->time_of_day();
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06lld", static_cast<int>(day.year()),
                  static_cast<int>(day.month()), static_cast<int>(day.day()), static_cast<int>(clock.hours()),
                  static_cast<int>(clock.minutes()), static_cast<int>(clock.seconds()),
                  static_cast<long long>(clock.fractional_seconds() * 1'000'000 /
                                         boost::posix_time::time_duration::ticks_per_second()));
    out << text;
  }
  out << ' ' << pid << ':' << tid << ' ' << channel << ' ';
  const std::shared_ptr<const LevelNames> names = std::atomic_load(&levelNames());
  const auto ofChannel = channel ? names->find(*channel) : names->end();
  const auto name = ofChannel != names->end() && level ? ofChannel->second.find(*level)
                                                       : std::map<unsigned, std::string>::const_iterator();
  if (ofChannel != names->end() && level && name != ofChannel->second.end()) {
    out << name->second;
  } else {
    out << level;
  }
  out << ": " << record[expr::smessage];
}

boost::shared_ptr<Sink> makeSink(const std::string& name) {
  auto backend = boost::make_shared<logging::sinks::text_ostream_backend>();
  if (name == "stdout") {
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cout, boost::null_deleter()));
  } else if (name == "stderr") {
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, boost::null_deleter()));
  } else if (name.rfind("file:", 0) == 0) {
    std::string path = name.substr(5);
    if (path.empty()) throw std::invalid_argument("Malformed log sink \"" + name + "\": the file path is empty");
    auto file = boost::make_shared<std::ofstream>(path, std::ios::out | std::ios::app);
    if (!*file) throw std::invalid_argument("Log sink \"" + name + "\": cannot open the file for appending");
    backend->add_stream(file);
  } else if (name != "none") {
    throw std::invalid_argument("Unknown log sink \"" + name + "\": use stdout, stderr, none or file:<path>");
  }
  backend->auto_flush(true);

  auto sink = boost::make_shared<Sink>(backend);
  // Only records of this library's loggers, which all carry a channel and a
  // numeric level.
  sink->set_filter(expr::has_attr<std::string>("Channel") && expr::has_attr<unsigned>("Severity"));
  sink->set_formatter(&formatRecord);
  return sink;
}

}  // namespace

struct admin::state {
  std::mutex mutex;
  boost::shared_ptr<Sink> sink;
};

admin::admin() : state_(std::make_unique<state>()) {
  auto core = logging::core::get();
  core->add_global_attribute(timeAttribute, logging::attributes::local_clock());
  core->add_global_attribute(pidAttribute, logging::attributes::make_function([] { return getpid(); }));
  core->add_global_attribute(tidAttribute, logging::attributes::make_function([] { return gettid(); }));
  // Without any sink Boost.Log would print to the console on its own; the
  // "none" sink keeps the process quiet until a real sink is chosen.
  state_->sink = makeSink("none");
  core->add_sink(state_->sink);
}

admin::~admin() = default;

std::shared_ptr<admin> admin::get() {
  static std::shared_ptr<admin> instance(new admin);
  return instance;
}

void admin::setSink(const std::string& sink) {
  boost::shared_ptr<Sink> replacement = makeSink(sink);
  std::lock_guard lock(state_->mutex);
  auto core = logging::core::get();
  core->add_sink(replacement);
  if (state_->sink) {
    core->remove_sink(state_->sink);
    state_->sink->flush();
  }
  state_->sink = replacement;  // the previous sink, and its file, close here
}

void admin::setChannelFilter(const std::string& filter) {
  detail::applyChannelFilter(detail::parseChannelFilter(filter));
}

void admin::setLevelNames(const std::string& channel, const std::map<unsigned, std::string>& names) {
  std::lock_guard lock(state_->mutex);
  auto replacement = std::make_shared<LevelNames>(*std::atomic_load(&levelNames()));
  if (names.empty()) {
    replacement->erase(channel);
  } else {
    (*replacement)[channel] = names;
  }
  std::atomic_store(&levelNames(), std::shared_ptr<const LevelNames>(std::move(replacement)));
}

}  // namespace foundation::log::local
