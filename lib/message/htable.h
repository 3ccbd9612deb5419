#pragma once
// htable.h: the open-addressing table that holds the bools and the u32 values of a message.
//
// Slots carry keys in linear probing from the home slot, key modulo capacity.  The slot of a key is
// visible: slot order is the order in which a message is written.
//
// H1  a key lies in the first slot, from its home slot on, that was not live when it came; a slot that was
//     freed by erase() is as good as an empty one
// H2  capacities run 11, 22, 44, ...; a table grows when it is asked for a reference while
//     count + 1 > capacity/2 + capacity/16, before it looks the key up
// H3  growing re-enters the live keys in slot order and forgets the erased ones
// H4  capacity, count, live and erased slots of a copy are those of its source

#include <bit>
#include <cstdint>
#include <cstring>

#include "base/assertions.h"
#include "base/id_index.h"
#include "message/memory.h"

namespace kl {

// The ids that never stand for a field of a table.
constexpr bool isReservedKey(unsigned int id) { return id >= 0xFFFFFFFE; }

// The keys of a table, whatever its values are.  Keys and values lie in memory of the representation that the table
// belongs to, which is passed in where it is needed.  Whether a slot is live or erased stands in bits beside them, so
// that slots need no initialisation.  A table of more than 64 slots also has an index, because a peer that knows the
// probing can choose keys that all collide.
//
// Errors:    none.
// Ownership: the slots live as long as the representation's memory.
// Threads:   const operations only read.
// Cost:      constant; growing is linear.
class KeySlots {
 public:
  static constexpr unsigned int kFirstCapacity = 11;
  static constexpr unsigned int kNoSlot = 0xFFFFFFFF;

  KeySlots(const KeySlots&) = delete;
  KeySlots& operator=(const KeySlots&) = delete;

  unsigned int capacity() const { return capacity_; }
  unsigned int count() const { return count_; }

  void erase(std::uint32_t key);
  [[gnu::cold]] void removeIdMask(std::uint32_t id, std::uint32_t mask);

  // The least live slot above `slot`, or capacity().  Walks begin at next(kNoSlot).  Needs: kNoSlot or a slot.
  unsigned int next(unsigned int slot) const {
    const unsigned int from = slot + 1;
    if (!isSmall()) return nextLarge(from);
    const std::uint64_t live = bits_.small.live >> from;  // a small table has fewer than 63 slots
    return live != 0 ? from + static_cast<unsigned int>(std::countr_zero(live)) : capacity_;
  }
  // Needs: a live slot.
  std::uint32_t key(unsigned int slot) const { return keys_[slot]; }
  bool isErased(unsigned int slot) const {
    return ((isSmall() ? bits_.small.erased : bits_.large->erased()[slot / 64]) >> slot % 64 & 1) != 0;
  }

 protected:
  struct SlotEntry {
    std::uint32_t key = 0;
    unsigned int slot = kNoSlot;
    std::uint32_t id() const { return key; }
    bool isFree() const { return slot == kNoSlot; }
  };
  // A table of more than 64 slots has in front of them the index, then the words of live and erased bits, then a bit
  // for each word of live bits that is full: runs of colliding keys may be long.
  struct Large {
    IdIndex<SlotEntry> index;
    std::uint64_t words;
    std::uint64_t* live() { return reinterpret_cast<std::uint64_t*>(this + 1); }
    std::uint64_t* erased() { return live() + words; }
    std::uint64_t* full() { return erased() + words; }
  };
  struct Small {
    std::uint64_t live;
    std::uint64_t erased;
  };
  union Bits {
    Small small;
    Large* large;
  };

  // An empty table that may be read.
  constexpr KeySlots() = default;
  explicit KeySlots(void* slots) : keys_(static_cast<std::uint32_t*>(slots)) {}
  ~KeySlots() = default;

  static constexpr bool isSmallCapacity(unsigned int capacity) { return capacity <= 64; }
  static constexpr std::size_t wordsFor(unsigned int capacity) { return (capacity + 63) / 64; }
  static constexpr std::size_t slotBytes(unsigned int capacity, std::size_t valueBytes) {
    return container::roundedUp(capacity * (sizeof(std::uint32_t) + valueBytes));
  }
  static constexpr std::size_t largeBytes(unsigned int capacity) {
    return isSmallCapacity(capacity) ? 0 : container::roundedUp(sizeof(Large)) + flagBytes(capacity);
  }
  // The live, erased and full bits.
  static constexpr std::size_t flagBytes(unsigned int capacity) {
    const std::size_t words = wordsFor(capacity);
    return (2 * words + (words + 63) / 64) * sizeof(std::uint64_t);
  }
  // At most half of the index is used: see growthThreshold().
  static constexpr std::size_t indexSize(unsigned int capacity) {
    return isSmallCapacity(capacity) ? 0 : std::bit_ceil(static_cast<std::size_t>(capacity) * 9 / 8);
  }
  static constexpr std::size_t bytesFor(unsigned int capacity, std::size_t valueBytes) {
    return slotBytes(capacity, valueBytes) + largeBytes(capacity) +
           container::roundedUp(indexSize(capacity) * sizeof(SlotEntry));
  }

