#pragma once
// tests/support/builders.h: the messages that tests send, and a message as the bytes that it travels in.

#include <span>
#include <vector>

#include "kl/conventions.h"
#include "kl/message.h"
#include "kl/services.h"

namespace kl::test {

using Ids = std::vector<unsigned int>;

// The registration of a process; 0: the loader picks its id.
inline message hello(unsigned int id) {
  std::vector<unsigned int> values(12);
  values[0] = id;
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, CTRL_HELLO);
  m.insert(REGISTRATION_VALUES, values);
  return m;
}

inline message notification(const Ids& to, const Ids& from = {}) {
  message m;
  m.insert(SYS_TO, to);
  if (!from.empty()) m.insert(SYS_FROM, from);
  m.insert(SYS_CMD, CMD_NOTIFY);
  return m;
}

inline message request(const Ids& to, unsigned int command, unsigned int id, const Ids& from = {}) {
  message m = notification(to, from);
  m.insert(SYS_CMD, command);
  m.insert(SYS_REQID, id);
  m.insert(SYS_REPLYEXP, true);
  return m;
}

// The reply to request `id`.
inline message replyTo(const Ids& to, unsigned int id, const Ids& from = {}) {
  message m;
  m.insert(SYS_TO, to);
  if (!from.empty()) m.insert(SYS_FROM, from);
  m.insert(SYS_TYPE, TYPE_REPLY);
  m.insert(SYS_REQID, id);
  return m;
}

// The reply to a request as its service received it.
inline message replyTo(const message& asked) {
  return replyTo(asked.get(SYS_FROM, {}), asked.get(SYS_REQID, 0));
}

inline message::flat_message flat(const message& m) { return m.flattened(); }

// A frame: the length, little-endian, and the bytes of a message, or of what is none.
inline std::vector<unsigned char> framed(std::span<const unsigned char> body) {
  std::vector<unsigned char> frame;
  for (unsigned int shift = 0; shift < 32; shift += 8)
    frame.push_back(static_cast<unsigned char>(body.size() >> shift));
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}
inline std::vector<unsigned char> frameOf(const message& m) { return framed(flat(m)); }

}  // namespace kl::test
