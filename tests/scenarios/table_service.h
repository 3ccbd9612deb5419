#pragma once
// table_service.h: what kl-test-table says to other services.
//
// It answers on the path [table::kService, table::kHandler].  Its objects have a number, a value and whatever fields they
// were given.
//
//     CMD_GETALL, CMD_GETOBJ, CMD_REMOVEOBJ   as everywhere
//     CMD_SETOBJ      makes or changes the object; with HOLD only when the next CMD_SETOBJ without it comes
//     CMD_GETCOUNT    STD_GETALLNO: how many objects; SUBSCRIPTIONS: how many records; HELD; DIGEST of the table
//     CMD_SET         changes the objects from FIRST on, COUNT of them, one after the other
//     CMD_START       COUNT changes of objects below FIRST, at random, with this PAYLOAD; returns when all were told
//     CMD_CANCEL      no further changes by itself
//     NOTIFY_OWN      tells whoever subscribed with this command
//     SEND_OBJECTS    tells the STD_OBJS of the request; STD_GETALLNO: how many of them one notification took
//
// kl-test-subscribers has handlers with the numbers from 1 on, each with a subscription and a copy of its own, and answers
// CMD_GETCOUNT with the NOTIFICATIONS that came and the DIGEST of the copy.

#include <map>

#include "kl/field.h"

namespace table {

inline constexpr unsigned int kService = 40;
inline constexpr unsigned int kHandler = 3;

inline constexpr kl::field<unsigned int> VALUE{0x08000001};
inline constexpr kl::field<std::vector<unsigned char>> PAYLOAD{0x30000002};
inline constexpr kl::field<bool> HOLD{0x00000003};
inline constexpr kl::field<unsigned int> FIRST{0x08000004};
inline constexpr kl::field<unsigned int> COUNT{0x08000005};
inline constexpr kl::field<unsigned long long> DIGEST{0x10000006};
inline constexpr kl::field<unsigned int> SUBSCRIPTIONS{0x08000007};
inline constexpr kl::field<unsigned int> HELD{0x08000008};

inline constexpr kl::field<unsigned int> NOTIFICATIONS{0x08000009};

inline constexpr unsigned int NOTIFY_OWN = 0x60001;
inline constexpr unsigned int SEND_OBJECTS = 0x60002;

// One number for the numbers and values of a whole table.
inline unsigned long long digestOf(const std::map<unsigned int, unsigned int>& values) {
  unsigned long long digest = 0xcbf29ce484222325;
  const auto mix = [&digest](unsigned int word) { digest = (digest ^ word) * 0x100000001b3; };
  for (const auto& [id, value] : values) {
    mix(id);
    mix(value);
  }
  return digest;
}

}  // namespace table
