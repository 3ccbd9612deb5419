#pragma once
// kl/follower.h: a copy of another service's table, by the structure that klgen makes of its description.

#include <cstddef>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "kl/conventions.h"
#include "kl/described.h"
#include "kl/message.h"
#include "kl/result.h"
#include "kl/watcher.h"

namespace kl {

// A handler that keeps a copy of a table, whatever happens to the service that has it, and says what became different:
//
//     class Printer : public kl::Follower<leases::Lease> {
//       void added(const leases::Lease& lease) override { print("new: " + lease.host.value_or("?")); }
//       void changed(const leases::Lease& before, const leases::Lease& now) override { ... }
//       void removed(const leases::Lease& lease) override { print("gone: " + lease.host.value_or("?")); }
//     };
//
//     Printer printer;
//     looper.addHandler(1, &printer);                // a number of its own: notifications come to it
//     printer.follow();                              // where the description says; the service need not run yet
//
// It subscribes, reads the table part by part and takes the notifications from then on.  When the service ends, with
// STD_DEAD or without a word, in the middle of a part or between two, it waits until there is one again and reads anew.
// The copy stays meanwhile: lost() and complete() say when it is out of date and when it is not, and what changed in
// between is told as if it had changed then.
//
// An object that is reported again without a difference causes no call.  A handler gets no notification of a change
// that it asked for itself: a program that changes the table asks from another handler.
//
// Errors:    an error of the service is one call of lost() and a retry (kl/watcher.h).
// Ownership: a handler, and owned as one.  Owns its copy, as messages.
// Threads:   as any handler.  A callback may do everything but destroy the follower.
// Cost:      a message for each object, in a map; its structure is made when it is asked for or told.
template <class Object>
class Follower : public Watcher {
 public:
  // Begins to follow the table of the description.  Needs: a Looper that this handler was added to; a description in
  // which the service has a number.
  void follow() requires(Object::kRules.service != ObjectRules::kNone) { follow(Object::kRules.path()); }
  // The table there.  `filter` holds what the service takes as a filter of subscriptions and of CMD_GETALL.
  void follow(const std::vector<unsigned int>& path, const message& filter = message()) {
    rows_.clear();
    Watcher::watch(path, filter);
  }
  // Unsubscribes and forgets the copy; nothing is told of that.
  void stop() {
    Watcher::stop();
    rows_.clear();
  }

  // The copy.  isComplete() says whether it is current.
  std::size_t size() const { return rows_.size(); }
  std::optional<Object> find(unsigned int id) const {
    const auto row = rows_.find(id);
    return row == rows_.end() ? std::nullopt : std::optional(Object::fromMessage(row->second));
  }
  // f(const Object&) for each, in ascending order.  f changes neither the copy nor what is followed.
  template <class F>
  void forEach(F f) const {
    for (const auto& [id, row] : rows_) f(Object::fromMessage(row));
  }

  // Called for each event; the copy is as it is afterwards.  The defaults do nothing.
  virtual void added(const Object&) {}
  virtual void changed(const Object& before, const Object& now) { (void)before, (void)now; }
  virtual void removed(const Object&) {}
  // The copy is whole and current, for the first time or again.
  virtual void complete() {}
  // The service is lost, or has answered with an error; without one its end was announced.
  virtual void lost(const Error&) {}

  void objectChanged(const message& object) final {
    const auto [row, isNew] = rows_.try_emplace(object.get(STD_ID, BADID), object);
    if (isNew) return added(Object::fromMessage(object));
    if (row->second == object) return;
    const message before = std::exchange(row->second, object);
    changed(Object::fromMessage(before), Object::fromMessage(object));
  }
  void objectRemoved(unsigned int id) final {
    if (const auto row = rows_.extract(id)) removed(Object::fromMessage(row.mapped()));
  }
  void tableComplete() final { complete(); }
  void providerLost(const message& reason) final { lost(Error::of(reason)); }

 private:
  using Watcher::watch;

  std::map<unsigned int, message> rows_;
};

}  // namespace kl
