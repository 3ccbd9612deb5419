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
// The time is in UTC.  Bytes below 32 and 127 are written as \xHH, so that a text can pretend to be no other line.
std::string textOf(const Line& line, const TopicNames& names);

// The bytes that could disturb whoever reads them, written out.
std::string harmless(const std::string& text);

}  // namespace logd
