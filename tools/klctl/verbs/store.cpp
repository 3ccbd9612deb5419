// Shows a store through kl::StoreView, which changes nothing; only compact opens a kl::Store.

#include "verbs/store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kl/store.h"
#include "output/show.h"
#include "values/failure.h"

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

bool isOfOneSlot(const Finding& finding) { return finding.fault >= Fault::kRepeatedId; }

// The faults as one sentence for the standard error stream.
std::string faultOf(const std::vector<Finding>& findings, const std::string& path) {
  if (findings.empty()) return "";
  const std::size_t others = findings.size() - 1;
  const std::string rest = others == 0 ? "" : ", and " + std::to_string(others) + " more (klctl store check)";
  return path + ": " + sentenceOf(findings.front()) + rest;
}

// The faults that concern one entry.
std::string faultOf(const kl::StoreView& view, const kl::StoreView::Entry& entry, const std::string& path) {
  std::vector<Finding> findings;
  for (const Finding& finding : view.findings())
    if (!isOfOneSlot(finding) || finding.slot == entry.slot) findings.push_back(finding);
  return faultOf(findings, path);
}

Failure cannot(const char* verb, const std::string& file, int error) {
  const std::string reason = error == 0 ? "" : std::string(": ") + std::strerror(error);
  return usage(std::string("cannot ") + verb + " " + file + reason);
}

// Why the file cannot be read, or read and written, as an error number; 0 if it can.
int errorOf(const std::string& file, int access) {
  struct stat facts {};
  if (::stat(file.c_str(), &facts) != 0) return errno;
  if (!S_ISREG(facts.st_mode)) return S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
  return ::faccessat(AT_FDCWD, file.c_str(), access, AT_EACCESS) != 0 ? errno : 0;
}

// The completion of a shell ends with the name of one of the files.
void refuseFileOfStore(const std::string& path) {
  for (const char* suffix : {".idx", ".dat", ".lock"})
    if (path.ends_with(suffix) && ::access(path.c_str(), F_OK) == 0)
      throw usage(path + " is a file of a store, which is named without " + suffix);
}

