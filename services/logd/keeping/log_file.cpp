// F1  the file holds whole lines: what a write began and could not end is cut off again, and a line that a killed
//     service left unfinished is ended before the next
// F2  size_ + buffer_.size() <= mostBytes for a regular file, and PATH.n exists for n < count only: together never
//     more than mostBytes * count bytes on the disk
// F3  failure_ has the reason why nothing is written; it is reported once, when it begins
// F4  what a user may have of a regular file is FileShares' rule; the system's lines are always taken

#include "keeping/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

#include "kl/services.h"

namespace logd {
namespace {

namespace fs = std::filesystem;

constexpr Nanoseconds kRetryAfter = 1'000'000'000;
constexpr Nanoseconds kOld = 24 * 3600 * kRetryAfter;
constexpr mode_t kFileMode = 0640;
static_assert(sizeof(off_t) >= 8, "a file that was there may have any length");

unsigned long long linesIn(std::string_view text) {
  return static_cast<unsigned long long>(std::count(text.begin(), text.end(), '\n'));
}

// The age in a name like "PATH.3"; 0 for any other name.
unsigned int ageOf(const std::string& name, const std::string& base) {
  if (!name.starts_with(base + ".") || name.size() > base.size() + 10) return 0;
  const std::string digits = name.substr(base.size() + 1);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos || digits[0] == '0')
    return 0;
  return static_cast<unsigned int>(std::stoul(digits));
}

bool endsWithinALine(int fd, unsigned long long size) {
  char last = '\n';
  return size > 0 && ::pread(fd, &last, 1, static_cast<off_t>(size - 1)) == 1 && last != '\n';
}

}  // namespace

void LogFile::add(std::string_view line, Nanoseconds now, std::optional<unsigned int> user) {
  if (!mayTry(now)) return lose(1);
  std::string text(line);
  if (text.size() > rule_.mostBytes)
    text = text.substr(0, static_cast<std::size_t>(rule_.mostBytes) - 1) + "\n";
  if (!file_.isOpen() && !open(now)) stop(std::strerror(errno), now);
  if (user && mayTry(now) && !hasRoomFor(*user, text.size(), now)) return void(++lost_);
  if (isRegular_ && size_ + buffer_.size() + text.size() > rule_.mostBytes) {
    replace(now);
    if (user && rule_.isShared) (void)shares_.take(*user, text.size());
  }
  buffer_ += text;
  if (!mayTry(now)) loseBuffer();
}

// F4
bool LogFile::hasRoomFor(unsigned int user, std::size_t bytes, Nanoseconds now) {
  if (!rule_.isShared || !isRegular_) return true;
  if (shares_.isOlderThan(kOld, now) && !shares_.hasRoomFor(user, bytes)) replace(now);
  if (!mayTry(now) || shares_.take(user, bytes)) return true;
  if (shares_.isNews())
    report_(rule_.path + ": the user " + std::to_string(user) +
            " has had its part: further lines of it are left out until the file is replaced");
  return false;
}

void LogFile::replace(Nanoseconds now) {
  flush(now);
  if (mayTry(now) && size_ > 0 && !rotate(now)) stop(std::strerror(errno), now);
}

void LogFile::beginShares(Nanoseconds now) {
  if (const auto count = shares_.leftOut(); count > 0)
    report_(rule_.path + ": " + std::to_string(count) +
            " lines of users who had had their part were left out");
  shares_.begin(now);
}

void LogFile::flush(Nanoseconds now) {
  if (buffer_.empty()) return;
  if (!mayTry(now) || (!file_.isOpen() && !open(now)) || !writeOut()) {
    if (mayTry(now)) stop(std::strerror(errno), now);
    return loseBuffer();
  }
  goOn();
  if (rule_.sync == kl::LOG_SYNC_LINE) syncNow();
}

void LogFile::tick() {
  if (rule_.sync != kl::LOG_SYNC_NEVER) syncNow();
}

void LogFile::reopen(Nanoseconds now) {
  flush(now);
  syncNow();
  file_.close();
}

