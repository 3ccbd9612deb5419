#pragma once
// system_users.h: whose processes run the system.

#include <unistd.h>

namespace logd {

// Root, the log service's own user and the loader's: they trust each other, share one part of what is bounded, and are
// not kept out by anybody else.
class SystemUsers {
 public:
  SystemUsers() = default;
  explicit SystemUsers(unsigned int ofTheLoader) : loader_(ofTheLoader) {}

  bool have(unsigned int uid) const { return uid == 0 || uid == own_ || uid == loader_; }

 private:
  unsigned int own_ = static_cast<unsigned int>(::geteuid());
  unsigned int loader_ = 0;
};

}  // namespace logd
