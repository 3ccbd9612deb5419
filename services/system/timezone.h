#pragma once
// timezone.h: handler 0 of the system service, the local time zone.

#include "kl/looper.h"
#include "zone_watch.h"

namespace kl_system {

// Answers CMD_GET with SYSTEM_TIMEZONE and sends its subscribers SYSTEM_TIMEZONE_CHANGED.
//
// Errors:    none.
// Ownership: the loop and the context are borrowed while it lives.
// Threads:   the loop's.
// Cost:      that of ZoneWatch.
class Timezone : public kl::Handler {
 public:
  // Calls changed(context) as well when the offset changes.
  Timezone(kl::Runner& loop, void* context, void (*changed)(void*));

  // Seconds east of UTC.
  int offset() const { return watch_.offset(); }

 private:
  kl::message cmdGet(const kl::message& request) override;
  void onChange();

  void* context_;
  void (*changed_)(void*);
  ZoneWatch watch_;
};

}  // namespace kl_system
