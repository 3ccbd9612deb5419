// A service's end of the loader's socket takes frames in, and sends them on.
//
//   - however their bytes are split into what each read brings, the messages are those of the bodies, in their order
//   - a frame that is taken as bytes is its bytes
//   - where nothing has come nothing is taken
//   - what is sent has its length before it and nothing behind it, and nothing of 65,536 bytes or more is sent

#include "looper/framing.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/input.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kPadding = 512;
constexpr int kPipeBytes = 0x80000;  // takes the largest frame, and the piece that completes it
constexpr std::size_t kMostPieces = 1000;
constexpr std::size_t kMostStreamBytes = 0x40000;
constexpr std::size_t kFirstThatIsNotSent = 65536;

class Ends {
 public:
  Ends(int first, int second) : fds_{first, second} {}
  ~Ends() {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  Ends(const Ends&) = delete;
  Ends& operator=(const Ends&) = delete;
  int operator[](int i) const { return fds_[i]; }

 private:
  int fds_[2];
};

Ends pipeEnds() {
  int fds[2];
  require(::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0, "a pipe");
  require(::fcntl(fds[1], F_SETPIPE_SZ, kPipeBytes) >= kPipeBytes, "a large pipe");
  return {fds[0], fds[1]};
}

Ends socketEnds() {
  int fds[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0, "a socket pair");
  return {fds[0], fds[1]};
}

struct Frame {
  Bytes bytes;  // length and body
  bool isTakenAsBytes;

  kl::message message() const {
    return {bytes.data() + kLengthBytes, static_cast<unsigned int>(bytes.size() - kLengthBytes)};
  }
};

Bytes withLength(Bytes body) {
  Bytes bytes;
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    bytes.push_back(static_cast<unsigned char>(body.size() >> 8 * i));
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

Frame frameFrom(fuzz::Input& input) {
  const unsigned int shape = input.u8();
  const unsigned int padding = input.u8();
  Bytes body = input.bytes(input.u8());
  if (shape % 4 == 0) body.resize(body.size() + padding * kPadding);
  return {withLength(std::move(body)), shape % 8 == 7};
}

void take(kl::FrameSocket& socket, const Frame& frame) {
  kl::Timeout none(0);
  if (frame.isTakenAsBytes) {
    Bytes bytes(frame.bytes.size());
    const auto count = static_cast<unsigned int>(bytes.size());
    require(socket.read(bytes.data(), count, none) == count, "bytes that have come are there");
    return require(bytes == frame.bytes, "the same bytes");
  }
  kl::message m;
  require(socket.readFrame(m, none), "a frame that has come is there");
  require(m == frame.message(), "the same message");
}

// The stream comes in pieces of these sizes, over and over, but not in too many; each frame is taken once it is there.
void takeInPieces(const std::vector<Frame>& frames, const Bytes& sizes) {
  const Ends ends = pipeEnds();
  kl::FrameSocket socket(ends[0]);
  Bytes stream;
  for (const Frame& frame : frames) stream.insert(stream.end(), frame.bytes.begin(), frame.bytes.end());
  std::size_t came = 0;
  std::size_t taken = 0;
  auto next = frames.begin();
  const std::size_t least = 1 + stream.size() / kMostPieces;
  for (std::size_t i = 0; came < stream.size(); ++i) {
    const std::size_t wanted =
        sizes.empty() ? kPipeBytes / 4 : std::max(least, std::size_t{sizes[i % sizes.size()]} * 97);
    const std::size_t count = std::min(wanted, stream.size() - came);
    require(::write(ends[1], &stream[came], count) == static_cast<ssize_t>(count), "a pipe that takes it");
    came += count;
    for (; next != frames.end() && taken + next->bytes.size() <= came; ++next) {
      take(socket, *next);
      taken += next->bytes.size();
    }
  }
  kl::message m;
  kl::Timeout none(0);
  require(!socket.holdsBytes() && !socket.readFrame(m, none), "nothing more");
}

void sendOn(const Ends& ends, const kl::message& m) {
  kl::FrameSocket(ends[0]).writeFrame(m);
  Bytes body;
  m.flatten(body);
  Bytes got(kLengthBytes + body.size() + 1);
  const ssize_t count = ::read(ends[1], got.data(), got.size());
  if (body.size() >= kFirstThatIsNotSent) return require(count < 0, "nothing is sent");
  require(count == static_cast<ssize_t>(kLengthBytes + body.size()), "one frame is sent");
  got.pop_back();
  require(got == withLength(body), "the length and the message");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const Bytes sizes = input.bytes(input.upTo(7));
  std::vector<Frame> frames;
  for (std::size_t bytes = 0; !input.isEmpty() && bytes < kMostStreamBytes;
       bytes += frames.back().bytes.size())
    frames.push_back(frameFrom(input));
  takeInPieces(frames, {});
  takeInPieces(frames, sizes);
  const Ends ends = socketEnds();
  for (const Frame& frame : frames) sendOn(ends, frame.message());
  return 0;
}
