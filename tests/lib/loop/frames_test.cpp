#include "loop/frames.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "tests/lib/loop/report_reader.h"

namespace kl {
namespace {

// Frames laid out by hand in one array, the innermost first.
class Frames : public ::testing::Test {
 protected:
  std::uintptr_t placeOf(std::size_t word) const { return reinterpret_cast<std::uintptr_t>(&words[word]); }

  void frame(std::size_t word, std::uintptr_t next, std::uintptr_t returnAddress) {
    words[word] = next;
    words[word + 1] = returnAddress;
  }

  std::string walk(const WalkStart& start, std::uintptr_t bottom, std::uintptr_t top) {
    const SafeMemory memory;
    return test::reportOf([&](ReportText& out) { writeBacktrace(start, bottom, top, memory, out); });
  }

  static std::string shown(std::uintptr_t address) {
    return test::reportOf([=](ReportText& out) { out.putWord("0x", address, " "); });
  }

  alignas(16) std::array<std::uintptr_t, 64> words{};
};

TEST_F(Frames, AreFollowedUntilAReturnAddressOfZero) {
  frame(10, placeOf(20), 0x111);
  frame(20, placeOf(30), 0x222);
  frame(30, placeOf(40), 0);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), placeOf(60)), shown(0x111) + shown(0x222));
}

TEST_F(Frames, LieStrictlyAboveTheHandlersOwn) {
  frame(10, placeOf(20), 0x111);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(10), placeOf(60)), "");
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(10) - 1, placeOf(60)), shown(0x111));
}

TEST_F(Frames, LieStrictlyBelowTheTop) {
  frame(10, placeOf(20), 0x111);
  frame(20, placeOf(30), 0x222);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), placeOf(20)), shown(0x111));
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), placeOf(20) + 1), shown(0x111) + shown(0x222));
}

TEST_F(Frames, WithoutATopThereAreNone) {
  frame(10, placeOf(20), 0x111);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), 0), "");
}

TEST_F(Frames, AnUnreadableOneEndsTheWalk) {
  frame(10, ~std::uintptr_t{0} - 64, 0x111);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), ~std::uintptr_t{0}), shown(0x111));
}

TEST_F(Frames, AChainThatDoesNotRiseEndsTheWalk) {
  frame(10, placeOf(20), 0x111);
  frame(20, placeOf(10), 0x222);
  EXPECT_EQ(walk({placeOf(10), {}, 0}, placeOf(0), placeOf(60)), shown(0x111) + shown(0x222));
  frame(30, placeOf(30), 0x333);
  EXPECT_EQ(walk({placeOf(30), {}, 0}, placeOf(0), placeOf(60)), shown(0x333));
}

TEST_F(Frames, CallsFoundBeforeTheChainComeFirst) {
  frame(10, 0, 0x111);
  EXPECT_EQ(walk({placeOf(10), {0x888, 0x999}, 2}, placeOf(0), placeOf(60)),
            shown(0x888) + shown(0x999) + shown(0x111));
}

}  // namespace
}  // namespace kl
