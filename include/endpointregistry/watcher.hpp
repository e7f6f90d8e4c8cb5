// Change notification: a Watcher tells when endpoints appear, are withdrawn
// or die, without polling.
//
// A Watcher follows the endpoints of one group tag ("" for every tag) under
// a set of trustees, with the meaning of Endpoint::filter(groupTag,
// trustees). It offers a file descriptor for an event loop (poll, epoll,
// Boost.Asio's posix::stream_descriptor, ...) that becomes readable when
// something may have changed, and calls that return what changed since the
// previous call of the same kind.
//
// Exactness: each call reads again, as a listing reads them, the records
// that the notifications since the previous call name (a record file
// touched or removed, a lock word left without a holder), or the whole
// registry when no name says what changed (the first call, an overflowed
// event queue, a scope folder or a directory's segment that came or went),
// and returns the difference from what the previous call returned. Applying
// the events of every call, in order, to an empty set gives the listing of
// the moment of the last call: no event is lost, repeated or reordered,
// whatever happened in between (churn, a directory reorganised, the kernel's
// event queue overflowing). A pair that appeared and went again between two
// calls gives no event. Like a listing, a call clears away the records of
// dead publishers that it meets. Records of other group tags are not read.
//
// What wakes the descriptor, with no timer:
// - inotify on the trustees' scope folders (and on /dev/shm for folders
//   that do not exist yet): a record created, touched when it is named, or
//   removed;
// - the records' liveness mutexes: a thread of the watcher waits on the lock
//   words of the live records it listed (futex_waitv), and the kernel wakes
//   it when a publisher dies, from any pid namespace.
// Where the kernel lacks futex_waitv (before Linux 5.16) the descriptor also
// becomes readable once a second, and the lock words are looked at then, so
// that a death is seen within a second. While a listed record cannot be
// mapped (no descriptors or mappings left) or a folder cannot be watched (no
// inotify watches left), everything is read again a second later.
// An idle watcher makes no wake-ups at all.
//
// Threads: a Watcher is used by one thread at a time; distinct watchers may
// be used from any threads. A watcher runs threads of its own, blocked in
// the kernel while nothing happens: one per 127 live records watched (the
// most it needed so far, kept while it lives), and it keeps the library's
// work thread while it lives. It sets the FUTEX_WAITERS bit in the lock
// words of the records it watches, as a thread blocked on them would; the
// records' publishers then wake it when they withdraw.
//
// Fork: a Watcher inherited by a forked child belongs to the parent; the
// child may only destroy it (which closes the child's copies of its
// descriptors and touches nothing else), and makes a new one to watch.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <endpointregistry/export.hpp>

namespace agent::spf::endpointregistry {

// One change of the pairs listed.
struct ENDPOINTREGISTRY_EXPORT EndpointChange {
  enum Kind : unsigned char { Appeared, Disappeared };
  Kind kind = Appeared;
  std::pair<std::string, std::string> data;

  friend bool operator==(const EndpointChange&, const EndpointChange&) = default;
};

// One change of the records listed: one record per publication under one
// trustee and tag, so the same data under two tags (or two trustees) are two
// records, and withdrawing one of them is a change here even while the pair
// stays listed.
struct ENDPOINTREGISTRY_EXPORT RecordChange {
  EndpointChange::Kind kind = EndpointChange::Appeared;
  std::pair<std::string, std::string> data;
  std::string trustee;     // "" for the user's own scope
  std::string recordName;  // the record's segment name
  // The tag's hash as the record name holds it, in hexadecimal without
  // leading zeros (tags are not stored): equal for equal tags.
  std::string groupTagHash;
  // The publisher's process id in its own pid namespace, as its record
  // names it: meaningful only to processes of that namespace.
  unsigned long publisherPid = 0;
  // When this watcher first listed the record.
  std::chrono::system_clock::time_point appearedAt;

  friend bool operator==(const RecordChange&, const RecordChange&) = default;
};

class ENDPOINTREGISTRY_EXPORT Watcher {
 public:
  class Impl;

  // Watches `groupTag` ("" for every tag) under `trustees` ("" is the
  // current user's own scope; others are groups). Lists nothing yet: the
  // first call of changes() returns every live endpoint. Throws
  // std::runtime_error ("System error: ...") when the kernel refuses an
  // inotify instance, an eventfd or an epoll instance (the per-user limits).
  Watcher(const std::string& groupTag, std::set<std::string> trustees);
  // Watches `groupTag` under the current user's own scope and every group
  // it belongs to (read now; groups joined later are not watched). Throws as
  // the constructor, and std::runtime_error as Endpoint::filterFromAllTrustees.
  [[nodiscard]] static Watcher forAllTrustees(const std::string& groupTag);

  Watcher(Watcher&& other) noexcept;
  Watcher& operator=(Watcher&& other) noexcept;
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  // Stops the watcher's threads and closes its descriptors. Never throws.
  ~Watcher();

  // Readable (POLLIN) when something may have changed; it stays readable
  // until changes() or recordChanges() is called. Owned by the watcher: do
  // not read or close it. -1 for a moved-from watcher.
  int fileDescriptor() const noexcept;

  // The pairs that appeared or disappeared since the previous call (the
  // first call: every live pair, as appeared), sorted by pair; empty when
  // nothing changed. Never blocks but on directory locks, as a listing.
  // Throws what a listing throws, std::system_error when the kernel refuses
  // a waiting thread, and std::logic_error in a forked child or on a
  // moved-from watcher.
  [[nodiscard]] std::vector<EndpointChange> changes();
  // changes(), waiting up to `timeout` for a change when there is none yet;
  // empty after the timeout. A signal does not end the wait.
  [[nodiscard]] std::vector<EndpointChange> waitForChanges(std::chrono::milliseconds timeout);

  // The records that appeared or disappeared since the previous call of
  // recordChanges() (the first call: every live record), sorted by trustee,
  // then record name. Kept apart from changes(): each has its own previous
  // call. Throws as changes().
  [[nodiscard]] std::vector<RecordChange> recordChanges();
  // recordChanges(), waiting up to `timeout` as waitForChanges() does.
  [[nodiscard]] std::vector<RecordChange> waitForRecordChanges(std::chrono::milliseconds timeout);

 private:
  std::unique_ptr<Impl> impl;
};

}  // namespace agent::spf::endpointregistry
