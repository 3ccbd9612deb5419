#pragma once
// events.h: the events that a job emits to klctl while it reads a table, one message each.

#include "kl/conventions.h"
#include "kl/field.h"
#include "kl/message.h"

namespace klctl {

enum class EventKind : unsigned int {
  kObject = 1,    // the object
  kRemoved = 2,   // its STD_ID
  kComplete = 3,  // nothing
  kLost = 4,      // the reason: an error or CMD_DISCONNECTED
  kDone = 5,      // the last reply or the error
  kEndless = 6,   // the STD_GETALLID that came twice
};

struct Event {
  EventKind kind = EventKind::kComplete;
  kl::message::flat_message content;
};

inline constexpr kl::field<unsigned int> kEventKind{0x08fd0001};
inline constexpr kl::field<kl::message::flat_message> kEventContent{0x28fd0002};

inline kl::message toMessage(EventKind kind, const kl::message& content) {
  kl::message m;
  m.insert(kEventKind, static_cast<unsigned int>(kind));
  m.insert(kEventContent, content.flattened());
  return m;
}

inline Event eventOf(const kl::message& m) {
  return {static_cast<EventKind>(m.get(kEventKind, 0)), m.get(kEventContent, {})};
}

}  // namespace klctl
