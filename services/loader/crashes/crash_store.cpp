// A file has the number of its crash for a name, and comes into its place whole, by its renaming.  It is not
// written down which crashes are the same: the reports say it, when the loader starts.

#include "crashes/crash_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "crashes/crash.h"
#include "kl/conventions.h"
#include "loader.kl.h"
#include "services/common/descriptor.h"
#include "services/common/tap.h"

namespace loader {
namespace {

constexpr std::size_t kMostFileBytes = 65535;
constexpr std::size_t kMostContentBytes = std::size_t{60} * 1024;
constexpr std::size_t kLengthBytes = 2;  // in front of a message in a list
constexpr char kUnfinished[] = "/unfinished";

unsigned int idFrom(const std::string& name) {
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

kl::message readKept(const std::string& path) {
  const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  std::vector<unsigned char> bytes(kMostFileBytes + 1);
  const ssize_t count = file.isOpen() ? ::read(file.get(), bytes.data(), bytes.size()) : -1;
  if (count <= 0 || static_cast<std::size_t>(count) > kMostFileBytes) return {};
  bytes.resize(static_cast<std::size_t>(count));
  return kl::message(kl::message::flat_message(bytes));
}

// False with errno.
bool writeKept(const std::string& path, const std::vector<unsigned char>& bytes) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
  const common::Descriptor file(::open(path.c_str(), kFlags, 0600));
  if (!file.isOpen()) return false;
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t count = ::write(file.get(), bytes.data() + at, bytes.size() - at);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += static_cast<std::size_t>(count);
  }
  return true;
}

KeptCrash crashOf(unsigned int id, const kl::message& m) {
  KeptCrash crash;
  crash.id = id;
  crash.time = m.get(loader_service::TIME, 0);
  crash.service = m.get(loader_service::NAME, "");
  crash.serviceId = m.get(loader_service::SERVICE_ID, 0);
  crash.pid = m.get(loader_service::PID, 0);
  crash.signal = m.get(loader_service::SIGNAL, "");
  crash.where = m.get(loader_service::WHERE, "");
  crash.times = m.get(loader_service::TIMES, 1);
  crash.program = m.get(loader_service::PROGRAM, "");
  crash.buildId = m.get(loader_service::BUILD_ID, "");
  const ProgramFile program{crash.program, 0, crash.buildId};
  crash.key = readCrash(m.get(loader_service::REPORT, ""), program).key(crash.buildId);
  return crash;
}

// One frame carries it as well, on the way to who asks for it.
std::vector<unsigned char> bytesOf(const KeptCrash& crash, const CrashContents& contents) {
  kl::message m = crash.message();
  m.insert(loader_service::REPORT, contents.report);
  std::size_t room = kMostContentBytes - std::min<std::size_t>(m.max_length(), kMostContentBytes);
  auto first = contents.messages.end();
  for (; first != contents.messages.begin() && room >= (first - 1)->size() + kLengthBytes; --first)
    room -= (first - 1)->size() + kLengthBytes;
  if (first != contents.messages.end()) m.insert(common::tap::MESSAGES, {first, contents.messages.end()});
  return m.flattened();
}

}  // namespace

kl::message KeptCrash::message() const {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(loader_service::TIME, time);
  m.insert(loader_service::NAME, service);
  m.insert(loader_service::SERVICE_ID, serviceId);
  m.insert(loader_service::PID, pid);
  m.insert(loader_service::SIGNAL, signal);
  m.insert(loader_service::WHERE, where);
  m.insert(loader_service::TIMES, times);
  m.insert(loader_service::PROGRAM, program);
  if (!buildId.empty()) m.insert(loader_service::BUILD_ID, buildId);
  return m;
}

void CrashStore::open() {
  if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST)
    return log_.line(folder_ + ": cannot be made: " + std::strerror(errno) + "; crash reports are not kept");
  (void)::chmod(folder_.c_str(), 0700);
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder_, error), end; !error && at != end; at.increment(error))
    if (const unsigned int id = idFrom(at->path().filename().string()); id != 0) load(id);
  std::sort(crashes_.begin(), crashes_.end(), [](const KeptCrash& a, const KeptCrash& b) {
    return std::pair(a.time, a.id) > std::pair(b.time, b.id);
  });
  dropBeyondLimits();
}

