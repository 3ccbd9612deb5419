#pragma once
// kl/conventions.h: the fields, codes and texts that every message between services is made of.
//
// A message travels with its routing and protocol state in ordinary fields.  Two name spaces are
// reserved for them: SYS_ for what the message system itself reads, STD_ for what every service
// that shows a table of objects shares.  The constants are typed, so an id and the operation that
// it is used with cannot disagree:
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {32, 0});                      // handler 0 of service 32
//     m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
//     m.insert(kl::STD_ID, 2);
//     m.get_u32(kl::SYS_CMD, kl::CMD_NOOP);               // the plain operations take them too
//
// Field ids, command codes and error codes have one shape: bits 31..27 the type (field ids only),
// bits 23..16 the name space (0x00 global, 0xfd local, 0xfe std, 0xff sys), bits 15..0 the number.

#include <cstddef>
#include <string>
#include <vector>

#include "kl/export.h"
#include "kl/field.h"

namespace kl {

// System fields.  Written and read by the message loop and the handlers.
inline constexpr field<std::vector<unsigned int>> SYS_TO{0x88ff0001};    // path to travel, first hop first
inline constexpr field<std::vector<unsigned int>> SYS_FROM{0x88ff0002};  // path back to the sender
inline constexpr field<unsigned int> SYS_TYPE{0x08ff0003};               // TYPE_...; absent means a request
inline constexpr field<unsigned int> SYS_STATUS{0x08ff0004};             // STATUS_...; absent means OK
inline constexpr field<bool> SYS_REPLYEXP{0x00ff0005};                   // the sender expects a reply
inline constexpr field<unsigned int> SYS_REQID{0x08ff0006};              // copied into the reply
inline constexpr field<unsigned int> SYS_CMD{0x08ff0007};                // CMD_...; absent means CMD_NOOP
inline constexpr field<unsigned int> SYS_ERRNO{0x08ff0008};     // ERROR_...; absent means ERROR_UNKNOWN
inline constexpr field<std::string> SYS_ERRSTR{0x20ff0009};     // free text of an error reply
inline constexpr field<std::string> SYS_USER{0x20ff000a};       // the user who issued the request
inline constexpr field<unsigned int> SYS_POLICY{0x08ff000b};    // the rights of the request; absent means all
inline constexpr field<unsigned int> SYS_CTRL{0x08ff000d};      // control code between process and loader
inline constexpr unsigned int SYS_RADDR = 0x00ff000e;           // reserved; its type is its users' choice
inline constexpr field<unsigned int> SYS_CTRL_ARG{0x08ff000f};  // argument of a control message
// The command that notifications carry, in the request that subscribes or unsubscribes.
inline constexpr field<unsigned int> SYS_NOTIFYCMD{0x08ff0011};
// SYS_FROM of the request that caused the change, in the notification.  That sender gets none.
inline constexpr field<std::vector<unsigned int>> SYS_NOTIFYPATH{0x88ff0012};

// Standard fields of services that show a table of objects.
inline constexpr field<unsigned int> STD_ID{0x08fe0001};  // the object addressed, or the object carried
inline constexpr field<std::vector<message::flat_message>> STD_OBJS{0xa8fe0002};  // a list of objects
inline constexpr field<unsigned int> STD_GETALLID{0x08fe0003};  // CMD_GETALL: id to start from; absent: BADID
inline constexpr field<unsigned int> STD_GETALLNO{0x08fe0004};  // CMD_GETALL: how many; absent: 0
inline constexpr field<unsigned int> STD_NEXTID{0x08fe0005};  // the object that follows in the table's order
inline constexpr field<unsigned int> STD_UNDOID{0x08fe0006};  // an undo record
inline constexpr field<bool> STD_DYNAMIC{0x00fe0007};         // object attributes
inline constexpr field<bool> STD_INACTIVE{0x00fe0008};
inline constexpr field<std::string> STD_DESCR{0x20fe0009};
inline constexpr field<bool> STD_DISABLED{0x00fe000a};
inline constexpr unsigned int STD_FINISHED = 0x00fe000b;    // its type is its users' choice
inline constexpr field<unsigned int> STD_DEAD{0x08fe0013};  // in a notification: the object is gone

// Values of SYS_TYPE.
inline constexpr unsigned int TYPE_REQUEST = 1;
inline constexpr unsigned int TYPE_REPLY = 2;

// Values of SYS_STATUS.
inline constexpr unsigned int STATUS_OK = 1;
inline constexpr unsigned int STATUS_ERROR = 2;

// Values of SYS_CMD.  kl/looper.h says which operation of a handler each of them reaches.
inline constexpr unsigned int CMD_NOOP = 0xfe0000;  // answered with an empty reply
inline constexpr unsigned int CMD_GETPOLICIES = 0xfe0001;
inline constexpr unsigned int CMD_GETOBJ = 0xfe0002;
inline constexpr unsigned int CMD_SETOBJ = 0xfe0003;
inline constexpr unsigned int CMD_GETALL = 0xfe0004;
inline constexpr unsigned int CMD_ADDOBJ = 0xfe0005;
inline constexpr unsigned int CMD_REMOVEOBJ = 0xfe0006;
inline constexpr unsigned int CMD_MOVEOBJ = 0xfe0007;
// 0xfe0008 to 0xfe000a are not assigned.
inline constexpr unsigned int CMD_NOTIFY = 0xfe000b;
inline constexpr unsigned int CMD_SHUTDOWN = 0xfe000c;
inline constexpr unsigned int CMD_GET = 0xfe000d;
inline constexpr unsigned int CMD_SET = 0xfe000e;
// Each service that takes START, POLL or CANCEL gives them their meaning.
inline constexpr unsigned int CMD_START = 0xfe000f;
inline constexpr unsigned int CMD_POLL = 0xfe0010;
inline constexpr unsigned int CMD_CANCEL = 0xfe0011;
inline constexpr unsigned int CMD_SUBSCRIBE = 0xfe0012;
inline constexpr unsigned int CMD_UNSUBSCRIBE = 0xfe0013;
inline constexpr unsigned int CMD_DISCONNECTED = 0xfe0014;
inline constexpr unsigned int CMD_GETCOUNT = 0xfe0015;
inline constexpr unsigned int CMD_RESET = 0xfe0016;

// Values of SYS_ERRNO.
inline constexpr unsigned int ERROR_OK = 0;
inline constexpr unsigned int ERROR_UNKNOWN = 0xfe0001;
inline constexpr unsigned int ERROR_BRKPATH = 0xfe0002;
inline constexpr unsigned int ERROR_NOTIMP = 0xfe0003;
inline constexpr unsigned int ERROR_UNKNOWNID = 0xfe0004;
inline constexpr unsigned int ERROR_MISSING = 0xfe0005;
inline constexpr unsigned int ERROR_FAILED = 0xfe0006;
inline constexpr unsigned int ERROR_EXISTS = 0xfe0007;
// 0xfe0008 has no name; the codes after it keep their numbers.
inline constexpr unsigned int ERROR_NOTALLOWED = 0xfe0009;
inline constexpr unsigned int ERROR_TOOBIG = 0xfe000a;
inline constexpr unsigned int ERROR_UNKNOWNNEXTID = 0xfe000b;
inline constexpr unsigned int ERROR_BUSY = 0xfe000c;
inline constexpr unsigned int ERROR_TIMEOUT = 0xfe000d;

// First elements of SYS_TO that the sending process itself acts on.
inline constexpr unsigned int PATH_ALL = 0xff0001;    // every process, this one too
inline constexpr unsigned int PATH_MULTI = 0xff0002;  // sub-paths follow, each as a count and so many ids
inline constexpr unsigned int PATH_SELF = 0xff0003;   // this process

// Rights: bits of SYS_POLICY.  A command is allowed when the request has every right that it needs; kl::policies
// (kl/looper.h) holds what each command needs.
inline constexpr unsigned int RIGHT_READ = 64;
inline constexpr unsigned int RIGHT_CHANGE = 128;
inline constexpr unsigned int RIGHT_CONTROL = 512;           // CMD_START, CMD_POLL, CMD_CANCEL
inline constexpr unsigned int RIGHT_CONTENTS = 1024;         // undo records and log lines of other users
inline constexpr unsigned int RIGHT_OF_NOBODY = 0x80000000;  // only requests without SYS_POLICY have it
inline constexpr unsigned int RIGHTS_ALL = 0xffffffff;       // of a request without SYS_POLICY

// The reply to CMD_GETPOLICIES: STD_OBJS with an object for each command, its STD_ID the command.
inline constexpr field<unsigned int> POLICY_RIGHTS{0x08000001};  // those that the command needs
inline constexpr field<bool> POLICY_ALLOWED{0x00000002};         // the request has all of them

// No handler, no object.
inline constexpr unsigned int BADID = 0xffffffff;

// The bits of a field id that are its name space, and the name spaces that are reserved.  0 is that of the services:
// each of them gives its own meaning to the numbers in it.
inline constexpr unsigned int NAMESPACE_MASK = 0x00ff0000;
inline constexpr unsigned int NAMESPACE_LOCAL = 0x00fd0000;  // a process's own; no message brings one
inline constexpr unsigned int NAMESPACE_STD = 0x00fe0000;
inline constexpr unsigned int NAMESPACE_SYS = 0x00ff0000;

// A connection to the loader carries frames: the length of a flattened message, the low byte first, and so many bytes.
// A Looper does not send a longer message, and the loader disconnects a process that announces one.
inline constexpr std::size_t FRAME_PREFIX_BYTES = 4;
inline constexpr std::size_t FRAME_MOST_BYTES = 65535;  // behind the prefix

// The descriptor at which a process that the loader starts finds its connection.
inline constexpr int CONNECTION_DESCRIPTOR = 3;

// Services that the library itself talks to.
inline constexpr unsigned int SERVICE_LOADER = 1;
inline constexpr unsigned int SERVICE_UNDO = 17;
inline constexpr unsigned int SERVICE_SYSTEM = 24;

// Service numbers from 0 to kServiceNames - 1 have a name (see lib/protocol/services.list).
inline constexpr unsigned int kServiceNames = 107;

// A message without SYS_TYPE is a request; one with a foreign type is neither request nor reply.
KL_API bool isRequest(const message& msg);
KL_API bool isReply(const message& msg);
KL_API bool isReplyExpected(const message& msg);

// True when the field is there; its value goes through the pointer unless that is null.
KL_API bool isCtrl(const message& msg, unsigned int* code = nullptr);
KL_API bool getRequestID(const message& msg, unsigned int* id = nullptr);

// Replace whatever value was there.
KL_API void setRequestID(message& msg, unsigned int id);
KL_API void setType(message& msg, unsigned int type);
KL_API unsigned int getType(const message& msg);

// The body of an error reply.  An empty text leaves SYS_ERRSTR out.
KL_API message errorMsg(unsigned int code, const std::string& text);
// ERROR_FAILED with the text "control message (n)".
KL_API message ctrlErrorMsg(unsigned int n);

// True for STATUS_ERROR; code and text go through the pointers that are not null
// (ERROR_UNKNOWN and the empty text where the message has none).
KL_API bool isError(const message& msg, unsigned int* code = nullptr, std::string* text = nullptr);
// "ok", or the description of the error as getErrorDescr gives it.
KL_API std::string getError(const message& msg);
// "std failure: timeout (13)"; a text replaces the words: "text (13)".
KL_API std::string getErrorDescr(unsigned int code, const std::string& text);

// Remove the protocol fields, so that the fields of the caller remain.
// cleanSys keeps SYS_ERRSTR, SYS_RADDR, SYS_CTRL_ARG, SYS_NOTIFYCMD and SYS_NOTIFYPATH.
KL_API void cleanSys(message& msg);
// cleanStd keeps STD_FINISHED and STD_DEAD.
KL_API void cleanStd(message& msg);

// The name of a service number, valid for ever; null from kServiceNames on.  Async-signal-safe.
KL_API const char* findServiceName(unsigned int id);
// The number of a service name, or BADID.
KL_API unsigned int findServiceID(const std::string& name);

}  // namespace kl
