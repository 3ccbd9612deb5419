#pragma once
// frame_reader.h: cuts the bytes that a socket brings into frames.

#include <span>

#include "transport/buffer.h"

namespace loader {

// The memory that all connections read into; only what is left of an unfinished frame is kept by its connection.
struct ReadArea {
  static constexpr std::size_t kBytes = 64 * 1024;
  unsigned char bytes[kBytes];
};

// Reads from one socket and hands out whole frames (kl/conventions.h).  The length prefix is a claim of the other side: memory grows
// with the bytes that come, not with what is announced.
//
//     if (reader.readFrom(fd) == FrameReader::Outcome::kBytes)
//       for (std::span<const unsigned char> body; reader.next(body);) route(body);
//     reader.keepRest();
//
// A caller that does not want all the frames of a read at once keeps the rest, and goes on with resume() and next().
//
// Errors:    a length above FRAME_MOST_BYTES sets isBroken(); nothing is read out of such a stream any more.
// Ownership: borrows the ReadArea for good; frames are borrowed until keepRest().
// Threads:   belongs to one thread.
// Cost:      one read(2) for as many frames as fit 64 KiB.  An idle connection keeps no buffer beyond what a cut
//            frame or a rest needed before.
class FrameReader {
 public:
  enum class Outcome { kBytes, kNothing, kEnd };

  explicit FrameReader(ReadArea& area) : area_(area) {}

  // From now on what is kept is charged to this account.
  void chargeTo(Account* account) { kept_.chargeTo(account, Resource::kFrameBytes); }

  // One read of at most so many bytes.  kNothing when the socket has nothing now; kEnd at the end of the stream or
  // when it failed.  Needs: hasFrame() is false.
  Outcome readFrom(int fd, std::size_t most = ReadArea::kBytes);

  // The body of the next whole frame; false when there is none.
  bool next(std::span<const unsigned char>& body);

  // The frame that next() has handed out last is to come again.
  void putBack();

  // Sets aside what next() has not handed out: whole frames, and the bytes of one that has not come whole.
  void keepRest();

  // Something that was set aside can be handed out without a read: after resume(), by next().
  bool hasFrame() const;
  void resume() { rest_ = kept_.bytes(); }
  std::size_t keptBytes() const { return kept_.size(); }
  // Gives back memory that what is set aside does not need.
  void trim();

  bool isBroken() const { return broken_; }
  // The unfinished frame that is kept makes its account take more than it may.
  bool takesTooMuch() const {
    const Account* account = kept_.account();
    return isInFrame() && kept_.memory() > Buffer::kFreeBytes && account != nullptr &&
           !account->isTrusted() && account->isOver(Resource::kFrameBytes);
  }
  // Some bytes of a frame have come and the rest has not.
  bool isInFrame() const { return !kept_.empty() && !hasFrame(); }
  // The number of frames that next() has handed out; it may wrap around.
  unsigned int frames() const { return frames_; }

 private:
  Outcome readIntoArea(int fd, std::size_t most);
  Outcome readIntoKept(int fd);
  std::size_t wantedBytes() const;

  ReadArea& area_;
  Buffer kept_;                          // frames that were set aside, the last of them perhaps unfinished
  std::span<const unsigned char> rest_;  // read and not yet handed out
  std::size_t lastBytes_ = 0;            // of the frame that was handed out last
  unsigned int frames_ = 0;
  bool broken_ = false;
};

}  // namespace loader
