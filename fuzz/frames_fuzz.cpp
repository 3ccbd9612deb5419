// A stream of bytes from a socket is cut into frames.
//
//   - however the bytes are split into what each read brings, the same frames come out: those that a plain walk over
//     the whole stream finds
//   - a length above the limit ends the stream, and what stands before it has come
//   - memory grows with the bytes that come, and where an account has little of it, the stream may end earlier; the
//     frames before that are the same, and afterwards nothing is taken any more

#include "transport/frame_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include "fuzz/input.h"
#include "kl/conventions.h"
#include "kl/records.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using loader::FrameReader;

constexpr std::size_t kMostBytes = 0x8000;  // a pipe takes them without anybody reading
constexpr std::size_t kMostKept = 0x1000;   // of an unfinished frame, by the account

struct Cut {
  std::vector<Bytes> frames;
  bool isBroken = false;
  bool isInFrame = false;
  bool isOver = false;  // it took too much of its account
  friend bool operator==(const Cut&, const Cut&) = default;
};

Cut cutPlainly(const Bytes& stream) {
  Cut result;
  std::size_t at = 0;
  while (stream.size() - at >= kl::FRAME_PREFIX_BYTES) {
    const std::size_t length = kl::readLe32(stream.data() + at);
    result.isBroken = length > kl::FRAME_MOST_BYTES;
    if (result.isBroken) return result;
    if (stream.size() - at - kl::FRAME_PREFIX_BYTES < length) break;
    const auto body = stream.begin() + static_cast<std::ptrdiff_t>(at + kl::FRAME_PREFIX_BYTES);
    result.frames.emplace_back(body, body + static_cast<std::ptrdiff_t>(length));
    at += kl::FRAME_PREFIX_BYTES + length;
  }
  result.isInFrame = at < stream.size();
  return result;
}

class Pipe {
 public:
  Pipe() { require(::pipe2(ends_, O_CLOEXEC | O_NONBLOCK) == 0, "a pipe"); }
  ~Pipe() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int readEnd() const { return ends_[0]; }
  void write(const unsigned char* bytes, std::size_t count) const {
    require(::write(ends_[1], bytes, count) == static_cast<ssize_t>(count), "a pipe that takes everything");
  }

 private:
  int ends_[2];
};

// Delivers `stream` in pieces of these sizes, over and over, as long as the account is not over its limit.
Cut cutInPieces(const Bytes& stream, const Bytes& sizes, loader::Account* account = nullptr) {
  static loader::ReadArea area;
  const Pipe pipe;
  FrameReader reader(area);
  reader.chargeTo(account);
  Cut result;
  std::size_t at = 0;
  for (std::size_t i = 0; at < stream.size() && !reader.isBroken() && !result.isOver; ++i) {
    const std::size_t wanted = sizes.empty() ? stream.size() : 1 + std::size_t{sizes[i % sizes.size()]} * 3;
    const std::size_t count = std::min(wanted, stream.size() - at);
    pipe.write(stream.data() + at, count);
    at += count;
    while (!reader.isBroken() && reader.readFrom(pipe.readEnd()) == FrameReader::Outcome::kBytes) {
      for (std::span<const unsigned char> body; reader.next(body);)
        result.frames.emplace_back(body.begin(), body.end());
      if (!reader.isBroken()) reader.keepRest();
    }
    if (account == nullptr) continue;
    require(account->used(loader::Resource::kFrameBytes) <= 2 * at, "memory grows with the bytes that come");
    result.isOver = !reader.isBroken() && reader.takesTooMuch();
  }
  result.isBroken = reader.isBroken();
  result.isInFrame = !result.isBroken && reader.isInFrame();
  return result;
}

void checkWithAccount(const Bytes& stream, const Bytes& sizes, const Cut& whole) {
  loader::Pool pool;
  pool.mostOfOne[loader::Resource::kFrameBytes] = pool.most[loader::Resource::kFrameBytes] = kMostKept;
  loader::Account account(pool, loader::Pace());
  const Cut some = cutInPieces(stream, sizes, &account);
  require(account.used(loader::Resource::kFrameBytes) == 0, "who has ended takes nothing");
  if (!some.isOver) return require(some == whole, "an account changes nothing that it has room for");
  require(some.frames.size() <= whole.frames.size() &&
              std::equal(some.frames.begin(), some.frames.end(), whole.frames.begin()),
          "the frames before too much are the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, std::min(size, kMostBytes));
  const Bytes sizes = input.bytes(input.upTo(7));
  const Bytes stream = input.rest();
  const Cut whole = cutPlainly(stream);
  require(cutInPieces(stream, {}) == whole, "one read brings every frame");
  require(cutInPieces(stream, sizes) == whole, "any splitting brings the same frames");
  checkWithAccount(stream, sizes, whole);
  return 0;
}
