// A look at the files of a store from outside.
//
// A writer beside it changes one file after the other, uses slots again and replaces both files when it compacts.
// Two readings that agree, with nothing under way when the second begins and ends, are the state of the store between
// the two.  If none do, the last one is made under the lock.
//
// SV1  what a writer that holds the lock has not finished yet is no fault
// Held by StoreViewBesideAChange.AWriterInMidChangeIsWaitedFor and
// StoreViewBesideAChange.AWriterThatIsStoppedInMidChangeIsNoFault.

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>
#include <utility>

#include "base/file_io.h"
#include "kl/looper.h"
#include "kl/store.h"
#include "store/files/format.h"
#include "store/journal/journal_entries.h"

namespace kl {
namespace {

constexpr int kAttempts = 5;
constexpr int kLockAttempts = 1000;  // at once
constexpr int kLockWaits = 1000;     // behind those, each of this length
constexpr timespec kLockWait = {0, 1000000};
constexpr int kLook = O_RDONLY | O_NONBLOCK;  // a pipe of that name has no writer to wait for

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

  int fd() const { return fd_; }
  // Everything; false if it is no file with contents.
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

// A journal may begin with durable lengths, which are there to stay.
bool hasPendingChange(const InputFile& lockFile) {
  ByteVector journal;
  (void)lockFile.read(journal);
  return journal.size() > durableBytesClaimed(journal.data(), journal.size());
}

// Keeps writers out until the file is closed.  False if one holds the lock and does not let go of it: gives up after
// about a second, so that a stopped writer cannot block the reader.
bool lockOutWriters(const InputFile& lockFile) {
  if (Looper* looper = getLooper(); looper != nullptr) looper->flushMessages();
  struct flock whole = {};
  whole.l_type = F_RDLCK;
  whole.l_whence = SEEK_SET;
  for (int attempt = 0; ::fcntl(lockFile.fd(), F_SETLK, &whole) != 0; ++attempt) {
    const bool isHeld = errno == EAGAIN || errno == EACCES;
    if (!isHeld || attempt == kLockAttempts + kLockWaits) return !isHeld;
    if (attempt < kLockAttempts) (void)::sched_yield();
    else (void)::nanosleep(&kLockWait, nullptr);
  }
  return true;
}

// The sum of the sizes of all slots.
unsigned long long sumOf(const ByteVector& index, ByteOrder order) {
  unsigned long long sum = 0;
  for (std::size_t at = 0; at + kSlotBytes <= index.size(); at += kSlotBytes)
    sum += decodeSlot(&index[at], order).size;
  return sum;
}

bool isMissingFile(const StoreView::Finding& finding) {
  return finding.fault == StoreView::Fault::kNoIndex || finding.fault == StoreView::Fault::kNoData;
}

// Whether there are two files to compare.
bool areBothThere(const std::vector<StoreView::Finding>& findings) {
  return std::none_of(findings.begin(), findings.end(), isMissingFile);
}

}  // namespace

// One pass over the files.
class __attribute__((visibility("hidden"))) StoreView::Reading {
 public:
  Reading(const std::string& path, const InputFile& lockFile);

  State& state() { return state_; }
  // A change was under way when it began or ended.
  bool isPending() const { return isPending_; }

 private:
  void readIndex(const ByteVector& index);
  void addSlot(unsigned int id, const FreeSlot& slot, unsigned int lifetime);
  void dropRepeated();
  void readBlobs(int dataFd);
  bool readBlob(int dataFd, const Entry& entry, ByteVector& payload, Fault& fault) const;
  ByteOrder order() const { return state_.isBigEndian ? ByteOrder::kBig : ByteOrder::kLittle; }
  void report(Fault fault, unsigned int slot = 0, unsigned int id = 0) {
    state_.findings.push_back({fault, slot, id});
  }

  State state_;
  bool isPending_;
};

// A writer without a pause lets no two readings agree: it waits for the last one.
StoreView::StoreView(const std::string& path) {
  const std::string lockPath = path + ".lock";
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    Reading reading(path, InputFile(lockPath));
    if (attempt > 0 && !reading.isPending() && reading.state() == state_) return;
    state_ = std::move(reading.state());
  }
  const InputFile lockFile(lockPath);
  const bool isAtWork = !lockOutWriters(lockFile);
  state_ = std::move(Reading(path, lockFile).state());
  if (isAtWork)
    std::erase_if(state_.findings, [](const Finding& finding) { return !isMissingFile(finding); });  // SV1
}

