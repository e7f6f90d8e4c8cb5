// Captures the diagnostic records of this process through a "file:" sink.
#pragma once

#include <string>
#include <vector>

namespace er::test {

struct LogRecord {
  std::string channel;
  unsigned level = 0;
  std::string message;
};

class LogCapture {
 public:
  // Sends every record to a temporary file and sets `filter`
  // ("channel=levels;..."), e.g. "agent::spf::endpointregistry=all".
  explicit LogCapture(const std::string& filter);
  // Empties the filter, drops the sink and removes the file.
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The records written so far, parsed from the output lines.
  std::vector<LogRecord> records();
  // Only their messages.
  std::vector<std::string> messages();
  // The raw output lines.
  std::vector<std::string> lines();
  // Forgets what was captured so far.
  void clear();

 private:
  std::string path_;
};

}  // namespace er::test
