// Publication and discovery of endpoints between the processes of one machine.
//
// An endpoint is a pair of data strings (the library gives them no meaning)
// published under a group tag. Constructing an Endpoint publishes it into a
// registry kept in named shared memory; it stays published exactly as long as
// the object (or the object it is moved into) lives, and disappears when the
// object is destroyed or reset, or when the publishing process dies. There is
// no server: any process of the same user can list the live endpoints with the
// static operations below, and processes of other users can list them once a
// group both users belong to is added as a trustee.
//
// Data: each string may hold any bytes, NUL bytes included; the pair comes
// back from a listing exactly as it was published. Two publications of one
// user are the same endpoint (DuplicateEndpointError) when their group tags
// are equal and their strings joined together are equal.
//
// Failures are reported by exceptions: std::invalid_argument for bad
// arguments, std::runtime_error for failed system calls and inconsistent
// shared state, and DuplicateEndpointError when the same data is already
// published under the same group tag. Every exception's text is fixed (see
// each operation); the library's diagnostic channels (foundation/log) say
// more, once the host switches them on.
//
// Blocking: publication, withdrawal and listing lock the registry's
// directories (robust mutexes in shared memory) for the moment they read or
// change them. A directory that another process holds is waited for, as long
// as that process holds it; a holder that dies releases it at once. Nothing
// waits for a timer, a server or the network.
//
// Threads: the library runs a work thread in the calling process, on which
// it takes and releases every robust mutex (a robust mutex belongs to the
// thread that locked it). It is started by the first operation and lives
// while the process holds endpoints (ending after the last one goes), with
// more threads for more than 2,000 endpoints held at once. While idle it
// sleeps; it watches the process's own publications (inotify) and publishes
// again what someone removes or damages. Its CPU affinity and scheduling are
// never changed. The library also installs a SIGBUS handler (chained to the
// one before it) so that shared memory that another process cuts short reads
// as zeros instead of killing the reader.
//
// Thread rules: one Endpoint object must not be used from two threads at
// once; different objects and the static operations may be used from any
// threads of any processes at the same time.
//
// Fork rules: a child forked from a process that holds endpoints may publish
// and list on its own at once (it gets a work thread of its own). The copies
// of Endpoint objects it inherits belong to the parent: destroying or
// resetting them in the child, or the child exiting or calling exec, never
// withdraws or disturbs the parent's publications. The child cannot withdraw
// them either; only the parent can.
#pragma once

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <endpointregistry/export.hpp>

namespace agent::spf::endpointregistry {

class ENDPOINTREGISTRY_EXPORT Endpoint {
 public:
  // Thrown when a synonym of the endpoint (same group tag, same concatenation
  // of the two data strings) is live or being published.
  class ENDPOINTREGISTRY_EXPORT DuplicateEndpointError : public std::runtime_error {
   public:
    DuplicateEndpointError();
  };

  class Impl;

  // An empty endpoint: converts to false and touches no shared memory.
  Endpoint() noexcept;

  // Publishes `data` under `groupTag` for the current user and returns once
  // it is listed (in the user's own scope, /dev/shm/u<uid>). The endpoint is
  // withdrawn when the object goes: keep it for as long as it is to be
  // found. Throws std::invalid_argument "Endpoint data strings cannot be both
  // empty" (one of the two may be empty) or "Endpoint group tag cannot be
  // both empty"; DuplicateEndpointError when a synonym is live or being
  // published; std::runtime_error ("System error: ...") when shared memory
  // cannot be set up or the work thread cannot be started. Blocks on the
  // directory's lock (see Blocking).
  [[nodiscard]] Endpoint(const std::pair<std::string, std::string>& data, const std::string& groupTag);

  // Endpoint({first, second}, groupTag): the same returns, throws and waits.
  [[nodiscard]] static Endpoint publish(const std::string& first, const std::string& second,
                                        const std::string& groupTag);

