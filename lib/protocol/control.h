#pragma once
// control.h: what a process and its loader say to each other in control messages, all of them on the path [1].

#include "kl/conventions.h"

namespace kl::control {

// Values of SYS_CTRL.
inline constexpr unsigned int kLeave = 1;          // loader: please leave
inline constexpr unsigned int kLeaveAccepted = 2;  // process: it leaves, with its persistent data
inline constexpr unsigned int kLeaveRefused = 3;   // process: not now
inline constexpr unsigned int kWantsToLeave = 4;   // process: ask me to leave
inline constexpr unsigned int kRegister = 5;       // process: the first message of a connection
inline constexpr unsigned int kRunning = 6;        // process: it has entered its loop
inline constexpr unsigned int kReadiness = 7;      // process: whether it could leave now, as SYS_CTRL_ARG
inline constexpr unsigned int kReady = 8;          // loader: the registration is confirmed

// The persistent data of the process, in kReady and kLeaveAccepted.
inline constexpr field<message::flat_message> kPermData{0x28000004};
// In kReady: what the loader tells this service.
inline constexpr field<message::flat_message> kLoaderData{0x28000005};

// The command under which the system service reports changes of the time zone, and its field.
inline constexpr unsigned int kTimezoneChanged = 0x60001;
inline constexpr field<unsigned int> kTimezone{0x0800001b};  // seconds, as a two's complement

}  // namespace kl::control
