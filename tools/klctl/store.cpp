// Shows a store through kl::StoreView, which neither locks nor changes it.

#include "store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "failure.h"
#include "kl/store.h"
#include "show.h"
#include "table.h"

namespace klctl {
namespace {

using Fault = kl::StoreView::Fault;
using Finding = kl::StoreView::Finding;

std::string sentenceOf(const Finding& finding) {
  const std::string slot =
      "slot " + std::to_string(finding.slot) + " (entry " + std::to_string(finding.id) + ")";
  switch (finding.fault) {
    case Fault::kNoIndex: return "the index (.idx) cannot be read";
    case Fault::kNoData: return "the data file (.dat) cannot be read";
    case Fault::kSizeMismatch: return "the slots of the index do not fill the data file";
    case Fault::kPartialSlot: return "the index ends inside a slot record";
    case Fault::kPendingChange: return "the lock file has a change that was not completed";
    case Fault::kRepeatedId: return slot + " repeats the id of a slot before it";
    case Fault::kBadLength: return slot + " has a record that does not fit into it";
    case Fault::kCutOff: return slot + " has a record that the data file ends inside";
    case Fault::kBadMessage: return slot + " has a record that is no message";
  }
  return "fault " + std::to_string(static_cast<unsigned int>(finding.fault));
}

bool has(const kl::StoreView& view, Fault fault) {
  return std::any_of(view.findings().begin(), view.findings().end(),
                     [fault](const Finding& finding) { return finding.fault == fault; });
}

// What is wrong with the store, as one sentence for the standard error stream.
std::string faultOf(const kl::StoreView& view, const std::string& path) {
  if (view.findings().empty()) return "";
  const std::size_t others = view.findings().size() - 1;
  const std::string rest = others == 0 ? "" : ", and " + std::to_string(others) + " more (klctl store check)";
  return path + ": " + sentenceOf(view.findings().front()) + rest;
}

void needFiles(const kl::StoreView& view, const std::string& path) {
  if (has(view, Fault::kNoIndex)) throw usage("cannot read " + path + ".idx");
  if (has(view, Fault::kNoData)) throw usage("cannot read " + path + ".dat");
}

Json toJson(const kl::StoreView::Entry& entry) {
  return {{"id", entry.id},
          {"slot", entry.slot},
          {"offset", entry.offset},
          {"size", entry.size},
          {"lifetime", entry.lifetime}};
}

std::string listJson(const kl::StoreView& view) {
  Json entries = Json::array();
  for (const auto& entry : view.entries()) {
    entries.push_back(toJson(entry));
    entries.back()["message"] = klctl::toJson(view.get(entry), FieldNames());
  }
  Json free = Json::array();
  for (const auto& slot : view.freeSlots())
    free.push_back({{"slot", slot.slot}, {"offset", slot.offset}, {"size", slot.size}});
  return jsonText(Json{{"entries", entries}, {"free", free}});
}

std::string listText(const kl::StoreView& view) {
  std::vector<Json> rows;
  for (const auto& entry : view.entries()) rows.push_back(toJson(entry));
  for (const auto& slot : view.freeSlots())
    rows.push_back({{"id", "free"}, {"slot", slot.slot}, {"offset", slot.offset}, {"size", slot.size}});
  std::stable_sort(rows.begin(), rows.end(), [](const Json& one, const Json& other) {
    return one["slot"].get<unsigned int>() < other["slot"].get<unsigned int>();
  });
  return rows.empty() ? "" : objectsTable(rows, {"id", "slot", "offset", "size", "lifetime"}, lineWidth());
}

std::string showEntry(const CommandLine& line, const kl::StoreView& view) {
  const kl::StoreView::Entry* const entry = view.find(*line.path.object);
  if (entry == nullptr)
    throw Failure(Status::kRefused, line.file + " has no entry " + std::to_string(*line.path.object));
  const kl::message m = view.get(*entry);
  if (line.dump) return dumpText(m);
  const Json fields = klctl::toJson(m, FieldNames());
  return line.json ? jsonText(fields) : objectTable(fields);
}

std::string checkText(const CommandLine& line, const kl::StoreView& view) {
  std::string text;
  Json all = Json::array();
  for (const Finding& finding : view.findings()) {
    text += sentenceOf(finding) + "\n";
    all.push_back(sentenceOf(finding));
  }
  return line.json ? jsonText(all) : text;
}

// A Store makes an empty one of files that do not belong together or that it cannot open, so those are left alone.
void compact(const kl::StoreView& view, const std::string& path) {
  for (const char* suffix : {".idx", ".dat"})
    if (::faccessat(AT_FDCWD, (path + suffix).c_str(), R_OK | W_OK, AT_EACCESS) != 0)
      throw usage("cannot write " + path + suffix);
  if (has(view, Fault::kSizeMismatch))
    throw Failure(Status::kRefused, faultOf(view, path) + "; nothing was changed");
  kl::Store(path, 0).compact(false);
}

}  // namespace

Dumped runStore(const CommandLine& line) {
  const kl::StoreView view(line.file);
  if (line.verb == Verb::kStoreCheck) return {checkText(line, view), faultOf(view, line.file)};
  needFiles(view, line.file);
  if (line.verb == Verb::kStoreList)
    return {line.json ? listJson(view) : listText(view), faultOf(view, line.file)};
  if (line.verb == Verb::kStoreGet) return {showEntry(line, view), ""};
  compact(view, line.file);
  return {"", faultOf(kl::StoreView(line.file), line.file)};
}

}  // namespace klctl
