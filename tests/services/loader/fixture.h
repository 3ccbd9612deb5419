#pragma once
// fixture.h: services without processes, for tests of what happens between them.

#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/message.h"
#include "services/loader/routing/outbox.h"
#include "services/loader/routing/service_table.h"
#include "tests/support/builders.h"

namespace loader::test {

using kl::test::flat;
using kl::test::Ids;
using kl::test::notification;
using kl::test::replyTo;
using kl::test::request;

// A service that counts as connected; what is queued for it is taken from its queue.
inline Service& connected(ServiceTable& table, unsigned int id) {
  Service& service = table.add(id);
  service.name = "s" + std::to_string(id);
  service.connect();
  service.state = kl::SVC_STATE_RUNNING;
  service.bornAt = 1;
  service.rights.isTrusted = true;
  return service;
}

// A configured service without a connection that messages are held for.
inline Service& heldFor(ServiceTable& table, unsigned int id, unsigned int state) {
  Service& service = table.add(id);
  service.isConfigured = true;
  service.state = state;
  service.isHeldFor = true;
  return service;
}

// As the lifecycle does it when a service has been asked to leave, or does not leave.
inline void setLeaving(Service& service, bool isLeaving) {
  service.state = isLeaving ? kl::SVC_STATE_LEAVING : kl::SVC_STATE_RUNNING;
  service.isHeldFor = isLeaving;
}

// The bodies of the frames in a queue, in order; the queue is empty afterwards.
template <class Queue>
std::vector<std::vector<unsigned char>> takeFrames(Queue& queue) {
  std::vector<std::vector<unsigned char>> frames;
  std::span<const unsigned char> rest = queue.bytes();
  while (rest.size() >= kl::FRAME_PREFIX_BYTES) {
    const std::size_t length = kl::readLe32(rest.data());
    const auto body = rest.subspan(kl::FRAME_PREFIX_BYTES, length);
    frames.emplace_back(body.begin(), body.end());
    rest = rest.subspan(kl::FRAME_PREFIX_BYTES + length);
  }
  queue.clear();
  return frames;
}
inline std::vector<std::vector<unsigned char>> takeFrames(Service& service) {
  return takeFrames(service.out);
}

template <class Queue>
std::vector<kl::message> takeMessages(Queue& queue) {
  std::vector<kl::message> messages;
  for (const auto& frame : takeFrames(queue)) messages.emplace_back(frame);
  return messages;
}
inline std::vector<kl::message> takeHeld(Service& service) { return takeMessages(service.held); }

// The one message in a queue; an empty one when there is not exactly one.
inline kl::message takeOnly(Service& service) {
  const std::vector<kl::message> all = takeMessages(service);
  return all.size() == 1 ? all[0] : kl::message();
}

inline unsigned int errorOf(const kl::message& m) {
  unsigned int code = kl::ERROR_OK;
  (void)kl::isError(m, &code);
  return code;
}

}  // namespace loader::test
