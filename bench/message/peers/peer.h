#pragma once
// peer.h: what another library does with the messages of sources.h.  Each library that was found when the benchmark was
// configured adds itself before main() begins; without any there are the product and the limit alone.

#include <memory>
#include <string>
#include <vector>

#include "bench/message/sources.h"

namespace bench {

// One workload, done the way that the library's own documents show.  It flattens into a buffer that it keeps; whatever
// is made of the bytes is made anew each time.
class PeerWork {
 public:
  virtual ~PeerWork() = default;
  // Of a new message; the number of bytes.
  virtual std::size_t buildAndFlatten() = 0;
  // The bytes that were flattened last.
  virtual bool parse() = 0;
  // The same, and every value looked at: the sum of limit::read().
  virtual unsigned long long parseAndRead() = 0;
  // Copies a message that parseAndKeep() made, and looks at every value of such a copy.
  virtual void parseAndKeep() = 0;
  virtual void copy() = 0;
  virtual unsigned long long copyAndRead() = 0;
};

class Peer {
 public:
  virtual ~Peer() = default;
  virtual std::string name() const = 0;
  virtual std::string version() const = 0;
  virtual std::unique_ptr<PeerWork> work(const W1Source& source) const = 0;
  virtual std::unique_ptr<PeerWork> work(const W2Source& source) const = 0;
  virtual std::unique_ptr<PeerWork> work(const std::vector<W2Source>& source) const = 0;
};

// Those that were added, in the order of their names.
std::vector<const Peer*> peers();

// Adds `peer`, which stays.  The result only gives the call a place: `const bool added = bench::addPeer(...)`.
bool addPeer(const Peer& peer);

// The part of the sum that a text or bytes give; see limit::read().
inline unsigned long long endsOf(const void* bytes, std::size_t size) {
  const auto* all = static_cast<const unsigned char*>(bytes);
  return size + all[0] + all[size - 1];
}

}  // namespace bench
