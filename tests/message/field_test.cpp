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

TEST(Field, EveryArrayTypeLives) {
  livesThrough<std::vector<bool>>(field<std::vector<bool>>{0x80000001}, {true}, {});
  livesThrough<std::vector<unsigned int>>(field<std::vector<unsigned int>>{0x88000001}, {1, 2}, {3});
  livesThrough<std::vector<unsigned long long>>(field<std::vector<unsigned long long>>{0x90000001}, {1}, {});
  livesThrough<std::vector<IPAddr6>>(field<std::vector<IPAddr6>>{0x98000001}, {{}}, {});
  livesThrough<std::vector<std::string>>(field<std::vector<std::string>>{0xA0000001}, {"a"}, {});
  livesThrough<std::vector<Flat>>(field<std::vector<Flat>>{0xA8000001}, {Flat()}, {});
  livesThrough<std::vector<Bytes>>(field<std::vector<Bytes>>{0xB0000001}, {{1}}, {});
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