const StoreView::Entry* StoreView::find(unsigned int id) const {
  const auto found = std::find_if(state_.entries.begin(), state_.entries.end(),
                                  [id](const Entry& entry) { return entry.id == id; });
  return found == state_.entries.end() ? nullptr : &*found;
}

message StoreView::get(const Entry& entry) const {
  const auto found =
      std::lower_bound(state_.entries.begin(), state_.entries.end(), entry.slot,
                       [](const Entry& known, unsigned int slot) { return known.slot < slot; });
  message result;
  if (found == state_.entries.end() || !(*found == entry)) return result;
  const auto at = static_cast<std::size_t>(found - state_.entries.begin());
  const std::size_t start = at == 0 ? 0 : state_.ends[at - 1];
  (void)result.unflatten(state_.messages.data() + start, static_cast<unsigned int>(state_.ends[at] - start),
                         message::normal);
  return result;
}

StoreView::Reading::Reading(const std::string& path, const InputFile& lockFile)
    : isPending_(hasPendingChange(lockFile)) {
  const InputFile data(path + ".dat");
  struct stat facts {};
  const bool hasData = data.fd() >= 0 && ::fstat(data.fd(), &facts) == 0 && S_ISREG(facts.st_mode);
  state_.dataBytes = hasData ? static_cast<unsigned long long>(facts.st_size) : 0;
  ByteVector index;
  if (!InputFile(path + ".idx").read(index)) report(Fault::kNoIndex);
  if (!hasData) report(Fault::kNoData);
  if (isPending_) report(Fault::kPendingChange);
  readIndex(index);
  dropRepeated();
  if (hasData) readBlobs(data.fd());
  isPending_ = isPending_ || hasPendingChange(lockFile);
}

void StoreView::Reading::readIndex(const ByteVector& index) {
  const bool fitsLittle = sumOf(index, ByteOrder::kLittle) == state_.dataBytes;
  state_.isBigEndian = !fitsLittle && sumOf(index, ByteOrder::kBig) == state_.dataBytes;
  if (!fitsLittle && !state_.isBigEndian && areBothThere(state_.findings)) report(Fault::kSizeMismatch);
  if (index.size() % kSlotBytes != 0) report(Fault::kPartialSlot);
  FreeSlot slot{};
  for (std::size_t at = 0; at + kSlotBytes <= index.size(); at += kSlotBytes) {
    const IndexSlot content = decodeSlot(&index[at], order());
    slot.size = content.size;
    addSlot(content.id, slot, content.lifetime);
    slot.offset += content.size;
    ++slot.slot;
  }
}

void StoreView::Reading::addSlot(unsigned int id, const FreeSlot& slot, unsigned int lifetime) {
  if (id == kFreeId) state_.freeSlots.push_back(slot);
  else state_.entries.push_back({id, slot.offset, slot.size, slot.slot, lifetime});
}

// The first of two slots with one id counts.
void StoreView::Reading::dropRepeated() {
  std::set<unsigned int> known;
  std::erase_if(state_.entries, [&](const Entry& entry) {
    if (known.insert(entry.id).second) return false;
    report(Fault::kRepeatedId, entry.slot, entry.id);
    return true;
  });
}

void StoreView::Reading::readBlobs(int dataFd) {
  ByteVector payload;
  for (const Entry& entry : state_.entries) {
    Fault fault{};
    message m;
    if (!readBlob(dataFd, entry, payload, fault)) report(fault, entry.slot, entry.id);
    else if (!m.unflatten(payload.data(), static_cast<unsigned int>(payload.size()), message::normal))
      report(Fault::kBadMessage, entry.slot, entry.id);
    state_.messages.insert(state_.messages.end(), payload.begin(), payload.end());
    state_.ends.push_back(state_.messages.size());
  }
}

// Leaves nothing in `payload` of a blob that cannot be read.
bool StoreView::Reading::readBlob(int dataFd, const Entry& entry, ByteVector& payload, Fault& fault) const {
  payload.clear();
  LengthBytes header{};
  const auto offset = static_cast<off_t>(entry.offset);
  fault = Fault::kCutOff;
  if (readAt(dataFd, header.data(), header.size(), offset) != static_cast<ssize_t>(header.size()))
    return false;
  const std::size_t length = decodeLength(header.data(), order());
  fault = Fault::kBadLength;
  if (length < kLengthBytes || length > entry.size) return false;
  fault = Fault::kCutOff;
  payload.resize(length - kLengthBytes);
  const ssize_t got =
      readAt(dataFd, payload.data(), payload.size(), offset + static_cast<off_t>(kLengthBytes));
  if (got == static_cast<ssize_t>(payload.size())) return true;
  payload.clear();
  return false;
}

}  // namespace kl
