#include "bench/message/peers/peer.h"

#include <algorithm>

namespace bench {
namespace {

std::vector<const Peer*>& added() {
  static std::vector<const Peer*> all;
  return all;
}

}  // namespace

std::vector<const Peer*> peers() {
  std::vector<const Peer*> all = added();
  std::sort(all.begin(), all.end(), [](const Peer* a, const Peer* b) { return a->name() < b->name(); });
  return all;
}

bool addPeer(const Peer& peer) {
  added().push_back(&peer);
  return true;
}

}  // namespace bench
