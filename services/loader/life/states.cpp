// The two tables of README.md: what each state shows, and the transitions.  Sets of states and events are bits of a
// number, so that one row of the page is one row here; a look-up walks the rows, which is short beside anything that
// happens to a process.

#include "life/states.h"

#include <algorithm>
#include <array>

namespace loader {
namespace {

using S = LifeState;
using E = LifeEvent;

constexpr std::array<StateRow, kLifeStates> kStates{{
    {"Stopped", kl::SVC_STATE_STOPPED, false, ProcessOf::kNobody},
    {"Expected", kl::SVC_STATE_STOPPED, true, ProcessOf::kNobody},
    {"OnDemand", kl::SVC_STATE_LEFT, true, ProcessOf::kNobody},
    {"Left", kl::SVC_STATE_LEFT, true, ProcessOf::kNobody},
    {"Delayed", kl::SVC_STATE_DELAYED, false, ProcessOf::kNobody},
    {"DelayedFirst", kl::SVC_STATE_DELAYED, false, ProcessOf::kNobody},
    {"Starting", kl::SVC_STATE_STARTING, true, ProcessOf::kLoader},
    {"StartingAgain", kl::SVC_STATE_STARTING, false, ProcessOf::kLoader},
    {"HungUp", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"CutOff", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"Late", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"LateAgain", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"Registered", kl::SVC_STATE_REGISTERED, false, ProcessOf::kLoader},
    {"Running", kl::SVC_STATE_RUNNING, false, ProcessOf::kLoader},
    {"Leaving", kl::SVC_STATE_LEAVING, true, ProcessOf::kLoader},
    {"LeavingNeeded", kl::SVC_STATE_LEAVING, true, ProcessOf::kLoader},
    {"Saved", kl::SVC_STATE_LEAVING, true, ProcessOf::kLoader},
    {"SavedNeeded", kl::SVC_STATE_LEAVING, true, ProcessOf::kLoader},
    {"Stopping", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"Restarting", kl::SVC_STATE_STOPPING, false, ProcessOf::kLoader},
    {"Guest", kl::SVC_STATE_REGISTERED, false, ProcessOf::kSomebodyElse},
    {"GuestRunning", kl::SVC_STATE_RUNNING, false, ProcessOf::kSomebodyElse},
    {"Substitute", kl::SVC_STATE_REGISTERED, false, ProcessOf::kSomebodyElse},
    {"SubstituteRunning", kl::SVC_STATE_RUNNING, false, ProcessOf::kSomebodyElse},
}};

constexpr std::array<std::string_view, kLifeEvents> kEventNames{"Start",
                                                                "Stop",
                                                                "Needed",
                                                                "Asked",
                                                                "Registered",
                                                                "Taken",
                                                                "Running",
                                                                "Refused",
                                                                "Saved",
                                                                "Closed",
                                                                "HungUp",
                                                                "ExitedStaysDown",
                                                                "ExitedOnDemand",
                                                                "ExitedComesAgain",
                                                                "CrashedStaysDown",
                                                                "CrashedComesAgain",
                                                                "StartFailed",
                                                                "Overdue",
                                                                "DelayOver",
                                                                "TimeOut"};

template <class... Values>
constexpr unsigned int anyOf(Values... values) {
  return ((1U << static_cast<unsigned int>(values)) | ...);
}

struct Row {
  unsigned int from;
  unsigned int events;
  Transition transition;
};

constexpr unsigned int kExited = anyOf(E::kExitedStaysDown, E::kExitedOnDemand, E::kExitedComesAgain);
constexpr unsigned int kEnded = kExited | anyOf(E::kCrashedStaysDown, E::kCrashedComesAgain);
constexpr unsigned int kLate = anyOf(S::kLate, S::kLateAgain);
constexpr unsigned int kAsked = anyOf(S::kLeaving, S::kLeavingNeeded, S::kSaved, S::kSavedNeeded);

constexpr Row kTransitions[] = {
    {anyOf(S::kStopped, S::kExpected, S::kOnDemand, S::kLeft),
     anyOf(E::kStart),
     {S::kStarting, Steps(Step::kLaunch)}},
    {anyOf(S::kOnDemand, S::kLeft), anyOf(E::kNeeded), {S::kStarting, Steps(Step::kLaunch)}},
    {anyOf(S::kExpected, S::kOnDemand, S::kLeft), anyOf(E::kStop), {S::kStopped, Steps(Step::kGiveUp)}},
    {anyOf(S::kStopped, S::kExpected, S::kOnDemand), anyOf(E::kTaken), {S::kGuest, Steps(Step::kGreet)}},
    {anyOf(S::kLeft), anyOf(E::kTaken), {S::kSubstitute, Steps(Step::kGreet)}},

    {anyOf(S::kDelayed, S::kDelayedFirst),
     anyOf(E::kStart),
     {S::kStarting, Steps(Step::kCancelDelay, Step::kLaunch)}},
    {anyOf(S::kDelayed), anyOf(E::kDelayOver), {S::kStartingAgain, Steps(Step::kLaunch)}},
    {anyOf(S::kDelayedFirst), anyOf(E::kDelayOver), {S::kStarting, Steps(Step::kLaunch)}},
    {anyOf(S::kDelayed, S::kDelayedFirst),
     anyOf(E::kStop),
     {S::kStopped, Steps(Step::kCancelDelay, Step::kGiveUp)}},
    {anyOf(S::kDelayed, S::kDelayedFirst),
     anyOf(E::kTaken),
     {S::kSubstitute, Steps(Step::kCancelDelay, Step::kGreet)}},

    {anyOf(S::kStarting), anyOf(E::kStartFailed), {S::kDelayedFirst, Steps(Step::kWait)}},
    {anyOf(S::kStartingAgain), anyOf(E::kStartFailed), {S::kDelayed, Steps(Step::kWait)}},
    {anyOf(S::kStarting, S::kStartingAgain, S::kHungUp, S::kCutOff),
     anyOf(E::kRegistered),
     {S::kRegistered, Steps(Step::kDisarm, Step::kGreet)}},
    {anyOf(S::kStarting), anyOf(E::kHungUp), {S::kHungUp, Steps(Step::kArm)}},
    {anyOf(S::kStartingAgain), anyOf(E::kHungUp), {S::kCutOff, Steps(Step::kArm)}},

    {anyOf(S::kStarting), anyOf(E::kOverdue), {S::kLate, Steps(Step::kTell)}},
    {anyOf(S::kStartingAgain), anyOf(E::kOverdue), {S::kLateAgain, Steps(Step::kTell)}},

    {anyOf(S::kRegistered), anyOf(E::kRunning), {S::kRunning, Steps()}},
    {anyOf(S::kStarting, S::kStartingAgain, S::kHungUp, S::kCutOff, S::kRegistered, S::kRunning, S::kStopping,
           S::kRestarting) |
         kLate | kAsked,
     anyOf(E::kStop),
     {S::kStopping, Steps(Step::kTell)}},
    {anyOf(S::kRegistered, S::kRunning),
     anyOf(E::kClosed),
     {S::kCutOff, Steps(Step::kDeclareGone, Step::kArm)}},

    {anyOf(S::kRunning), anyOf(E::kAsked), {S::kLeaving, Steps()}},
    {anyOf(S::kLeaving, S::kLeavingNeeded), anyOf(E::kRefused), {S::kRunning, Steps(Step::kRelease)}},
    {anyOf(S::kLeaving), anyOf(E::kNeeded, E::kStart), {S::kLeavingNeeded, Steps()}},
    {anyOf(S::kLeaving), anyOf(E::kSaved), {S::kSaved, Steps(Step::kArm)}},
    {anyOf(S::kLeavingNeeded), anyOf(E::kSaved), {S::kSavedNeeded, Steps(Step::kArm)}},
    {anyOf(S::kSaved), anyOf(E::kNeeded, E::kStart), {S::kSavedNeeded, Steps()}},
    {kAsked, anyOf(E::kClosed), {S::kSame, Steps(Step::kArm)}},
    {anyOf(S::kLeaving), kExited, {S::kLeft, Steps(Step::kKeep, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kLeavingNeeded),
     kExited,
     {S::kLeft, Steps(Step::kKeep, Step::kForgetProcess, Step::kLog, Step::kNeed)}},
    {anyOf(S::kLeaving, S::kLeavingNeeded),
     anyOf(E::kCrashedStaysDown),
     {S::kStopped, Steps(Step::kDeclareGone, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kLeaving, S::kLeavingNeeded),
     anyOf(E::kCrashedComesAgain),
     {S::kDelayed, Steps(Step::kDeclareGone, Step::kForgetProcess, Step::kWait)}},
    {anyOf(S::kSaved), kEnded, {S::kLeft, Steps(Step::kKeep, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kSavedNeeded),
     kEnded,
     {S::kLeft, Steps(Step::kKeep, Step::kForgetProcess, Step::kLog, Step::kNeed)}},

    {anyOf(S::kStopping, S::kHungUp, S::kCutOff) | kLate, anyOf(E::kStart), {S::kRestarting, Steps()}},
    {anyOf(S::kStopping, S::kRestarting) | kLate, anyOf(E::kClosed), {S::kSame, Steps(Step::kDeclareGone)}},
    {anyOf(S::kStopping, S::kRestarting, S::kLateAgain),
     anyOf(E::kRegistered),
     {S::kSame, Steps(Step::kGreet)}},
    {anyOf(S::kLate), anyOf(E::kRegistered), {S::kLateAgain, Steps(Step::kGreet)}},
    {anyOf(S::kStopping), kEnded, {S::kStopped, Steps(Step::kGiveUp, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kRestarting),
     kEnded,
     {S::kStarting, Steps(Step::kDrop, Step::kForgetProcess, Step::kLog, Step::kLaunch)}},
    {anyOf(S::kHungUp, S::kCutOff) | kLate,
     anyOf(E::kExitedStaysDown, E::kCrashedStaysDown),
     {S::kStopped, Steps(Step::kGiveUp, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kHungUp, S::kCutOff) | kLate,
     anyOf(E::kExitedOnDemand),
     {S::kOnDemand, Steps(Step::kGiveUp, Step::kForgetProcess, Step::kLog)}},
    {anyOf(S::kHungUp, S::kLate),
     anyOf(E::kExitedComesAgain, E::kCrashedComesAgain),
     {S::kDelayedFirst, Steps(Step::kDrop, Step::kForgetProcess, Step::kWait)}},
    {anyOf(S::kCutOff, S::kLateAgain),
     anyOf(E::kExitedComesAgain, E::kCrashedComesAgain),
     {S::kDelayed, Steps(Step::kDrop, Step::kForgetProcess, Step::kWait)}},
    {anyOf(S::kHungUp, S::kCutOff, S::kStopping, S::kRestarting) | kLate | kAsked,
     anyOf(E::kTimeOut),
     {S::kSame, Steps(Step::kKill)}},

    {anyOf(S::kGuest), anyOf(E::kRunning), {S::kGuestRunning, Steps()}},
    {anyOf(S::kSubstitute), anyOf(E::kRunning), {S::kSubstituteRunning, Steps()}},
    {anyOf(S::kGuest), anyOf(E::kStart), {S::kSubstitute, Steps()}},
    {anyOf(S::kGuestRunning), anyOf(E::kStart), {S::kSubstituteRunning, Steps()}},
    {anyOf(S::kGuest, S::kGuestRunning), anyOf(E::kStop), {S::kSame, Steps(Step::kDisconnect)}},
    {anyOf(S::kSubstitute), anyOf(E::kStop), {S::kGuest, Steps(Step::kDisconnect)}},
    {anyOf(S::kSubstituteRunning), anyOf(E::kStop), {S::kGuestRunning, Steps(Step::kDisconnect)}},
    {anyOf(S::kGuest, S::kGuestRunning),
     anyOf(E::kClosed),
     {S::kStopped, Steps(Step::kDeclareGone, Step::kForgetProcess)}},
    {anyOf(S::kSubstitute, S::kSubstituteRunning),
     anyOf(E::kClosed),
     {S::kDelayed, Steps(Step::kDeclareGone, Step::kForgetProcess, Step::kWait)}},
};

}  // namespace

const StateRow& rowOf(LifeState state) { return kStates[static_cast<std::size_t>(state)]; }

const Transition* findTransition(LifeState from, LifeEvent event) {
  const auto found = std::find_if(std::begin(kTransitions), std::end(kTransitions), [&](const Row& row) {
    return (row.from & anyOf(from)) != 0 && (row.events & anyOf(event)) != 0;
  });
  return found == std::end(kTransitions) ? nullptr : &found->transition;
}

std::string_view nameOf(LifeEvent event) { return kEventNames[static_cast<std::size_t>(event)]; }

}  // namespace loader
