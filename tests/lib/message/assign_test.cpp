// Assigning from bytes without the copy in between.

#include <gtest/gtest.h>

#include "message/rep.h"
#include "tests/support/hex.h"

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;

// A message with every list longer than `strings`, so that both the walked and the indexed list are met.
Bytes bytesWith(unsigned int strings) {
  message m;
  for (unsigned int i = 0; i < 8; ++i) m.insert_u32(0x08000000 + i, i * 100);
  m.insert_bool(1, true);
  m.insert_bool(2, false);
  m.insert_u32_array(0x88000001, {1, 2});
  m.insert_string_array(0xA0000001, {"a", "bc"});
  for (unsigned int i = 0; i < strings; ++i) m.insert_string(0x20000000 + i, std::string(i, 'x'));
  return m.flattened();
}

void expectTheSame(const Bytes& bytes) {
  const auto len = static_cast<unsigned int>(bytes.size());
  message copied;
  copied = message(bytes.data(), len);
  message assigned;
  assigned.insert_u32(9, 9);
  assigned.assign(bytes.data(), len);
  EXPECT_EQ(test::hex(assigned.flattened()), test::hex(copied.flattened()));
  ASSERT_EQ(RepAccess::of(assigned)->unshareable, RepAccess::of(copied)->unshareable);
  EXPECT_EQ(assigned.max_length(), copied.max_length());
  RepAccess::of(assigned)->check();
}

TEST(Assign, GivesWhatAssigningAMessageOfTheBytesGives) {
  for (const unsigned int strings : {0u, 1u, 2u, 16u, 17u, 100u}) expectTheSame(bytesWith(strings));
}

TEST(Assign, GivesTheSameForEveryPrefix) {
  const Bytes whole = bytesWith(20);
  for (std::size_t n = 0; n <= whole.size(); ++n)
    expectTheSame(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n)));
}

TEST(Assign, TurnsTheListsRound) {
  message m;
  const Bytes bytes = test::bytes("4d32 01000021 01 61  02000021 01 62");
  m.assign(bytes.data(), static_cast<unsigned int>(bytes.size()));
  EXPECT_EQ(m.flattened(), bytes);
  EXPECT_EQ(test::hex(message(bytes).flattened()), "4d32 0200 0021 0162 0100 0021 0161");
}

TEST(Assign, LetsCopiesShare) {
  const Bytes bytes = bytesWith(3);
  message m;
  m.assign(bytes.data(), static_cast<unsigned int>(bytes.size()));
  const message copy(m);
  EXPECT_EQ(RepAccess::of(copy), RepAccess::of(m));
}

TEST(Assign, BracesEmptyAMessageAndNoCopyOfIt) {
  message m;
  m = {};
  EXPECT_EQ(m, message());
  m.insert_u32(0x08000009, 9);
  const message copy(m);
  EXPECT_EQ(&(m = {}), &m);
  EXPECT_EQ(m, message());
  EXPECT_EQ(RepAccess::of(m), nullptr);
  EXPECT_EQ(copy.get_u32(0x08000009, 0), 9u);
  m = copy.flattened();
  EXPECT_EQ(m, copy);
}

TEST(Assign, AListTurnedRoundIsStillChangedInTheRightPlaces) {
  const Bytes bytes = bytesWith(40);
  message m;
  m.assign(bytes.data(), static_cast<unsigned int>(bytes.size()));
  m.remove_field(0x20000000);
  m.remove_field(0x20000027);
  m.remove_field(0x20000010);
  m.insert_string(0x20000100, "new");
  RepAccess::of(m)->check();
  EXPECT_EQ(m.size_field(0x20000010), 0u);
  EXPECT_EQ(m.get_string(0x20000011, ""), std::string(0x11, 'x'));
}

}  // namespace
}  // namespace kl
