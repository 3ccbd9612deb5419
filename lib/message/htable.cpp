// The table's way of growing, and its bits beyond 64 slots.
//
// A small table has its live and erased slots in two words.  A large one has words of them, an index of its keys and a
// summary of the words that are full, so that no operation walks along a run of slots.

#include "message/htable.h"

#include <algorithm>
#include <new>

namespace kl {

void KeySlots::copySlots(const KeySlots& source, std::size_t valueBytes, container::Memory& memory) {
  void* const first = keys_;
  takeSlots(source.capacity_, valueBytes, memory);
  memory.giveAsRegion(first, slotBytes(kFirstCapacity, valueBytes));
  count_ = source.count_;
  if (isSmall()) {
    bits_ = source.bits_;
    if (bits_.small.live != 0) std::memcpy(keys_, source.keys_, slotBytes(capacity_, valueBytes));
    return;
  }
  std::memcpy(keys_, source.keys_, slotBytes(capacity_, valueBytes));
  std::memcpy(bits_.large->live(), source.bits_.large->live(), flagBytes(capacity_));
  for (unsigned int i = next(kNoSlot); i < capacity_; i = next(i)) bits_.large->index.add({key(i), i});
}

unsigned int KeySlots::nextLarge(unsigned int from) const {
  for (unsigned int word = from / 64; word * 64 < capacity_; ++word) {
    std::uint64_t live = bits_.large->live()[word];
    if (word == from / 64) live = live >> from % 64 << from % 64;
    if (live != 0) return word * 64 + static_cast<unsigned int>(std::countr_zero(live));
  }
  return capacity_;
}

void KeySlots::removeIdMask(std::uint32_t id, std::uint32_t mask) {
  for (unsigned int i = next(kNoSlot); i < capacity_; i = next(i))
    if ((key(i) & mask) == id) eraseSlot(i);
}

void KeySlots::erase(std::uint32_t key) {
  const unsigned int slot = find(key);
  if (slot != kNoSlot) eraseSlot(slot);
}

unsigned int KeySlots::find(std::uint32_t key) const {
  if (!isSmall()) return findLarge(key);
  const std::uint64_t live = bits_.small.live;
  const std::uint64_t everUsed = live | bits_.small.erased;
  unsigned int slot = home(key);
  for (unsigned int round = 0; round < capacity_ && (everUsed >> slot & 1) != 0; ++round) {
    if ((live >> slot & 1) != 0 && keys_[slot] == key) return slot;
    if (++slot == capacity_) slot = 0;
  }
  return kNoSlot;
}

unsigned int KeySlots::findLarge(std::uint32_t key) const {
  const SlotEntry* entry = bits_.large->index.find(key);
  return entry == nullptr ? kNoSlot : entry->slot;
}

unsigned int KeySlots::placeLarge(std::uint32_t key) {
  const unsigned int slot = firstFreeSlot(home(key));
  const std::uint64_t bit = std::uint64_t{1} << slot % 64;
  bits_.large->live()[slot / 64] |= bit;
  bits_.large->erased()[slot / 64] &= ~bit;
  if (freeSlotsOf(slot / 64) == 0) bits_.large->full()[slot / 4096] |= std::uint64_t{1} << slot / 64 % 64;
  bits_.large->index.add({key, slot});
  keys_[slot] = key;
  ++count_;
  return slot;
}

// H1 for large tables: the rest of the home slot's word, then the first word with room, 4096 slots at a time.
unsigned int KeySlots::firstFreeSlot(unsigned int home) const {
  unsigned int word = home / 64;
  std::uint64_t free = freeSlotsOf(word) >> home % 64 << home % 64;
  if (free == 0) {
    word = firstWordWithRoom(word + 1);
    if (word == wordsFor(capacity_)) word = firstWordWithRoom(0);
    free = freeSlotsOf(word);
  }
  return word * 64 + static_cast<unsigned int>(std::countr_zero(free));
}

// Bits beyond the last slot stand for none.
std::uint64_t KeySlots::freeSlotsOf(unsigned int word) const {
  const std::uint64_t free = ~bits_.large->live()[word];
  return word == capacity_ / 64 ? free & ((std::uint64_t{1} << capacity_ % 64) - 1) : free;
}

// The number of words where there is none.
unsigned int KeySlots::firstWordWithRoom(unsigned int from) const {
  const auto words = static_cast<unsigned int>(wordsFor(capacity_));
  for (unsigned int i = from / 64; i * 64 < words; ++i) {
    std::uint64_t withRoom = ~bits_.large->full()[i];
    if (i == from / 64) withRoom = withRoom >> from % 64 << from % 64;
    if (withRoom != 0) return std::min(words, i * 64 + static_cast<unsigned int>(std::countr_zero(withRoom)));
  }
  return words;
}

void KeySlots::eraseSlot(unsigned int slot) {
  --count_;
  if (!isSmall()) return eraseLarge(slot);
  const std::uint64_t bit = std::uint64_t{1} << slot;
  bits_.small.live &= ~bit;
  bits_.small.erased |= bit;
}

void KeySlots::eraseLarge(unsigned int slot) {
  const std::uint64_t bit = std::uint64_t{1} << slot % 64;
  bits_.large->live()[slot / 64] &= ~bit;
  bits_.large->erased()[slot / 64] |= bit;
  bits_.large->full()[slot / 4096] &= ~(std::uint64_t{1} << slot / 64 % 64);
  bits_.large->index.remove(bits_.large->index.find(keys_[slot]));
}

void KeySlots::takeSlots(unsigned int capacity, std::size_t valueBytes, container::Memory& memory) {
  auto* bytes = static_cast<unsigned char*>(memory.take(bytesFor(capacity, valueBytes)));
  capacity_ = capacity;
  keys_ = reinterpret_cast<std::uint32_t*>(bytes + largeBytes(capacity));
  bits_.small = Small{0, 0};
  if (!isSmall()) makeLarge(bytes, slotBytes(capacity, valueBytes));
}

void KeySlots::makeLarge(unsigned char* bytes, std::size_t bytesOfSlots) {
  auto* entries = reinterpret_cast<SlotEntry*>(reinterpret_cast<unsigned char*>(keys_) + bytesOfSlots);
  bits_.large = new (bytes) Large{{entries, indexSize(capacity_)}, wordsFor(capacity_)};
  std::memset(bits_.large->live(), 0, flagBytes(capacity_));
}

void KeySlots::giveSlots(std::size_t valueBytes, container::Memory& memory) {
  const std::size_t bytes = bytesFor(capacity_, valueBytes);
  void* const block = isSmall() ? static_cast<void*>(keys_) : bits_.large;
  if (bytes > container::Memory::kLargestSmall) memory.give(block, bytes);
  else memory.giveAsRegion(block, bytes);
}

void KeySlots::enterAll(const KeySlots& old, std::size_t valueBytes) {
  auto* const values = reinterpret_cast<unsigned char*>(keys_ + capacity_);
  const auto* const before = reinterpret_cast<const unsigned char*>(old.keys_ + old.capacity_);
  count_ = 0;
  for (unsigned int i = old.next(kNoSlot); i < old.capacity_; i = old.next(i)) {
    const unsigned int slot = placeLarge(old.key(i));
    if (valueBytes == 1) values[slot] = before[i];
    else std::memcpy(values + 4 * std::size_t{slot}, before + 4 * std::size_t{i}, 4);
  }
}

template <class T>
bool htable<T>::includes(const htable& other) const {
  for (unsigned int i = other.next(kNoSlot); i < other.capacity_; i = other.next(i)) {
    const T* mine = get(other.key(i));
    if (mine == nullptr || *mine != other.value(i)) return false;
  }
  return true;
}

template <class T>
void htable<T>::merge(const htable& other, container::Memory& memory) {
  for (unsigned int i = other.next(kNoSlot); i < other.capacity_; i = other.next(i))
    get_ref(other.key(i), memory) = other.value(i);
}

template <class T>
const T* htable<T>::searched(std::uint32_t key) const {
  const unsigned int slot = find(key);
  return slot == kNoSlot ? nullptr : &value(slot);
}

template <class T>
T htable<T>::searched(std::uint32_t key, T def) const {
  const T* v = searched(key);
  return v != nullptr ? *v : def;
}

// Probes on from a slot that is, or was, in use.
template <class T>
T& htable<T>::probedRef(unsigned int slot, std::uint32_t key) {
  const std::uint64_t live = bits_.small.live;
  const std::uint64_t erased = bits_.small.erased;
  unsigned int target = kNoSlot;
  for (unsigned int round = 0; round < capacity_; ++round) {
    if ((live >> slot & 1) != 0) {
      if (keys_[slot] == key) return value(slot);
    } else {
      if (target == kNoSlot) target = slot;
      if ((erased >> slot & 1) == 0) break;
    }
    if (++slot == capacity_) slot = 0;
  }
  KL_INVARIANT(target != kNoSlot);  // H2: about half of the slots are free
  bits_.small.erased &= ~(std::uint64_t{1} << target);
  return enterSmall(target, key);
}

template <class T>
T& htable<T>::largeRef(std::uint32_t key) {
  const unsigned int slot = findLarge(key);
  if (slot != kNoSlot) return value(slot);
  T& added = value(placeLarge(key));
  added = T{};
  return added;
}

// H3
template <class T>
void htable<T>::rehash(container::Memory& memory) {
  htable old;
  old.keys_ = keys_;
  old.capacity_ = capacity_;
  old.bits_ = bits_;
  if (isSmallCapacity(2 * capacity_)) {
    capacity_ *= 2;
    keys_ = static_cast<std::uint32_t*>(memory.take(slotBytes(capacity_, sizeof(T))));
    bits_.small.erased = 0;
    enterAllOfSmall(old);
  } else {
    takeSlots(2 * capacity_, sizeof(T), memory);
    enterAll(old, sizeof(T));
  }
  old.giveSlots(sizeof(T), memory);
}

// Needs: all slots are empty, and both tables are small.
template <class T>
inline void htable<T>::enterAllOfSmall(const htable& old) {
  const unsigned int capacity = capacity_;
  std::uint32_t* const keys = keys_;
  T* const fresh = values();
  const T* const before = old.values();
  std::uint64_t live = 0;
  for (std::uint64_t left = old.bits_.small.live; left != 0; left &= left - 1) {
    const auto from = static_cast<unsigned int>(std::countr_zero(left));
    const std::uint32_t key = old.keys_[from];
    unsigned int slot = homeIn(capacity, key);
    while ((live >> slot & 1) != 0)
      if (++slot == capacity) slot = 0;
    live |= std::uint64_t{1} << slot;
    keys[slot] = key;
    fresh[slot] = before[from];
  }
  bits_.small.live = live;
}

template class htable<bool>;
template class htable<unsigned int>;

}  // namespace kl
