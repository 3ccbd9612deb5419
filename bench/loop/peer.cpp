#include "bench/loop/peer.h"

#include <algorithm>

namespace bench {
namespace {

std::vector<const LoopPeer*>& added() {
  static std::vector<const LoopPeer*> all;
  return all;
}

}  // namespace

std::vector<const LoopPeer*> loopPeers() {
  std::vector<const LoopPeer*> all = added();
  std::sort(all.begin(), all.end(),
            [](const LoopPeer* a, const LoopPeer* b) { return a->name() < b->name(); });
  return all;
}

bool addLoopPeer(const LoopPeer& peer) {
  added().push_back(&peer);
  return true;
}

}  // namespace bench
