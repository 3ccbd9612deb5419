#pragma once
// node.h: one field of a message's lists.

#include <atomic>
#include <new>

#include "message/kind.h"
#include "message/memory.h"

namespace kl::container {

// N1  without an object the value is the `size` bytes at content(); with one it is the object
// N2  an object appears once and stays until its node goes: pointers to it were handed out
// N3  a const getter may make the object, also in a representation that several threads read; the first one
//     to publish wins.  Until a caller gets a way to change it, bytes and object have the same value
// N4  the node's kind is that of the operation that made it
struct alignas(kGrain) Node {
  Node* next;
  mutable std::atomic<void*> object;
  unsigned int id;
  unsigned int size;   // bytes of the value
  unsigned int count;  // elements of an array
  Kind kind;
  unsigned char roomGrains;  // room for the value, in grains; 0 where the node is a large piece
  bool borrows;              // the bytes lie elsewhere and are not ours

  const unsigned char* content() const {
    return borrows ? *reinterpret_cast<const unsigned char* const*>(this + 1)
                   : reinterpret_cast<const unsigned char*>(this + 1);
  }
  // Needs: the node does not borrow.
  unsigned char* room() { return reinterpret_cast<unsigned char*>(this + 1); }
  std::size_t roomBytes() const {
    return roomGrains != 0 ? roomGrains * kGrain : Memory::largeBytes(this) - sizeof(Node);
  }
  void borrow(const unsigned char* bytes) {
    borrows = true;
    *reinterpret_cast<const unsigned char**>(this + 1) = bytes;
  }

  unsigned long long* u64() { return reinterpret_cast<unsigned long long*>(this + 1); }
  const unsigned long long* u64() const { return reinterpret_cast<const unsigned long long*>(this + 1); }
  IPAddr6* addr6() { return reinterpret_cast<IPAddr6*>(this + 1); }
  const IPAddr6* addr6() const { return reinterpret_cast<const IPAddr6*>(this + 1); }

  // Code that goes by the type of an id passes over a node that disagrees with it.
  bool agrees() const { return kindOf(id) == kind; }
  bool hasObject() const { return object.load(std::memory_order_acquire) != nullptr; }
  void* anyObject() const { return object.load(std::memory_order_acquire); }
  // Null where the value is in bytes.
  template <Kind k>
  Object<k>* objectIfAny() const {
    return static_cast<Object<k>*>(object.load(std::memory_order_acquire));
  }
};

// A node with room for a value of so many bytes.  Only next, size, count and the bytes are left to the caller.
inline Node* takeNode(Memory& memory, Kind kind, unsigned int id, std::size_t valueBytes) {
  // Room for a pointer at least, so that every node can borrow.
  const std::size_t room = roundedUp(valueBytes < sizeof(void*) ? sizeof(void*) : valueBytes);
  const std::size_t whole = sizeof(Node) + room;
  Node* node = new (memory.take(whole)) Node;
  node->object.store(nullptr, std::memory_order_relaxed);
  node->id = id;
  node->kind = kind;
  node->roomGrains = whole > Memory::kLargestSmall ? 0 : static_cast<unsigned char>(room / kGrain);
  node->borrows = false;
  return node;
}
// Frees the node and its object.
void giveNode(Memory& memory, Node* node);
void destroyObject(Node& node);

// The operations on an object of this kind, which are rare.
void* decodedObject(Kind kind, const unsigned char* at, std::size_t bytes, std::size_t count);
void deleteObject(Kind kind, void* object);
void* copyOfObject(Kind kind, const void* object);
void assignObject(Kind kind, void* to, const void* from);
bool objectFitsBytes(Kind kind, const void* object);
std::size_t objectBytes(Kind kind, const void* object);
std::size_t objectCount(Kind kind, const void* object);
unsigned char* encodeObject(Kind kind, unsigned char* to, const void* object);

// A value as an object, made and published where there is none yet.
void* objectIn(const Node& node);
template <Kind k>
Object<k>* objectOf(const Node& node) {
  return static_cast<Object<k>*>(objectIn(node));
}

// A copy of the value.  It exists for every kind that may become an object.
template <Kind k>
Object<k> valueOf(const Node& node);

struct Span {
  const unsigned char* data;
  std::size_t size;
};

// The bytes of a string, message or raw value, wherever they are.
Span bytesOf(const Node& node);
// Bytes of the value as it stands, and elements if it is an array.
std::size_t valueBytes(const Node& node);
std::size_t valueCount(const Node& node);

// A walk over the elements of an array, whether it lies in bytes or is an object.
class Elements {
 public:
  explicit Elements(const Node& node);

  bool atEnd() const { return index_ == count_; }
  void next();

  // The element as a number: bool, u32 and u64 arrays.
  unsigned long long number() const;
  // The element's bytes: addr6, string, message and raw arrays.
  Span bytes() const;

 private:
  const Node& node_;
  const void* object_;
  const unsigned char* at_;
  std::size_t index_ = 0;
  std::size_t count_;
};

}  // namespace kl::container
