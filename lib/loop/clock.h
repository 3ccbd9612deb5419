#pragma once
// clock.h: how the loop reads its clock.

namespace kl {

// The tick now.  Frames that were held back at an earlier one are written.
unsigned int readTick();

}  // namespace kl
