// The live records of one group tag under a set of trustees, as a listing
// reads them: each trustee's directory names, each named record read (and a
// dead publisher's record cleared away), and the records that no name leads
// to swept. Endpoint's listings and the Watcher both read through here.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace agent::spf::endpointregistry {

// One live record: where it is published and what it holds.
struct ListedRecord {
  std::string trustee;  // "" for the user's own scope
  std::string name;     // the record's segment name
  std::pair<std::string, std::string> data;
};

// The live records of `groupTag` ("" for every tag) under `trustees`, in
// trustee order, then in the order of each directory. Throws as
// Endpoint::filter() does; blocks on each directory's lock while reading it.
std::vector<ListedRecord> listRecords(const std::string& groupTag, const std::set<std::string>& trustees);

// The same records' data alone, in the same order: what Endpoint's
// listings need (no names copied).
std::vector<std::pair<std::string, std::string>> listRecordData(const std::string& groupTag,
                                                                const std::set<std::string>& trustees);

}  // namespace agent::spf::endpointregistry
