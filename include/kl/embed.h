#pragma once
// kl/embed.h: the loop of this library inside the event loop of something else.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "kl/runner.h"

namespace kl {

// Stands in the place of run() where another event loop has the process: a toolkit's, or that of another library.  That
// loop watches one descriptor and calls pass() when it is readable:
//
//     kl::Looper loop(kl::Looper::kAny, 34);
//     kl::EmbeddedLoop embedded(loop);
//     foreign.watch(embedded.descriptor(), [&] {
//       if (!embedded.pass()) foreign.quit();               // as run() would return
//     });
//     foreign.run();
//
// The descriptor is readable when a pass has something to do, timers included.  A pass makes the
// calls of run() in their order: one poll, the timers that are due, the sockets that are ready, then the hooks of the
// next pass.  pass() never waits.  Code outside of a pass may use the loop and its handlers, too, and calls pass()
// afterwards: only then does the descriptor know of new timers and sockets, and what was sent to this process itself
// is on its way.
//
// Errors:    descriptor() is -1 where the kernel has none left.
// Ownership: owns its descriptors; borrows the loop, which outlives it.  The foreign loop forgets the descriptor before
//            this is destroyed.  A resource, so it is not copied.  Needs: nobody calls run() of the loop.
// Threads:   belongs to one thread, which is that of the loop.
// Cost:      nothing before descriptor() is called first: then two descriptors.  A pass costs three system calls more than
//            one of run(), and one for each watched socket.  Messages that run() of a Looper holds back, to write
//            them together, are written at once.
class EmbeddedLoop {
 public:
  // Does what run() does before its first pass; a Looper says that it runs.
  explicit EmbeddedLoop(ThinRunner& loop) : loop_(loop) {
    const bool wasEmpty = loop_.polls_.empty();
    loop_.stop_ = true;  // no pass
    loop_.run();
    loop_.stop_ = !wasEmpty && loop_.polls_.empty();  // it was shut down meanwhile
    runHooks();
  }
  EmbeddedLoop(const EmbeddedLoop&) = delete;
  EmbeddedLoop& operator=(const EmbeddedLoop&) = delete;
  ~EmbeddedLoop() {
    for (const int fd : {all_, timer_})
      if (fd >= 0) ::close(fd);
  }

  // Made at the first call, and the same from then on.
  int descriptor() {
    if (all_ >= 0) return all_;
    const int all = ::epoll_create1(EPOLL_CLOEXEC);
    if (all < 0) return -1;
    timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timer_ < 0) {
      ::close(all);
      return -1;
    }
    all_ = all;
    (void)watch(timer_, POLLIN);
    prepare();
    return all_;
  }

  // Does what there is to do.  False when the loop has ended, before or by this.
  bool pass() {
    if (loop_.stop_) return false;
    if (hasWork()) loop_.runSocks(getJiffies());
    if (!loop_.stop_) runHooks();
    if (all_ >= 0) prepare();
    return !loop_.stop_;
  }

 private:
  // A loop that a hook ends looks once more, as run() does.
  void runHooks() {
    loop_.runBeforeSleep();
    if (loop_.stop_) loop_.runSocks(getJiffies());
  }

  bool hasWork() {
    return ::poll(loop_.polls_.data(), loop_.polls_.size(), 0) > 0 || loop_.someoneReadsAhead() ||
           loop_.sleepTime(getJiffies()) == 0;
  }

  // Has the descriptor wait for what the next poll would wait for.  A socket may have been closed and another one have its
  // number, so each is told anew.
  void prepare() {
    std::erase_if(watched_, [this](int fd) {
      const bool isGone = !loop_.sockets_.contains(fd);
      if (isGone) (void)::epoll_ctl(all_, EPOLL_CTL_DEL, fd, nullptr);
      return isGone;
    });
    bool isReady = loop_.someoneReadsAhead();
    for (const pollfd& one : loop_.polls_) isReady = !watch(one.fd, one.events) || isReady;
    arm(isReady ? 0 : loop_.sleepTime(getJiffies()));
  }

  // False for what epoll(7) does not take: poll(2) always calls it ready.
  bool watch(int fd, short events) {
    epoll_event event{};
    event.events = static_cast<unsigned short>(events);
    if (::epoll_ctl(all_, EPOLL_CTL_MOD, fd, &event) == 0) return true;
    if (::epoll_ctl(all_, EPOLL_CTL_ADD, fd, &event) != 0) return false;
    if (fd != timer_ && std::find(watched_.begin(), watched_.end(), fd) == watched_.end())
      watched_.push_back(fd);
    return true;
  }

  // Becomes readable in so many milliseconds; 0: now, below 0: never.
  void arm(int ms) {
    itimerspec expiry{};
    expiry.it_value.tv_sec = std::max(ms, 0) / 1000;
    expiry.it_value.tv_nsec = ms == 0 ? 1 : static_cast<long>(std::max(ms, 0) % 1000) * 1000000;
    (void)::timerfd_settime(timer_, 0, &expiry, nullptr);
  }

  ThinRunner& loop_;
  int all_ = -1;              // of epoll(7); none yet
  int timer_ = -1;            // in it: the first timer, or at once
  std::vector<int> watched_;  // in it: the sockets
};

}  // namespace kl
