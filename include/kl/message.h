#pragma once
// kl/message.h: the typed container that every service sends, receives and stores.

#include <cstring>
#include <iosfwd>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kl/export.h"

namespace kl {

// A 16-byte IPv6 address in network order, compared byte for byte.
struct KL_API IPAddr6 {
  unsigned char bytes[16] = {};

  static const IPAddr6 zero;  // ::, what an address field holds before it is given one

  friend bool operator==(const IPAddr6& a, const IPAddr6& b) {
    return std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
  }
};
inline constexpr IPAddr6 IPAddr6::zero{};

template <class T>
class field;  // kl/field.h: a field id that knows its type

namespace detail {

template <class F>
inline constexpr bool isField = false;
template <class T>
inline constexpr bool isField<field<T>> = true;

// A typed field of a type that is none of these.
template <class F, class... Own>
concept OtherField = isField<F> && !(std::is_same_v<F, field<Own>> || ...);

// A number that is given to a field of numbers as something else than its type, and no variable.
template <class T, class V>
concept PassedNumber = (std::is_same_v<T, bool> || std::is_same_v<T, unsigned int> ||
                        std::is_same_v<T, unsigned long long>)&&std::is_integral_v<std::remove_cvref_t<V>> &&
                       !std::is_same_v<std::remove_cvref_t<V>, T> &&
                       (!std::is_lvalue_reference_v<V> || std::is_const_v<std::remove_reference_t<V>>);

// A type that converts to the field's value by accident only: any pointer is a bool, and a 0 is a null text.
template <class T, class V>
concept Accident = (std::is_same_v<T, bool> && std::is_pointer_v<std::decay_t<V>>) ||
                   (std::is_same_v<T, std::string> && (std::is_arithmetic_v<std::remove_cvref_t<V>> ||
                                                       std::is_null_pointer_v<std::remove_cvref_t<V>>));

enum class Nothing {};  // what {} is in an assignment

}  // namespace detail

class message_view;  // kl/message_view.h: a message read where its bytes lie
template <class T>
class array_view;

// An output stream over memory of the caller's: it never allocates, formats no locale and is therefore
// fit for a crash report.  Text beyond the end is dropped without notice.
//
//     char text[1600];
//     kl::Dumper out(text, sizeof text);
//     out << "request " << 7u;                       // "request 0x00000007"
//     ::write(2, out.data(), out.used());
//
// Only the operations below write; the inherited insertions have no buffer to write to.
//
// Errors:    none; a full buffer keeps its first capacity() bytes.
// Ownership: the buffer is the caller's and outlives the Dumper; the text is not terminated.
// Threads:   belongs to one thread; write and << are async-signal-safe.
// Cost:      copies bytes, nothing else.
class KL_API Dumper : public virtual std::ostream {
 public:
  Dumper(char* buffer, unsigned int capacity);
  ~Dumper() override;
  Dumper(const Dumper&) = delete;
  Dumper& operator=(const Dumper&) = delete;

  void write(const char* p, unsigned int n);

  Dumper& operator<<(const char* s);
  Dumper& operator<<(unsigned int v);        // "0x" and 8 lower-case hexadecimal digits
  Dumper& operator<<(unsigned long long v);  // "0x" and 16 digits
  Dumper& operator<<(unsigned char v);       // 2 digits, no prefix

  const char* data() const { return buffer_; }
  unsigned int used() const { return used_; }
  unsigned int capacity() const { return capacity_; }

