// Fields whose value has been made an object, for a reference getter or because it is too large for bytes.  That is
// rare, and the code for each kind of object is long.

#include <optional>

#include "message/rep.h"

namespace kl {

using container::encode;
using container::encodedSize;
using container::Object;
using container::objectOf;
using container::withObjectKind;

template <message::Rep::Kind k>
void message::Rep::replaceWithObject(unsigned int id, const Object<k>& v) {
  const NodeList::Place place = listOf(k).find(id);
  std::optional<Object<k>> copy;  // `v` may be the object of the node that is replaced
  if (place.node != nullptr && place.node->kind != k) copy = v;
  const Object<k>& value = copy.has_value() ? *copy : v;
  if (place.node != nullptr && place.node->kind == k && place.node->hasObject())
    return assign<k>(*place.node, value);
  const bool inBytes = container::fitsBytes(value);
  Node& node = putRoom(k, id, inBytes ? encodedSize(value) : 0);
  if (inBytes) {
    encode(node.room(), value);
    return setFilled(node, encodedSize(value), container::elementCount(value));
  }
  setFilled(node, 0, 0);
  node.object.store(new Object<k>(value), std::memory_order_release);
  hasObjects.store(true, std::memory_order_relaxed);
  lengthsOpen = true;
}

template void message::Rep::replaceWithObject<container::Kind::string>(unsigned int, const std::string&);
template void message::Rep::replaceWithObject<container::Kind::message>(unsigned int, const flat_message&);
template void message::Rep::replaceWithObject<container::Kind::raw>(unsigned int, const container::Bytes&);
template void message::Rep::replaceWithObject<container::Kind::boolArray>(unsigned int,
                                                                          const std::vector<bool>&);
template void message::Rep::replaceWithObject<container::Kind::u32Array>(unsigned int,
                                                                         const std::vector<unsigned int>&);
template void message::Rep::replaceWithObject<container::Kind::u64Array>(
    unsigned int, const std::vector<unsigned long long>&);
template void message::Rep::replaceWithObject<container::Kind::addr6Array>(unsigned int,
                                                                           const std::vector<IPAddr6>&);
template void message::Rep::replaceWithObject<container::Kind::stringArray>(unsigned int,
                                                                            const std::vector<std::string>&);
template void message::Rep::replaceWithObject<container::Kind::messageArray>(
    unsigned int, const std::vector<flat_message>&);
template void message::Rep::replaceWithObject<container::Kind::rawArray>(
    unsigned int, const std::vector<container::Bytes>&);

template <message::Rep::Kind k>
void message::Rep::assign(Node& node, const Object<k>& v) {
  Object<k>& object = *node.objectIfAny<k>();
  if (&object != &v) object = v;
  resized(node, encodedSize(object));
}

void message::Rep::replaceWithBytes(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                                    std::size_t count) {
  Node* const old = listOf(kind).find(id).node;
  if (old != nullptr && old->kind == kind && old->hasObject()) {
    withObjectKind(kind,
                   [&]<Kind k>() { *old->objectIfAny<k>() = container::decoded<k>(from, bytes, count); });
    return resized(*old, bytes);
  }
  Node& node = putRoom(kind, id, bytes);
  setFilled(node, bytes, count);
  container::copyValue(kind, node.room(), from, bytes);
}

unsigned char* message::Rep::encodeObject(unsigned char* to, const Node& node) {
  withObjectKind(node.kind, [&]<Kind k>() { to = encode(to, *node.objectIfAny<k>()); });
  return to;
}

// The node's object was changed by one of our operations.
void message::Rep::resized(Node& node, std::size_t bytes) {
  listBytes -= recordBytes(node, node.size);
  node.size = static_cast<unsigned int>(bytes);
  listBytes += recordBytes(node, bytes);
}

template <message::Rep::Kind k>
Object<k>* message::Rep::objectRef(unsigned int id) {
  Node& node = nodeRef(k, id);
  hasObjects.store(true, std::memory_order_relaxed);
  lengthsOpen = true;
  return objectOf<k>(node);
}

template std::string* message::Rep::objectRef<container::Kind::string>(unsigned int);
template message::flat_message* message::Rep::objectRef<container::Kind::message>(unsigned int);
template container::Bytes* message::Rep::objectRef<container::Kind::raw>(unsigned int);
template std::vector<bool>* message::Rep::objectRef<container::Kind::boolArray>(unsigned int);
template std::vector<unsigned int>* message::Rep::objectRef<container::Kind::u32Array>(unsigned int);
template std::vector<unsigned long long>* message::Rep::objectRef<container::Kind::u64Array>(unsigned int);
template std::vector<IPAddr6>* message::Rep::objectRef<container::Kind::addr6Array>(unsigned int);
template std::vector<std::string>* message::Rep::objectRef<container::Kind::stringArray>(unsigned int);
template std::vector<message::flat_message>* message::Rep::objectRef<container::Kind::messageArray>(
    unsigned int);
template std::vector<container::Bytes>* message::Rep::objectRef<container::Kind::rawArray>(unsigned int);

}  // namespace kl
