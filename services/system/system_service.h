#pragma once
// system_service.h: the table of figures, and the process that shows it.

#include <array>

#include "figures.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "timezone.h"

namespace kl_system {

// Service 24.  Its objects are read from the machine when somebody asks; while somebody has subscribed, it reads them
// every five seconds and notifies changes.
//
// Errors:    as kl::Looper.
// Ownership: one in a process.
// Threads:   one.
// Cost:      nothing but the hourly look at the zone while nobody asks or follows; a look every 5 s otherwise.
class SystemService : public kl::Looper {
 public:
  SystemService();

 private:
  static constexpr unsigned int kObjects = kl::SYSTEM_OBJECT_LOAD + 1;

  kl::message cmdGet(const kl::message& request) override;
  kl::message cmdGetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) override;
  kl::message cmdGetCount(const kl::message& request) override;
  kl::message getObject(unsigned int id) override;
  void subscribed(const kl::message& record) override;

  Figures figures() const;
  void onTimezone();
  void onLook();

  Timezone timezone_;
  unsigned int lookTicks_;
  std::array<Figures, kObjects> told_;  // what was last sent of each object
  bool looks_ = false;                  // the timer of onLook waits
};

}  // namespace kl_system
