#pragma once
// netif.h: the fields and the service id of netif, for its clients.
//
// netif answers on the path [netif::SERVICE].  Its objects are the network interfaces of the machine; STD_ID is
// the kernel's interface index, STD_DESCR a description that CMD_SETOBJ sets.
//
//     CMD_GETALL     the interfaces from STD_GETALLID on, at most STD_GETALLNO of them; while more remain the reply
//                    names the next one in STD_GETALLID
//     CMD_GETOBJ     one interface
//     CMD_SETOBJ     takes STD_DESCR; an empty one removes the description.  It can be undone.
//     CMD_GETCOUNT   how many interfaces there are, in STD_GETALLNO
//     CMD_SUBSCRIBE  from now on each interface that changes, comes or goes; of one that is gone there are
//                    STD_ID, STD_DEAD and NAME.  Counters alone are no change.
//
// A description belongs to the name of an interface, whatever index the kernel gives it.  netif may leave: it
// returns with its subscribers and its descriptions, and notifies the subscribers of all objects anew, because it missed
// the changes meanwhile.

#include "kl/field.h"

namespace netif {

inline constexpr unsigned int SERVICE = 32;  // its number in the list of services

inline constexpr kl::field<std::string> NAME{0x20000001};
inline constexpr kl::field<std::vector<unsigned char>> HWADDR{0x30000002};   // absent where there is none
inline constexpr kl::field<std::vector<kl::IPAddr6>> ADDRESSES{0x98000003};  // IPv6
inline constexpr kl::field<unsigned int> MTU{0x08000004};                    // bytes
inline constexpr kl::field<bool> UP{0x00000005};                             // it was switched on
inline constexpr kl::field<unsigned long long> RX_BYTES{0x10000006};
inline constexpr kl::field<unsigned long long> TX_BYTES{0x10000007};
inline constexpr kl::field<unsigned long long> RX_PACKETS{0x10000008};
inline constexpr kl::field<unsigned long long> TX_PACKETS{0x10000009};
inline constexpr kl::field<std::vector<kl::IPAddr6>> ADDRESSES4{0x9800000a};  // IPv4, as ::ffff:a.b.c.d
inline constexpr kl::field<bool> RUNNING{0x0000000b};  // it is up and its other end is there

}  // namespace netif
