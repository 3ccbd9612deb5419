#pragma once
// figures.h: what the system service knows of the machine, and which changes are worth a notification.

#include <array>
#include <istream>
#include <string>

namespace kl_system {

struct Memory {
  unsigned long long total = 0;  // bytes; 0 when it is not known
  unsigned long long available = 0;
};

struct Figures {
  std::string hostname;
  std::string version;
  unsigned int uptime = 0;  // seconds since boot
  Memory memory;
  std::array<unsigned int, 3> load{};  // hundredths, over 1, 5 and 15 minutes
  int timezone = 0;                    // seconds east of UTC
};

// The machine as it is now, the time zone excepted.
Figures readFigures();

// Reads the lines of /proc/meminfo.  If the kernel does not report the available memory, it is the sum of what is
// free and what could be freed.  The library reads that file as well (kl/utilities.h), but its figures are KiB in 32
// bits; these are bytes.
Memory memoryFrom(std::istream& lines);

// Has an object of the table (SYSTEM_OBJECT_...) changed so much that its followers are sent the change?  The host,
// the version and the time zone always; the uptime after a minute; the memory after a 32nd of it all; the load after
// a tenth.
bool isWorthTelling(unsigned int object, const Figures& told, const Figures& now);

}  // namespace kl_system
