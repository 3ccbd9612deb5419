// Functions for programs that were built when lists of topics went through variable arguments.

#include <sstream>

#include "tests/lib/log/stream_fixture.h"

namespace kl {
namespace {

class KeptSymbols : public test::StreamClient {};

TEST_F(KeptSymbols, ReadTopicsUpToTheClosingZero) {
  lstream two(3, 4, 0);
  EXPECT_EQ(topicsOf(two), (Topics{3, 4}));
  lstream three(0x10001u, 2u, 3u, 0u);
  EXPECT_EQ(topicsOf(three), (Topics{1, 2, 3}));  // the low 16 bits
  lstream one(9u, 0u);
  EXPECT_EQ(topicsOf(one), Topics{9});
  lstream zero(0, 4, 0);
  EXPECT_EQ(topicsOf(zero), (Topics{0, 4}));
}

TEST_F(KeptSymbols, ReadTopicsBehindAnEcho) {
  std::ostringstream echo;
  lstream two(echo, 31, 32, 0);
  EXPECT_EQ(topicsOf(two), (Topics{31, 32}));
  lstream closed(echo, 35, 0);
  EXPECT_EQ(topicsOf(closed), Topics{35});
}

}  // namespace
}  // namespace kl
