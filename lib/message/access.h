#pragma once
// access.h: how the operations on fields and arrays reach a value.

#include "message/rep.h"

namespace kl {

// Ends the process with one line: const reference getters rely on the field being there.
[[noreturn]] void reportMissing(unsigned int id);

// To change through a reference that is handed out: from now on everything may change at any time.
inline message::Rep& ownForGood(message& m) {
  message::Rep& rep = RepAccess::own(m);
  rep.unshareable = true;
  return rep;
}

// Needs: the kind of a string, message or raw value.  A copy of the value, or `def`.
template <container::Kind k>
container::Object<k> valueOr(const message& m, unsigned int id, const container::Object<k>& def) {
  const container::Node* node = RepAccess::read(m).find(k, id);
  if (node != nullptr) return container::valueOf<k>(*node);
  return container::decoded<k>(container::asBytes(def), def.size(), 0);
}

inline const container::Node& nodeOf(const message& m, container::Kind kind, unsigned int id) {
  const container::Node* node = RepAccess::read(m).find(kind, id);
  if (node == nullptr) reportMissing(id);
  return *node;
}

// Needs: an object kind.  The value in place.
template <container::Kind k>
const container::Object<k>* constRef(const message& m, unsigned int id) {
  const container::Node& node = nodeOf(m, k, id);
  RepAccess::read(m).hasObjects.store(true, std::memory_order_relaxed);
  return container::objectOf<k>(node);
}

template <container::Kind k>
container::Object<k> arrayOf(const message& m, unsigned int id) {
  const container::Node* node = RepAccess::read(m).find(k, id);
  return node != nullptr ? container::valueOf<k>(*node) : container::Object<k>{};
}

// Kept on purpose: an array insert makes the message unshareable, though no pointer leaves it.
// Held by Sharing.AnArrayInsertMakesTheMessageUnshareable.
template <container::Kind k>
void putArray(message& m, unsigned int id, const container::Object<k>& v) {
  ownForGood(m).putObject<k>(id, v);
}

}  // namespace kl
