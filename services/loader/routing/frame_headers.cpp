// An error that is a command as well, as no service of this system sends one, is an error here.

#include "routing/frame_headers.h"

#include "kl/message_view.h"
#include "kl/services.h"

namespace loader {

// The loader sends some messages in the name of the service that they are about.
FrameHeader headerOf(const kl::message& m, unsigned int to) {
  const auto from = m.view_u32_array(kl::SYS_FROM);
  Envelope e;
  e.type = m.get(kl::SYS_TYPE, kl::TYPE_REQUEST);
  e.status = m.get(kl::SYS_STATUS, kl::STATUS_OK);
  e.hasCommand = m.has(kl::SYS_CMD);
  e.command = m.get(kl::SYS_CMD, kl::CMD_NOOP);
  e.error = m.get(kl::SYS_ERRNO, kl::ERROR_UNKNOWN);
  e.hasRequestId = m.has(kl::SYS_REQID);
  e.requestId = m.get(kl::SYS_REQID, 0);
  e.isControl = m.has(kl::SYS_CTRL);
  e.control = m.get(kl::SYS_CTRL, 0);
  FrameHeader header = headerOf(e, from.empty() ? kl::SERVICE_LOADER : from.front(), to);
  header.bytes = m.max_length();
  header.kind |= FrameHeader::kByLoader;
  return header;
}

}  // namespace loader
