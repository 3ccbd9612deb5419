#include "tests/attack/frames.h"

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"

namespace attack {
namespace {

using kl::test::flat;
using kl::test::framed;
using kl::test::frameOf;

constexpr unsigned int kHeaderBytes = 2;  // "M2"
constexpr unsigned int kFirstTooLong = kl::FRAME_MOST_BYTES + 1;
constexpr unsigned int kIdOfNobody = 0x12345678;
constexpr kl::field<unsigned int> kMark{0x08004141};

void append(Bytes& bytes, const Bytes& more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

Bytes prefixOf(unsigned int length) {
  Bytes bytes;
  for (unsigned int i = 0; i < kl::FRAME_PREFIX_BYTES; ++i)
    bytes.push_back(static_cast<unsigned char>(length >> 8 * i));
  return bytes;
}

}  // namespace

Frame FrameMaker::random() {
  const bool afterHello = upTo(49) == 0;
  switch (upTo(2)) {
    case 0: return {randomBytes(200), afterHello, false};
    case 1: return {framed(randomBytes(200)), afterHello, false};
    default: break;
  }
  Bytes body{'M', '2'};
  append(body, randomBytes(200));
  return {framed(body), afterHello, false};
}

Frame FrameMaker::structured() {
  switch (upTo(14)) {
    case 0: return {withRepeatedField(), true, true};
    case 1: return {truncated(), true, true};
    case 2: return {prefixOf(kFirstTooLong + upTo(1U << 30)), true, true};
    case 3: return {withPath(target_, 33 + upTo(100)), true, true};
    case 4: return {withPath(kl::PATH_SELF, 1 + upTo(3)), true, true};
    case 5: return {controlForSomebody(), true, true};
    case 6: return {frameOf(kl::test::hello(0)), true, true};  // the second one
    case 7: return {frameOf(request()), false, true};
    case 8: return {withReturnPath(32 + upTo(100)), true, true};
    case 9: return {withPath(0, 0), true, true};
    case 10: return {frameOf(kl::test::hello(kl::SERVICE_LOADER)), false, true};
    case 11: return {framed(Bytes{'M', '1', 0, 0}), true, true};
    case 12: return {brokenMulti(), true, false};
    case 13: return {unaskedReply(), true, false};
    default: return {mutated(), true, false};
  }
}

Bytes FrameMaker::randomBytes(unsigned int most) {
  Bytes bytes(1 + upTo(most - 1));
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(upTo(255));
  return bytes;
}

kl::message FrameMaker::request() {
  kl::message m = kl::test::request({target_, 0}, kl::CMD_GET, upTo(1000), {7});
  m.insert(kMark, 1);
  return m;
}

Bytes FrameMaker::withRepeatedField() {
  kl::message again;
  switch (upTo(4)) {
    case 0: again.insert(kl::SYS_TO, {target_}); break;
    case 1: again.insert(kl::SYS_FROM, {kl::SERVICE_LOADER}); break;
    case 2: again.insert(kl::SYS_CMD, kl::CMD_SET); break;
    case 3: again.insert(kl::SYS_REQID, 1); break;
    default: again.insert(kl::SYS_REPLYEXP, false); break;
  }
  Bytes body = flat(request());
  const Bytes repeated = flat(again);
  body.insert(body.end(), repeated.begin() + kHeaderBytes, repeated.end());
  return framed(body);
}

// A path stands last, and its elements have four bytes: what is cut off is never a whole record.
Bytes FrameMaker::truncated() {
  Bytes body = flat(request());
  body.resize(body.size() - 1 - upTo(2));
  return framed(body);
}

Bytes FrameMaker::mutated() {
  kl::message m = request();
  m.insert(kl::SYS_TO, {kIdOfNobody, 0});
  Bytes frame = frameOf(m);
  for (unsigned int n = 0; n <= upTo(3); ++n)
    frame[upTo(static_cast<unsigned int>(frame.size()) - 1)] ^= static_cast<unsigned char>(1 + upTo(254));
  return frame;
}

// Whole sub-paths in front, and something wrong behind them: nobody may get it.
Bytes FrameMaker::brokenMulti() {
  std::vector<unsigned int> path{kl::PATH_MULTI};
  for (unsigned int n = upTo(20); n > 0; --n) path.insert(path.end(), {2, target_, 0});
  switch (upTo(3)) {
    case 0: path.insert(path.end(), {2, kl::PATH_MULTI, 1}); break;
    case 1: path.insert(path.end(), {3 + upTo(0x7fffffff), target_, 0}); break;
    case 2: path.insert(path.end(), {0}); break;
    default: path.insert(path.end(), {1, kl::PATH_ALL}); break;
  }
  kl::message m = request();
  m.insert(kl::SYS_TO, path);
  return frameOf(m);
}

Bytes FrameMaker::withPath(unsigned int first, unsigned int length) {
  std::vector<unsigned int> path(length, 1);
  if (length > 0) path[0] = first;
  kl::message m = request();
  m.insert(kl::SYS_TO, path);
  return frameOf(m);
}

Bytes FrameMaker::withReturnPath(unsigned int length) {
  kl::message m = request();
  m.insert(kl::SYS_FROM, std::vector<unsigned int>(length, 7));
  return frameOf(m);
}

Bytes FrameMaker::controlForSomebody() {
  kl::message m = request();
  m.insert(kl::SYS_CTRL, upTo(9));
  return frameOf(m);
}

Bytes FrameMaker::unaskedReply() {
  kl::message m;
  m.insert(kl::SYS_TO, {target_ - upTo(1), 0});
  m.insert(kl::SYS_TYPE, kl::TYPE_REPLY);
  m.insert(kl::SYS_REQID, upTo(100000));
  m.insert(kMark, 1);
  return frameOf(m);
}

}  // namespace attack
