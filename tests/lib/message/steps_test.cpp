// Operations on large messages, counted in steps: the library's message room is compiled into this program once
// more, with a call in each of its basic blocks.  The secret factor of the hash, which the kernel's random bytes make, is
// the same in each run here, and so are the steps.

#include <gtest/gtest.h>
#include <sys/auxv.h>

#include <cstdint>

#include "kl/message.h"

namespace {

unsigned long long steps;

}  // namespace

extern "C" void __sanitizer_cov_trace_pc() { ++steps; }

extern "C" unsigned long __getauxval(unsigned long type);
extern "C" unsigned long getauxval(unsigned long type) noexcept {
  static const std::uint64_t kNotRandom[] = {0x9E3779B97F4A7C15, 0};
  return type == AT_RANDOM ? reinterpret_cast<unsigned long>(kNotRandom) : __getauxval(type);
}

namespace {

using kl::message;

// The steps that `work` takes for each of so many things.
template <class Work>
double stepsOf(Work work, unsigned int things) {
  const unsigned long long before = steps;
  work(things);
  return static_cast<double>(steps - before) / things;
}

void buildParseCompareAndEmpty(unsigned int fields) {
  message m;
  for (unsigned int i = 0; i < fields; ++i) {
    m.insert_string(0x20000000 + i, "text");
    m.insert_raw_array(0xB0000000 + i, {{1}});
    m.insert_u32(0x08000000 + i * 352, i);
    m.insert_bool(i * 352, true);
  }
  message::flat_message bytes;
  m.flatten(bytes);
  const message parsed(bytes);
  EXPECT_TRUE(parsed == m);
  message copy(parsed);
  EXPECT_TRUE(copy.includes(m));
  copy.merge(m);
  for (unsigned int i = 0; i < fields; i += 2) {
    copy.remove_field(0x20000000 + i);
    copy.remove_u32(0x08000000 + i * 352);
  }
  copy.removeIdMask(0x20000000, 0xF8000000);
}

TEST(Steps, FiveThousandFieldsCostNoMoreEachThanAHundred) {
  const double few = stepsOf(buildParseCompareAndEmpty, 100);
  const double many = stepsOf(buildParseCompareAndEmpty, 5000);
  RecordProperty("steps_of_100", std::to_string(few));
  RecordProperty("steps_of_5000", std::to_string(many));
  EXPECT_GT(few, 10) << "nothing is counted";
  EXPECT_LT(many, 2 * few);
}

TEST(Steps, ARunOfCollidingKeysCostsNoMoreTheLongerItIs) {
  // 46 keys to each home slot at the capacity that so many need.
  const auto insert = [](unsigned int keysPerHome) {
    return [keysPerHome](unsigned int keys) {
      message m;
      for (unsigned int i = 0; i < keys; ++i) m.insert_bool(i / keysPerHome + i % keysPerHome * 360448, true);
    };
  };
  const double apart = stepsOf(insert(1), 200000);
  const double colliding = stepsOf(insert(46), 200000);
  RecordProperty("steps_apart", std::to_string(apart));
  RecordProperty("steps_colliding", std::to_string(colliding));
  EXPECT_GT(apart, 2) << "nothing is counted";
  EXPECT_LT(colliding, 5 * apart);
}

}  // namespace