 private:
  char* buffer_;
  unsigned int capacity_;
  unsigned int used_ = 0;
};

// Ends a line: on a stream a newline and a flush, on a Dumper one newline byte.
template <class S>
S& doEndl(S& out);
template <>
KL_API std::ostream& doEndl<std::ostream>(std::ostream& out);
template <>
KL_API Dumper& doEndl<Dumper>(Dumper& out);

// A set of typed fields, each under a 32-bit id:
//
//     bits 31..27  type   bool 0x00000000  u32 0x08000000  u64 0x10000000  addr6 0x18000000
//                         string 0x20000000  message 0x28000000  raw 0x30000000; bit 31: array of it
//     bit  25      mark of a record that flatten type 1 keeps as bytes
//     bit  24      the byte format's own: an id is written without it
//     bits 23..16  name space: 0x00 global, 0xFD local, 0xFE std, 0xFF sys
//     bits 15..0   number
//
//     kl::message m;
//     m.insert_u32(0x08000005, 7);
//     m.insert_string(0x20000001, "ab");
//     m.get_u32(0x08000005, 0);                      // 7
//     m.get_u32(0x08000006, 9);                      // 9: not there, so the default
//
// A message is a value behind one pointer.  Copies share one representation until one of them
// changes; an empty message has none and allocates nothing, also as a static object.  An array insert and
// every non-const reference getter hand out, or might, a way to change the value later, and so make the
// message unshareable: its copies are private copies from the start.  There are no moves, so an rvalue is
// copied as an lvalue is; swap() exchanges in constant time.
//
// The container takes the operation's word for a field's type; kl/field.h lets the compiler check it.  A
// field whose operation disagrees with its id is found by that operation, seen by size_field,
// has_array and the removals, and passed over by flatten, comparison, merge, clone and dump.  The ids
// 0xFFFFFFFF and 0xFFFFFFFE never hold a bool or u32: reads give the default, inserts and removals do
// nothing, reference getters give a scratch value.
//
// Errors:    a missing field gives the default, 0 or null; nothing is reported, nothing thrown.
// Ownership: owns its values.  Getters by value give copies; for pointers see the reference getters.
// Threads:   copies of one message may be read, changed and destroyed in different threads at once, whatever they
//            share.  One message object belongs to one thread at a time; several may read it, which copying and
//            flattening are, while none changes it.  A reference getter points into its object:
//            writing through the pointer changes the message, as a non-const getter itself does.
// Cost:      a copy is one atomic increment, or a deep copy of an unshareable message; fields are found in
//            constant time however many there are; values lie as bytes in one block.
class KL_API message {
 public:
  // One message as bytes ("M2" and its records).  Nested messages are held in this form.
  class flat_message : public std::vector<unsigned char> {
   public:
    using std::vector<unsigned char>::vector;
    flat_message() = default;
    explicit flat_message(const std::vector<unsigned char>& bytes) : std::vector<unsigned char>(bytes) {}
  };

  // The format that unflatten expects.  Any other value behaves as normal.
  enum flatten_type : unsigned int {
    normal = 0,       // magic and records, or the older format
    keep_marked = 1,  // as normal; records whose id has bit 25 go to kept() instead
    bare = 2,         // records without magic
  };

  struct Rep;  // the shared representation; internal

  message() noexcept = default;
  message(const message& other);
  // Reads bytes: the fields before a fault stay, and the fault is not reported (unflatten reports it).
  message(const flat_message& bytes);
  explicit message(const std::vector<unsigned char>& bytes);
  message(const unsigned char* data, unsigned int len);
  ~message() {
    if (rep_ != nullptr) release(rep_);
  }

  message& operator=(const message& other);
  message& operator=(const flat_message& bytes);
  // `m = {}` empties it.
  template <class N = detail::Nothing>
  requires(std::is_same_v<N, detail::Nothing>) message& operator=(N) {
    message().swap(*this);
    return *this;
  }
  // The result of `*this = message(data, len)`, without the copy in between: the lists run the other way round than
  // in a message made of the bytes, and copies share.
  void assign(const unsigned char* data, unsigned int len);
  void swap(message& other) noexcept { std::swap(rep_, other.rep_); }

  // --- Getters by value: a copy of the value, or `def` where the field is absent. -----------------

