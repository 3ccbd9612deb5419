#pragma once
// framing.h: messages as frames on the loader's socket.
//
//     offset  size  content
//     0       4     length L of the body, little-endian
//     4       L     the message in its byte format
//
// Reading ahead: one read(2) takes what has come, whole frames and parts of one, and frames are then
// served from the buffer.  A length is a claim and not a fact: the buffer grows with the bytes that
// come, never with what a length promises.
//
// Holding back: while a whole frame that was read ahead waits, somebody will soon read it and send more.  Frames
// written meanwhile may be held back and leave with it.

#include <cstddef>
#include <memory>

#include "kl/message.h"
#include "looper/timeout.h"

namespace kl {

// No more than this is held back: a frame that would exceed one of them leaves with the held ones, or right behind.
inline constexpr std::size_t kMostHeldBytes = 16384;
inline constexpr unsigned int kMostHeldFrames = 32;

// The connection to the loader as bytes and as frames.  It is vital: end of file and every error that is
// not a reason to try again end the process, with one line on the standard error stream and status 1.
// The descriptor is non-blocking and borrowed.
class FrameSocket {
 public:
  explicit FrameSocket(int fd) : fd_(fd) {}
  FrameSocket(const FrameSocket&) = delete;
  FrameSocket& operator=(const FrameSocket&) = delete;
  ~FrameSocket();

  // Reads exactly count bytes and returns count, or 0 when the time-out passed before the first of them.
  // A read that has begun is completed, however long that takes.
  unsigned int read(unsigned char* bytes, unsigned int count, Timeout& timeout);

  // Reads one frame; false when the time-out passed before its first byte.
  bool readFrame(message& m, Timeout& timeout);

  // Bytes that were read and not yet taken.
  bool holdsBytes() const { return begin_ != end_; }

  // Are they a whole frame, or more?
  bool holdsFrame() const;

  // Writes everything, behind what is held back, however long that takes.
  void write(const unsigned char* bytes, std::size_t count);

  // Writes one frame in one call, with those that are held back, and returns the length of the message; one of
  // more than FRAME_MOST_BYTES is dropped.  Between beginHolding() and endHolding() it is held back while holdsFrame().
  unsigned int writeFrame(const message& m);

  // Needs: the thread that begins comes back soon, whatever it does until then: it calls writeHeld() where holdsFrame()
  // no longer holds, and heldOutput.writeAtNewTick() where it looks at the clock.
  void beginHolding();
  // Writes what is held back.
  void endHolding();
  void writeHeld();

 private:
  void complete(std::size_t wanted);
  bool receive(Timeout& timeout, std::size_t wanted);
  bool awaitBytes(Timeout& timeout);
  void awaitRoom();
  void makeRoom(std::size_t wanted);
  void moveBytes(std::size_t capacity);
  void consume(std::size_t count);
  std::size_t heldBytes() const;
  bool mayHold(std::size_t bytes) const;
  void holdOrSend(const unsigned char* frame, std::size_t count);
  void send(const unsigned char* bytes, std::size_t count);
  unsigned char* roomToFlatten(std::size_t count);
  void giveRoomBack();

  int fd_;

  // The bytes read ahead are buffer_[begin_..end_).
  std::unique_ptr<unsigned char[]> buffer_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool drained_ = true;  // the last read took everything that had come

  // Frames are put together here, so that each of them leaves in one piece.  The first heldBytes() are held back.
  std::unique_ptr<unsigned char[]> out_;
  std::size_t outCapacity_ = 0;
  bool isHolding_ = false;
};

}  // namespace kl
