#pragma once
// kl/field.h: a field id that knows its type, so that the compiler catches the wrong operation.

#include <string>
#include <vector>

#include "kl/message.h"

namespace kl {

// The type bits of a type's ids, and the operations of the container that serve it.
template <class T>
struct field_operations;

namespace detail {

[[gnu::error("the field cannot hold this constant")]] void refuseConstant();

// Is it a value of T?
template <class T, class V>
constexpr bool canHold(V v) {
  if constexpr (std::is_same_v<V, bool>) return true;
  else if constexpr (std::is_same_v<T, bool>) return v == 0 || v == 1;
  else if constexpr (std::is_signed_v<V>) return v >= 0 && static_cast<std::make_unsigned_t<V>>(v) <= T(-1);
  else return v <= T(-1);
}

}  // namespace detail

// Has no body and is never called: naming it where a constant is needed is the compile error.
void theTypeBitsOfTheIdAreNotThoseOfTheType();

// A field id of type T: bool, unsigned int, unsigned long long, IPAddr6, std::string,
// message::flat_message, std::vector<unsigned char>, or a std::vector of one of these.
//
//     inline constexpr kl::field<unsigned int> SPEED{0x08000007};    // other type bits do not compile
//     m.insert(SPEED, 1000);  m.get(SPEED, 0);  m.has(SPEED);  m.remove(SPEED);
//     m.get_u32(SPEED, 0);                                           // it is a plain id, too
//     m.get_string(SPEED, "");                                       // does not compile
//
// Errors:    a mismatch of id and type is a compile error; so is a value of another type (a text or a 0 for the other
//            one, a pointer for a bool), the field in a plain operation of another type, and, where the compiler
//            optimises, the insertion of a constant that the field cannot hold: m.insert(SPEED, -1).  A value that is
//            no constant is converted as ever.
// Ownership: a number.
// Threads:   any.
// Cost:      none; the calls are those of the plain operations.
template <class T>
class field {
 public:
  explicit consteval field(unsigned int id) : id_(id) {
    if ((id & 0xF9000000) != field_operations<T>::typeBits) theTypeBitsOfTheIdAreNotThoseOfTheType();
  }
  constexpr operator unsigned int() const { return id_; }

 private:
  unsigned int id_;
};

// A field of the seven types, scalar or array, differs in its type bits and in the operations' names only.
#define KL_FIELD_OPERATIONS(type, bits, name, present, removal, getter)                        \
  template <>                                                                                  \
  struct field_operations<type> {                                                              \
    static constexpr unsigned int typeBits = bits;                                             \
    static void insert(message& m, unsigned int id, const type& v) { m.insert_##name(id, v); } \
    static bool has(const message& m, unsigned int id) { return present; }                     \
    static void remove(message& m, unsigned int id) { m.removal(id); }                         \
    static type get(const message& m, unsigned int id, const type& def) { return getter; }     \
  };

#define KL_SCALAR_FIELD(type, bits, name, present, removal) \
  KL_FIELD_OPERATIONS(type, bits, name, m.present(id) != 0, removal, m.get_##name(id, def))
#define KL_ARRAY_FIELD(element, bits, name)                                            \
  KL_FIELD_OPERATIONS(std::vector<element>, bits, name, m.has_array(id), remove_array, \
                      (m.has_array(id) ? m.get_##name(id) : def))

KL_SCALAR_FIELD(bool, 0x00000000, bool, size_bool, remove_bool)
KL_SCALAR_FIELD(unsigned int, 0x08000000, u32, size_u32, remove_u32)
KL_SCALAR_FIELD(unsigned long long, 0x10000000, u64, size_field, remove_field)
KL_SCALAR_FIELD(IPAddr6, 0x18000000, addr6, size_field, remove_field)
KL_SCALAR_FIELD(std::string, 0x20000000, string, size_field, remove_field)
KL_SCALAR_FIELD(message::flat_message, 0x28000000, message, size_field, remove_field)
KL_SCALAR_FIELD(std::vector<unsigned char>, 0x30000000, raw, size_field, remove_field)
KL_ARRAY_FIELD(bool, 0x80000000, bool_array)
KL_ARRAY_FIELD(unsigned int, 0x88000000, u32_array)
KL_ARRAY_FIELD(unsigned long long, 0x90000000, u64_array)
KL_ARRAY_FIELD(IPAddr6, 0x98000000, addr6_array)
KL_ARRAY_FIELD(std::string, 0xA0000000, string_array)
KL_ARRAY_FIELD(message::flat_message, 0xA8000000, message_array)
KL_ARRAY_FIELD(std::vector<unsigned char>, 0xB0000000, raw_array)

#undef KL_ARRAY_FIELD
#undef KL_SCALAR_FIELD
#undef KL_FIELD_OPERATIONS

template <class T>
void message::insert(field<T> id, const std::type_identity_t<T>& v) {
  field_operations<T>::insert(*this, id, v);
}
template <class T, class V>
requires(detail::PassedNumber<T, V>) [[gnu::always_inline]] inline void message::insert(field<T> id, V&& v) {
  const auto given = v;
  if (__builtin_constant_p(given) && !detail::canHold<T>(given)) detail::refuseConstant();
  field_operations<T>::insert(*this, id, static_cast<T>(given));
}
template <class T>
T message::get(field<T> id, const std::type_identity_t<T>& def) const {
  return field_operations<T>::get(*this, id, def);
}
template <class T>
bool message::has(field<T> id) const {
  return field_operations<T>::has(*this, id);
}
template <class T>
void message::remove(field<T> id) {
  field_operations<T>::remove(*this, id);
}

}  // namespace kl
