// Hooks of the event loop: functions that run once in each pass, before it sleeps.

#include "kl/runner.h"

namespace kl {
namespace {

// Kept on purpose: behind a hook that was removed the next one is passed over without being looked at, so
// of two adjacent hooks with the same pair only the first goes.
// Held by Hooks.OfTwoAdjacentMatchesOnlyTheFirstIsRemoved.
template <class List, class Matches>
void removeMatching(List& list, Matches matches) {
  for (auto before = list.before_begin(), it = list.begin(); it != list.end(); ++it) {
    if (matches(*it)) {
      it = list.erase_after(before);
      if (it == list.end()) return;
    }
    before = it;
  }
}

}  // namespace

void ThinRunner::addBeforeSleep(void* data, HookCallback fn) { hooks_.push_front({data, fn}); }

void ThinRunner::removeBeforeSleep(void* data, HookCallback fn) {
  const auto matches = [=](const Hook& hook) { return hook.data == data && hook.callback == fn; };
  removeMatching(hooks_, matches);
  removeMatching(hooksToRun_, matches);
}

// Kept on purpose: each hook is put at the head of the list before it is called, so the list turns around
// with every pass.  A hook is in one of the two lists at any time: it may remove itself and any other while
// it runs. Held by Hooks.TheOrderTurnsAroundWithEveryPass.
void ThinRunner::runBeforeSleep() {
  if (hooks_.empty()) return;
  hooksToRun_.swap(hooks_);
  while (!hooksToRun_.empty()) {
    hooks_.splice_after(hooks_.before_begin(), hooksToRun_, hooksToRun_.before_begin());
    const Hook hook = hooks_.front();
    hook.callback(hook.data);
  }
}

void ThinRunner::dropHooks() {
  hooks_.clear();
  hooksToRun_.clear();
}

}  // namespace kl
