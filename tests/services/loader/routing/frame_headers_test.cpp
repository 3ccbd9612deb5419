#include "services/loader/routing/frame_headers.h"

#include <gtest/gtest.h>

#include "kl/services.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Envelope;
using loader::FrameHeader;

FrameHeader headerOf(const kl::message& m) {
  const std::vector<unsigned char> body = flat(m);
  Envelope e;
  EXPECT_EQ(loader::readEnvelope(body, e), nullptr);
  return loader::headerOf(e, 10, 24);
}

// Of a frame, and of the same message as one of the loader's own.
void expectKind(const kl::message& m, unsigned int kind, unsigned int code) {
  EXPECT_EQ(headerOf(m).kind, kind);
  EXPECT_EQ(headerOf(m).code, code);
  EXPECT_EQ(loader::headerOf(m, 24).kind, kind | FrameHeader::kByLoader);
  EXPECT_EQ(loader::headerOf(m, 24).code, code);
}

TEST(FrameHeaders, TheCodeIsWhatTheKindSays) {
  expectKind(request({24}, kl::CMD_GETALL, 5), FrameHeader::kCommand | FrameHeader::kNumbered,
             kl::CMD_GETALL);
  expectKind(replyTo({24}, 5), FrameHeader::kReply | FrameHeader::kNumbered, kl::CMD_NOOP);
  kl::message error = kl::errorMsg(kl::ERROR_BUSY, "");
  error.insert(kl::SYS_TO, {24});
  expectKind(error, FrameHeader::kError, kl::ERROR_BUSY);
  kl::message control;
  control.insert(kl::SYS_TO, {24});
  control.insert(kl::SYS_CTRL, 77);
  expectKind(control, FrameHeader::kControl, 77);
}

TEST(FrameHeaders, WhoSendsInTheNameOfSomebodyIsThatOne) {
  kl::message m = notification({24});
  EXPECT_EQ(loader::headerOf(m, 24).from, kl::SERVICE_LOADER);
  m.insert(kl::SYS_FROM, {30, 7});
  EXPECT_EQ(loader::headerOf(m, 24).from, 30u);
}

TEST(FrameHeaders, AFrameHasItsLengthAndItsNumber) {
  const kl::message m = request({24}, kl::CMD_GET, 5);
  EXPECT_EQ(headerOf(m).bytes, flat(m).size());
  EXPECT_EQ(headerOf(m).requestId, 5u);
  EXPECT_EQ(headerOf(m).from, 10u);
  EXPECT_EQ(headerOf(m).to, 24u);
}

}  // namespace
