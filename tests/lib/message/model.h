#pragma once
// model.h: the container's rules in their plainest form, on standard containers, for the container to be compared
// with.  Slow, and meant to be read beside the rules.

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "kl/message.h"

namespace kl::test {

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

// Every kind of value that a list node holds.  The index is the kind: 0..4 are the scalar types u64, addr6,
// string, message, raw, 5..11 the arrays of bool, u32, u64, addr6, string, message, raw.
using Value = std::variant<unsigned long long, IPAddr6, std::string, Flat, Bytes, std::vector<bool>,
                           std::vector<unsigned int>, std::vector<unsigned long long>, std::vector<IPAddr6>,
                           std::vector<std::string>, std::vector<Flat>, std::vector<Bytes>>;

// The type bits of an id that a value of this kind belongs under.
unsigned int typeBitsOf(const Value& value);
bool isArrayValue(const Value& value);

// Slots with keys, empty and deleted marks and linear probing.
class ModelTable {
 public:
  static constexpr unsigned int kEmpty = 0xFFFFFFFF;
  static constexpr unsigned int kDeleted = 0xFFFFFFFE;
  struct Slot {
    unsigned int key = kEmpty;
    unsigned int value = 0;
  };

  const unsigned int* get(unsigned int key) const;
  unsigned int& getRef(unsigned int key);
  void erase(unsigned int key);
  bool includes(const ModelTable& other) const;
  void merge(const ModelTable& other);
  void removeIdMask(unsigned int id, unsigned int mask);

  const std::vector<Slot>& slots() const { return slots_; }
  unsigned int count() const { return count_; }

 private:
  std::vector<Slot> slots_ = std::vector<Slot>(11);
  unsigned int count_ = 0;
};

struct ModelNode {
  unsigned int id;
  Value value;
};

struct ModelRep {
  static constexpr unsigned int kNoBool = 0xFFFFFFFF;

  std::unique_ptr<ModelTable> bools;
  ModelTable u32s;
  std::list<ModelNode> fields;
  std::list<ModelNode> arrays;
  unsigned int boolId = kNoBool;
  bool boolValue = false;
  bool unshareable = false;

  unsigned int boolCount() const { return boolId != kNoBool ? 1 : bools ? bools->count() : 0; }
  std::list<ModelNode>& listOf(const Value& value) { return isArrayValue(value) ? arrays : fields; }
};

// A handle on a representation; null is the empty message.
class ModelMessage {
 public:
  ModelMessage() = default;
  ModelMessage(const ModelMessage& other) { share(other); }
  ModelMessage& operator=(const ModelMessage& other);

  void insertBool(unsigned int id, bool v);
  void insertU32(unsigned int id, unsigned int v) { own().u32s.getRef(id) = v; }
  // An array makes the message unshareable.
  void insert(unsigned int id, const Value& value);
  unsigned int& u32Ref(unsigned int id);
  // The value to change; made with `zero` where it is absent.
  Value& ref(unsigned int id, const Value& zero);
  void removeBool(unsigned int id);
  void removeU32(unsigned int id) { own().u32s.erase(id); }
  void removeField(unsigned int id);
  void removeArray(unsigned int id);

  const bool* findBool(unsigned int id) const;
  const unsigned int* findU32(unsigned int id) const { return read().u32s.get(id); }
  const Value* find(unsigned int id, bool array) const;

  void clone();
  bool equals(const ModelMessage& other) const;
  bool includes(const ModelMessage& other) const;
  void merge(const ModelMessage& other);
  void removeIdMask(unsigned int id, unsigned int mask);
  Bytes flatten() const;
  unsigned int maxLength() const;
  // Reads what flatten() wrote.
  void unflatten(const Bytes& bytes);

  const ModelRep& read() const;
  const ModelRep* rep() const { return rep_.get(); }

 private:
  void share(const ModelMessage& other);
  ModelRep& own();

  std::shared_ptr<ModelRep> rep_;
};

}  // namespace kl::test
