// Requests lie in one vector and are linked by position: a free list, hash chains to match a reply, and two lists for
// each service, the requests that it made and those that it serves, to answer for it when it dies.

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

void OpenRequests::add(Service& caller, Service& callee, const Envelope& envelope, Path path,
                       common::Moment now) {
  const unsigned int place = takeFreePlace();
  OpenRequest& request = places_[place];
  request.caller = &caller;
  request.callee = &callee;
  request.id = envelope.requestId;
  request.command = envelope.command;
  request.expectsReply = envelope.expectsReply;
  request.isHeld = callee.isHeldFor;
  request.since = now;
  request.returnPath.assign(envelope.returnPath());
  request.path.assign(path);
  link(place);
}

void OpenRequests::release(const Service& callee) {
  for (unsigned int at = callee.requests.newestServing; at != kNone && places_[at].isHeld;  // O4
       at = places_[at].olderServing)
    places_[at].isHeld = false;
}

bool OpenRequests::take(Service& caller, Service& callee, unsigned int id, Path path) {
  const unsigned int found = placeOf(caller, callee, id, path);
  if (found == kNone) return false;
  unlink(found);
  return true;
}

const OpenRequest* OpenRequests::find(const Service& caller, const Service& callee, unsigned int id,
                                      Path path) const {
  const unsigned int found = placeOf(caller, callee, id, path);
  return found == kNone ? nullptr : &places_[found];
}

// A chain runs from the newest to the oldest, so the last match is the oldest.
inline unsigned int OpenRequests::placeOf(const Service& caller, const Service& callee, unsigned int id,
                                          Path path) const {
  if (chains_.empty()) return kNone;
  unsigned int found = kNone;
  for (unsigned int at = chains_[chainOf(caller, callee, id)]; at != kNone; at = places_[at].nextInChain) {
    const OpenRequest& r = places_[at];
    if (r.caller == &caller && r.callee == &callee && r.id == id && r.returnPath.equals(path)) found = at;
  }
  return found;
}

const OpenRequest* OpenRequests::oldestFrom(const Service& caller) const {
  const unsigned int place = caller.requests.oldestMade;
  return place == kNone ? nullptr : &places_[place];
}

void OpenRequests::forgetOldestFrom(Service& caller) { unlink(caller.requests.oldestMade); }

const OpenRequest* OpenRequests::oldestTo(const Service& callee) const {
  const unsigned int place = callee.requests.oldestServing;
  return place == kNone ? nullptr : &places_[place];
}

void OpenRequests::forgetOldestTo(Service& callee) { unlink(callee.requests.oldestServing); }

const OpenRequest* OpenRequests::newerFrom(const OpenRequest& request) const {
  return request.newerMade == kNone ? nullptr : &places_[request.newerMade];
}

const OpenRequest* OpenRequests::findFrom(unsigned int& place) const {
  while (place < places_.size() && places_[place].caller == nullptr) ++place;
  return place < places_.size() ? &places_[place] : nullptr;
}

std::size_t OpenRequests::chainOf(const Service& caller, const Service& callee, unsigned int id) const {
  const auto ends = std::uint64_t{caller.id} << 32 | callee.id;
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
  unsigned int& chain = chains_[chainOf(*r.caller, *r.callee, r.id)];
  r.nextInChain = chain;
  chain = place;

  RequestLists& caller = r.caller->requests;
  r.olderMade = caller.newestMade;
  r.newerMade = kNone;
  if (caller.newestMade == kNone) caller.oldestMade = place;
  else places_[caller.newestMade].newerMade = place;
  caller.newestMade = place;
  ++caller.madeCount;

  RequestLists& callee = r.callee->requests;
  r.olderServing = callee.newestServing;
  r.newerServing = kNone;
  if (callee.newestServing == kNone) callee.oldestServing = place;
  else places_[callee.newestServing].newerServing = place;
  callee.newestServing = place;
  ++callee.servingCount;
  ++used_;
  if (r.caller->account != nullptr) r.caller->account->take(Resource::kRequests, 1);
}

void OpenRequests::unlink(unsigned int place) {
  unchain(place);
  OpenRequest& r = places_[place];

  RequestLists& caller = r.caller->requests;
  if (r.olderMade == kNone) caller.oldestMade = r.newerMade;
  else places_[r.olderMade].newerMade = r.newerMade;
  if (r.newerMade == kNone) caller.newestMade = r.olderMade;
  else places_[r.newerMade].olderMade = r.olderMade;
  --caller.madeCount;

  RequestLists& callee = r.callee->requests;
  if (r.olderServing == kNone) callee.oldestServing = r.newerServing;
  else places_[r.olderServing].newerServing = r.newerServing;
  if (r.newerServing == kNone) callee.newestServing = r.olderServing;
  else places_[r.newerServing].olderServing = r.olderServing;
  --callee.servingCount;
  if (r.caller->account != nullptr) r.caller->account->giveBack(Resource::kRequests, 1);

  r.caller = r.callee = nullptr;
  r.nextInChain = free_;
  free_ = place;
  --used_;
}

void OpenRequests::unchain(unsigned int place) {
  const OpenRequest& r = places_[place];
  unsigned int* at = &chains_[chainOf(*r.caller, *r.callee, r.id)];
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
    unsigned int& chain = chains_[chainOf(*r.caller, *r.callee, r.id)];
    r.nextInChain = chain;
    chain = place;
  }
}

}  // namespace loader
