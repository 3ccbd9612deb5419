#pragma once
// frame_headers.h: what the ring keeps of a frame, and of a message of the loader's own.

#include "crashes/frame_ring.h"
#include "kl/message.h"
#include "routing/envelope.h"

namespace loader {

inline FrameHeader headerOf(const Envelope& e, unsigned int from, unsigned int to) {
  FrameHeader header{.from = from,
                     .to = to,
                     .code = e.command,
                     .requestId = e.requestId,
                     .bytes = static_cast<unsigned int>(e.body.size())};
  unsigned int kind = (e.isReply() ? 1U : 0U) * FrameHeader::kReply;
  kind |= (e.hasCommand ? 1U : 0U) * FrameHeader::kCommand;
  kind |= (e.hasRequestId ? 1U : 0U) * FrameHeader::kNumbered;
  if (e.status == kl::STATUS_ERROR) [[unlikely]] {
    kind |= FrameHeader::kError;
    header.code = e.error;
  }
  if (e.isControl) [[unlikely]] {
    kind |= FrameHeader::kControl;
    header.code = e.control;
  }
  header.kind = static_cast<unsigned char>(kind);
  return header;
}

FrameHeader headerOf(const kl::message& m, unsigned int to);

}  // namespace loader