  bool get_bool(unsigned int id, bool def) const;
  unsigned int get_u32(unsigned int id, unsigned int def) const;
  // The pair get_be32/insert_be32 reverses the four bytes on every host.  `def` is not reversed.
  unsigned int get_be32(unsigned int id, unsigned int def) const;
  unsigned long long get_u64(unsigned int id, unsigned long long def) const;
  IPAddr6 get_addr6(unsigned int id, const IPAddr6& def = IPAddr6::zero) const;
  std::string get_string(unsigned int id, const std::string& def) const;
  std::vector<unsigned char> get_raw(unsigned int id, const std::vector<unsigned char>& def) const;
  flat_message get_message(unsigned int id, const flat_message& def) const;

  // The whole array; an empty one where it is absent.
  std::vector<bool> get_bool_array(unsigned int id) const;
  std::vector<unsigned int> get_u32_array(unsigned int id) const;
  std::vector<unsigned int> get_be32_array(unsigned int id) const;
  std::vector<unsigned long long> get_u64_array(unsigned int id) const;
  std::vector<IPAddr6> get_addr6_array(unsigned int id) const;
  std::vector<std::string> get_string_array(unsigned int id) const;
  std::vector<std::vector<unsigned char>> get_raw_array(unsigned int id) const;
  std::vector<flat_message> get_message_array(unsigned int id) const;

  // --- Getters in place ----------------------------------------------------------------------------
  //
  // The value where it lies, or `def` where the field is absent; nothing is allocated.  It is valid until this message
  // is changed, assigned or destroyed, or the value through a pointer from a reference getter.  Copies taken in the
  // meantime do not matter.  The last two, and nothing else, need kl/message_view.h.

  std::string_view view_string(unsigned int id, std::string_view def) const {
    const Stored value = stored(id, 0x20000000);
    return value.isThere ? std::string_view(reinterpret_cast<const char*>(value.bytes), value.size) : def;
  }
  std::span<const unsigned char> view_raw(unsigned int id, std::span<const unsigned char> def) const {
    const Stored value = stored(id, 0x30000000);
    return value.isThere ? std::span(value.bytes, value.size) : def;
  }
  // Without fields where it is absent.
  message_view view_message(unsigned int id) const;
  // Empty where it is absent.
  array_view<unsigned int> view_u32_array(unsigned int id) const;

  // --- Const reference getters -------------------------------------------------------------------
  //
  // The pointer is valid until this message is changed, assigned or destroyed; copies taken in the
  // meantime do not matter.  Two may be missing: the bool reads as a shared false, the u32 as null.
  // The others need the field to exist, under that type, and assert it.

  const bool* get_bool_ref(unsigned int id) const;
  const unsigned int* get_u32_ref(unsigned int id) const;
  const unsigned long long* get_u64_ref(unsigned int id) const;
  const IPAddr6* get_addr6_ref(unsigned int id) const;
  const std::string* get_string_ref(unsigned int id) const;
  const std::vector<unsigned char>* get_raw_ref(unsigned int id) const;
  const flat_message* get_message_ref(unsigned int id) const;
  const std::vector<bool>* get_bool_array_ref(unsigned int id) const;
  const std::vector<unsigned int>* get_u32_array_ref(unsigned int id) const;
  const std::vector<unsigned long long>* get_u64_array_ref(unsigned int id) const;
  const std::vector<IPAddr6>* get_addr6_array_ref(unsigned int id) const;
  const std::vector<std::string>* get_string_array_ref(unsigned int id) const;
  const std::vector<std::vector<unsigned char>>* get_raw_array_ref(unsigned int id) const;
  const std::vector<flat_message>* get_message_array_ref(unsigned int id) const;

  // --- Non-const reference getters ---------------------------------------------------------------
  //
  // They create the field with its zero value where it is absent, and make the message unshareable for
  // good.  The pointer of a bool or u32 dies at the next insertion (or non-const reference getter) of a
  // bool or u32.  The others live, through other fields' changes, until their field is removed or replaced
  // by one of another type, or this message is assigned or destroyed.

