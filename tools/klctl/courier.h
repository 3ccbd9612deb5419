#pragma once
// courier.h: the process that holds the connection to the loader.
//
// The library's message loop ends its process when the loader is lost and prints its own lines on the standard
// output.  klctl promises an exit status of its own for that and a standard output with results only, so the
// loop lives in a child process, the courier.  The two talk over a socket pair (pipe.h):
//
//     courier -> klctl   an empty string: registered
//     klctl -> courier   a request: what to do, the time-out, the flattened message
//     courier -> klctl   the flattened reply, or an empty string for a message that expects none
//
// The courier ends when klctl closes its side.

namespace klctl {

// What stands in front of a flattened message, in the host's order.
struct Order {
  enum Kind : int { kExchange, kSend };
  Kind kind;
  int timeoutTicks;
};

// Registers over a connected socket and carries messages until klctl ends.
[[noreturn]] void runCourier(int loaderSocket, int klctlSocket);

}  // namespace klctl
