#include "support/log_capture.hpp"

#include <unistd.h>
#include <cstdio>
#include <fstream>

#include <foundation/log/admin.hpp>

namespace er::test {

LogCapture::LogCapture(const std::string& filter) {
  static int counter = 0;
  path_ = "/tmp/er-log-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + ".txt";
  std::remove(path_.c_str());
  auto admin = foundation::log::local::admin::get();
  admin->setSink("file:" + path_);
  admin->setChannelFilter(filter);
}

LogCapture::~LogCapture() {
  auto admin = foundation::log::local::admin::get();
  admin->setChannelFilter("");
  admin->setSink("none");
  std::remove(path_.c_str());
}

std::vector<std::string> LogCapture::lines() {
  auto admin = foundation::log::local::admin::get();
  admin->setSink("none");  // flushes and closes the file
  std::vector<std::string> result;
  std::ifstream in(path_);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  admin->setSink("file:" + path_);
  return result;
}

std::vector<LogRecord> LogCapture::records() {
  std::vector<LogRecord> result;
  for (const auto& line : lines()) {
    // <time> <pid>:<tid> <channel> <level>: <message>; a message that holds
    // line breaks continues on lines of its own.
    std::size_t a = line.find(' ');
    std::size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
    std::size_t c = b == std::string::npos ? b : line.find(' ', b + 1);
    std::size_t d = c == std::string::npos ? c : line.find(": ", c + 1);
    const bool header = d != std::string::npos && line.size() > 26 && line[10] == 'T' && line[19] == '.' &&
                        line.find_first_not_of("0123456789", c + 1) == d;
    if (!header) {
      if (!result.empty()) result.back().message += "\n" + line;
      continue;
    }
    LogRecord record;
    record.channel = line.substr(b + 1, c - b - 1);
    record.level = static_cast<unsigned>(std::stoul(line.substr(c + 1, d - c - 1)));
    record.message = line.substr(d + 2);
    result.push_back(record);
  }
  return result;
}

std::vector<std::string> LogCapture::messages() {
  std::vector<std::string> result;
  for (const auto& record : records()) result.push_back(record.message);
  return result;
}

void LogCapture::clear() {
  auto admin = foundation::log::local::admin::get();
  admin->setSink("none");
  std::remove(path_.c_str());
  admin->setSink("file:" + path_);
}

}  // namespace er::test
