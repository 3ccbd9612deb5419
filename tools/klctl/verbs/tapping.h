#pragma once
// tapping.h: the common part of trace and capture: the messages that the user wants, and the way to them.

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "verbs/verb.h"

namespace klctl {

// The request for the tap that the words ask for.  Throws Failure for names that nobody has.
kl::message tapRequest(const CommandLine& line, const Exchange& exchange);

// The same for the user: "errors of netif, command CMD_GET".
std::string tapWish(const CommandLine& line);

// A verb that uses a tap.
struct TapReader {
  std::function<void()> begin;                         // the tap is there
  std::function<void(const kl::message& shown)> take;  // the next object (services/common/tap.h)
  std::function<void()> pause = [] {};                 // there is no other one at the moment
  std::function<bool()> isEnough;
  std::vector<int> signals = {SIGINT};  // by which the user says so
};

// Reads the tap until it is enough, or until one of the signals comes.  Throws Failure when there is no tap
// and when the loader goes away.  Needs: no other connection of the verb.
void followTap(const kl::message& request, const CommandLine& line, const TapReader& reader);

}  // namespace klctl
