// The watch over this process's publications: the kernel tells the process
// (inotify) when one of its record segments, or the base of a directory it
// publishes in, is removed, replaced, renamed, cut short or written to, and
// the healer (publication_healer.hpp) then publishes what was lost again. No
// timer is involved: the process's primary work thread waits on the watch
// while it waits for jobs, sorts what the kernel reports, and starts the
// healer, a short-lived thread of its own, when there is something to heal.
//
// The watch starts 50 ms after the process's first publication (a timer on
// the same thread), and then has the healer look for damage done before:
// the kernel makes a process that ever watched wait some milliseconds when
// it ends, which a process that publishes briefly is spared.
//
// Healing that fails (the scope folder cannot be made, for example) is
// logged once and tried again a bounded number of times, at growing
// intervals; the next event starts over.
//
// Limits: the active container of a directory is not watched (it is
// replaced on every reorganisation); one removed on its own is rebuilt by
// the next insert or by garbage collection. Writes through a mapping are not
// reported by the kernel: a record or directory overwritten in memory is
// healed at the next event, insert or collection, not at once.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <set>
#include <string>

namespace agent::spf::endpointregistry::healing {

// Watches a published record's segment, and the base of its trustee's
// directory (from the start of the watch on); returns the record's watch,
// or -1 when it cannot be watched (it is then healed only along with
// others). A segment already gone, which no event will tell of, is healed
// at once; with `gone`, *gone tells of it instead, and the caller asks for
// the healing once the healer can find the record (HeldRecords).
int watchRecord(const std::string& trustee, const std::string& name, bool* gone = nullptr) noexcept;
// Ends the watch of a record (before the record's segment goes).
void unwatchRecord(int watch) noexcept;

// Asks the healer to look at the records of `trustees` (all of them when
// `all` is set); starts it unless it runs.
void requestHealing(const std::set<std::string>& trustees, bool all) noexcept;

}  // namespace agent::spf::endpointregistry::healing
