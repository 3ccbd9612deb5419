#pragma once
// tap.h: the numbers of CMD_TAP of service 1 (docs/protocol.md), for the loader and who asks it.  They stand in no
// description: that of the loader is as long as a process may carry.

#include <vector>

#include "kl/field.h"
#include "kl/message.h"

namespace common::tap {

inline constexpr unsigned int CMD_TAP = 0x60004;

// In the request.
inline constexpr kl::field<std::vector<unsigned int>> SERVICES{
    0x88000050};  // one end of a message is one of these services, at most 64; absent: whoever
inline constexpr kl::field<unsigned int> PEER{0x08000051};  // the other end is this service
inline constexpr kl::field<bool> ERRORS{0x00000052};        // errors only
inline constexpr kl::field<unsigned int> SLOW{0x08000053};  // only replies that took so many ms
inline constexpr kl::field<unsigned int> BYTES{
    0x08000054};  // the first bytes of each message are shown, at most 61440; for root alone; absent: none
inline constexpr kl::field<bool> END{0x00000055};  // it ends

// Of a message.
inline constexpr kl::field<unsigned long long> AT{0x10000056};  // when it passed, in us since 1970
inline constexpr kl::field<unsigned int> SENDER{
    0x08000057};  // the service that sent it, or in whose name the loader answers
inline constexpr kl::field<std::vector<unsigned int>> RECEIVERS{
    0x88000058};  // the services that it is for, or 0xff0001 for all; the first 8
inline constexpr kl::field<unsigned int> RECEIVER_COUNT{0x08000059};  // how many they are; absent up to 8
inline constexpr kl::field<unsigned int> CONTROL{
    0x0800005a};  // of a message between the loader and a process: its code
inline constexpr kl::field<bool> ANSWER{
    0x0000005b};  // it is a reply, and command and age are those of its request
inline constexpr kl::field<unsigned int> NUMBER{
    0x0800005c};  // the number of the request, which its reply has as well
inline constexpr kl::field<unsigned int> ERROR{0x0800005d};   // its error
inline constexpr kl::field<unsigned int> LENGTH{0x0800005e};  // in bytes, without the length in front
inline constexpr kl::field<std::vector<unsigned char>> CONTENTS{
    0x3000005f};                                                  // its first bytes, as its sender wrote them
inline constexpr kl::field<bool> BY_LOADER{0x00000060};           // the loader wrote it
inline constexpr kl::field<unsigned long long> LOST{0x10000061};  // that passed before and found no room
inline constexpr kl::field<unsigned int> COMMAND{
    0x08000025};  // and in the request; of a reply that of its request
inline constexpr kl::field<unsigned long long> AGE{
    0x10000026};  // ms since the request of a reply was delivered

// Of the last messages before a crash, which CMD_GETOBJ of the crashes shows.
inline constexpr kl::field<std::vector<kl::message::flat_message>> MESSAGES{
    0xa8000062};                                            // the last ones of the service, the oldest first
inline constexpr kl::field<unsigned int> FATE{0x08000063};  // what became of it; absent: it was passed on
enum FateWord : unsigned int { HELD = 1, DENIED = 2, REFUSED = 3, DROPPED = 4, UNASKED = 5, NO_RECEIVER = 6 };

}  // namespace common::tap
