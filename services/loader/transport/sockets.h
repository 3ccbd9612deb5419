#pragma once
// sockets.h: how the loop watches the sockets of the connections.

#include <sys/epoll.h>

#include <vector>

#include "kl/runner.h"
#include "transport/descriptors.h"

namespace loader {

// A few sockets are watched by the loop's poll, each for itself, which takes the fewest calls.  The cost of poll grows
// with what it watches, so many sockets are watched by one epoll descriptor, and the loop watches that: a pass costs
// what is ready, however many are not.  The order of callbacks is the same either way: the last entry's is first, and
// the last entry takes the place of a removed one, as in kl::ThinRunner.
//
// P1  sockets_[placeOf_[fd]] is the entry of a watched descriptor; placeOf_ of any other is kNowhere
// P2  an entry's ready events are cleared before its callback runs, and a new one has none, so an entry whose place
//     changes during a walk is not called for what another one was ready for
// P3  who holds bytes that it has read ahead is ready in each pass, and while there is one the loop does not sleep
//
// Errors:    where the kernel gives no epoll descriptor, or takes a socket not into it, poll watches all.
// Ownership: borrows the loop, the descriptors and the context words.
// Threads:   belongs to one thread.
// Cost:      adding, changing and removing are one system call each while there are many.
class Sockets {
 public:
  using Callback = kl::ThinRunner::SocketCallback;
  static constexpr std::size_t kMany = 64;  // so many come together
  static constexpr std::size_t kFew = 32;   // fewer are parted again

  explicit Sockets(kl::ThinRunner& runner);
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
  ~Sockets();

  kl::ThinRunner& runner() { return runner_; }
  bool areTogether() const { return areTogether_; }

  // Calls callback(data, fd, ready) whenever one of `events`, POLLERR or POLLHUP holds.  Needs: fd is not watched.
  void add(int fd, void* data, Callback callback, unsigned int events);
  // These do nothing where fd is not watched.  Removed, it may be closed.
  void change(int fd, unsigned int events);
  void remove(int fd);
  void setReadAhead(int fd, bool holdsBytes);

 private:
  struct Entry {
    int fd;
    void* data;
    Callback callback;
    unsigned int events;
    unsigned int ready;
    bool holdsBytes;
  };

  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

  std::size_t placeOf(int fd) const {
    const auto index = static_cast<std::size_t>(fd);
    return index < placeOf_.size() ? placeOf_[index] : kNowhere;
  }
  void enter(const Entry& entry, std::size_t place);
  bool control(int operation, const Entry& entry) const;
  void watchEach(const Entry& entry);
  void gather();
  void part();
  void onReady(int fd, unsigned int events);
  void collectReady();
  void noteReady(int fd, unsigned int events);

  kl::ThinRunner& runner_;
  Descriptor epoll_;  // from the beginning: later there may be no descriptor left
  bool areTogether_ = false;
  std::vector<Entry> sockets_;
  std::vector<std::size_t> placeOf_;  // by descriptor
  std::vector<int> ahead_;            // who holds bytes
  std::vector<epoll_event> events_;
  std::vector<std::size_t> due_;  // the places of who is ready in this walk, the last one first
  std::size_t gatherFrom_ = kMany;
};

}  // namespace loader
