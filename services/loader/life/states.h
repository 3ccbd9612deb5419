#pragma once
// states.h: the states of a service's life, and what leads from one to another.

#include <cstddef>
#include <span>
#include <string_view>

#include "routing/service.h"

namespace loader {

// README.md explains each of them.
enum class LifeState : unsigned char {
  kStopped,
  kExpected,
  kOnDemand,
  kLeft,
  kDelayed,
  kDelayedFirst,
  kStarting,
  kStartingAgain,
  kHungUp,
  kCutOff,
  kLate,
  kLateAgain,
  kRegistered,
  kRunning,
  kLeaving,
  kLeavingNeeded,
  kSaved,
  kSavedNeeded,
  kStopping,
  kRestarting,
  kGuest,
  kGuestRunning,
  kSubstitute,
  kSubstituteRunning,
  kSame,  // as a target: the state of before
};
inline constexpr std::size_t kLifeStates = static_cast<std::size_t>(LifeState::kSame);

enum class LifeEvent : unsigned char {
  kStart,            // by order, or as the loader begins
  kStop,             // by order, or as the loader ends
  kNeeded,           // something is held that it is to be started for
  kAsked,            // CTRL_LEAVE is on its way to it
  kRegistered,       // its own process has registered
  kTaken,            // another process has registered under its id
  kRunning,          // CTRL_RUNNING has come
  kRefused,          // CTRL_REFUSED has come
  kSaved,            // CTRL_LEFT has come
  kClosed,           // the connection of the process that had registered is closed
  kHungUp,           // its own process closed its connection and had not registered
  kExitedStaysDown,  // its process has ended with status 0, and its configuration decides what follows
  kExitedOnDemand,
  kExitedComesAgain,
  kCrashedStaysDown,  // its process has ended in another way
  kCrashedComesAgain,
  kStartFailed,  // there is no process
  kOverdue,      // its process has not registered in the time that it is given
  kDelayOver,    // of the delay after a crash
  kTimeOut,      // a process that has to end has not
};
inline constexpr std::size_t kLifeEvents = static_cast<std::size_t>(LifeEvent::kTimeOut) + 1;

// The steps of a transition, taken in this order.  The state changes behind kWait, and the table's listener hears of
// it behind kRelease.
enum class Step : unsigned char {
  kCancelDelay,    // the delay after a crash
  kDeclareGone,    // the service is gone: waiting callers are answered, all services are notified
  kGiveUp,         // the same if others count on it still; else only what waits for it is answered
  kDrop,           // what waits for it is answered, what is queued for it is thrown away
  kKeep,           // it has left: what is kept of that is written, what it had not answered is answered
  kForgetProcess,  // it has no process any more
  kLog,            // how its process has ended
  kWait,           // the same, and the delay begins
  kDisarm,         // its process need not end any more
  kGreet,          // CTRL_READY, the ends that it has missed, what was held
  kLaunch,         // a process is started for it; without one StartFailed follows
  kTell,           // SIGTERM, and SIGKILL after its time
  kArm,            // SIGKILL after its time
  kKill,           // SIGKILL
  kRelease,        // what was held is on its way
  kNeed,           // Needed follows
  kDisconnect,     // the connection of the other process is closed; Closed follows
};
inline constexpr std::size_t kSteps = static_cast<std::size_t>(Step::kDisconnect) + 1;

// Some of the steps.
class Steps {
 public:
  constexpr Steps() = default;
  template <class... More>
  constexpr explicit Steps(Step first, More... more) : bits_((bit(first) | ... | bit(more))) {}

  constexpr bool has(Step step) const { return (bits_ & bit(step)) != 0; }
  friend constexpr bool operator==(Steps, Steps) = default;

 private:
  static constexpr unsigned int bit(Step step) { return 1U << static_cast<unsigned int>(step); }
  unsigned int bits_ = 0;
};

enum class ProcessOf : unsigned char { kNobody, kLoader, kSomebodyElse };

// One row of the table of states.
struct StateRow {
  std::string_view name;
  unsigned int shown;  // SVC_STATE_*
  bool holds;          // messages for it wait
  ProcessOf process;
};
const StateRow& rowOf(LifeState state);

// The effect of an event on a service; `to` is kSame when nothing changes but what the steps do.
struct Transition {
  LifeState to = LifeState::kSame;
  Steps steps;
};
// Null when the event does nothing in this state.
const Transition* findTransition(LifeState from, LifeEvent event);

std::string_view nameOf(LifeEvent event);

}  // namespace loader
