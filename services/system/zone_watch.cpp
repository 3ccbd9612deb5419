// The offset changes for these reasons, and is noticed by these means:
//
//     the zone foresees it       a timer of the wall clock, set to the next change
//     somebody sets the clock    the same timer: the kernel cancels it
//     the zone file changes      inotify: its folder (another file takes its name) and the file behind the name
//                                (it may be a link; what the link leads to may be replaced, too)
//
// Z1  after each of them everything is looked at anew, and the timer and the watch of the file are set again
// Z2  the timer never waits longer than an hour: a change without an event is noticed then
// Z3  the offset and the wait until its next change are of one moment: a change between two would be missed
// Z4  a file is looked at a moment after it changed, so that a replacement in two steps is one change

#include "zone_watch.h"

#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "zone.h"

namespace kl_system {
namespace {

constexpr std::time_t kLongestWaitSeconds = 3600;
constexpr unsigned int kSettleTicks = 20;
constexpr unsigned int kFolderEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR;
constexpr unsigned int kFileEvents = IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::size_t kEventBytes = 4096;

std::string folderOf(const std::string& file) {
  const std::size_t slash = file.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : file.substr(0, slash);
}

std::string nameOf(const std::string& file) { return file.substr(file.rfind('/') + 1); }

// By the clock of the timer; time() may be behind it by a few milliseconds.
std::time_t wallClock() {
  std::timespec time{};
  (void)::clock_gettime(CLOCK_REALTIME, &time);
  return time.tv_sec;
}

}  // namespace

ZoneWatch::ZoneWatch(kl::Runner& loop, const std::string& file, void* context, void (*changed)(void*))
    : loop_(loop), file_(file), context_(context), changed_(changed), settling_(loop, *this) {
  clockFd_ = ::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  if (clockFd_ >= 0) loop_.addSocket(clockFd_, this, kl::bind<ZoneWatch, &ZoneWatch::onClock>(), POLLIN);
  watchFile();
  readOffset();
}

ZoneWatch::~ZoneWatch() {
  for (const int fd : {clockFd_, fileFd_}) {
    if (fd < 0) continue;
    loop_.removeSocket(fd);
    ::close(fd);
  }
}

void ZoneWatch::watchFile() {
  fileFd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fileFd_ < 0) return;
  (void)::inotify_add_watch(fileFd_, folderOf(file_).c_str(), kFolderEvents);
  loop_.addSocket(fileFd_, this, kl::bind<ZoneWatch, &ZoneWatch::onFile>(), POLLIN);
  followFile();
}

// Reading fails when the clock was set; that is as good as an expiry.
void ZoneWatch::onClock(int fd, unsigned int) {
  unsigned long long expiries = 0;
  (void)!::read(fd, &expiries, sizeof expiries);
  look();
}

void ZoneWatch::onFile(int fd, unsigned int) {
  alignas(inotify_event) char events[kEventBytes];
  const ssize_t got = ::read(fd, events, sizeof events);
  if (got <= 0 || settling_.isRunning() || !concernsFile(events, static_cast<std::size_t>(got))) return;
  settling_.start(kSettleTicks);  // Z4
}

// Events of the folder carry the name that they are about, those of the file none.
bool ZoneWatch::concernsFile(const char* events, std::size_t length) const {
  const std::string name = nameOf(file_);
  for (std::size_t at = 0; at + sizeof(inotify_event) <= length;) {
    inotify_event event;
    std::memcpy(&event, events + at, sizeof event);
    if (event.len == 0 || name == events + at + sizeof event) return true;
    at += sizeof event + event.len;
  }
  return false;
}

void ZoneWatch::onSettled() {
  followFile();
  look();
}

// Z1
void ZoneWatch::look() {
  const int before = offset_;
  readOffset();
  if (offset_ != before) changed_(context_);
}

// Z2, Z3
void ZoneWatch::readOffset() {
  readZoneAgain();
  const std::time_t now = wallClock();
  offset_ = offsetAt(now);
  itimerspec when{};
  when.it_value.tv_sec = nextChange(now, now + kLongestWaitSeconds);
  (void)::timerfd_settime(clockFd_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr);
}

// Another file may stand behind the name by now.
void ZoneWatch::followFile() {
  const int watch = ::inotify_add_watch(fileFd_, file_.c_str(), kFileEvents);
  if (fileWatch_ >= 0 && watch != fileWatch_) (void)::inotify_rm_watch(fileFd_, fileWatch_);
  fileWatch_ = watch;
}

}  // namespace kl_system
