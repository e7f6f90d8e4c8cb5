#include <foundation/log/admin.hpp>

#include <stdexcept>

#include "back_end.hpp"
#include "channel_masks.hpp"
#include "level_names.hpp"

namespace foundation::log::local {

struct admin::state {};

admin::admin() : state_(std::make_unique<state>()) {}

admin::~admin() = default;

std::shared_ptr<admin> admin::get() {
  static std::shared_ptr<admin> instance(new admin);
  return instance;
}

void admin::setSink(const std::string& sink) {
  // A malformed name is refused before anything is loaded.
  if (sink.rfind("file:", 0) == 0 && sink.size() == 5) {
    throw std::invalid_argument("Malformed log sink \"" + sink + "\": the file path is empty");
  }
  if (sink != "stdout" && sink != "stderr" && sink != "none" && sink.rfind("file:", 0) != 0) {
    throw std::invalid_argument("Unknown log sink \"" + sink + "\": use stdout, stderr, none or file:<path>");
  }
  // Until the back end is loaded no record is written anywhere: "none" is
  // already in force and needs no Boost.Log.
  if (sink == "none" && !detail::backEndLoaded()) return;
  const detail::BackEnd* backEnd = detail::backEnd();
  if (backEnd == nullptr) {
    throw std::runtime_error("Log sink \"" + sink +
                             "\": the Boost.Log back end could not be loaded: " + detail::backEndError());
  }
  backEnd->setSink(sink);
}

void admin::setChannelFilter(const std::string& filter) {
  detail::applyChannelFilter(detail::parseChannelFilter(filter));
}

void admin::setLevelNames(const std::string& channel, const std::map<unsigned, std::string>& names) {
  detail::setLevelNames(channel, names);
}

}  // namespace foundation::log::local
