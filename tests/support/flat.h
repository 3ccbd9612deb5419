#pragma once
// tests/support/flat.h: a message as the bytes that it travels in.

#include "kl/message.h"

namespace kl::test {

inline message::flat_message flat(const message& m) {
  message::flat_message bytes;
  m.flatten(bytes);
  return bytes;
}

}  // namespace kl::test
