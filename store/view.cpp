// A look at the files of a store from outside, without its lock.
//
// A writer beside it changes one file after the other and replaces both when it compacts.  A reading that met it
// half way looks like damage, so one that finds anything wrong is forgotten and done again, as long as there are
// attempts left.

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "kl/store.h"
#include "store/file_io.h"
#include "store/format.h"

namespace kl {
namespace {

constexpr int kAttempts = 20;
constexpr int kLook = O_RDONLY | O_NONBLOCK;    // no waiting for whoever would write into a pipe of that name
constexpr std::size_t kRecordHeaderBytes = 12;  // of a record in the lock file: magic, length, checksum

using ByteVector = std::vector<unsigned char>;

// A file opened for reading as long as this lives.
class InputFile {
 public:
  explicit InputFile(const std::string& name) : fd_(openFile(name.c_str(), kLook)) {}
  ~InputFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  bool read(ByteVector& content) const {
    struct stat facts {};
    if (fd_ < 0 || ::fstat(fd_, &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    content.resize(static_cast<std::size_t>(facts.st_size));
    const ssize_t got = readAt(fd_, content.data(), content.size(), 0);
    content.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return got >= 0;
  }

 private:
  int fd_;
};

// A lock file may begin with a record of lengths ("KLDU"), which is there to stay.
bool hasPendingChange(const ByteVector& lock) {
  const bool hasLengths =
      lock.size() >= kRecordHeaderBytes && std::equal(lock.begin(), lock.begin() + 4, "KLDU");
  return lock.size() > (hasLengths ? decodeSlot(lock.data(), ByteOrder::kLittle).size : 0);
}

// What the sizes of all slots add up to.
unsigned long long sumOf(const ByteVector& index, ByteOrder order) {
  unsigned long long sum = 0;
  for (std::size_t at = 0; at + kSlotRecordBytes <= index.size(); at += kSlotRecordBytes)
    sum += decodeSlot(&index[at], order).size;
  return sum;
}

// Whether there are two files to compare.
bool areBothThere(const std::vector<StoreView::Finding>& findings) {
  return std::none_of(findings.begin(), findings.end(), [](const StoreView::Finding& finding) {
    return finding.fault == StoreView::Fault::kNoIndex || finding.fault == StoreView::Fault::kNoData;
  });
}

}  // namespace

StoreView::StoreView(const std::string& path) {
  read(path);
  for (int attempt = 1; attempt < kAttempts && !findings_.empty(); ++attempt) {
    (void)::sched_yield();
    read(path);
  }
}

StoreView::~StoreView() {
  if (dataFd_ >= 0) ::close(dataFd_);
}

const StoreView::Entry* StoreView::find(unsigned int id) const {
  const auto found =
      std::find_if(entries_.begin(), entries_.end(), [id](const Entry& entry) { return entry.id == id; });
  return found == entries_.end() ? nullptr : &*found;
}

message StoreView::get(const Entry& entry) const {
  ByteVector payload;
  Fault unused{};
  message result;
  if (readRecord(entry, payload, unused))
    (void)result.unflatten(payload.data(), static_cast<unsigned int>(payload.size()), message::normal);
  return result;
}

void StoreView::read(const std::string& path) {
  findings_.clear();
  if (dataFd_ >= 0) ::close(dataFd_);
  dataFd_ = openFile((path + ".dat").c_str(), kLook);
  struct stat data {};
  const bool hasData = dataFd_ >= 0 && ::fstat(dataFd_, &data) == 0 && S_ISREG(data.st_mode);
  dataBytes_ = hasData ? static_cast<unsigned long long>(data.st_size) : 0;
  ByteVector lock;
  (void)InputFile(path + ".lock").read(lock);
  ByteVector index;
  if (!InputFile(path + ".idx").read(index)) report(Fault::kNoIndex);
  if (!hasData) report(Fault::kNoData);
  if (hasPendingChange(lock)) report(Fault::kPendingChange);
  readIndex(index);
  if (hasData) checkRecords();
}

void StoreView::readIndex(const ByteVector& index) {
  entries_.clear();
  freeSlots_.clear();
  const bool fitsLittle = sumOf(index, ByteOrder::kLittle) == dataBytes_;
  isBigEndian_ = !fitsLittle && sumOf(index, ByteOrder::kBig) == dataBytes_;
  if (!fitsLittle && !isBigEndian_ && areBothThere(findings_)) report(Fault::kSizeMismatch);
  if (index.size() % kSlotRecordBytes != 0) report(Fault::kPartialSlot);
  FreeSlot slot{};
  for (std::size_t at = 0; at + kSlotRecordBytes <= index.size(); at += kSlotRecordBytes) {
    const SlotRecord record = decodeSlot(&index[at], isBigEndian_ ? ByteOrder::kBig : ByteOrder::kLittle);
    slot.size = record.size;
    addSlot(record.id, slot, record.lifetime);
    slot.offset += record.size;
    ++slot.slot;
  }
}

void StoreView::addSlot(unsigned int id, const FreeSlot& slot, unsigned int lifetime) {
  if (id == kFreeId) freeSlots_.push_back(slot);
  else entries_.push_back({id, slot.offset, slot.size, slot.slot, lifetime});
}

void StoreView::checkRecords() {
  Store::Entries known;
  const auto isRepeated = [&](const Entry& entry) {
    const std::size_t before = known.size();
    known.try_emplace(known.end(), entry.id, Store::Entry());
    if (known.size() != before) return false;
    report(Fault::kRepeatedId, entry.slot, entry.id);
    return true;
  };
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(), isRepeated), entries_.end());
  ByteVector payload;
  for (const Entry& entry : entries_) {
    Fault fault{};
    message m;
    if (!readRecord(entry, payload, fault)) report(fault, entry.slot, entry.id);
    else if (!m.unflatten(payload.data(), static_cast<unsigned int>(payload.size()), message::normal))
      report(Fault::kBadMessage, entry.slot, entry.id);
  }
}

bool StoreView::readRecord(const Entry& entry, ByteVector& payload, Fault& fault) const {
  LengthBytes header{};
  const auto offset = static_cast<off_t>(entry.offset);
  fault = Fault::kCutOff;
  if (readAt(dataFd_, header.data(), header.size(), offset) != static_cast<ssize_t>(header.size()))
    return false;
  const std::size_t length = decodeLength(header.data(), isBigEndian_ ? ByteOrder::kBig : ByteOrder::kLittle);
  fault = Fault::kBadLength;
  if (length < kLengthBytes || length > entry.size) return false;
  fault = Fault::kCutOff;
  payload.resize(length - kLengthBytes);
  const ssize_t got =
      readAt(dataFd_, payload.data(), payload.size(), offset + static_cast<off_t>(kLengthBytes));
  return got == static_cast<ssize_t>(payload.size());
}

}  // namespace kl
