// Scope folders kept open for reuse. Opening and checking a scope folder
// costs an open, a stat and a close on every segment operation; a folder
// this process has opened and checked before is reused after one stat of its
// path shows that the path still names that very folder and that the folder
// still passes the checks of a fresh open. The process keeps at most a few
// such descriptors (close-on-exec), one per scope it uses.
//
// A forked child keeps using the folders it inherited.
//
// Thread safety: may be called from any thread.
#pragma once

#include <memory>

#include "scope.hpp"

namespace agent::spf::sharedmemory::detail {

// An open scope folder, shared with the cache.
using SharedFolder = std::shared_ptr<const UniqueFd>;

// The scope's folder, checked as openScopeFolder checks it (and made when it
// is missing and `createIfMissing` is set): the cached one while it is still
// the folder at the scope's path and still acceptable, else one opened
// afresh, which is then cached. Outcomes as openScopeFolder's.
Outcome shareScopeFolder(const Scope& scope, bool createIfMissing, SharedFolder& folder);

}  // namespace agent::spf::sharedmemory::detail
