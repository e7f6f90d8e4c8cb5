// Times as the tool prints them.
#pragma once

#include <chrono>
#include <string>

namespace agent::spf::endpointregistry::tool {

// ISO 8601 in UTC with microseconds: "2026-11-24T23:59:01.123456Z".
std::string utcTimestamp(std::chrono::system_clock::time_point time);

// A duration for people: "850ms", "42s", "5m07s", "3h02m", "2d04h".
std::string ageText(std::chrono::nanoseconds age);

}  // namespace agent::spf::endpointregistry::tool