// The next write finds what is full, missing or forbidden.
bool LogFile::open(Nanoseconds now) {
  std::error_code ignored;
  fs::create_directories(fs::path(rule_.path).parent_path(), ignored);
  common::Descriptor file(
      ::open(rule_.path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kFileMode));
  struct stat about {};
  if (!file.isOpen() || ::fstat(file.get(), &about) != 0) return false;
  file_ = std::move(file);
  isRegular_ = S_ISREG(about.st_mode);
  size_ = isRegular_ ? static_cast<unsigned long long>(about.st_size) : 0;
  if (!isRegular_) return true;
  if (size_ == 0 || !shares_.hasBegun()) beginShares(now);
  if (endsWithinALine(file_.get(), size_)) {  // F1
    if (::write(file_.get(), "\n", 1) != 1) return file_.close(), false;
    ++size_;
  }
  if (size_ > rule_.mostBytes) return rotate(now);
  removeSurplus();
  return true;
}

bool LogFile::writeOut() {
  std::size_t written = 0;
  while (written < buffer_.size()) {
    const ssize_t n = ::write(file_.get(), buffer_.data() + written, buffer_.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
  isDirty_ = isDirty_ || written > 0;
  const int reason = errno;
  const std::size_t whole = written == 0 ? 0 : buffer_.rfind('\n', written - 1) + 1;
  if (isRegular_) size_ += whole;
  if (isRegular_ && whole < written) (void)!::ftruncate(file_.get(), static_cast<off_t>(size_));  // F1
  buffer_.erase(0, whole);
  errno = reason;
  return buffer_.empty();
}

// Renames from the oldest file on: the oldest goes, and each other takes the place of the next older one.
bool LogFile::rotate(Nanoseconds now) {
  syncNow();
  if (rule_.count == 1) {
    if (::unlink(rule_.path.c_str()) != 0 && errno != ENOENT) return false;
  }
  for (unsigned int age = rule_.count - 1; age > 0; --age)
    if (::rename(pathOf(age - 1).c_str(), pathOf(age).c_str()) != 0 && errno != ENOENT) return false;
  file_.close();
  return open(now);
}

// Files that an earlier configuration left, or that are together bigger than this one allows, go; the oldest first.
// One whose size cannot be read stays until it can be.
void LogFile::removeSurplus() const {
  const fs::path path(rule_.path);
  std::error_code error;
  std::map<unsigned int, fs::path> byAge;
  for (const auto& entry : fs::directory_iterator(path.parent_path(), error))
    if (const unsigned int age = ageOf(entry.path().filename(), path.filename()); age > 0)
      byAge[age] = entry.path();
  unsigned long long left = rule_.mostBytes * (rule_.count - 1);
  for (const auto& [age, file] : byAge) {
    const auto size = fs::file_size(file, error);
    if (age < rule_.count && error) continue;
    if (age < rule_.count && size <= left) left -= size;
    else fs::remove(file, error);
  }
}

std::string LogFile::pathOf(unsigned int age) const {
  return age == 0 ? rule_.path : rule_.path + "." + std::to_string(age);
}

void LogFile::stop(const std::string& reason, Nanoseconds now) {
  nextTry_ = now + kRetryAfter;
  file_.close();
  if (failure_.empty()) report_(rule_.path + ": " + reason + ": lines are not written until they can be");
  failure_ = reason;
}

void LogFile::goOn() {
  if (failure_.empty()) return;
  failure_.clear();
  report_(rule_.path + ": lines are written again, " + std::to_string(lostSinceStop_) + " were not");
  lostSinceStop_ = 0;
}

void LogFile::loseBuffer() {
  lose(linesIn(buffer_));
  buffer_.clear();
}

void LogFile::lose(unsigned long long lines) {
  lost_ += lines;
  lostSinceStop_ += lines;
}

void LogFile::syncNow() {
  if (!isDirty_ || rule_.sync == kl::LOG_SYNC_NEVER || !file_.isOpen()) return;
  (void)::fdatasync(file_.get());
  isDirty_ = false;
}

}  // namespace logd
