// endpointregistry inspect [--trustee T] [--json]
//
// A read-only view of one trustee's raw registry directory: the base
// segment's fields, both descriptor slots, the active container, and each
// used row with the state and owner pid of the record it names. Nothing is
// cleared away (see raw_directory.hpp and record_view.hpp).
#include <iostream>
#include <memory>
#include <string>

#include "command.hpp"
#include "json_text.hpp"
#include "raw_directory.hpp"
#include "record_view.hpp"
#include "table.hpp"
#include "text_escape.hpp"
#include "trustee_selection.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

struct InspectOptions {
  std::string trustee;
  JsonStyle json;
};

Json slotToJson(const RawSlot& slot) {
  return {{"rowWidth", slot.rowWidth}, {"rowCount", slot.rowCount}, {"containerNumber", slot.containerNumber}};
}

Json rowToJson(const RawRow& row, const RecordView& record) {
  bool escaped = false;
  Json object = {{"row", row.index}, {"count", row.countByte}};
  object["strings"] = textsToJson(row.strings, escaped);
  if (escaped) object["escaped"] = true;
  object["state"] = record.state;
  if (record.ownerPid) object["pid"] = *record.ownerPid;
  if (record.data) object["data"] = pairToJson(*record.data);
  if (!record.problem.empty()) object["problem"] = record.problem;
  return object;
}

void printJson(const RawDirectory& directory, int indent) {
  Json out = Json::object();
  addTexts(out, {{"trustee", &directory.trustee}});
  Json base = {{"name", directory.baseName}, {"found", directory.baseFound}};
  if (directory.baseFound) {
    base["initializerPid"] = directory.initializerPid;
    base["initialized"] = directory.initialized;
    base["activeSlot"] = directory.activeSlotByte;
    base["slots"] = {slotToJson(directory.slots[0]), slotToJson(directory.slots[1])};
  }
  out["base"] = base;
  if (!directory.containerName.empty()) {
    out["container"] = {{"name", directory.containerName},
                        {"found", directory.containerFound},
                        {"usedRows", directory.rows.size()},
                        {"freeRows", directory.freeRows}};
  }
  out["problem"] = directory.problem.empty() ? Json(nullptr) : Json(directory.problem);
  out["damage"] = directory.damage;
  Json rows = Json::array();
  for (const RawRow& row : directory.rows) rows.push_back(rowToJson(row, viewRecord(row, directory.trustee)));
  out["rows"] = rows;
  std::cout << dumpJson(out, indent) << std::endl;
}

std::string rowName(const RawRow& row) {
  std::string text;
  for (const std::string& element : row.strings) text += (text.empty() ? "" : " ") + displayText(element);
  return text;
}

void printText(const RawDirectory& directory) {
  std::cout << "directory " << directory.baseName << " (trustee " << displayText(directory.trustee) << ")";
  if (!directory.baseFound) {
    std::cout << ": not found\n";
    for (const std::string& damage : directory.damage) std::cout << "damage: " << damage << '\n';
    std::cout.flush();
    return;
  }
  std::cout << "\n  initializerPid " << directory.initializerPid << "  initialized " << directory.initialized
            << "  activeSlot " << directory.activeSlotByte << '\n';
  Table slots({"  SLOT", "CONTAINER", "ROWS", "WIDTH", ""});
  for (unsigned i = 0; i < 2; ++i) {
    const RawSlot& slot = directory.slots[i];
    slots.addRow({"  " + std::to_string(i), std::to_string(slot.containerNumber), std::to_string(slot.rowCount),
                  std::to_string(slot.rowWidth), i == directory.activeSlot() ? "active" : ""});
  }
  slots.print(std::cout);
  if (directory.containerFound) {
    std::cout << "container " << directory.containerName << ": " << directory.rows.size() << " used row(s), "
              << directory.freeRows << " free\n";
  }
  if (!directory.problem.empty()) std::cout << "problem: " << directory.problem << '\n';
  for (const std::string& damage : directory.damage) std::cout << "damage: " << damage << '\n';
  if (!directory.rows.empty()) {
    std::cout << '\n';
    Table rows({"ROW", "STATE", "PID", "FIRST", "SECOND", "NAME"});
    for (const RawRow& row : directory.rows) {
      const RecordView record = viewRecord(row, directory.trustee);
      std::string state = record.state;
      if (!record.problem.empty()) state += " (" + record.problem + ")";
      rows.addRow({std::to_string(row.index), state, record.ownerPid ? std::to_string(*record.ownerPid) : "-",
                   record.data ? displayText(record.data->first) : "-",
                   record.data ? displayText(record.data->second) : "-", rowName(row)});
    }
    rows.print(std::cout);
  }
  std::cout.flush();
}

int runInspect(const InspectOptions& options) {
  checkTrustee(options.trustee);
  const RawDirectory directory = readRawDirectory(options.trustee);
  if (options.json.on()) {
    printJson(directory, options.json.indent());
  } else {
    printText(directory);
  }
  return Success;
}

}  // namespace

void addInspectCommand(CLI::App& app, CommandRun& run) {
  auto options = std::make_shared<InspectOptions>();
  CLI::App* command =
      app.add_subcommand("inspect", "Show the raw directory and the state of each record, clearing nothing");
  command->add_option("--trustee", options->trustee, "The trustee whose directory to show (default: your own)")
      ->type_name("GROUP");
  addJsonOption(*command, options->json, "Write one JSON object");
  command->callback([options, &run] { run = [options] { return runInspect(*options); }; });
}

}  // namespace agent::spf::endpointregistry::tool
