// Constants in fields: what the compiler lets through and refuses.

#include "kl/field.h"

inline constexpr kl::field<bool> FLAG{0x00000001};
inline constexpr kl::field<unsigned int> MTU{0x08000001};
inline constexpr kl::field<unsigned long long> BYTES{0x10000001};
inline constexpr kl::field<std::string> NAME{0x20000001};

enum Value { kEnumerator = 3 };

unsigned long long measure();

void use(kl::message& m, int variable, const int given, bool isLarge) {
#if CASE == 1  // compiles
  int negative = -1;
  m.insert(MTU, variable), m.insert(MTU, given), m.insert(MTU, negative), m.insert(BYTES, negative);
  m.insert(MTU, measure()), m.insert(MTU, variable - 1), m.insert(FLAG, variable & 4);
  m.insert(MTU, isLarge ? variable : 1500), m.insert(BYTES, isLarge ? 9000 : 1500);
  m.insert(MTU, 0), m.insert(MTU, 1500), m.insert(MTU, 0xFFFFFFFFULL), m.insert(MTU, kEnumerator);
  m.insert(MTU, true), m.insert(MTU, 'a'), m.insert(MTU, {}), m.insert(BYTES, 1500), m.insert(BYTES, 7u);
  m.insert(FLAG, 0), m.insert(FLAG, 1), m.insert(FLAG, 1u), m.insert(FLAG, true), m.insert(NAME, "text");
#elif CASE == 2  // the field cannot hold this constant
  m.insert(MTU, -1);
#elif CASE == 3  // the field cannot hold this constant
  m.insert(MTU, 0x100000000);
#elif CASE == 4  // the field cannot hold this constant
  m.insert(BYTES, -1);
#elif CASE == 5  // the field cannot hold this constant
  m.insert(FLAG, 2);
#elif CASE == 6  // the field cannot hold this constant
  constexpr int kUnknown = -1;
  m.insert(MTU, kUnknown);
#elif CASE == 7  // deleted
  m.insert(FLAG, "text");
#elif CASE == 8  // deleted
  m.insert(NAME, 0);
#elif CASE == 9  // deleted
  (void)m.get_u32(NAME, 0);
#endif
  (void)m, (void)variable, (void)given, (void)isLarge;
}
