// The two paths of a message.

#include "looper/paths.h"

namespace kl {

const Path& pathOf(const message& m, unsigned int id) {
  static const Path none;
  return hasPath(m, id) ? *m.get_u32_array_ref(id) : none;
}

void removeFirstHop(message& m) {
  Path& to = *m.get_u32_array_ref(SYS_TO);
  to.erase(to.begin());
}

void prependSender(message& m, unsigned int id) {
  Path& from = *m.get_u32_array_ref(SYS_FROM);
  from.insert(from.begin(), id);
}

}  // namespace kl
