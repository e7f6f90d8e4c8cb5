// Loading the Boost.Log back end: the module FOUNDATION_LOG_BACK_END_FILE
// (libfoundation_log_boost.so.<major>), looked for first beside this library
// (where the build and the installation put it) and then by the dynamic
// linker's own search. Loaded once, never unloaded: loggers and sinks live
// until the process ends.
#include <dlfcn.h>
#include <atomic>
#include <string>

#include <foundation/log/diagnostic_logger.hpp>

#include "back_end.hpp"

namespace foundation::log::detail {
namespace {

struct Loaded {
  const BackEnd* table = nullptr;
  std::string error;
};

std::atomic<bool> loaded{false};

// The directory of the file this library was loaded from, with its slash;
// empty when the dynamic linker cannot say.
std::string ownDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&backEndLoaded), &info) == 0 || info.dli_fname == nullptr) return {};
  const std::string file = info.dli_fname;
  const std::size_t slash = file.rfind('/');
  return slash == std::string::npos ? std::string() : file.substr(0, slash + 1);
}

Loaded load() {
  Loaded result;
  const std::string file = FOUNDATION_LOG_BACK_END_FILE;
  constexpr int mode = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
  void* module = nullptr;
  if (const std::string beside = ownDirectory(); !beside.empty()) module = dlopen((beside + file).c_str(), mode);
  if (module == nullptr) module = dlopen(file.c_str(), mode);
  if (module == nullptr) {
    const char* why = dlerror();
    result.error = why != nullptr ? why : "cannot load " + file;
    return result;
  }
  using Entry = const BackEnd* (*)(std::shared_ptr<const LevelNames>(*)());
  auto entry = reinterpret_cast<Entry>(dlsym(module, "foundationLogBackEnd"));
  if (entry == nullptr) {
    result.error = file + " does not export foundationLogBackEnd";
    return result;
  }
  result.table = entry(&levelNames);
  loaded.store(result.table != nullptr, std::memory_order_release);
  return result;
}

const Loaded& once() {
  // Never destroyed: loggers may write while the process exits.
  static const Loaded* const instance = new Loaded(load());
  return *instance;
}

}  // namespace

const BackEnd* backEnd() noexcept {
  try {
    return once().table;
  } catch (...) {
    return nullptr;  // no memory for the loader's texts
  }
}

bool backEndLoaded() noexcept { return loaded.load(std::memory_order_acquire); }

const std::string& backEndError() noexcept {
  static const std::string none;
  try {
    return once().error;
  } catch (...) {
    return none;
  }
}

void* backEndLogger(const std::string& channel) noexcept {
  const BackEnd* table = backEnd();
  if (table == nullptr) return nullptr;
  try {
    return table->makeLogger(channel);
  } catch (...) {
    return nullptr;
  }
}

bool backEndAccepts() noexcept {
  const BackEnd* table = backEnd();
  return table != nullptr && table->accepts();
}

void backEndWrite(void* logger, unsigned level, const std::string& text) {
  if (const BackEnd* table = backEnd()) table->write(logger, level, text);
}

}  // namespace foundation::log::detail
