// The Boost.Log back end of the logging library, loaded on first need.
//
// On load it adds the library's attributes (local time, pid, tid) to the
// process's logging core and a "none" sink (without any sink Boost.Log would
// print to the console on its own). Each channel gets one
// severity_channel_logger_mt, made on first request and never destroyed.
#include <sys/types.h>
#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/function.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/make_shared.hpp>

#include "back_end.hpp"
#include "level_names.hpp"

namespace foundation::log::detail {
namespace {

namespace logging = boost::log;
namespace expr = boost::log::expressions;
using Sink = logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>;
using Logger = logging::sources::severity_channel_logger_mt<unsigned, std::string>;

// Attribute names private to this library, so a host that uses Boost.Log
// itself keeps its own attributes.
constexpr char timeAttribute[] = "FoundationLogTime";
constexpr char pidAttribute[] = "FoundationLogPid";
constexpr char tidAttribute[] = "FoundationLogTid";

// The level names of the library that loaded this module.
std::shared_ptr<const LevelNames> (*currentLevelNames)() = nullptr;

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
  const std::shared_ptr<const LevelNames> names = currentLevelNames();
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
    // The name's syntax was checked by the library (admin.cpp).
    const std::string path = name.substr(5);
    auto file = boost::make_shared<std::ofstream>(path, std::ios::out | std::ios::app);
    if (!*file) throw std::invalid_argument("Log sink \"" + name + "\": cannot open the file for appending");
    backend->add_stream(file);
  }
  backend->auto_flush(true);

  auto sink = boost::make_shared<Sink>(backend);
  // Only records of this library's loggers, which all carry a channel and a
  // numeric level.
  sink->set_filter(expr::has_attr<std::string>("Channel") && expr::has_attr<unsigned>("Severity"));
  sink->set_formatter(&formatRecord);
  return sink;
}

struct State {
  State() {
    auto core = logging::core::get();
    core->add_global_attribute(timeAttribute, logging::attributes::local_clock());
    core->add_global_attribute(pidAttribute, logging::attributes::make_function([] { return getpid(); }));
    core->add_global_attribute(tidAttribute, logging::attributes::make_function([] { return gettid(); }));
    sink = makeSink("none");
    core->add_sink(sink);
  }

  std::mutex mutex;  // guards sink and loggers
  boost::shared_ptr<Sink> sink;
  std::map<std::string, std::unique_ptr<Logger>> loggers;
};

// Never destroyed: loggers that are themselves statics may log during exit.
// Made by the module's entry, before any other call.
State* instance = nullptr;

State& state() { return *instance; }

void* makeLogger(const std::string& channel) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  auto& logger = s.loggers[channel];
  if (!logger) logger = std::make_unique<Logger>(logging::keywords::channel = channel);
  return logger.get();
}

bool accepts() { return logging::core::get()->get_logging_enabled(); }

void write(void* handle, unsigned level, const std::string& text) {
  auto& logger = *static_cast<Logger*>(handle);
  logging::record record = logger.open_record(logging::keywords::severity = level);
  if (!record) return;
  logging::record_ostream stream(record);
  stream << text;
  stream.flush();
  logger.push_record(std::move(record));
}

void setSink(const std::string& name) {
  boost::shared_ptr<Sink> replacement = makeSink(name);
  State& s = state();
  std::lock_guard lock(s.mutex);
  auto core = logging::core::get();
  core->add_sink(replacement);
  if (s.sink) {
    core->remove_sink(s.sink);
    s.sink->flush();
  }
  s.sink = replacement;  // the previous sink, and its file, close here
}

const BackEnd table{&makeLogger, &accepts, &write, &setSink};

}  // namespace
}  // namespace foundation::log::detail

// Called once, by the loader.
extern "C" __attribute__((visibility("default"))) const foundation::log::detail::BackEnd* foundationLogBackEndV1(
    std::shared_ptr<const foundation::log::detail::LevelNames> (*levelNames)()) {
  using namespace foundation::log::detail;
  if (instance == nullptr) {
    currentLevelNames = levelNames;
    instance = new State;  // attributes and the quiet sink
  }
  return &table;
}
