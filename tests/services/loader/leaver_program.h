#pragma once
// leaver_program.h: what kl-test-leaver and the tests that use it have to agree about.

#include <string>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace kl::test::leaver {

// In CMD_SET: what it does when it is asked to leave, and once it has waited.
inline constexpr field<unsigned int> kReaction{0x08000010};
inline constexpr field<unsigned int> kAfterwards{0x08000011};
// In CMD_SET: the leave value that it tells the loader, and that it tells behind its wish.
inline constexpr field<unsigned int> kValue{0x08000012};
inline constexpr field<unsigned int> kValueAfterWish{0x08000013};
// In CMD_SET: it tells the loader that it wants to leave.
inline constexpr field<bool> kWish{0x00000014};
// In CMD_SET: the time at which it wants to be started again.
inline constexpr field<unsigned int> kWakeAt{0x08000017};
// In CMD_SET: it subscribes to the loader's table of services.
inline constexpr field<bool> kSubscribe{0x00000016};
// In its data, beside READY_DATA: the number of the start in which it saved them.
inline constexpr field<unsigned int> kStart{0x08000015};

enum Reaction : unsigned int {
  kSaveAndEnd,
  kEndWithoutData,
  kRefuse,
  kCrash,
  kSaveAndCrash,
  kSaveAndStay,  // and never ends
  kEndWithStatus3,
  kWait,  // until goFile() is there, then kAfterwards
};

inline std::string goFile() { return kl::underRoot("/kelo/go"); }

}  // namespace kl::test::leaver