  bool* get_bool_ref(unsigned int id);
  unsigned int* get_u32_ref(unsigned int id);
  unsigned long long* get_u64_ref(unsigned int id);
  IPAddr6* get_addr6_ref(unsigned int id);
  std::string* get_string_ref(unsigned int id);
  std::vector<unsigned char>* get_raw_ref(unsigned int id);
  flat_message* get_message_ref(unsigned int id);
  std::vector<bool>* get_bool_array_ref(unsigned int id);
  std::vector<unsigned int>* get_u32_array_ref(unsigned int id);
  std::vector<unsigned long long>* get_u64_array_ref(unsigned int id);
  std::vector<IPAddr6>* get_addr6_array_ref(unsigned int id);
  std::vector<std::string>* get_string_array_ref(unsigned int id);
  std::vector<std::vector<unsigned char>>* get_raw_array_ref(unsigned int id);
  std::vector<flat_message>* get_message_array_ref(unsigned int id);

  // --- Inserts: replace the value, or add the field in front of the others of its list. -----------

  void insert_bool(unsigned int id, bool v);
  void insert_u32(unsigned int id, unsigned int v);
  void insert_be32(unsigned int id, unsigned int v);
  void insert_u64(unsigned int id, unsigned long long v);
  void insert_addr6(unsigned int id, const IPAddr6& v);
  void insert_string(unsigned int id, const std::string& v);
  void insert_raw(unsigned int id, const std::vector<unsigned char>& v);
  void insert_message(unsigned int id, const flat_message& v);
  // Flattens `nested` straight into the field.
  void insert_message(unsigned int id, const message& nested);

  // Array inserts make the message unshareable.
  void insert_bool_array(unsigned int id, const std::vector<bool>& v);
  void insert_u32_array(unsigned int id, const std::vector<unsigned int>& v);
  void insert_be32_array(unsigned int id, const std::vector<unsigned int>& v);
  void insert_u64_array(unsigned int id, const std::vector<unsigned long long>& v);
  void insert_addr6_array(unsigned int id, const std::vector<IPAddr6>& v);
  void insert_string_array(unsigned int id, const std::vector<std::string>& v);
  void insert_raw_array(unsigned int id, const std::vector<std::vector<unsigned char>>& v);
  void insert_message_array(unsigned int id, const std::vector<flat_message>& v);

  // --- Removal and presence ------------------------------------------------------------------------

  // Removing what is absent changes nothing.  remove_field serves u64, addr6, string, message and raw.
  void remove_bool(unsigned int id);
  void remove_u32(unsigned int id);
  void remove_field(unsigned int id);
  void remove_array(unsigned int id);

  // 1 or 0.
  unsigned int size_bool(unsigned int id) const;
  unsigned int size_u32(unsigned int id) const;
  unsigned int size_field(unsigned int id) const;
  bool has_array(unsigned int id) const;
  // Elements in the array; 0 where it is absent or of another type.
  unsigned int size_bool_array(unsigned int id) const;
  unsigned int size_unsigned_array(unsigned int id) const;
  unsigned int size_u64_array(unsigned int id) const;
  unsigned int size_addr6_array(unsigned int id) const;
  unsigned int size_string_array(unsigned int id) const;
  unsigned int size_raw_array(unsigned int id) const;
  unsigned int size_message_array(unsigned int id) const;

  // --- Typed fields (kl/field.h) -------------------------------------------------------------------

  template <class T>
  void insert(field<T> id, const std::type_identity_t<T>& v);
  // The same.  A constant that the field cannot hold does not compile where the compiler optimises.
  template <class T, class V>
  requires(detail::PassedNumber<T, V>) void insert(field<T> id, V&& v);
  template <class T>
  T get(field<T> id, const std::type_identity_t<T>& def) const;
  template <class T>
  bool has(field<T> id) const;
  template <class T>
  void remove(field<T> id);

