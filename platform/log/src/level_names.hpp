// The level names that the host gave each channel (admin::setLevelNames),
// read by the back end for every line it formats.
#pragma once

#include <map>
#include <memory>
#include <string>

namespace foundation::log::detail {

// Channel -> (level bit -> name).
using LevelNames = std::map<std::string, std::map<unsigned, std::string>>;

// The names now in force; replaced as a whole, so a reader keeps a
// consistent copy for as long as it holds it.
std::shared_ptr<const LevelNames> levelNames();

// Names the levels of `channel` (an empty map removes its names).
void setLevelNames(const std::string& channel, const std::map<unsigned, std::string>& names);

}  // namespace foundation::log::detail
