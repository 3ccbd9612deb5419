#include "kl/field.h"

#include <gtest/gtest.h>

namespace {

using kl::field;
using kl::IPAddr6;
using kl::message;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

constexpr field<bool> kFlag{0x00000001};
constexpr field<unsigned int> kSpeed{0x08000007};
constexpr field<unsigned long long> kBytes{0x10000001};
constexpr field<IPAddr6> kAddress{0x18000001};
constexpr field<std::string> kDescription{0x20000001};
constexpr field<Flat> kInner{0x28000001};
constexpr field<Bytes> kRaw{0x30000001};

template <class T>
void livesThrough(field<T> id, const T& a, const T& b) {
  message m;
  EXPECT_FALSE(m.has(id));
  EXPECT_EQ(m.get(id, b), b);
  m.insert(id, a);
  EXPECT_TRUE(m.has(id));
  EXPECT_EQ(m.get(id, b), a);
  m.remove(id);
  EXPECT_TRUE(m == message());
}

TEST(Field, EveryScalarTypeLives) {
  livesThrough<bool>(kFlag, true, false);
  livesThrough<unsigned int>(kSpeed, 1000, 1);
  livesThrough<unsigned long long>(kBytes, 1ULL << 40, 1);
  livesThrough<IPAddr6>(kAddress, {{1}}, IPAddr6::zero);
  livesThrough<std::string>(kDescription, "eth0", "");
  livesThrough<Flat>(kInner, Flat(Bytes{0x4d, 0x32}), {});
  livesThrough<Bytes>(kRaw, {1, 2}, {});
}

// Clang 14 fails at an identifier that is made between other temporary objects.
template <unsigned int kId, class T>
void arrayLives(const std::vector<T>& a, const std::vector<T>& b = std::vector<T>()) {
  constexpr field<std::vector<T>> id{kId};
  livesThrough<std::vector<T>>(id, a, b);
}

TEST(Field, EveryArrayTypeLives) {
  arrayLives<0x80000001>(std::vector<bool>(1, true));
  arrayLives<0x88000001>(std::vector<unsigned int>(2, 1), std::vector<unsigned int>(1, 3));
  arrayLives<0x90000001>(std::vector<unsigned long long>(1, 1));
  arrayLives<0x98000001>(std::vector<IPAddr6>(1));
  arrayLives<0xA0000001>(std::vector<std::string>(1, "a"));
  arrayLives<0xA8000001>(std::vector<Flat>(1));
  arrayLives<0xB0000001>(std::vector<Bytes>(1, Bytes(1, 1)));
}

TEST(Field, TakesWhatConvertsToItsType) {
  message m;
  m.insert(kSpeed, 1000);
  EXPECT_EQ(m.get(kSpeed, 0), 1000u);
  m.insert(kDescription, "eth0");
  EXPECT_EQ(m.get(kDescription, ""), "eth0");
}

TEST(Field, ServesThePlainOperationsToo) {
  message m;
  m.insert_u32(kSpeed, 5);
  EXPECT_EQ(m.get_u32(kSpeed, 0), 5u);
  EXPECT_EQ(m.get(kSpeed, 0), 5u);
  static_assert(kSpeed == 0x08000007);
}

}  // namespace
