#pragma once
// kl/commands.h: a handler with an operation for each command that its description adds to those of the conventions.

#include <utility>

#include "kl/callable.h"
#include "kl/described.h"
#include "kl/message.h"
#include "kl/result.h"

namespace kl {

class Handler;

// The error reply to a request that breaks the rules, with the names of the fields: "host: at most 63 bytes".  Empty
// for one that keeps to them.
message refusalOf(const ObjectRules& rules, const message& request);

namespace detail {

inline message replyOf(const Error& error) { return error.reply(); }
template <class T>
message replyOf(const Result<T>& result) {
  return result ? result->toMessage() : result.error().reply();
}

// Those of the conventions have the rights of the conventions.
template <class Object, class Policies>
void setRights(Policies& policies) {
  for (const CommandRule& command : Object::kRules.commands) policies.set_policy(command.code, command.right);
}

}  // namespace detail

// A handler for commands that are no table's.  For a command `release_all` that takes `host` and gives `released`,
//
//     class Pool : public kl::Commands<leases::Pool> {
//       kl::Result<leases::PoolReleaseAllReply> cmdReleaseAll(const leases::PoolReleaseAllRequest& asked,
//                                                             const kl::message& request) override {
//         if (isBusy()) return kl::Error{kl::ERROR_BUSY};
//         return leases::PoolReleaseAllReply{.released = release(asked.host)};
//       }
//     };
//
// A command that takes nothing has the request alone, one that gives nothing returns a kl::Error, `{}` where it was
// carried out.  A request that reaches an operation keeps to the description: `required`, `min`, `max` and `values` of
// the fields that the command takes.  The rights are those of the description.  An operation that is not overridden
// answers ERROR_NOTIMP.  kl::Table and kl::TableView have these operations, too.
//
// Base is kl::Handler, or kl::Looper where the service itself is the handler; its constructor's arguments are passed on.
//
// Errors:    ERROR_MISSING, ERROR_TOOBIG or ERROR_FAILED with the names of the fields of a request that does not keep to
//            the description; what the operations say.
// Ownership: a handler, and owned as one.
// Threads:   as any handler.
// Cost:      a comparison for each command of the description, for commands that are not of the conventions.
template <class Object, class Base = Handler>
class Commands : public Object::template Operations<Base> {
 public:
  template <class... Args>
  explicit Commands(Args&&... args) : Object::template Operations<Base>(std::forward<Args>(args)...) {
    detail::setRights<Object>(this->accessPolicies());
  }
};

}  // namespace kl