  bool isSmall() const { return isSmallCapacity(capacity_); }
  unsigned int growthThreshold() const { return (capacity_ >> 1) + (capacity_ >> 4); }  // H2

  // Mostly a key lies in its home slot.
  bool isAtHome(std::uint32_t key) const {
    return isSmall() && (bits_.small.live >> home(key) & 1) != 0 && keys_[home(key)] == key;
  }
  unsigned int home(std::uint32_t key) const { return homeIn(capacity_, key); }
  // key % capacity without a division: the compiler makes that by a constant a multiplication, and a key has as many
  // parts of 11 * 2^n as it has of 11, without the last n bits.
  static unsigned int homeIn(unsigned int capacity, std::uint32_t key) {
    const unsigned int withoutLastBits = capacity | (0 - capacity);
    return key - (key / kFirstCapacity & withoutLastBits) * kFirstCapacity;
  }
  // kNoSlot where the key is not in the table.
  unsigned int find(std::uint32_t key) const;
  unsigned int findLarge(std::uint32_t key) const;
  // Needs: the key is not in the table, and the table has a free slot.
  unsigned int placeLarge(std::uint32_t key);
  // copyFrom() of a table that has grown.
  void copySlots(const KeySlots& source, std::size_t valueBytes, container::Memory& memory);
  // All slots are empty afterwards; the count is left to the caller.
  void takeSlots(unsigned int capacity, std::size_t valueBytes, container::Memory& memory);
  void giveSlots(std::size_t valueBytes, container::Memory& memory);
  // H3.  Needs: as takeSlots() left it, large, and with room for all of the other.
  void enterAll(const KeySlots& old, std::size_t valueBytes);

  std::uint32_t* keys_ = nullptr;
  unsigned int capacity_ = kFirstCapacity;
  unsigned int count_ = 0;
  Bits bits_{Small{0, 0}};

 private:
  unsigned int nextLarge(unsigned int from) const;
  unsigned int firstFreeSlot(unsigned int home) const;
  std::uint64_t freeSlotsOf(unsigned int word) const;
  unsigned int firstWordWithRoom(unsigned int from) const;
  void eraseSlot(unsigned int slot);
  [[gnu::cold]] void eraseLarge(unsigned int slot);
  void makeLarge(unsigned char* bytes, std::size_t bytesOfSlots);
};

// A table with values of a plain type.
template <class T>
class htable : public KeySlots {
 public:
  // The bytes of kFirstCapacity slots.
  static constexpr std::size_t kFirstBytes = slotBytes(kFirstCapacity, sizeof(T));

  constexpr htable() = default;
  // An empty table.  Needs: kFirstBytes at `slots`, which may be given to the representation's memory later.
  explicit htable(void* slots) : KeySlots(slots) {}

  // Needs: this table is as new, in memory with room for the source's first slots.
  void copyFrom(const htable& source, container::Memory& memory) {
    if (source.capacity_ != kFirstCapacity) return copySlots(source, sizeof(T), memory);
    count_ = source.count_;
    bits_ = source.bits_;
    if (bits_.small.live != 0) std::memcpy(keys_, source.keys_, kFirstBytes);
  }

  // Null if the key is not in the table.
  const T* get(std::uint32_t key) const { return isAtHome(key) ? &value(home(key)) : searched(key); }
  // The value, or `def` if the key is not in the table.
  T get(std::uint32_t key, T def) const { return isAtHome(key) ? value(home(key)) : searched(key, def); }
  // Finds or inserts with value zero.  The reference is good until the next call.
  T& get_ref(std::uint32_t key, container::Memory& memory) {
    if (count_ + 1 > growthThreshold()) rehash(memory);
    return isSmall() ? smallRef(key) : largeRef(key);
  }

  // Needs: a live slot.
  T& value(unsigned int slot) { return values()[slot]; }
  const T& value(unsigned int slot) const { return values()[slot]; }

  bool includes(const htable& other) const;
  [[gnu::cold]] void merge(const htable& other, container::Memory& memory);

  // The most that the next get_ref() takes from an arena.
  std::size_t growthCost() const {
    return count_ + 1 > growthThreshold() ? container::Memory::arenaCost(bytesFor(2 * capacity_, sizeof(T)))
                                          : 0;
  }

 private:
  T* values() const { return reinterpret_cast<T*>(keys_ + capacity_); }

  const T* searched(std::uint32_t key) const;
  T searched(std::uint32_t key, T def) const;
  // Mostly the home slot was never used, and that is the end of it.
  T& smallRef(std::uint32_t key) {
    const unsigned int slot = home(key);
    if (((bits_.small.live | bits_.small.erased) >> slot & 1) != 0) return probedRef(slot, key);
    return enterSmall(slot, key);
  }
  T& probedRef(unsigned int slot, std::uint32_t key);
  // Needs: the slot was never used, or is no longer.
  T& enterSmall(unsigned int slot, std::uint32_t key) {
    bits_.small.live |= std::uint64_t{1} << slot;
    keys_[slot] = key;
    ++count_;
    return value(slot) = T{};
  }
  T& largeRef(std::uint32_t key);
  void rehash(container::Memory& memory);
  void enterAllOfSmall(const htable& old);
};

extern template class htable<bool>;
extern template class htable<unsigned int>;

}  // namespace kl
