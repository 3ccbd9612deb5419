#pragma once
// kl/message_view.h: a message read where its bytes lie, without building it.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kl/field.h"
#include "kl/message.h"
#include "kl/records.h"

namespace kl {

class message_view;
template <class T>
class array_view;

// The type of a field<T>'s value in a view: numbers and addresses as they are, everything else in place.
template <class T>
struct viewed {
  using type = T;
};
template <>
struct viewed<std::string> {
  using type = std::string_view;
};
template <>
struct viewed<std::vector<unsigned char>> {
  using type = std::span<const unsigned char>;
};
template <>
struct viewed<message::flat_message> {
  using type = message_view;
};
template <class T>
struct viewed<std::vector<T>> {
  using type = array_view<T>;
};
template <class T>
using viewed_t = typename viewed<T>::type;

// The elements of an array, in place: a range of bool, unsigned int, unsigned long long, IPAddr6, std::string_view,
// std::span<const unsigned char> or message_view, for T as in field<std::vector<T>>.
//
//     for (const unsigned int hop : view.get_u32_array(PATH)) ...
//
// Errors:    none; the bytes were checked when the message was.
// Ownership: borrows the bytes of the message.
// Threads:   a value; any number of threads may read one.
// Cost:      constant time an element and no allocation; an element that is a message is checked whenever an iterator
//            to it is dereferenced.
template <class T>
class array_view {
  static constexpr std::size_t kElementBytes = std::is_same_v<T, bool> ? 1
                                               : std::is_arithmetic_v<T> || std::is_same_v<T, IPAddr6>
                                                   ? sizeof(T)
                                                   : 0;  // each has a length of its own

 public:
  using value_type = viewed_t<T>;

  class iterator {
   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = array_view::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = value_type;

    iterator() = default;
    value_type operator*() const;
    iterator& operator++() {
      at_ += kElementBytes != 0 ? kElementBytes : std::size_t{2} + readLe16(at_);
      --left_;
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const iterator& other) const { return left_ == other.left_; }

   private:
    friend class array_view;
    iterator(const unsigned char* at, unsigned int left, bool isNative = false)
        : at_(at), left_(left), isNative_(isNative) {}

    const unsigned char* at_ = nullptr;
    unsigned int left_ = 0;
    bool isNative_ = false;
  };

  array_view() = default;
  unsigned int size() const { return count_; }
  bool empty() const { return count_ == 0; }
  iterator begin() const { return {elements_, count_, isNative_}; }
  iterator end() const { return {nullptr, 0}; }
  // Needs: index < size().
  value_type operator[](unsigned int index) const requires(kElementBytes != 0) {
    return *iterator(elements_ + kElementBytes * index, count_ - index, isNative_);
  }
  value_type front() const { return *begin(); }
  // The elements as an array of a message's.
  std::vector<T> values() const;

 private:
  friend class message;
  friend class message_view;
  array_view(const unsigned char* elements, unsigned int count, bool isNative = false)
      : elements_(elements), count_(count), isNative_(isNative) {}

  const unsigned char* elements_ = nullptr;
  unsigned int count_ = 0;
  bool isNative_ = false;  // numbers as this machine has them, not those of the format
};

// A message that is only read, over the bytes that it was received as:
//
//     const kl::message_view request(bytes);
//     if (!request.ok()) return refuse();
//     const unsigned int command = request.get(kl::SYS_CMD, 0);
//     const std::string_view name = request.get_string(0x20000001, "");  // lies in `bytes`
//
// It says of the bytes what a kl::message made of them says, by each operation that has the same name: the same fields
// with the same values and defaults, the last value of a field that stands twice, the fields before a fault and, of an
// array that a fault cuts off, its whole elements.  All records are checked in constructing, and those of a nested
// message when a view of it is made; ok() is what unflatten() returns.  It differs from a message in this:
//
//   - bytes of the older format are not viewed: there are no fields and ok() is false; to_message() reads them
//   - iteration gives the records as they stand, a field that stands twice included, and size() counts them
//   - marked records are fields, as unflatten's type `normal` has them
//
// Errors:    a missing field, or one of another type, gives the default; nothing is reported, nothing thrown.
// Ownership: borrows the bytes; the view and all that it gives are of use as long as these neither move nor change.
// Threads:   belongs to one thread at a time: finding a field notes where it was, to begin there the next time.
// Cost:      allocates nothing; a view takes 1.3 KiB, which copying it copies.  Constructing takes 35 to 60 instructions a
//            record, and of more than 32 records 8 KiB of stack.  Fields are found among the ids of up to 128 records,
//            those of a longer message in constant time as long as they are asked for roughly in the order of the bytes
//            or in its reverse, in which lists are written.  Any other field of a longer message, and one that it has
//            not, costs a walk over the records, as does each field of a message in which one stands twice.  Whatever
//            the bytes, constructing costs 17 walks over them at most, and a getter two.  Whoever asks a long message
//            for many fields in any order makes it a kl::message, or iterates.  No operation looks into nested messages
//            by itself, however deep they are.
class message_view {
 public:
  class iterator;

