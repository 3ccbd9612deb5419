#pragma once
// line_text.h: lines as text.

#include <string>

#include "keeping/line.h"
#include "keeping/topic_names.h"

namespace logd {

// A line as files have it, with its newline:
//
//     2026-11-21T06:08:26.123456Z netif[812] warning,netif: eth0 is down
//
// The number of the user follows that of the process unless the user is root: lab[814,1000].  The time is in UTC.  Name
// and text are made safe for a terminal: a text cannot pretend to be another line.
std::string textOf(const Line& line, const TopicNames& names);

// The name, process and user in it.
std::string processText(const Origin& origin);

}  // namespace logd
