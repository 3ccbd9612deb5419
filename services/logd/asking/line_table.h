#pragma once
// line_table.h: the lines in memory as a table of objects.

#include <optional>
#include <vector>

#include "asking/line_filter.h"
#include "keeping/ring.h"
#include "kl/message.h"

namespace logd {

// One line as an object.
kl::message objectOf(const Line& line, unsigned int id);

// As many of the lines from `next` on as one message holds and `count` allows (0: any number), in order; next goes
// on behind the last.
std::vector<kl::message::flat_message> takeChunk(const Ring& ring, const LineFilter& filter,
                                                 Ring::Number& next, unsigned int count);

// How many of the lines from `next` on there are; next goes behind the last.
unsigned int countRest(const Ring& ring, const LineFilter& filter, Ring::Number& next);

// The answers to CMD_GETALL, CMD_GETOBJ and CMD_GETCOUNT.
kl::message getAll(const Ring& ring, const kl::message& request, unsigned int start, unsigned int count);
// A line of anybody but `onlyOf` is not there.
kl::message getObject(const Ring& ring, unsigned int id, std::optional<unsigned int> onlyOf = {});
kl::message getCount(const Ring& ring, const kl::message& request);

}  // namespace logd
