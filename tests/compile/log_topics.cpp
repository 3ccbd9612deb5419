// Lists of topics: what the compiler lets through, warns of and refuses.

#include <iostream>

#include "kl/logger.h"

enum Topic { kEnumerator = 3 };

void use(unsigned int topic, const unsigned short narrow) {
#if CASE == 1  // compiles
  kl::lstream closed(3, 4, 0), unsignedOnes(3u, 4u, 0u), one(9), oneClosed(9u, 0u), zero(0),
      zeroFirst(0, 4, 0);
  kl::lstream variable(topic, 0), promoted(narrow, narrow, 0), enumerated(kEnumerator, kEnumerator, 0);
  kl::lstream unseen(3, topic), echoed(std::cerr, 3, 4, 0), echoedOne(std::cerr, 7);
  kl::lstream braces({3, 4}), bracesOnly{3, topic, 0}, echoedBraces(std::cerr, {3u, 65535u}),
      mixed({narrow, kEnumerator});
  const unsigned int topics[] = {3, 0};
  kl::lstream array(topics);
#elif CASE == 2  // end without a 0
  kl::lstream open(3, 4);
#elif CASE == 3  // end without a 0
  kl::lstream open(3u, 4u);
#elif CASE == 4  // end without a 0
  kl::lstream open(std::cerr, 3, topic, 5);
#elif CASE == 5  // a topic is at most 65535
  kl::lstream large({3, 65536});
#elif CASE == 6  // a topic is at most 65535
  kl::lstream negative(std::cerr, {3, -1});
#elif CASE == 7  // no matching
  kl::lstream text({"info"});
#endif
  (void)topic;
  (void)narrow;
}