void needFiles(const kl::StoreView& view, const std::string& path) {
  if (!has(view, Fault::kNoIndex) && !has(view, Fault::kNoData)) return;
  refuseFileOfStore(path);
  const char* const suffix = has(view, Fault::kNoIndex) ? ".idx" : ".dat";
  throw cannot("read", path + suffix, errorOf(path + suffix, R_OK));
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

std::string messageText(const CommandLine& line, const kl::message& m) {
  if (line.dump) return dumpText(m);
  const Json fields = klctl::toJson(m, FieldNames());
  return line.json ? jsonText(fields) : objectTable(fields);
}

// New files belong to the user who makes them, and a service that runs as another user could not open its store any
// more.  So root becomes the files' owner as long as this lives, and any other user who is not the owner is refused.
class AsOwner {
 public:
  explicit AsOwner(const std::string& file) {
    struct stat facts {};
    if (::stat(file.c_str(), &facts) != 0) throw cannot("read", file, errno);
    if (facts.st_uid == user_) return;
    if (::setegid(facts.st_gid) != 0 || ::seteuid(facts.st_uid) != 0)
      throw usage("cannot write " + file + ": it belongs to another user");
  }
  ~AsOwner() { (void)!(::seteuid(user_) == 0 && ::setegid(group_) == 0); }
  AsOwner(const AsOwner&) = delete;
  AsOwner& operator=(const AsOwner&) = delete;

 private:
  uid_t user_ = ::geteuid();
  gid_t group_ = ::getegid();
};

// The old files stand until the new ones are whole, and a Store that finds no room for those leaves them alone.  Room
// is looked for beforehand, in a file without a name, so that the user learns why nothing was compacted.
void needRoom(const kl::StoreView& view, const std::string& path) {
  constexpr off_t kSlotBytes = 12;        // of the index
  constexpr off_t kRoundedBytes = 16384;  // that a file system adds to a file
  off_t bytes = kRoundedBytes + static_cast<off_t>(view.dataBytes());
  for (const auto& slot : view.freeSlots()) bytes -= slot.size;
  bytes += kSlotBytes * static_cast<off_t>(view.entries().size());
  std::string name = path + ".XXXXXX";
  const int fd = ::mkstemp(name.data());
  if (fd < 0) throw cannot("write beside", path + ".idx", errno);
  (void)::unlink(name.c_str());
  const int error = ::posix_fallocate(fd, 0, bytes);
  (void)::close(fd);
  if (error != 0) throw cannot("write beside", path + ".idx", error);
}

// A Store makes an empty one of files that do not belong together or that it cannot open, and goes on without a lock
// that it cannot have, so such files are left alone.
void needSoundFiles(const kl::StoreView& view, const std::string& path) {
  for (const char* suffix : {".idx", ".dat", ".lock"}) {
    const int error = errorOf(path + suffix, R_OK | W_OK);
    if (error != 0 && (error != ENOENT || suffix != std::string(".lock")))
      throw cannot("write", path + suffix, error);
  }
  if (has(view, Fault::kSizeMismatch))
    throw Failure(Status::kRefused, faultOf(view.findings(), path) + "; nothing was changed");
}

mode_t modeOf(const std::string& file) {
  struct stat facts {};
  return ::stat(file.c_str(), &facts) == 0 ? facts.st_mode & 07777 : S_IRUSR | S_IWUSR;
}

std::string compact(const kl::StoreView& view, const std::string& path) {
  const AsOwner owner(path + ".idx");
  needSoundFiles(view, path);
  needRoom(view, path);
  const mode_t indexMode = modeOf(path + ".idx");
  const mode_t dataMode = modeOf(path + ".dat");
  kl::Store store(path, 0);
  const std::size_t count = store.entries().size();
  store.compact(false);
  (void)::chmod((path + ".idx").c_str(), indexMode);
  (void)::chmod((path + ".dat").c_str(), dataMode);
  const kl::StoreView after(path);
  if (!after.freeSlots().empty() || after.entries().size() != count)
    throw Failure(Status::kRefused, path + " was not compacted");
  return after.findings().empty() ? "" : "compacted, but " + faultOf(after.findings(), path);
}

}  // namespace

void listStore(const CommandLine& line, const Channels& channels) {
  const kl::StoreView view(line.file);
  needFiles(view, line.file);
  const std::string fault = faultOf(view.findings(), line.file);
  const std::string text = line.json ? listJson(view) : listText(view);
  if (fault.empty()) printTable(channels, text, line.file + ": no entries");
  else printWithFault(channels, text, fault);
}

void showEntry(const CommandLine& line, const Channels& channels) {
  const kl::StoreView view(line.file);
  needFiles(view, line.file);
  const kl::StoreView::Entry* const entry = view.find(*line.path.object);
  if (entry == nullptr)
    throw Failure(Status::kRefused, line.file + " has no entry " + std::to_string(*line.path.object));
  printWithFault(channels, messageText(line, view.get(*entry)), faultOf(view, *entry, line.file));
}

void checkStore(const CommandLine& line, const Channels& channels) {
  const kl::StoreView view(line.file);
  if (has(view, Fault::kNoIndex) && has(view, Fault::kNoData)) needFiles(view, line.file);
  std::string text;
  Json all = Json::array();
  for (const Finding& finding : view.findings()) {
    text += sentenceOf(finding) + "\n";
    all.push_back(sentenceOf(finding));
  }
  const std::string count = std::to_string(all.size()) + (all.size() == 1 ? " fault" : " faults");
  printWithFault(channels, line.json ? jsonText(all) : text, all.empty() ? "" : line.file + ": " + count);
}

void compactStore(const CommandLine& line, const Channels& channels) {
  const kl::StoreView view(line.file);
  needFiles(view, line.file);
  printWithFault(channels, "", compact(view, line.file));
}

}  // namespace klctl
