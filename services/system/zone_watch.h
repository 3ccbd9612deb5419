#pragma once
// zone_watch.h: notices when the offset of local time changes.

#include <string>

#include "kl/runner.h"
#include "services/common/timer.h"

namespace kl_system {

// Follows the local time zone for as long as it lives: the changes that the zone itself foresees (daylight saving
// time), a clock that is set, and a zone file that is replaced or written.
//
// Errors:    what the kernel refuses to watch is looked at once an hour.
// Ownership: owns its descriptors and timer; the loop and the context are borrowed while it lives.
// Threads:   belongs to the loop's thread, where the callback is called.
// Cost:      one wake-up an hour, and one for each change in the folder of the zone file.
class ZoneWatch {
 public:
  // Calls changed(context) when offset() has become another one.  `file` is what the C library reads the zone
  // from.
  ZoneWatch(kl::Runner& loop, const std::string& file, void* context, void (*changed)(void*));
  ~ZoneWatch();
  ZoneWatch(const ZoneWatch&) = delete;
  ZoneWatch& operator=(const ZoneWatch&) = delete;

  // Seconds east of UTC.
  int offset() const { return offset_; }

 private:
  void watchFile();
  void onClock(int fd, unsigned int events);
  void onFile(int fd, unsigned int events);
  void onSettled();
  bool concernsFile(const char* events, std::size_t length) const;
  void look();
  void readOffset();
  void followFile();

  kl::Runner& loop_;
  std::string file_;
  void* context_;
  void (*changed_)(void*);
  int offset_ = 0;
  int clockFd_ = -1;
  int fileFd_ = -1;
  int fileWatch_ = -1;
  common::Timer<&ZoneWatch::onSettled> settling_;
};

}  // namespace kl_system
