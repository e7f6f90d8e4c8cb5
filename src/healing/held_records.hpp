// The records that this process publishes, for the healer
// (publication_healer.hpp). A record is added once it is published and
// removed before it is withdrawn; the healer works on the records under the
// registry's lock, so a record being healed is withdrawn only afterwards.
//
// While the process holds a record, the registry keeps its primary work
// thread, which watches the records' segments while it waits for jobs.
//
// A forked child starts with no records: those it inherits are its
// parent's.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <functional>
#include <vector>

#include <endpointregistry/endpoint.hpp>

namespace agent::spf::endpointregistry {

class HeldRecords {
 public:
  static void add(Endpoint::Impl& record);
  // Blocks while the healer is at work.
  static void remove(Endpoint::Impl& record) noexcept;
  // Runs `work` with every record the process holds, under the registry's
  // lock (no record is added or removed meanwhile).
  static void withAll(const std::function<void(const std::vector<Endpoint::Impl*>&)>& work);
};

}  // namespace agent::spf::endpointregistry
