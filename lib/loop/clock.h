#pragma once
// clock.h: how the loop reads its clock.

namespace kl {

// The tick now.  What was held back at an earlier one is written.
unsigned int readTick();

}  // namespace kl
