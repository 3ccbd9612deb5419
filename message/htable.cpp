#include "message/htable.h"

#include <new>

namespace kl {

template <class T>
void htable<T>::copyFrom(const htable& source, container::Memory& memory) {
  if (source.capacity_ != capacity_) {
    memory.giveAsRegion(keys_, kFirstBytes);
    takeSlots(source.capacity_, memory);
  }
  count_ = source.count_;
  if (isSmall()) {
    bits_ = source.bits_;
    if (bits_.small.live != 0) std::memcpy(keys_, source.keys_, slotBytes(capacity_));
    return;
  }
  std::memcpy(keys_, source.keys_, slotBytes(capacity_));
  const auto words = static_cast<std::size_t>(bits_.large->words);
  std::memcpy(bits_.large->live(), source.bits_.large->live(), 2 * words * sizeof(std::uint64_t));
  for (unsigned int i = next(kNoSlot); i < capacity_; i = next(i)) bits_.large->index.add({key(i), i});
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
void htable<T>::removeIdMask(std::uint32_t id, std::uint32_t mask) {
  for (unsigned int i = next(kNoSlot); i < capacity_; i = next(i))
    if ((key(i) & mask) == id) eraseSlot(i);
}

// The division by a constant is a multiplication; the first two capacities are nearly all there is.
template <class T>
unsigned int htable<T>::home(std::uint32_t key) const {
  if (capacity_ == kFirstCapacity) return key % kFirstCapacity;
  if (capacity_ == 2 * kFirstCapacity) return key % (2 * kFirstCapacity);
  return key % capacity_;
}

template <class T>
unsigned int htable<T>::find(std::uint32_t key) const {
  if (!isSmall()) {
    const SlotEntry* entry = bits_.large->index.find(key);
    return entry == nullptr ? kNoSlot : entry->slot;
  }
  const std::uint64_t live = bits_.small.live;
  const std::uint64_t everUsed = live | bits_.small.erased;
  unsigned int slot = home(key);
  for (unsigned int round = 0; round < capacity_ && (everUsed >> slot & 1) != 0; ++round) {
    if ((live >> slot & 1) != 0 && keys_[slot] == key) return slot;
    if (++slot == capacity_) slot = 0;
  }
  return kNoSlot;
}

// Mostly the home slot was never used, and that is the end of it.
template <class T>
T& htable<T>::smallRef(std::uint32_t key) {
  const unsigned int slot = find(key);
  return slot == kNoSlot ? placeSmall(key, T{}) : value(slot);
}

template <class T>
T& htable<T>::largeRef(std::uint32_t key) {
  const unsigned int slot = find(key);
  return slot == kNoSlot ? placeLarge(key, T{}) : value(slot);
}

// Needs: the key is not in the table, and the table has a free slot.
template <class T>
T& htable<T>::place(std::uint32_t key, const T& v) {
  return isSmall() ? placeSmall(key, v) : placeLarge(key, v);
}

// H1: the first slot that is not live, from the home slot to the last and then from the first.
template <class T>
T& htable<T>::placeSmall(std::uint32_t key, const T& v) {
  unsigned int slot = home(key);
  while ((bits_.small.live >> slot & 1) != 0)
    if (++slot == capacity_) slot = 0;
  const std::uint64_t bit = std::uint64_t{1} << slot;
  bits_.small.live |= bit;
  bits_.small.erased &= ~bit;
  keys_[slot] = key;
  ++count_;
  return value(slot) = v;
}

template <class T>
T& htable<T>::placeLarge(std::uint32_t key, const T& v) {
  const unsigned int slot = firstFreeSlot(home(key));
  const std::uint64_t bit = std::uint64_t{1} << slot % 64;
  bits_.large->live()[slot / 64] |= bit;
  bits_.large->erased()[slot / 64] &= ~bit;
  bits_.large->index.add({key, slot});
  keys_[slot] = key;
  ++count_;
  return value(slot) = v;
}

// H1 for large tables, 64 slots at a time.
template <class T>
unsigned int htable<T>::firstFreeSlot(unsigned int home) const {
  const auto words = static_cast<unsigned int>(wordsFor(capacity_));
  std::uint64_t free = ~liveWord(home / 64) >> home % 64 << home % 64;
  for (unsigned int word = home / 64;;) {
    if (free != 0) {
      const unsigned int slot = word * 64 + static_cast<unsigned int>(std::countr_zero(free));
      if (slot < capacity_) return slot;
    }
    if (++word == words) word = 0;
    free = ~liveWord(word);
  }
}

template <class T>
void htable<T>::eraseSlot(unsigned int slot) {
  const std::uint64_t bit = std::uint64_t{1} << slot % 64;
  if (isSmall()) {
    bits_.small.live &= ~bit;
    bits_.small.erased |= bit;
  } else {
    bits_.large->live()[slot / 64] &= ~bit;
    bits_.large->erased()[slot / 64] |= bit;
    bits_.large->index.remove(bits_.large->index.find(keys_[slot]));
  }
  --count_;
}

// H3
template <class T>
void htable<T>::rehash(container::Memory& memory) {
  htable old;
  old.keys_ = keys_;
  old.capacity_ = capacity_;
  old.bits_ = bits_;
  takeSlots(2 * capacity_, memory);
  count_ = 0;
  for (unsigned int i = old.next(kNoSlot); i < old.capacity_; i = old.next(i))
    place(old.key(i), old.value(i));
  old.giveSlots(memory);
}

// All slots are empty afterwards; the count is left to the caller.
template <class T>
void htable<T>::takeSlots(unsigned int capacity, container::Memory& memory) {
  auto* bytes = static_cast<unsigned char*>(memory.take(bytesFor(capacity)));
  capacity_ = capacity;
  keys_ = reinterpret_cast<std::uint32_t*>(bytes + largeBytes(capacity));
  bits_.small = Small{0, 0};
  if (isSmall()) return;
  auto* entries = reinterpret_cast<SlotEntry*>(reinterpret_cast<unsigned char*>(keys_) + slotBytes(capacity));
  bits_.large = new (bytes) Large{{entries, indexSize(capacity)}, wordsFor(capacity)};
  std::memset(bits_.large->live(), 0, 2 * wordsFor(capacity) * sizeof(std::uint64_t));
}

template <class T>
void htable<T>::giveSlots(container::Memory& memory) {
  const std::size_t bytes = bytesFor(capacity_);
  if (bytes > container::Memory::kLargestSmall) memory.give(block(), bytes);
  else memory.giveAsRegion(block(), bytes);
}

template <class T>
void* htable<T>::block() const {
  return isSmall() ? static_cast<void*>(keys_) : bits_.large;
}

template class htable<bool>;
template class htable<unsigned int>;

}  // namespace kl
