// The compiler lets fields into the operations of their type only.

#include <gtest/gtest.h>

#include "kl/field.h"
#include "kl/message_view.h"

namespace kl {
namespace {

using RawValue = std::vector<unsigned char>;
using FlatValue = message::flat_message;

// An operation of a message m on a field id.
#define KL_OPERATION(...) \
  []([[maybe_unused]] auto* m, [[maybe_unused]] auto id) -> decltype(void(m->__VA_ARGS__)) {}

// Can the operation be called with fields of Own alone, of all types that there are?
template <class M, class... Own>
struct Takes {
  template <class T>
  static constexpr bool isOwn = (std::is_same_v<T, Own> || ...);
  template <class Operation, class... All>
  static constexpr bool of(const Operation&, std::type_identity<void (*)(All...)>) {
    return ((std::is_invocable_v<Operation, M*, field<All>> == isOwn<All>)&&...);
  }
  template <class Operation>
  static constexpr bool only(const Operation& operation) {
    return of(operation, std::type_identity<void (*)(
                             bool, unsigned int, unsigned long long, IPAddr6, std::string, FlatValue,
                             RawValue, std::vector<bool>, std::vector<unsigned int>,
                             std::vector<unsigned long long>, std::vector<IPAddr6>, std::vector<std::string>,
                             std::vector<FlatValue>, std::vector<RawValue>)>());
  }
};

#define KL_EXPECT_OPERATIONS_OF(type, name, counted, value)                                            \
  static_assert(Takes<message, type>::only(KL_OPERATION(get_##name(id, value))));                      \
  static_assert(Takes<message, type>::only(KL_OPERATION(get_##name##_ref(id))));                       \
  static_assert(Takes<const message, type>::only(KL_OPERATION(get_##name##_ref(id))));                 \
  static_assert(Takes<message, type>::only(KL_OPERATION(insert_##name(id, value))));                   \
  static_assert(Takes<message, std::vector<type>>::only(KL_OPERATION(get_##name##_array(id))));        \
  static_assert(Takes<message, std::vector<type>>::only(KL_OPERATION(get_##name##_array_ref(id))));    \
  static_assert(Takes<message, std::vector<type>>::only(KL_OPERATION(insert_##name##_array(id, {})))); \
  static_assert(Takes<message, std::vector<type>>::only(KL_OPERATION(size_##counted##_array(id))));    \
  static_assert(Takes<message_view, std::vector<type>>::only(KL_OPERATION(get_##name##_array(id))));

KL_EXPECT_OPERATIONS_OF(bool, bool, bool, true)
KL_EXPECT_OPERATIONS_OF(unsigned int, u32, unsigned, 1)
KL_EXPECT_OPERATIONS_OF(unsigned long long, u64, u64, 1)
KL_EXPECT_OPERATIONS_OF(IPAddr6, addr6, addr6, IPAddr6::zero)
KL_EXPECT_OPERATIONS_OF(std::string, string, string, "text")
KL_EXPECT_OPERATIONS_OF(RawValue, raw, raw, {})
KL_EXPECT_OPERATIONS_OF(FlatValue, message, message, FlatValue())

static_assert(Takes<message, unsigned int>::only(KL_OPERATION(get_be32(id, 0))));
static_assert(Takes<message, unsigned int>::only(KL_OPERATION(insert_be32(id, 0))));
static_assert(Takes<message, std::vector<unsigned int>>::only(KL_OPERATION(get_be32_array(id))));
static_assert(Takes<message, std::vector<unsigned int>>::only(KL_OPERATION(insert_be32_array(id, {1, 2}))));
static_assert(Takes<message, IPAddr6>::only(KL_OPERATION(get_addr6(id))));
static_assert(Takes<message, FlatValue>::only(KL_OPERATION(insert_message(id, message()))));

static_assert(Takes<message, bool>::only(KL_OPERATION(remove_bool(id))));
static_assert(Takes<message, bool>::only(KL_OPERATION(size_bool(id))));
static_assert(Takes<message, unsigned int>::only(KL_OPERATION(remove_u32(id))));
static_assert(Takes<message, unsigned int>::only(KL_OPERATION(size_u32(id))));
using TakesListed = Takes<message, unsigned long long, IPAddr6, std::string, RawValue, FlatValue>;
static_assert(TakesListed::only(KL_OPERATION(remove_field(id))));
static_assert(TakesListed::only(KL_OPERATION(size_field(id))));
using TakesArrays =
    Takes<message, std::vector<bool>, std::vector<unsigned int>, std::vector<unsigned long long>,
          std::vector<IPAddr6>, std::vector<std::string>, std::vector<FlatValue>, std::vector<RawValue>>;
static_assert(TakesArrays::only(KL_OPERATION(remove_array(id))));
static_assert(TakesArrays::only(KL_OPERATION(has_array(id))));

static_assert(Takes<message, std::string>::only(KL_OPERATION(view_string(id, ""))));
static_assert(Takes<message, RawValue>::only(KL_OPERATION(view_raw(id, {}))));
static_assert(Takes<message, FlatValue>::only(KL_OPERATION(view_message(id))));
static_assert(Takes<message, std::vector<unsigned int>>::only(KL_OPERATION(view_u32_array(id))));

static_assert(Takes<message_view, bool>::only(KL_OPERATION(get_bool(id, true))));
static_assert(Takes<message_view, unsigned int>::only(KL_OPERATION(get_u32(id, 1))));
static_assert(Takes<message_view, unsigned int>::only(KL_OPERATION(get_be32(id, 1))));
static_assert(Takes<message_view, unsigned long long>::only(KL_OPERATION(get_u64(id, 1))));
static_assert(Takes<message_view, IPAddr6>::only(KL_OPERATION(get_addr6(id))));
static_assert(Takes<message_view, std::string>::only(KL_OPERATION(get_string(id, "text"))));
static_assert(Takes<message_view, RawValue>::only(KL_OPERATION(get_raw(id, {}))));
static_assert(Takes<message_view, FlatValue>::only(KL_OPERATION(get_message(id))));
static_assert(Takes<message_view, FlatValue>::only(KL_OPERATION(get_message_bytes(id))));

// Values of another type.  A 0 is a number, and neither a text nor the end of one.
static_assert(Takes<message, std::string>::only(KL_OPERATION(insert(id, "text"))));
static_assert(Takes<message, bool, unsigned int, unsigned long long>::only(KL_OPERATION(insert(id, 0))));
static_assert(Takes<message, bool, unsigned int, unsigned long long>::only(KL_OPERATION(insert(id, 5u))));
static_assert(Takes<message>::only(KL_OPERATION(insert(id, nullptr))));
static_assert(Takes<message, std::string>::only(KL_OPERATION(get(id, "text"))));
static_assert(Takes<message, bool, unsigned int, unsigned long long>::only(KL_OPERATION(get(id, 0))));
static_assert(Takes<message>::only(KL_OPERATION(get(id, nullptr))));
static_assert(Takes<message_view, std::string>::only(KL_OPERATION(get(id, "text"))));
static_assert(Takes<message_view, bool, unsigned int, unsigned long long>::only(KL_OPERATION(get(id, 0))));

#undef KL_EXPECT_OPERATIONS_OF
#undef KL_OPERATION

struct Packed {
  unsigned int low : 4;
  int high : 4;
};

TEST(FieldTypes, NumbersOfOtherTypesAreConvertedAsEver) {
  constexpr field<unsigned int> number{0x08000001};
  constexpr field<unsigned long long> large{0x10000001};
  constexpr field<bool> flag{0x00000001};
  message m;
  int negative = -1;
  m.insert(number, negative);
  EXPECT_EQ(m.get(number, 0), 0xFFFFFFFFu);
  m.insert(large, negative);
  EXPECT_EQ(m.get(large, 0), ~0ULL);
  m.insert(flag, negative);
  EXPECT_TRUE(m.get(flag, false));
  m.insert(number, static_cast<unsigned short>(7));
  EXPECT_EQ(m.get(number, 0), 7u);
  m.insert(number, m.size_u32(number) + 8ULL);
  EXPECT_EQ(m.get(number, 0), 9u);
  Packed packed{.low = 5, .high = 6};
  m.insert(number, packed.low);
  EXPECT_EQ(m.get(number, 0), 5u);
  m.insert(large, packed.high);
  EXPECT_EQ(m.get(large, 0), 6u);
  m.insert(flag, 'a' > 'b');
  EXPECT_FALSE(m.get(flag, true));
}

}  // namespace
}  // namespace kl
