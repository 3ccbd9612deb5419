#pragma once
// keeper_service.h: what kl-test-keeper says to other services.
//
// It lets itself be asked to leave.  Its handlers 3 and 4 keep a value each, as their object 1, and tell subscribers of
// changes.
//
//     CMD_SETOBJ      changes the VALUE
//     CMD_GET         the VALUE, how many SUBSCRIPTIONS it has, and how many it was told of (TOLD) since the start
//     CMD_START       may not be asked to leave any more; CMD_CANCEL takes one of these back
//     CMD_RESET       announces that it wants to leave
//     CMD_POLL        asks service 500 and waits for its reply
//     CMD_GETCOUNT    LOCALTIME

#include "kl/field.h"

namespace keeper {

inline constexpr unsigned int kService = 41;

inline constexpr kl::field<unsigned int> VALUE{0x08000001};
inline constexpr kl::field<unsigned int> SUBSCRIPTIONS{0x08000002};
inline constexpr kl::field<unsigned int> TOLD{0x08000003};
inline constexpr kl::field<unsigned int> LOCALTIME{0x08000004};

}  // namespace keeper
