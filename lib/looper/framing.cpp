// Messages as frames on the loader's socket.
//
// Reading:
// F1  a reader that may wait and knows that the socket was empty polls before it reads: no read is made in vain
// F2  a time-out runs only until the first byte of a frame: a frame that has begun is completed
// F3  the buffer never holds more than twice the bytes that really came, or kSmallBuffer
//
// Writing:
// F4  what is held back leaves before the socket is read, before anything else is written, and in the order of writing
// F5  a frame is held back only behind others within the bounds, and only while a whole frame waits to be taken
//
// The frame of a message with the boolean 0x00000003: 06 00 00 00 | 4d 32 03 00 00 01.

#include "looper/framing.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/byte_order.h"
#include "base/held_output.h"
#include "base/report.h"
#include "kl/conventions.h"

namespace kl {
namespace {

constexpr std::size_t kSmallBuffer = 16384;  // holds what usually comes at once
constexpr std::size_t kKeptBuffer =
    2 * (std::size_t{FRAME_MOST_BYTES} + 1);  // a buffer above that is given back

// As poll(2) answers for one descriptor.
int waitFor(int fd, short events, int milliseconds) {
  pollfd entry{fd, events, 0};
  return ::poll(&entry, 1, milliseconds);
}

}  // namespace

FrameSocket::~FrameSocket() {
  if (isHolding_) heldOutput.end();
}

unsigned int FrameSocket::read(unsigned char* bytes, unsigned int count, Timeout& timeout) {
  if (count == 0 || (!holdsBytes() && !receive(timeout, count))) return 0;
  unsigned int done = 0;
  while (done < count) {
    complete(1);
    const auto part = static_cast<unsigned int>(std::min<std::size_t>(count - done, end_ - begin_));
    std::memcpy(bytes + done, &buffer_[begin_], part);
    consume(part);
    done += part;
  }
  return done;
}

bool FrameSocket::readFrame(message& m, Timeout& timeout) {
  if (!holdsBytes() && !receive(timeout, FRAME_PREFIX_BYTES)) return false;
  complete(FRAME_PREFIX_BYTES);
  const unsigned int length = loadLe32(&buffer_[begin_]);
  consume(FRAME_PREFIX_BYTES);
  complete(length);
  m.assign(buffer_.get() + begin_, length);
  consume(length);
  return true;
}

bool FrameSocket::holdsFrame() const {
  const std::size_t held = end_ - begin_;
  return held >= FRAME_PREFIX_BYTES && held - FRAME_PREFIX_BYTES >= loadLe32(&buffer_[begin_]);
}

void FrameSocket::write(const unsigned char* bytes, std::size_t count) {
  writeHeld();
  send(bytes, count);
}

unsigned int FrameSocket::writeFrame(const message& m) {
  unsigned int length = m.max_length();
  unsigned char* const frame = roomToFlatten(FRAME_PREFIX_BYTES + length);
  m.flatten(frame + FRAME_PREFIX_BYTES, &length);
  if (length <= FRAME_MOST_BYTES) {
    storeLe32(frame, length);
    holdOrSend(frame, FRAME_PREFIX_BYTES + length);
  }
  if (outCapacity_ > kKeptBuffer && heldBytes() == 0) giveRoomBack();
  return length;
}

void FrameSocket::beginHolding() {
  heldOutput.begin(fd_, this, [](void* writer, const unsigned char* bytes, std::size_t count) {
    static_cast<FrameSocket*>(writer)->send(bytes, count);
  });
  isHolding_ = true;
}

void FrameSocket::endHolding() {
  writeHeld();
  if (isHolding_) heldOutput.end();
  isHolding_ = false;
}

// F4
void FrameSocket::writeHeld() {
  if (const std::size_t count = isHolding_ ? heldOutput.take() : 0) send(out_.get(), count);
}

std::size_t FrameSocket::heldBytes() const { return isHolding_ ? heldOutput.bytes() : 0; }

// F5
bool FrameSocket::mayHold(std::size_t bytes) const {
  if (!isHolding_ || !heldOutput.mayHold(this) || bytes > kMostHeldBytes || !holdsFrame()) return false;
  return heldOutput.bytes() == 0 || heldOutput.frames() + 1 < kMostHeldFrames;
}

// The frame lies behind what is held back.
void FrameSocket::holdOrSend(const unsigned char* frame, std::size_t count) {
  const auto behind = static_cast<std::size_t>(frame - out_.get());
  if (mayHold(behind + count)) return heldOutput.hold(out_.get(), behind + count);
  const std::size_t before = isHolding_ ? heldOutput.take() : 0;
  send(frame - before, before + count);  // F4
}

void FrameSocket::send(const unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = ::send(fd_, bytes, count, MSG_NOSIGNAL);
    if (written > 0) {
      bytes += written;
      count -= static_cast<std::size_t>(written);
    } else if (written == 0) {
      endProcess("LOOPER: write_raw write failed: EOF");
    } else if (errno == EAGAIN) {
      awaitRoom();
    } else if (errno != EINTR) {
      endProcessAfterCall("LOOPER: write_raw write failed: ", written);
    }
  }
}

