#pragma once
// zone.h: the offset of local time from UTC, and when it next changes.

#include <ctime>
#include <string>

namespace kl_system {

// The file that the zone is read from: /etc/localtime, or what the environment's TZ names.
std::string zoneFile();

// Makes the functions below follow the zone as it is now, whatever was read before.
void readZoneAgain();

// Seconds east of UTC at a moment, daylight saving time included; 0 when it is unknown.
int offsetAt(std::time_t moment);

// The first moment after `from` whose offset is another one, or `until` when there is none before.
std::time_t nextChange(std::time_t from, std::time_t until);

}  // namespace kl_system
