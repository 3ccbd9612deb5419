#pragma once
// rep.h: the representation that copies of a message share.
//
//     [ Rep | 11 u32 slots | nodes, bool table, larger u32 table ... ]   one block, then Memory's
//
// R1  while refs is above 1 nothing in it changes, except that a const getter may give a node its object
// R2  a bool lies inline, or in the bool table, which once made stays
// R3  unshareable and lengthsOpen are never taken back
// R4  while lengthsOpen is false, listBytes is what the nodes of both lists take in the format at most
// R5  what was built in an arena or borrows bytes is read and dropped, never changed or shared

#include <atomic>
#include <cstddef>

#include "kl/message.h"
#include "message/htable.h"
#include "message/node_list.h"

namespace kl {

// Hidden, though it is declared inside a class that is exported.
struct __attribute__((visibility("hidden"))) message::Rep {
  using Memory = container::Memory;
  using Node = container::Node;
  using NodeList = container::NodeList;
  using Kind = container::Kind;

  static constexpr unsigned int kNoBool = 0xFFFFFFFF;

  // The content of every empty message.
  constexpr Rep() = default;
  // Empty, unshared, on the heap.
  static Rep* make();
  // Empty, in an arena that has room for arenaBytes().
  [[gnu::cold]] static Rep* make(container::Arena& arena);
  static std::size_t arenaBytes();
  // A deep copy with the lists reversed.
  static Rep* copyOf(const Rep& source);
  // Turns a representation that was just read from bytes into what the copy made in assigning it would be.
  void becomeItsCopy();
  // Needs: the caller has the last reference.
  static void destroy(Rep* rep) noexcept;

  Rep(const Rep&) = delete;
  Rep& operator=(const Rep&) = delete;

  // --- Bools: case by case as R2 has it ---
  const bool* findBool(unsigned int id) const;
  bool& boolRef(unsigned int id);
  void removeBool(unsigned int id);
  unsigned int boolCount() const { return boolId != kNoBool ? 1 : bools != nullptr ? bools->count() : 0; }
  // Calls f(id, value) for every bool: the inline one, or the table's in slot order.
  template <class F>
  void forEachBool(F f) const {
    if (boolId != kNoBool) return f(boolId, boolValue);
    if (bools == nullptr) return;
    for (unsigned int i = bools->next(bools->kNoSlot); i < bools->capacity(); i = bools->next(i))
      f(bools->key(i), bools->value(i));
  }
  [[gnu::cold]] void makeBoolTable();

  unsigned int& u32Ref(unsigned int id) { return u32s.get_ref(id, memory); }

  NodeList& listOf(Kind kind) { return isArray(kind) ? arrays : fields; }
  const NodeList& listOf(Kind kind) const { return isArray(kind) ? arrays : fields; }

  // The node of that id and kind, or null.
  const Node* find(Kind kind, unsigned int id) const {
    const Node* node = listOf(kind).find(id).node;
    return node != nullptr && node->kind == kind ? node : nullptr;
  }

  // Gives the field the value that lies in bytes at `from`.
  void putBytes(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes, std::size_t count);
  // The same without copying them (R5).
  void putBorrowed(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                   std::size_t count);
  // Gives the field the value of an object, which may be the field's own.
  template <Kind k>
  void putObject(unsigned int id, const container::Object<k>& v);
  // A node of that kind with room for so many bytes.  It replaces the node of the id, and the caller fills it.
  // Needs: there is no object of that kind.
  Node& putRoom(Kind kind, unsigned int id, std::size_t bytes);
  // Takes over the bytes that the caller of putRoom() filled in, which may be fewer than the room.
  void setFilled(Node& node, std::size_t bytes, std::size_t count) {
    node.size = static_cast<unsigned int>(bytes);
    node.count = static_cast<unsigned int>(count);
    listBytes += recordBytes(node, bytes);
  }
  // Gives the field of the node's id the node's value.
  void putCopy(const Node& node);
  // The same.  Needs: the node has an object.
  void putCopyOfObject(const Node& node);
  // The node of that kind, made with the value zero where it is absent.
  Node& nodeRef(Kind kind, unsigned int id);
  // Its object, which the caller may change at any time.
  template <Kind k>
  container::Object<k>* objectRef(unsigned int id) {
    return container::objectOf<k>(nodeOfObject(k, id));
  }

  void remove(NodeList& list, unsigned int id);
  [[gnu::cold]] void removeIdMask(NodeList& list, unsigned int id, unsigned int mask);

  std::size_t maxLength() const;

  // The most that one more field takes from an arena, its value aside.
  [[gnu::cold]] std::size_t arenaCostOfField() const;

  void check() const;

  // --- Data ---
  std::atomic<int> refs{1};
  unsigned int boolId = kNoBool;
  bool boolValue = false;
  bool unshareable = false;
  bool lengthsOpen = false;
  mutable std::atomic<bool> hasObjects{false};
  std::size_t listBytes = 0;
  htable<unsigned int> u32s;
  htable<bool>* bools = nullptr;
  NodeList fields;
  NodeList arrays;
  std::vector<unsigned char>* kept = nullptr;
  Memory memory;

 private:
  Rep(unsigned char* begin, unsigned char* end, container::Arena* arena)
      : u32s(begin), memory(begin + htable<unsigned int>::kFirstBytes, end, arena) {}

  // The most bytes of the node in the format.
  static std::size_t recordBytes(const Node& node, std::size_t valueBytes) {
    if (!node.agrees()) return 0;
    return valueBytes + (isPlainValue(node.kind) ? 4 : 6);
  }
  // A node that is filled but for its bytes, or null where there is a field already.
  Node* add(Kind kind, unsigned int id, std::size_t bytes, std::size_t count);
  Node* addHere(Kind kind, unsigned int id, std::size_t bytes, std::size_t count);
  // The same as putBytes, where there is a field already.
  void replaceWithBytes(Kind kind, unsigned int id, const unsigned char* from, std::size_t bytes,
                        std::size_t count);
  // The same as putObject, where there is a field already or the value is too large for bytes.
  void replaceWithObject(Kind kind, unsigned int id, const void* v);
  Node& nodeOfObject(Kind kind, unsigned int id);
  void resized(Node& node, std::size_t bytes);
  void copyList(NodeList& to, const NodeList& from);
  void pushCopy(NodeList& to, const Node& source);
  void destroyObjects(const NodeList& list) noexcept;
  [[gnu::noinline]] static Rep* makeIn(void* block, std::size_t bytes, container::Arena* arena);
};

// Lets the container's files and their tests see behind a message.
struct RepAccess {
  // Null for the empty message.
  static message::Rep*& of(message& m) { return m.rep_; }
  static message::Rep* of(const message& m) { return m.rep_; }

  // To read: the empty message's is shared by all of them.
  static const message::Rep& read(const message& m) { return m.rep_ != nullptr ? *m.rep_ : nilRep; }
  // To change: private to the message afterwards.
  static message::Rep& own(message& m) {
    if (m.rep_ == nullptr || m.rep_->refs.load(std::memory_order_acquire) > 1) m.clone();
    return *m.rep_;
  }

  static const message::Rep nilRep;
};

}  // namespace kl
