#pragma once
// open_requests.h: which requests wait for their reply.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "routing/envelope.h"
#include "services/common/seconds.h"

namespace loader {

struct Service;

// The ids of a path, kept beyond the life of its frame.  Short ones, that is nearly all, need no allocation.
class KeptPath {
 public:
  void assign(Path path);
  bool equals(Path path) const;
  std::vector<unsigned int> ids() const;

 private:
  static constexpr std::size_t kInline = 4;

  std::span<const unsigned int> view() const;

  std::array<unsigned int, kInline> few_{};
  std::vector<unsigned int> many_;
  unsigned int size_ = 0;
};

// One delivered request whose reply has not come by.
struct OpenRequest {
  Service* caller = nullptr;
  Service* callee = nullptr;
  unsigned int id = 0;  // its SYS_REQID
  unsigned int command = 0;
  bool expectsReply = false;
  bool isHeld = false;   // the callee has not been given it yet
  common::Moment since;  // when it came by
  KeptPath returnPath;   // inside the caller
  KeptPath path;         // inside the callee

  // Links by position: the caller's requests and those of the callee in order of age, and the hash chain.
  unsigned int olderMade = 0, newerMade = 0;
  unsigned int olderServing = 0, newerServing = 0;
  unsigned int nextInChain = 0;
};

// The open requests of a service and those to it, held inside the Service.
struct RequestLists {
  static constexpr unsigned int kNone = 0xffffffff;

  unsigned int oldestMade = kNone, newestMade = kNone, madeCount = 0;
  unsigned int oldestServing = kNone, newestServing = kNone, servingCount = 0;
};

// The open requests of all services.
//
// O1  a request stands in exactly one chain and in the two lists of its services
// O2  the counts of a service are the lengths of its lists
// O3  a list runs from the oldest to the newest
// O4  in the list of the callee, those that are held are newer than all others
//
// Errors:    none.
// Ownership: owns the requests; borrows the services, which must be forgotten here before they go.
// Threads:   belongs to one thread.
// Cost:      constant time to add and to match, also when somebody chooses ids so that they collide: the chains depend
//            on a number that is drawn at the start; no allocation while the number of open requests stays below what
//            it once was and paths are short.
class OpenRequests {
 public:
  OpenRequests();
  // With a seed of the caller's choice.
  explicit OpenRequests(std::uint64_t seed) : seed_(seed) {}

  // Notes a request that is delivered to `path` inside `callee`.
  void add(Service& caller, Service& callee, const Envelope& envelope, Path path, common::Moment now);

  // Everything that was held for the service is on its way to it.
  void release(const Service& callee);

  // Takes out the oldest request that a reply of `callee` to `path` inside `caller` answers; false without one.
  bool take(Service& caller, Service& callee, unsigned int id, Path path);

  // That request, null without one.  Borrowed until the next change.
  const OpenRequest* find(const Service& caller, const Service& callee, unsigned int id, Path path) const;

  // The caller's oldest request, null without one.  Borrowed until the next change.
  const OpenRequest* oldestFrom(const Service& caller) const;
  void forgetOldestFrom(Service& caller);

  // The oldest request that waits for `callee`, null without one.  Borrowed until the next change.
  const OpenRequest* oldestTo(const Service& callee) const;
  void forgetOldestTo(Service& callee);

  // The request that `caller` made after this one of its own, null behind the newest.  Borrowed as the oldest is.
  const OpenRequest* newerFrom(const OpenRequest& request) const;

  // Requests stand in numbered places, and keep theirs while they are open.  The first one in `place` or behind it,
  // whose place then is in `place`; null behind the last.  Walks over free places.
  const OpenRequest* findFrom(unsigned int& place) const;

  std::size_t size() const { return used_; }
  std::size_t longestChain() const;  // walks all of them

 private:
  static constexpr unsigned int kNone = RequestLists::kNone;

  unsigned int placeOf(const Service& caller, const Service& callee, unsigned int id, Path path) const;
  std::size_t chainOf(const Service& caller, const Service& callee, unsigned int id) const;
  unsigned int takeFreePlace();
  void link(unsigned int place);
  void unlink(unsigned int place);
  void unchain(unsigned int place);
  void rechain();

  std::uint64_t seed_;
  std::vector<OpenRequest> places_;
  std::vector<unsigned int> chains_;  // a power of two of them
  unsigned int free_ = kNone;         // linked by nextInChain
  std::size_t used_ = 0;
};

}  // namespace loader