  // No fields.
  message_view() = default;
  explicit message_view(std::span<const unsigned char> bytes)
      : message_view(bytes.data(), static_cast<unsigned int>(bytes.size())) {}
  explicit message_view(const std::vector<unsigned char>&& bytes) = delete;  // they would be gone
  // Null `data` reads as nothing, which is ok().
  message_view(const unsigned char* data, unsigned int len);

  // Was everything read to the end?
  bool ok() const { return ok_; }
  bool empty() const { return count_ == 0; }
  // Records that were read.
  unsigned int size() const { return count_; }
  std::span<const unsigned char> bytes() const { return {data_, size_}; }
  // A message of the bytes, also of those in the older format.
  message to_message() const { return {data_, size_}; }

  // The records in the order of the bytes.
  iterator begin() const;
  iterator end() const;

  bool has(unsigned int id) const { return find(id) != nullptr; }

  bool get_bool(unsigned int id, bool def) const { return value<bool>(id, def); }
  unsigned int get_u32(unsigned int id, unsigned int def) const { return value<unsigned int>(id, def); }
  // The number with its four bytes reversed; `def` is not reversed.
  unsigned int get_be32(unsigned int id, unsigned int def) const {
    const Place at = found(id, 0x08000000);
    return at != nullptr ? __builtin_bswap32(numberOf(at)) : def;
  }
  unsigned long long get_u64(unsigned int id, unsigned long long def) const {
    return value<unsigned long long>(id, def);
  }
  IPAddr6 get_addr6(unsigned int id, const IPAddr6& def = IPAddr6::zero) const {
    return value<IPAddr6>(id, def);
  }
  std::string_view get_string(unsigned int id, std::string_view def) const {
    return value<std::string>(id, def);
  }
  std::span<const unsigned char> get_raw(unsigned int id, std::span<const unsigned char> def) const {
    return value<std::vector<unsigned char>>(id, def);
  }
  // The nested message, and its bytes; one without fields, or none, where it is absent.
  message_view get_message(unsigned int id) const;
  std::span<const unsigned char> get_message_bytes(unsigned int id) const {
    return bytesOf(found(id, 0x28000000));
  }

  // An empty one where the array is absent.
  array_view<bool> get_bool_array(unsigned int id) const { return array<bool>(id); }
  array_view<unsigned int> get_u32_array(unsigned int id) const { return array<unsigned int>(id); }
  array_view<unsigned long long> get_u64_array(unsigned int id) const {
    return array<unsigned long long>(id);
  }
  array_view<IPAddr6> get_addr6_array(unsigned int id) const { return array<IPAddr6>(id); }
  array_view<std::string> get_string_array(unsigned int id) const { return array<std::string>(id); }
  array_view<std::vector<unsigned char>> get_raw_array(unsigned int id) const {
    return array<std::vector<unsigned char>>(id);
  }
  array_view<message::flat_message> get_message_array(unsigned int id) const {
    return array<message::flat_message>(id);
  }

  // Typed fields (kl/field.h).
  template <class T>
  viewed_t<T> get(field<T> id, const std::type_identity_t<viewed_t<T>>& def) const {
    return value<T>(id, def);
  }
  template <class T>
  bool has(field<T> id) const {
    return find(id) != nullptr;
  }

