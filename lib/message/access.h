#pragma once
// access.h: how the operations on fields and arrays reach a value.

#include "message/values.h"

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
  if (node == nullptr) return container::copied(def);
  return container::valueOf<k>(*node);
}

// Needs: an object kind.  The value in place.
const void* objectOf(const message& m, container::Kind kind, unsigned int id);
template <container::Kind k>
const container::Object<k>* constRef(const message& m, unsigned int id) {
  return static_cast<const container::Object<k>*>(objectOf(m, k, id));
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