void CrashStore::load(unsigned int id) {
  const kl::message m = readKept(fileOf(id));
  if (m.get(kl::STD_ID, 0) != id || !m.has(loader_service::REPORT)) {
    log_.line(fileOf(id) + ": is no crash report");
    return;
  }
  crashes_.push_back(crashOf(id, m));
  lastId_ = std::max(lastId_, id);
}

unsigned int CrashStore::add(KeptCrash crash, const CrashContents& contents) {
  const auto former = std::find_if(crashes_.begin(), crashes_.end(), [&](const KeptCrash& other) {
    return other.serviceId == crash.serviceId && isSameCrash(other.key, crash.key);
  });
  if (former != crashes_.end()) {
    crash.id = former->id;
    crash.times = former->times + 1;
    if (crash.where.empty()) crash.where = former->where;
    crashes_.erase(former);
  } else {
    crash.id = ++lastId_;
  }
  const bool isWritten = write(crash, contents);
  if (!isWritten) {
    (void)::unlink(fileOf(crash.id).c_str());
    return 0;
  }
  crashes_.push_front(std::move(crash));
  dropBeyondLimits();
  return crashes_.front().id;
}

void CrashStore::setWhere(unsigned int id, const std::string& where) {
  const auto found =
      std::find_if(crashes_.begin(), crashes_.end(), [id](const KeptCrash& crash) { return crash.id == id; });
  if (found == crashes_.end()) return;
  found->where = where;
  const KeptCrash crash = *found;  // making room may drop it
  const kl::message kept = read(id);
  const CrashContents contents{kept.get(loader_service::REPORT, ""), kept.get(common::tap::MESSAGES, {})};
  if (!contents.report.empty()) (void)write(crash, contents);
}

const KeptCrash* CrashStore::find(unsigned int id) const {
  const auto found =
      std::find_if(crashes_.begin(), crashes_.end(), [id](const KeptCrash& crash) { return crash.id == id; });
  return found == crashes_.end() ? nullptr : &*found;
}

kl::message CrashStore::read(unsigned int id) const { return readKept(fileOf(id)); }

bool CrashStore::write(const KeptCrash& crash, const CrashContents& contents) {
  const std::vector<unsigned char> bytes = bytesOf(crash, contents);
  const std::string unfinished = folder_ + kUnfinished;
  bool isWritten = writeKept(unfinished, bytes);
  while (!isWritten && errno == ENOSPC && makeRoom()) isWritten = writeKept(unfinished, bytes);
  if (isWritten && ::rename(unfinished.c_str(), fileOf(crash.id).c_str()) == 0) return true;
  log_.line("the crash report of " + crash.service + " cannot be kept: " + std::strerror(errno));
  (void)::unlink(unfinished.c_str());
  return false;
}

// False when there is none that could go.
bool CrashStore::makeRoom() {
  if (crashes_.empty()) {
    errno = ENOSPC;
    return false;
  }
  log_.line("the disk is full: crash report " + std::to_string(crashes_.back().id) + " of " +
            crashes_.back().service + " makes room");
  drop(crashes_.size() - 1);
  return true;
}

void CrashStore::dropBeyondLimits() {
  for (std::size_t i = 0; i < crashes_.size();) {
    const auto isOfSame = [&](const KeptCrash& other) { return other.serviceId == crashes_[i].serviceId; };
    const auto at = crashes_.begin() + static_cast<std::ptrdiff_t>(i);
    if (i >= kMost ||
        std::count_if(crashes_.begin(), at, isOfSame) >= static_cast<std::ptrdiff_t>(kMostOfService))
      drop(i);
    else ++i;
  }
}

void CrashStore::drop(std::size_t index) {
  (void)::unlink(fileOf(crashes_[index].id).c_str());
  crashes_.erase(crashes_.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace loader