  // Takes over the source's publication; the source becomes empty.
  Endpoint(Endpoint&& other) noexcept;
  // Withdraws this endpoint's own publication, then takes over the source's.
  // Throws only when a diagnostic line cannot be written (no memory).
  Endpoint& operator=(Endpoint&& other);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Withdraws the endpoint (see reset()). Never throws.
  ~Endpoint();

  // True while the endpoint is published.
  explicit operator bool() const noexcept;

  // Withdraws the endpoint, under every trustee, and returns once it is no
  // longer listed; it becomes empty. No effect on an empty endpoint. Never
  // throws: a failure is logged and the record is left to garbage
  // collection. Blocks on the directories' locks (see Blocking).
  void reset() noexcept;

  // Trustees: groups of the current user under which the endpoint is also
  // published, so that other users in those groups find it. The empty string
  // is never a trustee. All five throw std::invalid_argument on an empty
  // endpoint, and std::runtime_error ("System error: ...") when the current
  // user's groups cannot be read or shared memory cannot be set up; they
  // block on the trustees' directory locks (see Blocking).

  // The current trustees, ascending.
  std::set<std::string> getTrustees();
  // Publishes under each new trustee in ascending order. A name that is not a
  // group of the current user throws std::invalid_argument "Trustees can only
  // be groups of the current user"; trustees added before it stay. A
  // synonym already published under a trustee throws DuplicateEndpointError.
  void addTrustees(std::set<std::string> trustees);
  // Withdraws the publications under the given trustees; others are ignored.
  void removeTrustees(std::set<std::string> trustees);
  // Withdraws every trustee publication; the endpoint stays published for
  // the current user.
  void clearTrustees();
  // Adds the missing trustees first, then removes those no longer wanted.
  void setTrustees(std::set<std::string> trustees);

  // Listing. Each returns the live endpoints' data pairs, each pair once,
  // sorted by first then second string. A listing also clears away the
  // records of dead publishers that it meets, and those of its group tag
  // that a publisher killed while publishing or withdrawing left without a
  // name in the trustee's directory. An empty group tag matches every group
  // tag. A trustee that is not a group, or whose scope the user cannot see
  // into, contributes nothing.
  //
  // Damaged shared memory is skipped: a directory or record that cannot be
  // read, or vanishes or is cut short while it is read, contributes what
  // can be read. Two states of a live record are reported as designed,
  // though: std::runtime_error "System error: Endpoint::getState Mutex in
  // undesired state (Return : <n>)" for a liveness mutex that is no robust
  // mutex of this library, and std::out_of_range for a record whose first
  // string's length exceeds its data. The all-trustees variants also throw
  // std::runtime_error "System error: Failed to get current user groups"
  // when the user's groups cannot be read, and every listing throws
  // std::runtime_error when the work thread cannot be started. Blocks on
  // each directory's lock while it reads it (see Blocking), never on a
  // record. The result is a snapshot: an endpoint published or withdrawn
  // meanwhile may or may not be in it.

  // The endpoints of `groupTag` published under any of `trustees` ("" is the
  // current user's own publications). An empty set yields an empty result.
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> filter(const std::string& groupTag,
                                                                               std::set<std::string> trustees);
  // filter("", trustees).
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> list(std::set<std::string> trustees);
  // The current user's own endpoints of `groupTag`.
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> filterFromLocal(const std::string& groupTag);
  // filterFromLocal(groupTag).
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> filter(const std::string& groupTag);
  // filterFromLocal("").
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> list();
  // filterFromLocal("").
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> listFromLocal();
  // The endpoints of `groupTag` visible to the current user: its own and
  // those published under any group it belongs to.
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> filterFromAllTrustees(
      const std::string& groupTag);
  // filterFromAllTrustees("").
  [[nodiscard]] static std::vector<std::pair<std::string, std::string>> listFromAllTrustees();

 private:
  std::unique_ptr<Impl> ownRecord;
  std::vector<std::unique_ptr<Impl>> trusteeRecords;
};

}  // namespace agent::spf::endpointregistry
