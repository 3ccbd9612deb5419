// Fields whose value has been made an object, for a reference getter or because it is too large for bytes.  That is
// rare, and the code for each kind of object is long.

#include "message/values.h"

namespace kl::container {

template <class Value>
Value copied(const Value& object) {
  return object;
}
template Object<Kind::string> copied(const Object<Kind::string>&);
template Object<Kind::message> copied(const Object<Kind::message>&);
template Object<Kind::raw> copied(const Object<Kind::raw>&);
template Object<Kind::u32Array> copied(const Object<Kind::u32Array>&);
template Object<Kind::messageArray> copied(const Object<Kind::messageArray>&);

KL_OTHER_VALUES(template)

// N3: the winner's object is the one that everybody gets.
void* objectIn(const Node& node) {
  if (void* const object = node.anyObject(); object != nullptr) return object;
  void* const fresh = decodedObject(node.kind, node.content(), node.size, node.count);
  void* published = nullptr;
  if (node.object.compare_exchange_strong(published, fresh, std::memory_order_acq_rel)) return fresh;
  deleteObject(node.kind, fresh);
  return published;
}

void* decodedObject(Kind kind, const unsigned char* at, std::size_t bytes, std::size_t count) {
  void* object = nullptr;
  withObjectKind(kind, [&]<Kind k>() { object = new Object<k>(Decoded<Object<k>>::from(at, bytes, count)); });
  return object;
}

void deleteObject(Kind kind, void* object) {
  withObjectKind(kind, [&]<Kind k>() { delete static_cast<Object<k>*>(object); });
}

void* copyOfObject(Kind kind, const void* object) {
  void* copy = nullptr;
  withObjectKind(kind, [&]<Kind k>() { copy = new Object<k>(*static_cast<const Object<k>*>(object)); });
  return copy;
}

void assignObject(Kind kind, void* to, const void* from) {
  if (to == from) return;
  void* const copy = copyOfObject(kind, from);
  withObjectKind(kind, [&]<Kind k>() { static_cast<Object<k>*>(to)->swap(*static_cast<Object<k>*>(copy)); });
  deleteObject(kind, copy);
}

bool objectFitsBytes(Kind kind, const void* object) {
  bool fits = false;
  withObjectKind(kind, [&]<Kind k>() { fits = fitsBytes(*static_cast<const Object<k>*>(object)); });
  return fits;
}

std::size_t objectBytes(Kind kind, const void* object) {
  std::size_t bytes = 0;
  withObjectKind(kind, [&]<Kind k>() { bytes = encodedSize(*static_cast<const Object<k>*>(object)); });
  return bytes;
}

std::size_t objectCount(Kind kind, const void* object) {
  std::size_t count = 0;
  withObjectKind(kind, [&]<Kind k>() { count = elementCount(*static_cast<const Object<k>*>(object)); });
  return count;
}

unsigned char* encodeObject(Kind kind, unsigned char* to, const void* object) {
  withObjectKind(kind, [&]<Kind k>() { to = encode(to, *static_cast<const Object<k>*>(object)); });
  return to;
}

}  // namespace kl::container

namespace kl {

KL_OTHER_PUTS(template)

// `v` may be the object that is replaced, or lie in it, so that one goes last.
void message::Rep::replaceWithObject(Kind kind, unsigned int id, const void* v) {
  Node* const old = listOf(kind).find(id).node;
  if (old != nullptr && old->kind == kind && old->hasObject()) {
    container::assignObject(kind, old->anyObject(), v);
    return resized(*old, container::objectBytes(kind, old->anyObject()));
  }
  const Kind oldKind = old != nullptr ? old->kind : kind;
  void* const oldObject = old != nullptr ? old->object.exchange(nullptr) : nullptr;
  if (container::objectFitsBytes(kind, v)) {
    const std::size_t bytes = container::objectBytes(kind, v);
    Node& node = putRoom(kind, id, bytes);
    (void)container::encodeObject(kind, node.room(), v);
    setFilled(node, bytes, container::objectCount(kind, v));
  } else {
    Node& node = putRoom(kind, id, 0);
    setFilled(node, 0, 0);
    node.object.store(container::copyOfObject(kind, v), std::memory_order_release);
    hasObjects.store(true, std::memory_order_relaxed);
    lengthsOpen = true;
  }
  if (oldObject != nullptr) container::deleteObject(oldKind, oldObject);
}

void message::Rep::putCopyOfObject(const Node& source) {
  container::withObjectKind(source.kind,
                            [&]<Kind k>() { putObject<k>(source.id, *source.objectIfAny<k>()); });
}

void message::Rep::replaceWithBytes(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                                    std::size_t count) {
  Node* const old = listOf(kind).find(id).node;
  if (old != nullptr && old->kind == kind && old->hasObject()) {
    void* const fresh = container::decodedObject(kind, from, bytes, count);
    container::assignObject(kind, old->anyObject(), fresh);
    container::deleteObject(kind, fresh);
    return resized(*old, bytes);
  }
  Node& node = putRoom(kind, id, bytes);
  setFilled(node, bytes, count);
  container::copyValue(kind, node.room(), from, bytes);
}

// The node's object was changed by one of our operations.
void message::Rep::resized(Node& node, std::size_t bytes) {
  listBytes -= recordBytes(node, node.size);
  node.size = static_cast<unsigned int>(bytes);
  listBytes += recordBytes(node, bytes);
}

message::Rep::Node& message::Rep::nodeOfObject(Kind kind, unsigned int id) {
  Node& node = nodeRef(kind, id);
  hasObjects.store(true, std::memory_order_relaxed);
  lengthsOpen = true;
  return node;
}

}  // namespace kl
