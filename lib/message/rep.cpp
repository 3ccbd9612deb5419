// The representation: where it begins, how fields enter and leave it, how it is copied and ends.

#include "message/rep.h"

#include <new>

#include "message/block_stock.h"
#include "message/values.h"

namespace kl {

using container::Arena;
using container::destroyObject;
using container::giveNode;
using container::kBlockBytes;
using container::takeNode;

constinit const message::Rep RepAccess::nilRep;

// --- Life ------------------------------------------------------------------------------------------------

message::Rep* message::Rep::make() { return makeIn(container::takeBlock(), kBlockBytes, nullptr); }

message::Rep* message::Rep::make(Arena& arena) {
  return makeIn(arena.take(arenaBytes()), arenaBytes(), &arena);
}

std::size_t message::Rep::arenaBytes() {
  return container::roundedUp(sizeof(Rep)) + htable<unsigned int>::kFirstBytes + Memory::kLargestSmall;
}

message::Rep* message::Rep::makeIn(void* block, std::size_t bytes, Arena* arena) {
  auto* begin = static_cast<unsigned char*>(block);
  return new (block) Rep(begin + container::roundedUp(sizeof(Rep)), begin + bytes, arena);
}

message::Rep* message::Rep::copyOf(const Rep& source) {
  Rep* copy = make();
  copy->boolId = source.boolId;
  copy->boolValue = source.boolValue;
  if (source.bools != nullptr) {
    copy->makeBoolTable();
    copy->bools->copyFrom(*source.bools, copy->memory);
  }
  copy->u32s.copyFrom(source.u32s, copy->memory);
  copy->copyList(copy->fields, source.fields);
  copy->copyList(copy->arrays, source.arrays);
  if (source.kept != nullptr) copy->kept = new std::vector<unsigned char>(*source.kept);
  return copy;
}

void message::Rep::destroy(Rep* rep) noexcept {
  if (rep->hasObjects.load(std::memory_order_relaxed)) {
    rep->destroyObjects(rep->fields);
    rep->destroyObjects(rep->arrays);
  }
  delete rep->kept;
  rep->memory.releaseAll();
  if (rep->memory.arena() == nullptr) container::giveBlock(rep);
}

void message::Rep::destroyObjects(const NodeList& list) noexcept {
  for (Node* node = list.head(); node != nullptr; node = node->next) destroyObject(*node);
}

// --- Bools -----------------------------------------------------------------------------------------------

const bool* message::Rep::findBool(unsigned int id) const {
  if (boolId != kNoBool) return boolId == id ? &boolValue : nullptr;
  return bools != nullptr ? bools->get(id) : nullptr;
}

bool& message::Rep::boolRef(unsigned int id) {
  if (boolId == id) return boolValue;
  if (boolId == kNoBool && bools == nullptr) {
    boolId = id;
    boolValue = false;
    return boolValue;
  }
  if (boolId != kNoBool) makeBoolTable();
  return bools->get_ref(id, memory);
}

// R2: the inline bool, if there is one, moves in.
void message::Rep::makeBoolTable() {
  constexpr std::size_t head = container::roundedUp(sizeof(htable<bool>));
  auto* bytes = static_cast<unsigned char*>(memory.take(head + htable<bool>::kFirstBytes));
  bools = new (bytes) htable<bool>(bytes + head);
  if (boolId != kNoBool) bools->get_ref(boolId, memory) = boolValue;
  boolId = kNoBool;
}

void message::Rep::removeBool(unsigned int id) {
  if (boolId == id) boolId = kNoBool;
  else if (boolId == kNoBool && bools != nullptr) bools->erase(id);
}

// --- Fields and arrays -----------------------------------------------------------------------------------

// Compiled into putBytes() too, by which every field that is read comes.
[[gnu::always_inline]] inline message::Rep::Node* message::Rep::addHere(Kind kind, unsigned int id,
                                                                        std::size_t bytes,
                                                                        std::size_t count) {
  NodeList& list = listOf(kind);
  const NodeList::Place place = list.find(id);
  if (place.node != nullptr) return nullptr;
  Node* node = takeNode(memory, kind, id, bytes);
  setFilled(*node, bytes, count);
  list.push(place.entry, node, memory);
  return node;
}

message::Rep::Node* message::Rep::add(Kind kind, unsigned int id, std::size_t bytes, std::size_t count) {
  return addHere(kind, id, bytes, count);
}

void message::Rep::putBytes(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                            std::size_t count) {
  Node* const node = addHere(kind, id, bytes, count);
  if (node == nullptr) return replaceWithBytes(kind, id, from, bytes, count);
  container::copyValue(kind, node->room(), from, bytes);
}

void message::Rep::putBorrowed(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                               std::size_t count) {
  Node& node = putRoom(kind, id, 0);
  node.borrow(from);
  setFilled(node, bytes, count);
}

KL_COMMON_PUTS(template)

message::Rep::Node& message::Rep::putRoom(Kind kind, unsigned int id, std::size_t bytes) {
  NodeList& list = listOf(kind);
  const NodeList::Place place = list.find(id);
  Node* const old = place.node;
  if (old != nullptr) listBytes -= recordBytes(*old, old->size);
  if (old != nullptr && old->kind == kind && !old->borrows && old->roomBytes() >= bytes) return *old;
  Node* node = takeNode(memory, kind, id, bytes);
  if (old == nullptr) return list.push(place.entry, node, memory), *node;
  list.replace(place, node);
  giveNode(memory, old);
  return *node;
}

void message::Rep::putCopy(const Node& source) {
  if (source.hasObject()) return putCopyOfObject(source);
  putBytes(source.kind, source.id, source.content(), source.size, source.count);
}

message::Rep::Node& message::Rep::nodeRef(Kind kind, unsigned int id) {
  const std::size_t bytes = kind == Kind::u64 ? 8 : kind == Kind::addr6 ? 16 : 0;
  Node* node = add(kind, id, bytes, 0);
  if (node == nullptr) {
    node = listOf(kind).find(id).node;
    if (node->kind == kind) return *node;
    node = &putRoom(kind, id, bytes);
    setFilled(*node, bytes, 0);
  }
  std::memset(node->room(), 0, bytes);
  return *node;
}

void message::Rep::remove(NodeList& list, unsigned int id) {
  const NodeList::Place place = list.find(id);
  if (place.node == nullptr) return;
  list.remove(place);
  listBytes -= recordBytes(*place.node, place.node->size);
  giveNode(memory, place.node);
}

void message::Rep::removeIdMask(NodeList& list, unsigned int id, unsigned int mask) {
  for (Node* node = list.head(); node != nullptr;) {
    Node* const next = node->next;
    if ((node->id & mask) == id) remove(list, node->id);
    node = next;
  }
}

// --- Copying ---------------------------------------------------------------------------------------------

// Kept on purpose: each copied node becomes the head, so a copy's lists run the other way round, and
// so do the records that it is written as.
// Held by Clone.ReversesTheListsAndThereforeTheirRecords.
void message::Rep::copyList(NodeList& to, const NodeList& from) {
  for (const Node* node = from.head(); node != nullptr; node = node->next)
    if (node->agrees()) pushCopy(to, *node);
}

// Nobody holds a reference into it yet, so it may be shared from here on.  A message that received no field is not
// unshareable, is therefore not copied in assigning, and stays as it is.
void message::Rep::becomeItsCopy() {
  if (!unshareable) return;
  unshareable = false;
  fields.reverse();
  arrays.reverse();
}

void message::Rep::pushCopy(NodeList& to, const Node& source) {
  if (source.hasObject()) return putCopy(source);
  Node* node = takeNode(memory, source.kind, source.id, source.size);
  setFilled(*node, source.size, source.count);
  to.push(nullptr, node, memory);
  copyBytes(node->room(), source.content(), source.size);
}

// --- Measures --------------------------------------------------------------------------------------------

std::size_t message::Rep::maxLength() const {
  std::size_t bytes = 2 + std::size_t{4} * boolCount() + std::size_t{8} * u32s.count();
  if (!lengthsOpen) return bytes + listBytes;  // R4
  for (const NodeList* list : {&fields, &arrays})
    for (const Node* node = list->head(); node != nullptr; node = node->next)
      bytes += recordBytes(*node, valueBytes(*node));
  return bytes;
}

std::size_t message::Rep::arenaCostOfField() const {
  const std::size_t boolCost = bools != nullptr
                                   ? bools->growthCost()
                                   : Memory::arenaCost(sizeof(htable<bool>) + htable<bool>::kFirstBytes);
  return boolCost + u32s.growthCost() + fields.growthCost() + arrays.growthCost() +
         Memory::arenaCost(sizeof(Node) + sizeof(IPAddr6));
}

void message::Rep::check() const {
  KL_INVARIANT(boolId == kNoBool || bools == nullptr);  // R2
  fields.check();
  arrays.check();
  std::size_t bytes = 0;
  for (const NodeList* list : {&fields, &arrays})
    for (const Node* node = list->head(); node != nullptr; node = node->next)
      bytes += recordBytes(*node, valueBytes(*node));
  KL_INVARIANT(lengthsOpen || bytes == listBytes);  // R4
}

}  // namespace kl
