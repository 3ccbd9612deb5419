#pragma once
// link_messages.h: reads the kernel's messages about interfaces and their addresses into a table.

#include <span>

#include "links.h"

// The other news in the messages of a buffer.
struct LinkNews {
  bool isEnd = false;           // the answer to a question is complete
  bool isError = false;         // the kernel refused
  bool wasInterrupted = false;  // the table changed while the kernel described it: ask again
};

// Takes netlink messages, as one read from the socket brings them: new and changed interfaces, those that are gone,
// and addresses that came and went.  The reply to a request and the notification of a change are the same messages.
//
// A message that is cut off or contradicts itself changes nothing and ends the reading.
LinkNews takeLinkMessages(Links& links, std::span<const unsigned char> bytes);