// Waits until so many bytes are held.  F2
void FrameSocket::complete(std::size_t wanted) {
  Timeout noLimit(-1);
  while (end_ - begin_ < wanted) receive(noLimit, wanted);
}

// Reads what has come, at least one byte, of a run of `wanted` bytes that begins with those that are held.
// False when the time-out passed first.  F4
bool FrameSocket::receive(Timeout& timeout, std::size_t wanted) {
  writeHeld();
  if (drained_ && timeout.waits() && !awaitBytes(timeout)) return false;  // F1
  makeRoom(wanted);
  while (true) {
    const std::size_t room = capacity_ - end_;
    const ssize_t got = ::read(fd_, &buffer_[end_], room);
    if (got > 0) {
      end_ += static_cast<std::size_t>(got);
      drained_ = static_cast<std::size_t>(got) < room;
      return true;
    }
    if (got == 0) endProcess("LOOPER: read_raw read failed: EOF");
    if (errno == EAGAIN) {
      drained_ = true;
      if (!timeout.waits() || !awaitBytes(timeout)) return false;
    } else if (errno != EINTR) {
      endProcessAfterCall("LOOPER: read_raw read failed: ", got);
    }
  }
}

bool FrameSocket::awaitBytes(Timeout& timeout) {
  while (true) {
    const int ready = waitFor(fd_, POLLIN, timeout.milliseconds());
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) endProcess("LOOPER:: read_raw pool failed: errno=", errno);
  }
}

// A poll that fails is no reason to stop: the write that follows reports the fault.
void FrameSocket::awaitRoom() { (void)waitFor(fd_, POLLOUT, -1); }

// Sees to at least one byte of room behind the bytes that are held.  F3: the buffer grows when it is full of
// bytes that came, by doubling.
void FrameSocket::makeRoom(std::size_t wanted) {
  const std::size_t held = end_ - begin_;
  if (capacity_ == 0 || held == capacity_) return moveBytes(std::max(kSmallBuffer, 2 * capacity_));
  if (wanted > capacity_ - begin_) moveBytes(capacity_);
}

// Moves the bytes to the front of the buffer, or of one of another capacity.
void FrameSocket::moveBytes(std::size_t capacity) {
  const std::size_t held = end_ - begin_;
  if (capacity != capacity_) {
    auto larger = std::make_unique_for_overwrite<unsigned char[]>(capacity);
    std::copy_n(buffer_.get() + begin_, held, larger.get());
    buffer_ = std::move(larger);
    capacity_ = capacity;
  } else if (begin_ != 0) {
    std::memmove(buffer_.get(), &buffer_[begin_], held);
  }
  begin_ = 0;
  end_ = held;
}

void FrameSocket::consume(std::size_t count) {
  begin_ += count;
  if (holdsBytes()) return;
  begin_ = end_ = 0;
  if (capacity_ <= kKeptBuffer) return;
  buffer_.reset();
  capacity_ = 0;
}

// Room to put a frame together in, never zero-filled, behind what is held back.
unsigned char* FrameSocket::roomToFlatten(std::size_t count) {
  if (count > outCapacity_ - heldBytes()) writeHeld();
  if (count > outCapacity_) {
    giveRoomBack();
    out_ = std::make_unique_for_overwrite<unsigned char[]>(std::max(kSmallBuffer, count));
    outCapacity_ = std::max(kSmallBuffer, count);
  }
  return out_.get() + heldBytes();
}

void FrameSocket::giveRoomBack() {
  out_.reset();
  outCapacity_ = 0;
}

}  // namespace kl
