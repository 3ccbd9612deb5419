// One read brings bytes behind what was left of the last one; frames are handed out where they lie, and what is not
// handed out is kept by the connection that it came from.

#include "transport/frame_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "kl/conventions.h"
#include "kl/records.h"

namespace loader {
namespace {

FrameReader::Outcome outcomeOf(ssize_t result) {
  if (result > 0) return FrameReader::Outcome::kBytes;
  if (result < 0 && (errno == EAGAIN || errno == EINTR)) return FrameReader::Outcome::kNothing;
  return FrameReader::Outcome::kEnd;
}

}  // namespace

FrameReader::Outcome FrameReader::readFrom(int fd, std::size_t most) {
  return kept_.size() <= ReadArea::kBytes / 2 ? readIntoArea(fd, most) : readIntoKept(fd);
}

// The usual case: what is left of the last read is short and goes in front of the next.
FrameReader::Outcome FrameReader::readIntoArea(int fd, std::size_t most) {
  const std::size_t keptBytes = kept_.size();
  if (keptBytes > 0) std::memcpy(area_.bytes, kept_.bytes().data(), keptBytes);
  const ssize_t got = ::read(fd, area_.bytes + keptBytes, std::min(most, sizeof area_.bytes - keptBytes));
  if (got > 0) kept_.clear();
  rest_ = got > 0 ? std::span<const unsigned char>(area_.bytes, keptBytes + static_cast<std::size_t>(got))
                  : kept_.bytes();
  return outcomeOf(got);
}

FrameReader::Outcome FrameReader::readIntoKept(int fd) {
  const std::size_t wanted = wantedBytes();
  const ssize_t got = ::read(fd, kept_.grow(wanted, kl::FRAME_PREFIX_BYTES + kl::FRAME_MOST_BYTES), wanted);
  kept_.dropBack(wanted - static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  rest_ = kept_.bytes();
  return outcomeOf(got);
}

bool FrameReader::next(std::span<const unsigned char>& body) {
  if (broken_ || rest_.size() < kl::FRAME_PREFIX_BYTES) return false;
  const std::size_t length = kl::readLe32(rest_.data());
  broken_ = length > kl::FRAME_MOST_BYTES;
  if (broken_ || rest_.size() - kl::FRAME_PREFIX_BYTES < length) return false;
  body = rest_.subspan(kl::FRAME_PREFIX_BYTES, length);
  rest_ = rest_.subspan(kl::FRAME_PREFIX_BYTES + length);
  lastBytes_ = kl::FRAME_PREFIX_BYTES + length;
  ++frames_;
  return true;
}

void FrameReader::putBack() {
  rest_ = {rest_.data() - lastBytes_, rest_.size() + lastBytes_};
  --frames_;
}

// Also true for the length of a frame that cannot be: next() finds that out.
bool FrameReader::hasFrame() const {
  if (kept_.size() < kl::FRAME_PREFIX_BYTES) return false;
  const std::size_t length = kl::readLe32(kept_.bytes().data());
  return length > kl::FRAME_MOST_BYTES || kept_.size() - kl::FRAME_PREFIX_BYTES >= length;
}

void FrameReader::keepRest() {
  if (kept_.empty()) kept_.append(rest_);
  else kept_.dropFront(kept_.size() - rest_.size());
  rest_ = {};
}

void FrameReader::trim() {
  Buffer needed;
  needed.append(kept_.bytes());
  kept_ = std::move(needed);
}

// The bytes that the unfinished frame still lacks, but no more at once than have come already.
std::size_t FrameReader::wantedBytes() const {
  const std::size_t frame = kl::FRAME_PREFIX_BYTES + kl::readLe32(kept_.bytes().data());
  return std::clamp(frame - kept_.size(), std::size_t{4096}, kept_.size());
}

}  // namespace loader
