#pragma once
// kl/rights.h: the loader's answers about rights.
//
// The loader, service 1 (kl::SERVICE_LOADER), says which line of its configuration decides about a request:
//
//     CMD_EXPLAIN_RIGHTS  what the user RIGHTS_USER may do at RIGHTS_TO, and which line of the loader's configuration
//                         says so.  RIGHTS_SENDER is a service as whose process the user sends, if that has rights
//                         of its own; RIGHTS_COMMAND is the command in question.  Without RIGHTS_USER the asker's
//                         own requests are explained.  To ask about another user needs RIGHT_CONTROL
//     CMD_LIST_RIGHTS     the entries of the configuration in the order in which they are asked, in STD_OBJS: all of
//                         them, or those for requests to the service STD_ID.  Needs RIGHT_CONTROL
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
//     m.insert(kl::RIGHTS_USER, "guest");
//     m.insert(kl::RIGHTS_TO, {32});
//     m.insert(kl::RIGHTS_COMMAND, kl::CMD_REMOVEOBJ);
//     const kl::message answer = handler.exchangeCmd(m, kl::CMD_EXPLAIN_RIGHTS, 500);

#include <string>
#include <vector>

#include "kl/field.h"

namespace kl {

inline constexpr unsigned int CMD_EXPLAIN_RIGHTS = 0x60001;
inline constexpr unsigned int CMD_LIST_RIGHTS = 0x60002;

// Fields of the request.  RIGHTS_BITS are the rights that a request of the user carried: where its sender spoke for the
// user, he has no others.
inline constexpr field<std::string> RIGHTS_USER{0x2000000e};              // and in the reply
inline constexpr field<unsigned int> RIGHTS_SENDER{0x0800000f};           // a service
inline constexpr field<std::vector<unsigned int>> RIGHTS_TO{0x88000010};  // as SYS_TO
inline constexpr field<unsigned int> RIGHTS_COMMAND{0x08000011};

// Fields of the reply.
inline constexpr field<unsigned int> RIGHTS_VERDICT{0x08000012};        // RIGHTS_ALLOWED, ...
inline constexpr field<unsigned int> RIGHTS_BITS{0x08000013};           // of the user's requests; absent: all
inline constexpr field<message::flat_message> RIGHTS_RULE{0x28000014};  // the entry that decided
inline constexpr field<std::vector<message::flat_message>> RIGHTS_PASSED{0xa8000015};  // those before it
inline constexpr field<std::string> RIGHTS_FILE{0x20000016};  // the configuration; absent without one
// The rights that the command needs by the configuration; absent where that leaves it to the service.
inline constexpr field<unsigned int> RIGHTS_NEEDED{0x08000017};

// Fields of an entry.
inline constexpr field<std::string> RULE_TABLE{0x20000018};   // "rights", "access of netif", "built in"
inline constexpr field<std::string> RULE_KEY{0x20000019};     // "bob", "@wheel", "default"
inline constexpr field<unsigned int> RULE_LINE{0x0800001a};   // absent of what is built in
inline constexpr field<std::string> RULE_RIGHTS{0x2000001b};  // "none", "all", "read and change"

// Values of RIGHTS_VERDICT.
inline constexpr unsigned int RIGHTS_ALLOWED = 1;  // the loader delivers it; the service may ask for more
inline constexpr unsigned int RIGHTS_DENIED = 2;   // the loader refuses it
inline constexpr unsigned int RIGHTS_OPEN = 3;  // the loader delivers it, and leaves the rest to the service

}  // namespace kl
