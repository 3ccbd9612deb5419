#pragma once
// request.h: the small request that goes round: two paths, six numbers, a flag and a short text, some
// of them put there by the library.

#include "kl/conventions.h"
#include "kl/field.h"

namespace bench {

inline constexpr kl::field<unsigned int> kSpeed{0x08000005};
inline constexpr kl::field<std::vector<unsigned char>> kPayload{0x30000006};

inline void fillRequest(kl::message& m, unsigned int n, unsigned int payloadBytes) {
  m.insert(kl::SYS_POLICY, 0xffffffff);
  m.insert(kl::STD_ID, n);
  m.insert(kSpeed, 200);
  m.insert(kl::STD_DESCR, "twelve bytes");
  if (payloadBytes > 0) m.insert(kPayload, std::vector<unsigned char>(payloadBytes, 'x'));
}

// Reads everything that is in it, as a service would that needs all of it.
inline unsigned int readRequest(const kl::message& m) {
  unsigned int sum = m.get(kl::SYS_TYPE, 0);
  sum += m.get(kl::SYS_REQID, 0);
  sum += m.get(kl::SYS_CMD, 0);
  sum += m.get(kl::SYS_POLICY, 0);
  sum += m.get(kl::STD_ID, 0);
  sum += m.get(kSpeed, 0);
  sum += m.get(kl::SYS_REPLYEXP, false) ? 1 : 0;
  for (const unsigned int hop : m.get(kl::SYS_FROM, {})) sum += hop;
  const std::string description = m.get(kl::STD_DESCR, "");
  sum += static_cast<unsigned char>(description.back());
  if (m.has(kPayload)) sum += m.get(kPayload, {}).back();
  return sum;
}

}  // namespace bench
