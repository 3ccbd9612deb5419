#pragma once
// viewers.h: who sees which record.

#include <string>

#include "kl/message.h"

namespace undo {

// A record holds what was asked, which may be a password: it is shown to root, to the user whom it names, and to whoever
// has the right "contents" here.
//
// Errors:    none.
// Ownership: a value.
// Threads:   a value.
class Viewer {
 public:
  // The sender of a request.  The loader has put its user and its rights there; only root's have no rights.
  static Viewer of(const kl::message& request);
  // The sender of the request that a subscription was made of.
  static Viewer ofSubscription(const kl::message& record);

  // `user` is the one whom the record names.
  bool sees(const std::string& user) const { return seesAll_ || (!user_.empty() && user == user_); }

 private:
  Viewer(std::string user, bool seesAll);

  std::string user_;
  bool seesAll_;
};

// A request to subscribe or to unsubscribe with its sender among the fields that the library keeps.
kl::message withViewer(const kl::message& request);

}  // namespace undo
