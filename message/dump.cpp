#include "message/rep.h"

namespace kl {

template <class S>
requires(std::is_same_v<S, std::ostream> ||
         std::is_same_v<S, Dumper>) void message::dump2(S&, const char*, unsigned int) const {}

template void message::dump2<std::ostream>(std::ostream&, const char*, unsigned int) const;
template void message::dump2<Dumper>(Dumper&, const char*, unsigned int) const;

std::ostream& operator<<(std::ostream& out, const message& m) {
  m.dump2(out, "", 0);
  return out;
}

}  // namespace kl
