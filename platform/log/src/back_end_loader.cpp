// Loading the Boost.Log back end: the module FOUNDATION_LOG_BACK_END_FILE
// (libfoundation_log_boost.so.<major>), looked for first beside this library
// (where the build and the installation put it) and then by the dynamic
// linker's own search. Its entry is versioned (foundationLogBackEndV1): a
// module of another version of the table is not taken. Loaded once, never
// unloaded: loggers and sinks live until the process ends. A fork waits for
// a load under way, so that the child never inherits it half-done.
#include <dlfcn.h>
#include <pthread.h>
#include <atomic>
#include <exception>
#include <mutex>
#include <string>

#include <foundation/log/diagnostic_logger.hpp>

#include "back_end.hpp"

namespace foundation::log::detail {
namespace {

struct Loader {
  std::mutex mutex;
  bool tried = false;  // under the mutex
  // Set once loading failed: later records find no back end without the lock.
  std::atomic<bool> failed{false};
  std::string error;  // under the mutex, final once `tried`
  std::atomic<const BackEnd*> table{nullptr};
};

// Never destroyed: loggers may write while the process exits.
Loader& loader() {
  static Loader* const instance = [] {
    auto* made = new Loader;
    pthread_atfork([] { loader().mutex.lock(); }, [] { loader().mutex.unlock(); }, [] { loader().mutex.unlock(); });
    return made;
  }();
  return *instance;
}

// The directory of the file this library was loaded from, with its slash;
// empty when the dynamic linker cannot say.
std::string ownDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&backEndLoaded), &info) == 0 || info.dli_fname == nullptr) return {};
  const std::string file = info.dli_fname;
  const std::size_t slash = file.rfind('/');
  return slash == std::string::npos ? std::string() : file.substr(0, slash + 1);
}

std::string lastError(const std::string& what) {
  const char* why = dlerror();
  return why != nullptr ? std::string(why) : "cannot load " + what;
}

// Loads the module; the table, or null with `error` set. Under the mutex.
const BackEnd* load(std::string& error) {
  const std::string file = FOUNDATION_LOG_BACK_END_FILE;
  constexpr int mode = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
  void* module = nullptr;
  std::string besideError;
  if (const std::string beside = ownDirectory(); !beside.empty()) {
    module = dlopen((beside + file).c_str(), mode);
    if (module == nullptr) besideError = lastError(beside + file);
  }
  if (module == nullptr) module = dlopen(file.c_str(), mode);
  if (module == nullptr) {
    error = besideError.empty() ? lastError(file) : besideError + "; " + lastError(file);
    return nullptr;
  }
  using Entry = const BackEnd* (*)(std::shared_ptr<const LevelNames>(*)());
  auto entry = reinterpret_cast<Entry>(dlsym(module, "foundationLogBackEndV1"));
  if (entry == nullptr) {
    error = file + " is not the back end of this version of the logging library";
    return nullptr;
  }
  return entry(&levelNames);
}

}  // namespace

const BackEnd* backEnd() noexcept {
  Loader& l = loader();
  if (const BackEnd* table = l.table.load(std::memory_order_acquire)) return table;
  if (l.failed.load(std::memory_order_acquire)) return nullptr;
  try {
    std::lock_guard lock(l.mutex);
    if (!l.tried) {
      l.tried = true;
      try {
        l.table.store(load(l.error), std::memory_order_release);
      } catch (const std::exception& error) {
        l.error = error.what();
      }
      if (l.table.load(std::memory_order_relaxed) == nullptr) l.failed.store(true, std::memory_order_release);
    }
    return l.table.load(std::memory_order_acquire);
  } catch (...) {
    return nullptr;  // no memory for the loader's texts
  }
}

bool backEndLoaded() noexcept { return loader().table.load(std::memory_order_acquire) != nullptr; }

std::string backEndError() {
  Loader& l = loader();
  std::lock_guard lock(l.mutex);
  return l.error;
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