  // These do not compile: values of other types, and a field in a plain operation of another type.
  template <class T, class V>
  requires(detail::Accident<T, V>) static void insert(field<T> id, V&& v) = delete;
  template <class T, class V>
  requires(detail::Accident<T, V>) static void get(field<T> id, V&& def) = delete;

#define KL_FOR_FIELDS_OF(operation, type, ...) \
  template <detail::OtherField<type> F>        \
  static void operation(F __VA_OPT__(, ) __VA_ARGS__) = delete;
#define KL_FOR_FIELDS_OF_TYPE(type, name, counted)                                     \
  KL_FOR_FIELDS_OF(get_##name, type, const type&)                                      \
  KL_FOR_FIELDS_OF(get_##name##_ref, type)                                             \
  KL_FOR_FIELDS_OF(insert_##name, type, const type&)                                   \
  KL_FOR_FIELDS_OF(get_##name##_array, std::vector<type>)                              \
  KL_FOR_FIELDS_OF(get_##name##_array_ref, std::vector<type>)                          \
  KL_FOR_FIELDS_OF(insert_##name##_array, std::vector<type>, const std::vector<type>&) \
  KL_FOR_FIELDS_OF(size_##counted##_array, std::vector<type>)

  KL_FOR_FIELDS_OF_TYPE(bool, bool, bool)
  KL_FOR_FIELDS_OF_TYPE(unsigned int, u32, unsigned)
  KL_FOR_FIELDS_OF_TYPE(unsigned long long, u64, u64)
  KL_FOR_FIELDS_OF_TYPE(IPAddr6, addr6, addr6)
  KL_FOR_FIELDS_OF_TYPE(std::string, string, string)
  KL_FOR_FIELDS_OF_TYPE(std::vector<unsigned char>, raw, raw)
  KL_FOR_FIELDS_OF_TYPE(flat_message, message, message)

  KL_FOR_FIELDS_OF(get_be32, unsigned int, unsigned int)
  KL_FOR_FIELDS_OF(insert_be32, unsigned int, unsigned int)
  KL_FOR_FIELDS_OF(get_be32_array, std::vector<unsigned int>)
  KL_FOR_FIELDS_OF(insert_be32_array, std::vector<unsigned int>, const std::vector<unsigned int>&)
  KL_FOR_FIELDS_OF(get_addr6, IPAddr6)
  KL_FOR_FIELDS_OF(insert_message, flat_message, const message&)
  KL_FOR_FIELDS_OF(view_string, std::string, std::string_view)
  KL_FOR_FIELDS_OF(view_raw, std::vector<unsigned char>, std::span<const unsigned char>)
  KL_FOR_FIELDS_OF(view_message, flat_message)
  KL_FOR_FIELDS_OF(view_u32_array, std::vector<unsigned int>)
  KL_FOR_FIELDS_OF(remove_bool, bool)
  KL_FOR_FIELDS_OF(remove_u32, unsigned int)
  KL_FOR_FIELDS_OF(size_bool, bool)
  KL_FOR_FIELDS_OF(size_u32, unsigned int)
#undef KL_FOR_FIELDS_OF_TYPE
#undef KL_FOR_FIELDS_OF

#define KL_FOR_FIELDS_BUT(operation, ...)      \
  template <detail::OtherField<__VA_ARGS__> F> \
  static void operation(F) = delete;
#define KL_LISTED unsigned long long, IPAddr6, std::string, std::vector<unsigned char>, flat_message
#define KL_ARRAYS                                                                                      \
  std::vector<bool>, std::vector<unsigned int>, std::vector<unsigned long long>, std::vector<IPAddr6>, \
      std::vector<std::string>, std::vector<std::vector<unsigned char>>, std::vector<flat_message>
  KL_FOR_FIELDS_BUT(remove_field, KL_LISTED)
  KL_FOR_FIELDS_BUT(size_field, KL_LISTED)
  KL_FOR_FIELDS_BUT(remove_array, KL_ARRAYS)
  KL_FOR_FIELDS_BUT(has_array, KL_ARRAYS)
#undef KL_ARRAYS
#undef KL_LISTED
#undef KL_FOR_FIELDS_BUT

  // --- Bytes -----------------------------------------------------------------------------------------

  // Upper bound in bytes of the flattened form.
  unsigned int max_length() const;
  // Writes the flattened form.  Needs: room for max_length() bytes in `buf`; `*len` is the room on entry and
  // the bytes written on return.  More bytes than room: one warning line on standard output, after the harm.
  void flatten(unsigned char* buf, unsigned int* len) const;
  // Replaces what `out` held.
  void flatten(std::vector<unsigned char>& out) const;
  // The flattened form as a value, which is also a field's when a message is nested.
  flat_message flattened() const;
  // Adds the fields that the bytes hold: scalars overwrite, arrays replace.  False on a fault; the fields
  // read before it stay.  Lengths and counts are claims and never trusted.  A null `data` reads as nothing,
  // true.  A message that received a field is unshareable.
  [[nodiscard]] bool unflatten(const unsigned char* data, unsigned int len, flatten_type type);
  // The records that the last unflatten of type keep_marked set aside, byte for byte; null without one.
  // Valid until this message is changed, assigned or destroyed.
  const std::vector<unsigned char>* kept() const;

  // --- Comparison and combination ----------------------------------------------------------------------

  // Gives this message a private copy of its representation.  Its lists come out in reverse order.
  void clone();
  // The same fields with equal values, in whatever order.  Nested messages are compared as bytes.
  bool operator==(const message& other) const;
  // Every field of `other` is here with an equal value.
  bool includes(const message& other) const;
  // The three parts of includes; the last two also count the nodes of `other`'s list that they walked.
  bool includes_bools(const Rep* other) const;
  bool includes_fields(const Rep* other, unsigned int& count) const;
  bool includes_arrays(const Rep* other, unsigned int& count) const;
  // Takes over every field of `other`, whose values win; arrays are replaced, not joined.
  void merge(const message& other);
  // Removes every field whose id agrees with `id` in the bits of `mask`.  A bool or u32 is met only where
  // the mask lets its type through: with bit 27 in the mask, `id` must be of the u32 type to remove u32s.
  void removeIdMask(unsigned int id, unsigned int mask);

  // --- Text ------------------------------------------------------------------------------------------

  // One line a field, nested messages indented, known ids and values by name.  Every line begins with
  // `prefix` and four blanks for each `indent`.  On a Dumper numbers are hexadecimal and nothing is
  // allocated: nested messages are rebuilt in a small fixed space, and what does not fit there is named in a
  // line.  The process has that space once: of two such dumps at once, in two threads or one in a signal handler, the
  // later one only names nested messages.
  template <class S>
  requires(std::is_same_v<S, std::ostream> ||
           std::is_same_v<S, Dumper>) void dump2(S& out, const char* prefix, unsigned int indent) const;
  // Any other output stream, string streams included.
  template <class S>
  requires(std::is_base_of_v<std::ostream, S> && !std::is_same_v<S, std::ostream> &&
           !std::is_same_v<S, Dumper>) void dump2(S& out, const char* prefix, unsigned int indent) const {
    dump2<std::ostream>(static_cast<std::ostream&>(out), prefix, indent);
  }

 private:
  friend struct RepAccess;

  // A string, message, raw value or u32 array as bytes: those of the format, or the numbers as this machine has them.
  struct Stored {
    const unsigned char* bytes = nullptr;
    unsigned int size = 0;
    bool isThere = false;
    bool isNative = false;
  };
  Stored stored(unsigned int id, unsigned int typeBits) const;

  static void release(Rep* rep);

  Rep* rep_ = nullptr;  // null: the empty message
};

inline void swap(message& a, message& b) noexcept { a.swap(b); }

// The dump without prefix and indent.
KL_API std::ostream& operator<<(std::ostream& out, const message& m);

extern template KL_API void message::dump2<std::ostream>(std::ostream&, const char*, unsigned int) const;
extern template KL_API void message::dump2<Dumper>(Dumper&, const char*, unsigned int) const;

}  // namespace kl
