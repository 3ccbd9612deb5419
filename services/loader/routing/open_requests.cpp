// Requests lie in one vector and are linked by position: a free list, hash chains to match a reply, and two lists for
// each service, what it asked and what it is asked, to answer for it when it dies.

#include "routing/open_requests.h"

#include <algorithm>
#include <cstdint>

#include "routing/secret_hash.h"
#include "routing/service.h"

namespace loader {
namespace {

constexpr std::size_t kFirstChains = 64;

}  // namespace

OpenRequests::OpenRequests() : OpenRequests(drawSeed()) {}

void KeptPath::assign(Path path) {
  size_ = path.size();
  many_.clear();
  if (size_ > kInline) many_.resize(size_);
  unsigned int* ids = size_ > kInline ? many_.data() : few_.data();
  for (unsigned int i = 0; i < size_; ++i) ids[i] = path[i];
}

bool KeptPath::equals(Path path) const {
  if (path.size() != size_) return false;
  const std::span<const unsigned int> mine = view();
  for (unsigned int i = 0; i < size_; ++i)
    if (mine[i] != path[i]) return false;
  return true;
}

std::vector<unsigned int> KeptPath::ids() const { return {view().begin(), view().end()}; }

std::span<const unsigned int> KeptPath::view() const {
  if (size_ > kInline) return many_;
  return {few_.data(), size_};
}

void OpenRequests::add(Service& asker, Service& asked, const Envelope& envelope, Path path,
                       unsigned int now) {
  const unsigned int place = takeFreePlace();
  OpenRequest& request = places_[place];
  request.asker = &asker;
  request.asked = &asked;
  request.id = envelope.requestId;
  request.expectsReply = envelope.expectsReply;
  request.isHeld = asked.isHeldFor;
  request.since = now;
  request.returnPath.assign(envelope.returnPath());
  request.path.assign(path);
  link(place);
}

void OpenRequests::release(const Service& asked) {
  for (unsigned int at = asked.requests.newestServing; at != kNone && places_[at].isHeld;  // O4
       at = places_[at].olderServing)
    places_[at].isHeld = false;
}

bool OpenRequests::take(Service& asker, Service& asked, unsigned int id, Path path) {
  if (chains_.empty()) return false;
  unsigned int found = kNone;  // a chain runs from the newest to the oldest, so the last match is the oldest
  for (unsigned int at = chains_[chainOf(asker, asked, id)]; at != kNone; at = places_[at].nextInChain) {
    const OpenRequest& r = places_[at];
    if (r.asker == &asker && r.asked == &asked && r.id == id && r.returnPath.equals(path)) found = at;
  }
  if (found == kNone) return false;
  unlink(found);
  return true;
}

const OpenRequest* OpenRequests::oldestOf(const Service& asker) const {
  const unsigned int place = asker.requests.oldestAsked;
  return place == kNone ? nullptr : &places_[place];
}

void OpenRequests::forgetOldestOf(Service& asker) { unlink(asker.requests.oldestAsked); }

const OpenRequest* OpenRequests::oldestFor(const Service& asked) const {
  const unsigned int place = asked.requests.oldestServing;
  return place == kNone ? nullptr : &places_[place];
}

void OpenRequests::forgetOldestFor(Service& asked) { unlink(asked.requests.oldestServing); }

std::size_t OpenRequests::chainOf(const Service& asker, const Service& asked, unsigned int id) const {
  const auto ends = std::uint64_t{asker.id} << 32 | asked.id;
  return static_cast<std::size_t>(mixBits(mixBits(ends + seed_) + id)) & (chains_.size() - 1);
}

std::size_t OpenRequests::longestChain() const {
  std::size_t longest = 0;
  for (const unsigned int head : chains_) {
    std::size_t length = 0;
    for (unsigned int at = head; at != kNone; at = places_[at].nextInChain) ++length;
    longest = std::max(longest, length);
  }
  return longest;
}

unsigned int OpenRequests::takeFreePlace() {
  if (free_ == kNone) {
    if (places_.size() == places_.capacity())
      places_.reserve(places_.size() + std::max(kFirstChains, places_.size() / 4));
    places_.emplace_back();
    if (places_.size() > chains_.size()) rechain();
    return static_cast<unsigned int>(places_.size() - 1);
  }
  const unsigned int place = free_;
  free_ = places_[place].nextInChain;
  return place;
}

void OpenRequests::link(unsigned int place) {
  OpenRequest& r = places_[place];
  unsigned int& chain = chains_[chainOf(*r.asker, *r.asked, r.id)];
  r.nextInChain = chain;
  chain = place;

  RequestLists& asker = r.asker->requests;
  r.olderAsked = asker.newestAsked;
  r.newerAsked = kNone;
  if (asker.newestAsked == kNone) asker.oldestAsked = place;
  else places_[asker.newestAsked].newerAsked = place;
  asker.newestAsked = place;
  ++asker.askedCount;

  RequestLists& asked = r.asked->requests;
  r.olderServing = asked.newestServing;
  r.newerServing = kNone;
  if (asked.newestServing == kNone) asked.oldestServing = place;
  else places_[asked.newestServing].newerServing = place;
  asked.newestServing = place;
  ++asked.servingCount;
  ++used_;
  if (r.asker->account != nullptr) r.asker->account->take(Resource::kRequests, 1);
}

void OpenRequests::unlink(unsigned int place) {
  unchain(place);
  OpenRequest& r = places_[place];

  RequestLists& asker = r.asker->requests;
  if (r.olderAsked == kNone) asker.oldestAsked = r.newerAsked;
  else places_[r.olderAsked].newerAsked = r.newerAsked;
  if (r.newerAsked == kNone) asker.newestAsked = r.olderAsked;
  else places_[r.newerAsked].olderAsked = r.olderAsked;
  --asker.askedCount;

  RequestLists& asked = r.asked->requests;
  if (r.olderServing == kNone) asked.oldestServing = r.newerServing;
  else places_[r.olderServing].newerServing = r.newerServing;
  if (r.newerServing == kNone) asked.newestServing = r.olderServing;
  else places_[r.newerServing].olderServing = r.olderServing;
  --asked.servingCount;
  if (r.asker->account != nullptr) r.asker->account->giveBack(Resource::kRequests, 1);

  r.asker = r.asked = nullptr;
  r.nextInChain = free_;
  free_ = place;
  --used_;
}

void OpenRequests::unchain(unsigned int place) {
  const OpenRequest& r = places_[place];
  unsigned int* at = &chains_[chainOf(*r.asker, *r.asked, r.id)];
  while (*at != place) at = &places_[*at].nextInChain;
  *at = r.nextInChain;
}

// Doubles the number of chains.  Requests that can be told apart only by their age stand in one chain, so turning
// each old chain around before its requests are chained anew keeps the newest in front.
void OpenRequests::rechain() {
  std::vector<unsigned int> inUse;
  for (const unsigned int head : chains_) {
    const std::size_t first = inUse.size();
    for (unsigned int at = head; at != kNone; at = places_[at].nextInChain) inUse.push_back(at);
    std::reverse(inUse.begin() + static_cast<std::ptrdiff_t>(first), inUse.end());
  }
  chains_.assign(std::max(kFirstChains, 2 * chains_.size()), kNone);
  for (const unsigned int place : inUse) {
    OpenRequest& r = places_[place];
    unsigned int& chain = chains_[chainOf(*r.asker, *r.asked, r.id)];
    r.nextInChain = chain;
    chain = place;
  }
}

}  // namespace loader
