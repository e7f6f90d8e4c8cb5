// What every registry operation (a publication, a withdrawal, a listing, a
// collection of garbage) sets up once for all the segment calls it makes:
//   - a hold on the process's work thread (WorkThreadHold), so that the
//     thread is started once, if the process holds no endpoint, and stays
//     awake between the operation's lock jobs;
//   - trust in the scope folders it finds in place (FolderTrust), so that
//     each folder is checked once;
//   - one record reader per trustee (RecordReader), each opening its scope
//     folder once.
// Lives on the calling thread's stack, for one operation; not shared between
// threads.
#pragma once

#include <map>
#include <optional>
#include <string>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "concurrency/work_queue.hpp"
#include "record/record_reader.hpp"

namespace agent::spf::endpointregistry {

class RegistryOperation {
 public:
  // Whether the operation hands jobs to the work thread. A withdrawal does
  // not hold it: its guards hand the thread their last jobs, and holding it
  // would keep a thread of a process that holds nothing else awake longer.
  enum class WorkThread { Held, NotHeld };

  // Starts the work thread, if it is held and none is live (throws
  // std::system_error when it cannot be started).
  explicit RegistryOperation(WorkThread workThread = WorkThread::Held) {
    if (workThread == WorkThread::Held) hold.emplace();
  }
  RegistryOperation(const RegistryOperation&) = delete;
  RegistryOperation& operator=(const RegistryOperation&) = delete;

  // Lets the work thread go before the operation ends, when what remains
  // of it needs no thread (reading records).
  void releaseWorkThread() noexcept { hold.reset(); }

  // The reader of the trustee's records, made on first use.
  RecordReader& records(const std::string& trustee) {
    auto found = readers.find(trustee);
    if (found == readers.end()) found = readers.emplace(trustee, RecordReader(trustee)).first;
    return found->second;
  }

 private:
  std::optional<WorkThreadHold> hold;
  const agent::spf::sharedmemory::FolderTrust folderTrust;
  std::map<std::string, RecordReader> readers;
};

}  // namespace agent::spf::endpointregistry
