#pragma once
// kl/services.h: what the companions of the library say to other services: their field ids, commands and
// codes.
//
// The loader answers as service 1 (kl::SERVICE_LOADER) with a table of services, itself included: one object
// per service that is configured or connected, its STD_ID the service's id.  CMD_GETALL, CMD_GETOBJ and
// CMD_GETCOUNT read it, CMD_SUBSCRIBE follows it, CMD_SETOBJ acts on one service:
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
//     m.insert(kl::STD_ID, 32);
//     m.insert(kl::SVC_ACTION, kl::SVC_RESTART);
//     const kl::message answer = handler.exchangeCmd(m, kl::CMD_SETOBJ, 500);

#include <string>
#include <vector>

#include "kl/field.h"

namespace kl {

// Fields of one service in the loader's table.  "In" and "out" are the service's own view: in is what was
// delivered to it, out is what it sent.
inline constexpr field<std::string> SVC_NAME{0x20000001};     // configured, or the name of its program
inline constexpr field<unsigned int> SVC_PID{0x08000002};     // absent while no process runs
inline constexpr field<std::string> SVC_USER{0x20000003};     // the user whom its requests are made for
inline constexpr field<unsigned int> SVC_STATE{0x08000004};   // SVC_STATE_...
inline constexpr field<unsigned int> SVC_STARTS{0x08000005};  // how often it was started
inline constexpr field<unsigned long long> SVC_MESSAGES_IN{0x10000006};
inline constexpr field<unsigned long long> SVC_MESSAGES_OUT{0x10000007};
inline constexpr field<unsigned long long> SVC_BYTES_IN{0x10000008};  // frames, length prefix included
inline constexpr field<unsigned long long> SVC_BYTES_OUT{0x10000009};
inline constexpr field<unsigned int> SVC_QUEUE{0x0800000a};        // bytes that wait until it reads
inline constexpr field<unsigned int> SVC_REQUESTS{0x0800000b};     // requests that it has not answered yet
inline constexpr field<unsigned long long> SVC_DROPS{0x1000000c};  // messages for it that its full queue lost

// In CMD_SETOBJ: what to do with the service.
inline constexpr field<unsigned int> SVC_ACTION{0x0800000d};

// Values of SVC_STATE.
inline constexpr unsigned int SVC_STATE_STOPPED = 1;     // only an action starts it
inline constexpr unsigned int SVC_STATE_STARTING = 2;    // its process runs and has not registered
inline constexpr unsigned int SVC_STATE_REGISTERED = 3;  // it can be talked to
inline constexpr unsigned int SVC_STATE_RUNNING = 4;     // it has said that it entered its loop
inline constexpr unsigned int SVC_STATE_DELAYED = 5;     // it ended and is started again after a while
inline constexpr unsigned int SVC_STATE_STOPPING = 6;    // it was told to end
inline constexpr unsigned int SVC_STATE_LEAVING = 7;     // it was asked to leave
inline constexpr unsigned int SVC_STATE_LEFT = 8;        // it left; a message for it starts it again

// Values of SVC_ACTION.
inline constexpr unsigned int SVC_START = 1;    // starts it now, whatever delay it waits for
inline constexpr unsigned int SVC_STOP = 2;     // SIGTERM, and SIGKILL after 2 s
inline constexpr unsigned int SVC_RESTART = 3;  // the two together
inline constexpr unsigned int SVC_LEAVE = 4;    // asks it to save its state and end

// Values of SYS_CTRL in messages between the loader and a process, all of them on the path [1].  The
// library's Looper speaks them for every service; they stand here for whoever speaks to the loader without
// one.
inline constexpr unsigned int CTRL_LEAVE = 1;        // loader: please leave
inline constexpr unsigned int CTRL_LEFT = 2;         // process: leaves, with its persistent data
inline constexpr unsigned int CTRL_REFUSED = 3;      // process: does not leave
inline constexpr unsigned int CTRL_WANT_LEAVE = 4;   // process: wishes to be asked to leave
inline constexpr unsigned int CTRL_HELLO = 5;        // process: registers, with REGISTRATION_VALUES
inline constexpr unsigned int CTRL_RUNNING = 6;      // process: has entered its loop
inline constexpr unsigned int CTRL_LEAVE_VALUE = 7;  // process: may leave (SYS_CTRL_ARG not 0) or may not
inline constexpr unsigned int CTRL_READY = 8;        // loader: registered

// In CTRL_HELLO: twelve values, the service id asked for (0: the loader picks one) and the version word of
// the service in front; the others are 0.
inline constexpr field<std::vector<unsigned int>> REGISTRATION_VALUES{0x88000001};

// In CTRL_READY.
inline constexpr field<unsigned int> READY_ID{0x08000001};             // the service id given
inline constexpr field<unsigned int> READY_VERSION{0x08000002};        // the loader's version word
inline constexpr field<unsigned int> READY_STARTS{0x08000003};         // the number of this start, from 1
inline constexpr field<message::flat_message> READY_DATA{0x28000004};  // what the last leave saved, if it did
inline constexpr field<message::flat_message> READY_CONFIGURATION{
    0x28000005};  // its settings, if there are any

// Topics of log lines (kl/logger.h).  1 to 8 say how much a line matters, the others who writes it; topics of
// services of your own begin at 256.
inline constexpr unsigned int TOPIC_EMERGENCY = 1;  // the system cannot be used
inline constexpr unsigned int TOPIC_ALERT = 2;      // somebody must act at once
inline constexpr unsigned int TOPIC_CRITICAL = 3;   // a part has failed
inline constexpr unsigned int TOPIC_ERROR = 4;      // something could not be done
inline constexpr unsigned int TOPIC_WARNING = 5;    // something may fail later
inline constexpr unsigned int TOPIC_NOTICE = 6;     // normal, and worth keeping
inline constexpr unsigned int TOPIC_INFO = 7;       // what is going on
inline constexpr unsigned int TOPIC_DEBUG = 8;      // for whoever looks for a fault
inline constexpr unsigned int TOPIC_LOADER = 16;
inline constexpr unsigned int TOPIC_UNDO = 17;
inline constexpr unsigned int TOPIC_SYSTEM = 18;
inline constexpr unsigned int TOPIC_LOGD = 19;  // the log service
inline constexpr unsigned int TOPIC_NETIF = 32;

}  // namespace kl
