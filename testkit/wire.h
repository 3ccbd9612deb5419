#pragma once
// wire.h: the bytes between the bus and the service under test.

#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <span>
#include <vector>

namespace kl::test {

// The time of a bus: ticks since it was made.  It does not wrap around.
using Moment = unsigned long long;

// From here on are the descriptors of the kit's own, away from those that tests count with.
inline constexpr int kAside = 64;

// A socket pair whose one end is descriptor 3, where a Looper looks for its connection.
//
// W1  what is sent arrives in its order, however it is delayed
// W2  whoever had descriptor 3 before has it again when the wire is closed
class Wire {
 public:
  enum class Outcome { kNothing, kBytes, kEnd, kTooLong };

  Wire() = default;
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  ~Wire() { close(); }

  // Makes a new pair.
  void open();
  // Closes both ends, the service's too if it is still there.
  void close();
  // Closes the end of the bus alone.
  void hangUp();
  bool isOpen() const { return fd_ >= 0; }

  // Takes what the service has written, as frames: each body is given to `onFrame`.  kTooLong: it announced a frame that
  // nobody may send.
  Outcome read(const std::function<void(std::span<const unsigned char>)>& onFrame);

  // Puts bytes on their way.
  void send(std::span<const unsigned char> bytes, Moment now);
  // Writes what is due, one piece of it where pieces are cut.
  void write(Moment now);
  // Something is due; when the next bytes are.
  bool isDue(Moment now) const { return !pieces_.empty() && pieces_.front().due <= now; }
  std::optional<Moment> nextDue() const;

  void delay(unsigned int ticks) { delay_ = ticks; }
  void cut(unsigned int bytes) { cut_ = bytes; }
  void disturb(unsigned int mostTicks, unsigned int seed);
  void shrinkBuffers() const;

 private:
  struct Piece {
    Moment due;
    std::vector<unsigned char> bytes;
    std::size_t done = 0;
  };

  std::size_t most();
  unsigned int chanceBelow(unsigned int limit) { return static_cast<unsigned int>(chance_() % limit); }
  std::size_t writeSome(Piece& piece);

  int fd_ = -1;
  int displaced_ = -1;            // what descriptor 3 was before
  unsigned long long inode_ = 0;  // of the service's end
  std::vector<unsigned char> in_;
  std::deque<Piece> pieces_;
  unsigned int delay_ = 0;
  unsigned int cut_ = 0;
  unsigned int mostTicks_ = 0;  // of a delay by chance
  std::mt19937 chance_;
};

}  // namespace kl::test
