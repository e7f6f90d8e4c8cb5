// The enabled-level masks of all channels of the process, and the filter
// they follow.
#pragma once

#include <map>
#include <string>

namespace foundation::log::detail {

// Channel name -> enabled level bits; channels not named have none.
using ChannelFilter = std::map<std::string, unsigned>;

// Makes `filter` the current filter and rewrites every channel's mask.
void applyChannelFilter(const ChannelFilter& filter);

// Parses "channel=levels;channel=levels"; std::invalid_argument when malformed.
ChannelFilter parseChannelFilter(const std::string& text);

}  // namespace foundation::log::detail
