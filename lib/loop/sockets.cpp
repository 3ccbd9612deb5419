// Watched descriptors of the event loop.
//
// poll(2) takes one array, which is kept up to date instead of being built for each pass.  Three containers hold the
// same sockets:
//
// S1  polls_[i] is the entry of the descriptor that pollSockets_[i] points to, and the index of that socket is i
// S2  the last entry takes the place of a removed one, so the order of the array is not the order of registration
// S3  the returned events of an entry are cleared before its callback runs, so an entry that a removal moved down to a
//     lower place is met again with nothing to report
// S4  a socket added by a callback stands behind the walk and waits for the next pass
// S5  readAheadCount_ is the number of sockets whose reader holds bytes

#include <algorithm>

#include "base/held_output.h"
#include "base/report.h"
#include "kl/runner.h"

namespace kl {
namespace {

short pollBits(unsigned int events) { return static_cast<short>(static_cast<unsigned short>(events)); }

}  // namespace

[[gnu::cold]] void ThinRunner::addSocket(int fd, void* data, SocketCallback cb, unsigned int events) {
  const auto index = static_cast<unsigned int>(polls_.size());
  const auto [place, isNew] = sockets_.insert({fd, SockInfo{fd, data, cb, index, false}});
  if (!isNew) {
    return printLine("WARNING: could not add socket fd=", fd, " becouse of dup");
  }
  polls_.push_back({fd, pollBits(events), 0});
  pollSockets_.push_back(place);
}

bool ThinRunner::changeSocket(int fd, unsigned int events) {
  const auto place = sockets_.find(fd);
  if (place == sockets_.end()) return false;
  polls_[place->second.index].events = pollBits(events);
  return true;
}

bool ThinRunner::removeSocket(int fd) {
  const auto place = sockets_.find(fd);
  if (place == sockets_.end()) return false;
  const std::size_t index = place->second.index;
  if (index != polls_.size() - 1) {  // S2
    polls_[index] = polls_.back();
    pollSockets_[index] = pollSockets_.back();
    pollSockets_[index]->second.index = static_cast<unsigned int>(index);
  }
  polls_.pop_back();
  pollSockets_.pop_back();
  if (place->second.holdsBytes) --readAheadCount_;  // S5
  sockets_.erase(place);
  return true;
}

bool ThinRunner::setReadAhead(int fd, bool holdsBytes) {
  const auto place = sockets_.find(fd);
  if (place == sockets_.end()) return false;
  SockInfo& socket = place->second;
  if (socket.holdsBytes) --readAheadCount_;  // S5
  if (holdsBytes) ++readAheadCount_;
  socket.holdsBytes = holdsBytes;
  return true;
}

void ThinRunner::runSocks(unsigned int now) {
  const int timeoutMs = sleepTime(now);
  // A poll that fails (a signal interrupts it) reports nothing ready: the pass goes on with the timers.
  // A loop that a hook has ended may have nothing left to wake it, so it does not sleep.
  const bool stays = someoneReadsAhead() || stop_;
  if (!stays && timeoutMs != 0) heldOutput.write();
  int ready = ::poll(polls_.data(), polls_.size(), stays ? 0 : timeoutMs);
  ready = mergeReadAhead(ready);
  runTimers();
  dispatchSockets(ready);
  addDelayedTimers();
}

bool ThinRunner::isReadAhead(std::size_t index) const {
  return pollSockets_[index]->second.holdsBytes && (polls_[index].events & POLLIN) != 0;
}

bool ThinRunner::someoneReadsAhead() const {
  if (readAheadCount_ == 0) return false;
  for (std::size_t i = 0; i < polls_.size(); ++i)
    if (isReadAhead(i)) return true;
  return false;
}

// Gives the entries of read-ahead sockets the events that poll would have returned with the bytes still in the kernel.
int ThinRunner::mergeReadAhead(int ready) {
  if (readAheadCount_ == 0) return ready;
  ready = std::max(ready, 0);
  for (std::size_t i = 0; i < polls_.size(); ++i) {
    if (!isReadAhead(i)) continue;
    if (polls_[i].revents == 0) ++ready;
    polls_[i].revents |= POLLIN;
  }
  return ready;
}

// Walks from the last entry to the first, as long as poll announced more.
void ThinRunner::dispatchSockets(int ready) {
  for (std::size_t i = polls_.size(); ready > 0 && i-- > 0;) {
    const auto revents = static_cast<unsigned short>(polls_[i].revents);
    if (revents == 0) continue;
    polls_[i].revents = 0;                             // S3
    const SockInfo& socket = pollSockets_[i]->second;  // the call is the last look at it
    socket.callback(socket.data, socket.fd, revents);
    --ready;
    i = std::min(i, polls_.size());  // the callback may have removed any of them
  }
}

}  // namespace kl
