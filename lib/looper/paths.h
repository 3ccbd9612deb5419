#pragma once
// paths.h: the two paths of a message.  An absent path and an empty one are the same.

#include <vector>

#include "kl/conventions.h"

namespace kl {

using Path = std::vector<unsigned int>;

inline bool hasPath(const message& m, unsigned int id) { return m.size_unsigned_array(id) > 0; }

// The path, borrowed until the message changes; an empty one where it is absent.
const Path& pathOf(const message& m, unsigned int id);

// Needs: SYS_TO.
inline unsigned int firstHop(const message& m) { return pathOf(m, SYS_TO).front(); }
void removeFirstHop(message& m);

// Puts an id in front of the way back, which lengthens the message by this at most.
inline constexpr unsigned int kSenderBytes = 10;
void prependSender(message& m, unsigned int id);

}  // namespace kl
