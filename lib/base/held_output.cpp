// Output that is held back for a while, and the ends of a process that it must not be lost in.
//
//     nothing --hold--> held --hold--> held --take--> nothing
//
// H1  whoever takes the bytes, in one step, writes them, and nobody else does
// H2  what is held when the process exits is written, and nothing is held from then on
// H3  a forked child holds nothing: what was held is its parent's to write

#include "base/held_output.h"

#include <sys/socket.h>

#include <cstdlib>
#include <ctime>

namespace kl {
namespace {

// The ticks as the kernel last noted them.
unsigned int ticksNoted() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned int>(now.tv_sec) * 100 + static_cast<unsigned int>(now.tv_nsec / 10'000'000);
}

}  // namespace

constinit HeldOutput heldOutput;

void HeldOutput::begin(int socket, void* writer, Write writeAll) {
  static const bool registered = std::atexit(writeAtExit) == 0 && std::at_quick_exit(writeAtExit) == 0 &&
                                 ::pthread_atfork(nullptr, nullptr, dropInChild) == 0;
  socket_ = socket;
  writer_ = writer;
  write_ = writeAll;
  thread_ = ::pthread_self();
  mayHold_ = registered;
}

void HeldOutput::end() {
  mayHold_ = false;
  writer_ = nullptr;
}

bool HeldOutput::mayHold(const void* writer) const {
  return writer_ == writer && mayHold_.load(std::memory_order_relaxed);
}

void HeldOutput::hold(const unsigned char* bytes, std::size_t count) {
  if (this->bytes() == 0) {
    begin_ = bytes;
    frames_ = 0;
    since_ = ticksNoted();
  }
  ++frames_;
  bytes_.store(count, std::memory_order_release);
}

// Async-signal-safe.  H1
std::size_t HeldOutput::take() { return bytes_.exchange(0, std::memory_order_acq_rel); }

void HeldOutput::write() {
  if (!isHere()) return;
  if (const std::size_t count = take()) write_(writer_, begin_, count);
}

void HeldOutput::noteTick(unsigned int tick) {
  if (!isMine() || tick == tick_) return;
  tick_ = tick;
  write();
}

void HeldOutput::writeOld() {
  if (isHere() && ticksNoted() != since_) write();
}

void HeldOutput::attempt() {
  mayHold_ = false;
  if (const std::size_t count = take()) (void)::send(socket_, begin_, count, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// H2.  A connection that is lost meanwhile ends the process as it does at any other time: an exit within an exit goes
// on with what is left to be done, and the status is that of the last one.
void HeldOutput::writeAtExit() {
  heldOutput.mayHold_ = false;
  if (const std::size_t count = heldOutput.take())
    heldOutput.write_(heldOutput.writer_, heldOutput.begin_, count);
}

// H3
void HeldOutput::dropInChild() { (void)heldOutput.take(); }

}  // namespace kl