  // These do not compile: a default of another type, and a field in a plain operation of another type.
  template <class T, class V>
  requires(detail::Accident<T, V>) static void get(field<T> id, V&& def) = delete;
#define KL_FOR_FIELDS_OF(operation, type, ...) \
  template <detail::OtherField<type> F>        \
  static void operation(F __VA_OPT__(, ) __VA_ARGS__) = delete;
#define KL_FOR_FIELDS_OF_TYPE(type, name)            \
  KL_FOR_FIELDS_OF(get_##name, type, viewed_t<type>) \
  KL_FOR_FIELDS_OF(get_##name##_array, std::vector<type>)

  KL_FOR_FIELDS_OF_TYPE(bool, bool)
  KL_FOR_FIELDS_OF_TYPE(unsigned int, u32)
  KL_FOR_FIELDS_OF_TYPE(unsigned long long, u64)
  KL_FOR_FIELDS_OF_TYPE(IPAddr6, addr6)
  KL_FOR_FIELDS_OF_TYPE(std::string, string)
  KL_FOR_FIELDS_OF_TYPE(std::vector<unsigned char>, raw)
  KL_FOR_FIELDS_OF(get_message_array, std::vector<message::flat_message>)
  KL_FOR_FIELDS_OF(get_be32, unsigned int, unsigned int)
  KL_FOR_FIELDS_OF(get_addr6, IPAddr6)
  KL_FOR_FIELDS_OF(get_message, message::flat_message)
  KL_FOR_FIELDS_OF(get_message_bytes, message::flat_message)
#undef KL_FOR_FIELDS_OF_TYPE
#undef KL_FOR_FIELDS_OF

 private:
  template <class T>
  friend class array_view;

  // V1  window w is records w * kWindow and the following up to kWindow; ids_ and places_ are those of window_
  // V2  marks_[i] is the place of the first record of window i << markShift_; of up to kWindow records there are none
  // V3  unless repeats_, no two records have one id
  static constexpr unsigned int kFew = 32;
  static constexpr unsigned int kWindow = 128;
  static constexpr unsigned int kMarks = 64;
  static constexpr unsigned int kNowhere = 0xFFFFFFFF;
  static constexpr unsigned int kMostChecks = 16;

  using Place = const unsigned char*;

  // The ids of a long message that were seen so far.
  struct Seen {
    std::uint64_t bits[1024];
    unsigned int mask;
    unsigned int checks = 0;
  };

  void walkOn(unsigned int place);
  void walkMany(unsigned int place);
  unsigned int cutArrayBytes(unsigned int place);
  void mark(unsigned int window, unsigned int place);
  bool isAmong(unsigned int count, unsigned int id) const;
  void note(Seen& seen, unsigned int id, unsigned int before);
  bool standsBefore(unsigned int id, unsigned int before) const;

  unsigned int idAt(unsigned int place) const { return readLe32(data_ + place) & ~kRecordFlag; }
  // 0 at a fault.
  unsigned int bytesAt(unsigned int place) const {
    return static_cast<unsigned int>(recordBytes(data_ + place, size_ - place));
  }

  // The record that has the field's value, or null.
  Place find(unsigned int id) const;
  Place atIndex(unsigned int i) const {
    next_ = i + 1;
    return data_ + places_[i];
  }
  // Needs: the id stands behind the window's.
  unsigned int indexOf(unsigned int id) const {
    const unsigned int* at = ids_;
    while (*at != id) ++at;
    return static_cast<unsigned int>(at - ids_);
  }
  Place findOutside(unsigned int id) const;
  Place findAnywhere(unsigned int id) const;
  Place findLast(unsigned int id) const;
  void moveWindow(unsigned int window) const;

  Place found(unsigned int id, unsigned int typeBits) const {
    return (id & 0xF8000000) == typeBits ? find(id) : nullptr;
  }
  static unsigned int numberOf(Place at) { return (at[3] & 1) != 0 ? at[4] : readLe32(at + 4); }
  static std::span<const unsigned char> bytesOf(Place at) {
    if (at == nullptr) return {};
    if ((at[3] & 1) != 0) return {at + 5, at[4]};
    return {at + 6, readLe16(at + 4)};
  }
  unsigned int elementsOf(Place at) const {
    return static_cast<unsigned int>(at - data_) != cut_ ? readLe16(at + 4) : cutCount_;
  }

  template <class T>
  array_view<T> array(unsigned int id) const {
    return value<std::vector<T>>(id, {});
  }
  template <class T>
  viewed_t<T> value(unsigned int id, const viewed_t<T>& def) const;

  Place data_ = nullptr;
  unsigned int size_ = 0;
  unsigned int count_ = 0;
  unsigned int recordsEnd_ = 0;
  unsigned int cut_ = kNowhere;  // where an array stands that a fault cuts off, and its whole elements
  unsigned int cutCount_ = 0;
  bool ok_ = true;
  bool repeats_ = false;
  mutable bool backwards_ = false;  // the way in which the window moved last
  unsigned char markShift_ = 0;
  mutable unsigned int window_ = 0;
  mutable unsigned int filled_ = 0;        // records in the window
  mutable unsigned int next_ = 0;          // behind the one that was found last, in the window
  mutable unsigned int ids_[kWindow + 1];  // and room for the id that is looked for
  mutable unsigned int places_[kWindow];
  unsigned int marks_[kMarks];
};

// Walks the records of a view.
class message_view::iterator {
 public:
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = Record;
  using difference_type = std::ptrdiff_t;
  using pointer = const Record*;
  using reference = Record;

  iterator() = default;
  Record operator*() const { return record_; }
  const Record* operator->() const { return &record_; }
  iterator& operator++() {
    place_ += static_cast<unsigned int>(record_.bytes().size());
    read();
    return *this;
  }
  iterator operator++(int) {
    iterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const iterator& other) const { return place_ == other.place_; }

 private:
  friend class message_view;
  iterator(const message_view& view, unsigned int place) : view_(&view), place_(place) { read(); }

  void read() {
    const unsigned int left = view_->recordsEnd_ - place_;
    if (left == 0) return;
    const bool isCut = place_ == view_->cut_;
    record_.take({view_->data_ + place_, isCut ? left : recordBytes(view_->data_ + place_, left)});
    if (isCut) record_.count_ = view_->cutCount_;
  }

  const message_view* view_ = nullptr;
  unsigned int place_ = 0;
  Record record_;
};

inline message_view::iterator message_view::begin() const { return {*this, count_ != 0 ? 2 : recordsEnd_}; }
inline message_view::iterator message_view::end() const { return {*this, recordsEnd_}; }

// --- Values ------------------------------------------------------------------------------------------------

template <class T>
[[gnu::always_inline]] inline viewed_t<T> message_view::value(unsigned int id, const viewed_t<T>& def) const {
  const Place at = found(id, field_operations<T>::typeBits);
  if (at == nullptr) return def;
  if constexpr (std::is_same_v<T, bool>) {
    return (at[3] & 1) != 0;
  } else if constexpr (std::is_same_v<T, unsigned int>) {
    return numberOf(at);
  } else if constexpr (std::is_same_v<T, unsigned long long>) {
    return readLe64(at + 4);
  } else if constexpr (std::is_same_v<T, IPAddr6>) {
    IPAddr6 address;
    std::memcpy(address.bytes, at + 4, sizeof address.bytes);
    return address;
  } else if constexpr (std::is_same_v<T, std::string>) {
    const std::span<const unsigned char> bytes = bytesOf(at);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  } else if constexpr (std::is_same_v<T, std::vector<unsigned char>>) {
    return bytesOf(at);
  } else if constexpr (std::is_same_v<T, message::flat_message>) {
    return message_view(bytesOf(at));
  } else {
    return {at + 6, elementsOf(at)};
  }
}

inline message_view message_view::get_message(unsigned int id) const {
  return message_view(get_message_bytes(id));
}

template <class T>
auto array_view<T>::iterator::operator*() const -> value_type {
  if constexpr (std::is_same_v<T, bool>) {
    return *at_ != 0;
  } else if constexpr (std::is_same_v<T, unsigned int>) {
    const unsigned int number = readLe32(at_);
    if constexpr (std::endian::native == std::endian::little) return number;
    else return isNative_ ? __builtin_bswap32(number) : number;
  } else if constexpr (std::is_same_v<T, unsigned long long>) {
    return readLe64(at_);
  } else if constexpr (std::is_same_v<T, IPAddr6>) {
    IPAddr6 address;
    std::memcpy(address.bytes, at_, sizeof address.bytes);
    return address;
  } else if constexpr (std::is_same_v<T, std::string>) {
    return {reinterpret_cast<const char*>(at_ + 2), readLe16(at_)};
  } else {
    return value_type(std::span(at_ + 2, readLe16(at_)));
  }
}

template <class T>
std::vector<T> array_view<T>::values() const {
  std::vector<T> all;
  all.reserve(count_);
  for (iterator i = begin(); i != end(); ++i) {
    if constexpr (kElementBytes != 0) all.push_back(*i);
    else if constexpr (std::is_same_v<T, std::string>) all.emplace_back(*i);
    else all.emplace_back(i.at_ + 2, i.at_ + 2 + readLe16(i.at_));
  }
  return all;
}

// --- Values of a message -------------------------------------------------------------------------------------

inline message_view message::view_message(unsigned int id) const {
  const Stored value = stored(id, 0x28000000);
  return message_view(value.bytes, value.size);
}

inline array_view<unsigned int> message::view_u32_array(unsigned int id) const {
  const Stored value = stored(id, 0x88000000);
  return {value.bytes, value.size / 4, value.isNative};
}

// --- Reading the records -------------------------------------------------------------------------------------

inline message_view::message_view(const unsigned char* data, unsigned int len) : data_(data), size_(len) {
  if (data == nullptr) {
    size_ = 0;
    return;
  }
  ok_ = false;
  if (len < 2 || data[0] != 0x4d || data[1] != 0x32) return;
  std::uint64_t seen = 0;
  unsigned int place = 2;
  unsigned int count = 0;
  while (count < kFew) {
    const unsigned int bytes = bytesAt(place);
    if (bytes == 0) break;
    const unsigned int id = idAt(place);
    const unsigned int bit = id * 0x9E3779B1U >> 26;
    if ((seen >> bit & 1) != 0 && isAmong(count, id)) repeats_ = true;  // V3
    seen |= std::uint64_t{1} << bit;
    ids_[count] = id;
    places_[count++] = place;
    place += bytes;
  }
  count_ = filled_ = count;
  recordsEnd_ = place;
  ok_ = place == len;
  if (!ok_) walkOn(place);
  if (repeats_) filled_ = 0;
}

inline bool message_view::isAmong(unsigned int count, unsigned int id) const {
  while (count > 0)
    if (ids_[--count] == id) return true;
  return false;
}

// Goes on at a fault, or behind the first few records.
[[gnu::noinline]] inline void message_view::walkOn(unsigned int place) {
  if (count_ == kFew) return walkMany(place);
  const unsigned int bytes = cutArrayBytes(place);
  if (bytes == 0) return;
  if (isAmong(count_, idAt(place))) repeats_ = true;
  ids_[count_] = idAt(place);
  places_[count_] = place;
  filled_ = ++count_;
  recordsEnd_ = place + bytes;
}

// Header and whole elements of an array that is not all there, which is noted; 0 if there is none.
inline unsigned int message_view::cutArrayBytes(unsigned int place) {
  const unsigned char* const at = data_ + place;
  const unsigned int left = size_ - place;
  if (left < 6) return 0;
  const unsigned int code = kRecordShapes.codes[at[3]];
  if (code <= RecordShapes::kElements || code == RecordShapes::kUnknown) return 0;
  cut_ = place;
  cutCount_ = 0;
  unsigned int bytes = 6;
  if (code != RecordShapes::kPrefixedElements) return bytes;
  for (; left - bytes >= 2 && left - bytes - 2 >= readLe16(at + bytes); ++cutCount_)
    bytes += 2 + readLe16(at + bytes);
  return bytes;
}

// The first few ids are noted anew, in a larger table.
inline void message_view::walkMany(unsigned int place) {
  Seen seen;
  const std::size_t words = std::min(std::bit_ceil(std::size_t{size_} / 8 + 1), std::size(seen.bits));
  std::memset(seen.bits, 0, words * sizeof seen.bits[0]);
  seen.mask = static_cast<unsigned int>(words * 64 - 1);
  marks_[0] = 2;
  for (unsigned int i = 0; i < kFew; ++i) note(seen, ids_[i], places_[i]);
  unsigned int count = kFew;
  for (bool isCut = false; !isCut; ++count) {
    unsigned int bytes = bytesAt(place);
    if (bytes == 0) {
      bytes = cutArrayBytes(place);
      if (bytes == 0) break;
      isCut = true;
    }
    const unsigned int id = idAt(place);
    if (count < kWindow) {
      ids_[count] = id;
      places_[count] = place;
    } else if (count % kWindow == 0) {
      mark(count / kWindow, place);
    }
    note(seen, id, place);
    place += bytes;
  }
  count_ = count;
  filled_ = std::min(count, kWindow);
  recordsEnd_ = place;
  ok_ = place == size_ && cut_ == kNowhere;
}

// V2: where there is no room for more marks, every other one goes.
inline void message_view::mark(unsigned int window, unsigned int place) {
  if (window >> markShift_ == kMarks) {
    for (unsigned int i = 0; i < kMarks / 2; ++i) marks_[i] = marks_[2 * i];
    ++markShift_;
  }
  if ((window & ((1U << markShift_) - 1)) == 0) marks_[window >> markShift_] = place;
}

// V3: numbers that follow one another, under which the fields of long lists go, have bits of their own.  Other ids may
// share one, and are looked for; to look for too many would take too long.
inline void message_view::note(Seen& seen, unsigned int id, unsigned int before) {
  const unsigned int bit = (id + (id >> 16) * 0x9E35) & seen.mask;
  std::uint64_t& word = seen.bits[bit / 64];
  const std::uint64_t isSeen = word >> bit % 64 & 1;
  word |= std::uint64_t{1} << bit % 64;
  if (isSeen != 0 && !repeats_) repeats_ = ++seen.checks > kMostChecks || standsBefore(id, before);
}

inline bool message_view::standsBefore(unsigned int id, unsigned int before) const {
  for (unsigned int place = 2; place < before; place += bytesAt(place))
    if (idAt(place) == id) return true;
  return false;
}

// --- Finding fields ------------------------------------------------------------------------------------------

// Most are asked for in the order of the records or, as lists are written, in its reverse.  The window of a message in
// which an id stands twice counts as empty.
[[gnu::noinline]] inline message_view::Place message_view::find(unsigned int id) const {
  unsigned int i = next_;
  if (i == filled_ || ids_[i] != id) {
    ids_[filled_] = id;
    i = i >= 2 && ids_[i - 2] == id ? i - 2 : indexOf(id);
    if (i == filled_) return filled_ == count_ ? nullptr : findOutside(id);
  }
  next_ = i + 1;
  return data_ + places_[i];
}

// The windows beside this one, going round, come before all others.
[[gnu::noinline]] inline message_view::Place message_view::findOutside(unsigned int id) const {
  if (repeats_) return findLast(id);
  const unsigned int before = window_;
  const unsigned int last = (count_ - 1) / kWindow;
  for (int i = 0; i < 2; ++i, backwards_ = !backwards_) {
    moveWindow(backwards_ ? (before == 0 ? last : before - 1) : (before == last ? 0 : before + 1));
    ids_[filled_] = id;
    if (const unsigned int found = indexOf(id); found < filled_) return atIndex(found);
  }
  moveWindow(before);
  return findAnywhere(id);
}

inline message_view::Place message_view::findAnywhere(unsigned int id) const {
  unsigned int place = 2;
  for (unsigned int i = 0; i < count_; ++i, place += bytesAt(place)) {
    if (idAt(place) != id) continue;
    moveWindow(i / kWindow);
    return atIndex(i % kWindow);
  }
  return nullptr;
}

inline message_view::Place message_view::findLast(unsigned int id) const {
  Place last = nullptr;
  unsigned int place = 2;
  for (unsigned int i = 0; i < count_; ++i, place += bytesAt(place))
    if (idAt(place) == id) last = data_ + place;
  return last;
}

inline void message_view::moveWindow(unsigned int window) const {
  const unsigned int marked = window >> markShift_;
  unsigned int place = marks_[marked];
  for (unsigned int i = (window - (marked << markShift_)) * kWindow; i > 0; --i) place += bytesAt(place);
  window_ = window;
  filled_ = std::min(kWindow, count_ - window * kWindow);
  next_ = 0;
  for (unsigned int i = 0; i < filled_; ++i, place += bytesAt(place)) {
    ids_[i] = idAt(place);
    places_[i] = place;
  }
}

}  // namespace kl
