#include "timestamp.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace agent::spf::endpointregistry::tool {

std::string utcTimestamp(std::chrono::system_clock::time_point time) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = static_cast<std::time_t>(micros / 1'000'000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long long>(micros % 1'000'000));
  return text;
}

std::string ageText(std::chrono::nanoseconds age) {
  const long long ms = std::max<long long>(0, std::chrono::duration_cast<std::chrono::milliseconds>(age).count());
  char text[32];
  const long long s = ms / 1000;
  if (s < 1) {
    std::snprintf(text, sizeof text, "%lldms", ms);
  } else if (s < 60) {
    std::snprintf(text, sizeof text, "%llds", s);
  } else if (s < 3600) {
    std::snprintf(text, sizeof text, "%lldm%02llds", s / 60, s % 60);
  } else if (s < 86400) {
    std::snprintf(text, sizeof text, "%lldh%02lldm", s / 3600, s % 3600 / 60);
  } else {
    std::snprintf(text, sizeof text, "%lldd%02lldh", s / 86400, s % 86400 / 3600);
  }
  return text;
}

}  // namespace agent::spf::endpointregistry::tool
