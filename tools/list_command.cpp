// endpointregistry list [--group TAG] [--trustee T]... [--all-trustees]
//                       [-l|--long] [--json] [--no-legend] [--exit-status]
//
// The live endpoints as the library's listing returns them: sorted, each
// pair once. A table for people, or a JSON array of {"first", "second"}.
//
// --long shows records instead: one line per publication (the same data
// under two tags or trustees is two lines), with the publisher's pid (in its
// own pid namespace), the trustee ("(own)" for your own scope; JSON ""), the group tag when
// --group names it (else its hash, "#<hex>": records keep only the hash)
// and the record's age (since it was last named by its publisher).
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <tuple>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "command.hpp"
#include "discovery/record_listing.hpp"
#include "json_text.hpp"
#include "record/record_name.hpp"
#include "table.hpp"
#include "text_escape.hpp"
#include "timestamp.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct ListOptions {
  std::string groupTag;
  TrusteeSelection selection;
  JsonStyle json;
  bool exitStatus = false;
  bool longForm = false;
  bool noLegend = false;
};

// When the record's file was last touched: its publisher touches it once it
// is named. Nothing when it cannot be read.
std::optional<std::chrono::system_clock::time_point> namedAt(const ListedRecord& record) {
  const std::string folder = agent::spf::sharedmemory::scopeFolderPath(record.trustee);
  struct stat status {};
  if (folder.empty() || stat((folder + "/" + record.name).c_str(), &status) != 0) return std::nullopt;
  return std::chrono::system_clock::time_point(std::chrono::seconds(status.st_mtim.tv_sec) +
                                               std::chrono::nanoseconds(status.st_mtim.tv_nsec));
}

// The tag of a record: the one --group named, or the hash its name holds.
std::string tagOf(const ListOptions& options, const ListedRecord& record) {
  if (!options.groupTag.empty()) return options.groupTag;
  return "#" + groupTagHash(record.name, record.data);
}

int runLong(const ListOptions& options) {
  std::vector<ListedRecord> records = listRecords(options.groupTag, options.selection.resolve());
  std::sort(records.begin(), records.end(), [](const ListedRecord& a, const ListedRecord& b) {
    return std::tie(a.data, a.trustee, a.name) < std::tie(b.data, b.trustee, b.name);
  });
  const auto now = std::chrono::system_clock::now();
  if (options.json.on()) {
    Json array = Json::array();
    for (const ListedRecord& record : records) {
      Json line = Json::object();
      const std::string tag = tagOf(options, record);
      // All strings under one rule: escaped all together or not at all.
      std::vector<std::pair<std::string, const std::string*>> texts{
          {"first", &record.data.first}, {"second", &record.data.second}, {"trustee", &record.trustee}};
      if (tag.rfind('#', 0) != 0) texts.emplace_back("group", &tag);
      addTexts(line, texts);
      line["pid"] = RecordName(record.name).pid();
      if (tag.rfind('#', 0) == 0) line["group_hash"] = tag.substr(1);
      if (const auto at = namedAt(record)) {
        line["published_at"] = utcTimestamp(*at);
        line["age_seconds"] = std::chrono::duration<double>(now - *at).count();
      }
      array.push_back(line);
    }
    std::cout << dumpJson(array, options.json.indent()) << std::endl;
  } else {
    Table table({"FIRST", "SECOND", "PID", "TRUSTEE", "GROUP", "AGE"});
    for (const ListedRecord& record : records) {
      const auto at = namedAt(record);
      const std::string tag = tagOf(options, record);
      table.addRow({displayText(record.data.first), displayText(record.data.second),
                    std::to_string(RecordName(record.name).pid()),
                    record.trustee.empty() ? "(own)" : displayText(record.trustee),
                    tag.rfind('#', 0) == 0 ? tag : displayText(tag), at ? ageText(now - *at) : "-"});
    }
    table.print(std::cout, !options.noLegend);
    std::cout.flush();
  }
  if (options.exitStatus && records.empty()) return NothingFound;
  return Success;
}

int runList(const ListOptions& options) {
  if (options.longForm) return runLong(options);
  const auto endpoints = listEndpoints(options.groupTag, options.selection);
  if (options.json.on()) {
    Json array = Json::array();
    for (const auto& pair : endpoints) array.push_back(pairToJson(pair));
    std::cout << dumpJson(array, options.json.indent()) << std::endl;
  } else {
    Table table({"FIRST", "SECOND"});
    for (const auto& [first, second] : endpoints) table.addRow({displayText(first), displayText(second)});
    table.print(std::cout, !options.noLegend);
    std::cout.flush();
  }
  if (options.exitStatus && endpoints.empty()) return NothingFound;
  return Success;
}

}  // namespace

void addListCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "List the live endpoints");
  command->add_option("--group", options->groupTag, "Only endpoints of this group tag")->type_name("TAG");
  options->selection.addOptions(*command);
  addJsonOption(*command, options->json, "Write a JSON array of {\"first\", \"second\"} objects");
  command->add_flag("--exit-status", options->exitStatus, "Exit with status 3 when no endpoint is found");
  command->add_flag("-l,--long", options->longForm,
                    "One line per record: publisher pid, trustee, group tag (its hash unless --group names it), age");
  command->add_flag("--no-legend", options->noLegend, "No header line above the table");
  command->callback([options, &run] { run = [options] { return runList(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
