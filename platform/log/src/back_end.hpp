// The calls between the logging library and its Boost.Log back end, a
// module that the library loads on first need (see back_end_loader.cpp).
// The module exports one C function, foundationLogBackEndV1, that takes what
// it needs of the library (the level names) and returns the table below;
// both sides are built from this header in one build, and the module does
// not link the library.
#pragma once

#include <memory>
#include <string>

#include "level_names.hpp"

namespace foundation::log::detail {

struct BackEnd {
  // Makes (once per channel) the channel's Boost.Log logger; never null.
  void* (*makeLogger)(const std::string& channel);
  // The logging core's switch (core::get_logging_enabled()).
  bool (*accepts)();
  // Opens a record of `level` on `logger`, writes `text`, pushes it.
  void (*write)(void* logger, unsigned level, const std::string& text);
  // Replaces the sink (a name already checked by the administration);
  // std::invalid_argument when its file cannot be opened.
  void (*setSink)(const std::string& name);
};

// The back end, loaded on the first call (thread-safe); null when it cannot
// be loaded, with the loader's reason in backEndError().
const BackEnd* backEnd() noexcept;

// True once the back end is loaded; loads nothing.
bool backEndLoaded() noexcept;

// Why the back end could not be loaded (empty when it was, or was not tried).
std::string backEndError();

}  // namespace foundation::log::detail

extern "C" const foundation::log::detail::BackEnd* foundationLogBackEndV1(
    std::shared_ptr<const foundation::log::detail::LevelNames> (*levelNames)());
