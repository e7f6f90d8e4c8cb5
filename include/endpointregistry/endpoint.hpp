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
// Failures are reported by exceptions: std::invalid_argument for bad
// arguments, std::runtime_error for failed system calls and inconsistent
// shared state, and DuplicateEndpointError when the same data is already
// published under the same group tag.
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

  // Publishes `data` under `groupTag` for the current user. One of the two
  // strings may be empty, not both (std::invalid_argument); the group tag
  // must not be empty (std::invalid_argument). Throws DuplicateEndpointError
  // when a synonym is published, and std::runtime_error when shared memory
  // cannot be set up.
  Endpoint(const std::pair<std::string, std::string>& data, const std::string& groupTag);

  // Endpoint({first, second}, groupTag).
  static Endpoint publish(const std::string& first, const std::string& second, const std::string& groupTag);

  // Takes over the source's publication; the source becomes empty.
  Endpoint(Endpoint&& other) noexcept;
  // Withdraws this endpoint's own publication, then takes over the source's.
  Endpoint& operator=(Endpoint&& other);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Withdraws the endpoint. Never throws.
  ~Endpoint();

  // True while the endpoint is published.
  explicit operator bool() const noexcept;

  // Withdraws the endpoint; it becomes empty. No effect on an empty endpoint.
  void reset();

  // Trustees: groups of the current user under which the endpoint is also
  // published, so that other users in those groups find it. The empty string
  // is never a trustee. All five throw std::invalid_argument on an empty
  // endpoint.

  // The current trustees, ascending.
  std::set<std::string> getTrustees();
  // Publishes under each new trustee in ascending order. A name that is not a
  // group of the current user throws std::invalid_argument; trustees added
  // before it stay.
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
  // tag.

  // The endpoints of `groupTag` published under any of `trustees` ("" is the
  // current user's own publications). An empty set yields an empty result.
  static std::vector<std::pair<std::string, std::string>> filter(const std::string& groupTag,
                                                                 std::set<std::string> trustees);
  // filter("", trustees).
  static std::vector<std::pair<std::string, std::string>> list(std::set<std::string> trustees);
  // The current user's own endpoints of `groupTag`.
  static std::vector<std::pair<std::string, std::string>> filterFromLocal(const std::string& groupTag);
  // filterFromLocal(groupTag).
  static std::vector<std::pair<std::string, std::string>> filter(const std::string& groupTag);
  // filterFromLocal("").
  static std::vector<std::pair<std::string, std::string>> list();
  // filterFromLocal("").
  static std::vector<std::pair<std::string, std::string>> listFromLocal();
  // The endpoints of `groupTag` visible to the current user: its own and
  // those published under any group it belongs to.
  static std::vector<std::pair<std::string, std::string>> filterFromAllTrustees(const std::string& groupTag);
  // filterFromAllTrustees("").
  static std::vector<std::pair<std::string, std::string>> listFromAllTrustees();

 private:
  std::unique_ptr<Impl> ownRecord;
  std::vector<std::unique_ptr<Impl>> trusteeRecords;
};

}  // namespace agent::spf::endpointregistry
