// Mappings of found segments, kept for reuse by later finds of the same name.
//
// Opening a segment costs an open, a stat, a map and a close, and releasing
// it an unmap (which, while another thread of the process runs on another
// core, interrupts that core to flush its address translations); the first
// touch of each page costs a fault. A process that opens the same segment
// again and again (a directory that every operation reopens) pays all of it
// each time. So a released mapping of a found segment stays mapped for a
// while, and a later find of the same name and size reuses it after one stat
// of the name shows that the name still names the same file and that the
// file still passes the checks of a fresh open. Distinct handles may share one
// mapping; it is a view of the same shared bytes either way.
//
// Bounds: at most idleLimit mappings (and idleByteLimit bytes) are kept that
// no handle uses, none for longer than idleLifetime; a mapping whose segment
// this process removed or found replaced is unmapped as soon as no handle
// uses it. So a segment that others removed stays in memory for at most
// idleLifetime after its last use here (or until the process next opens a
// segment, when expired entries are unmapped).
//
// A forked child starts with an empty cache; the mappings it inherited are
// unmapped by its handles as usual (the child's release does not find them in
// its cache).
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>

#include "scope.hpp"

namespace agent::spf::sharedmemory::detail {

struct CachedMapping {
  void* address = nullptr;
  dev_t device = 0;
  ino_t inode = 0;
};

// A mapping of exactly `size` bytes of `scope.path`/`name` that this process
// kept and that the name still names (checked with one stat, as a fresh open
// would check it); it is then in use by the caller until releaseMapping.
// False when there is none.
bool reuseMapping(const Scope& scope, const std::string& name, std::size_t size, CachedMapping& found);

// Hands a fresh mapping of `scope.path`/`name` to the cache, in use by the
// caller until releaseMapping. Without memory for it the mapping is simply
// not kept (releaseMapping then answers false).
void adoptMapping(const Scope& scope, const std::string& name, std::size_t size, const CachedMapping& mapping) noexcept;

// The caller no longer uses `address`. True when the cache owns the mapping
// (it is kept for reuse or unmapped here); false when the cache does not
// know it and the caller must unmap it.
bool releaseMapping(void* address) noexcept;

// The segment mapped at `address` lost its name: its mapping is not handed
// out again and goes once no handle uses it.
void forgetMapping(void* address) noexcept;

}  // namespace agent::spf::sharedmemory::detail
