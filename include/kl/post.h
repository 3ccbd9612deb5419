#pragma once
// kl/post.h: other threads hand work to the thread of the loop.

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "kl/timer.h"

namespace kl {

// The way from other threads into a loop.  The loop's thread makes it; any thread posts:
//
//     kl::Post inbox_{loop};                                              // a member
//     std::thread worker([this] {
//       const Result result = compute();                                  // takes its time
//       inbox_.post([this, result] { publish(result); });                 // runs on the loop's thread
//     });
//
// Posted functions run in the order of the posts, in the loop's next pass, after the timers.  A function that one of
// them posts runs in a later pass, so the loop does not starve.
//
// Errors:    isOpen() is false where the kernel has no descriptor left: then nothing runs that is posted, and post()
//            says so.
// Ownership: owns what is posted until it has run; what has not run when this is destroyed never runs and is destroyed
//            with it.  Borrows the loop, which outlives it.  The threads that post end, or are told, before that: their
//            post() must not come later.  A resource, so it is not copied.
// Threads:   made, destroyed and called back on the loop's thread; post() on any, in no signal handler.  Whatever a
//            thread wrote before its post() is seen by what it posted.
// Cost:      one descriptor.  A post is a lock, a place in a vector and, if nothing waits already, one write(2); a pass
//            with posts is one read(2).  No allocation for what has captured up to two words, once the vectors have
//            grown.
class Post {
 public:
  explicit Post(ThinRunner& loop) : watch_(loop), event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (isOpen()) watch_.start(event_, POLLIN, [this](int, unsigned int) { run(); });
  }
  Post(const Post&) = delete;
  Post& operator=(const Post&) = delete;
  ~Post() {
    watch_.stop();
    if (isOpen()) ::close(event_);
    if (isDestroyed_ != nullptr) *isDestroyed_ = true;
  }

  bool isOpen() const { return event_ >= 0; }

  // Has the loop's thread call it.  False if this is not open.
  bool post(Callable<void()> work) {
    if (!isOpen()) return false;
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
    if (posted_.size() == 1) wake();
    return true;
  }

 private:
  // The counter of the event cannot overflow, because the loop empties it before the next first post.
  void wake() const {
    const std::uint64_t one = 1;
    (void)!::write(event_, &one, sizeof one);
  }

  void run() {
    std::uint64_t count;
    std::vector<Callable<void()>> running = std::move(spare_);
    {
      const std::lock_guard lock(mutex_);
      (void)!::read(event_, &count, sizeof count);
      running.swap(posted_);
    }
    bool isDestroyed = false;
    isDestroyed_ = &isDestroyed;
    for (auto& work : running) {
      work();
      if (isDestroyed) return;
      work = nullptr;
      if (isDestroyed) return;
    }
    isDestroyed_ = nullptr;
    running.clear();
    spare_ = std::move(running);
  }

  Watch watch_;
  const int event_;
  std::mutex mutex_;
  std::vector<Callable<void()>> posted_;
  std::vector<Callable<void()>> spare_;  // empty, and grown
  bool* isDestroyed_ = nullptr;          // of the run that is going on
};

}  // namespace kl
