#pragma once
// subscriptions.h: who has subscribed where.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "routing/envelope.h"

namespace loader {

class Account;
struct Service;
struct Subscription;

// The way of a notification: from a handler inside its provider to a return path inside its subscriber, under one
// command.  Borrows the bytes of a frame.
struct Channel {
  Service& provider;
  Path handler;
  Service& subscriber;
  Path returnPath;
  unsigned int command;
};

// The subscriptions at a service and those that it made elsewhere, from the oldest to the newest; held inside the
// Service.
struct SubscriptionLists {
  Subscription* oldestAt = nullptr;
  Subscription* newestAt = nullptr;
  Subscription* oldestOf = nullptr;
  Subscription* newestOf = nullptr;
};

// A channel with its own copy of the paths.
struct KeptChannel {
  Service* provider;
  Service* subscriber;
  unsigned int command;
  unsigned int subscriptions = 0;  // that use it; they differ in their filters
  std::size_t handlerBytes;
  std::vector<unsigned char>
      paths;  // elements as in a frame: those of the handler, then those of the return path
  std::uint64_t hash;

  std::span<const unsigned char> handler() const { return std::span(paths).first(handlerBytes); }
  std::span<const unsigned char> returnPath() const { return std::span(paths).subspan(handlerBytes); }
  std::vector<unsigned int> handlerIds() const;
  std::vector<unsigned int> returnPathIds() const;
};

// One subscription.  A provider keeps the request itself, and tells two apart by everything that is in them but the
// system's own fields; so do these.
struct Subscription {
  KeptChannel* channel = nullptr;
  bool namesCommand = false;   // the request had a SYS_NOTIFYCMD
  Account* account = nullptr;  // that counts it; null: nobody does
  std::vector<unsigned char>
      filter;  // the other fields of the request, a flattened message; empty without any
  std::uint64_t hash = 0;

  Subscription* olderAt = nullptr;  // at the provider
  Subscription* newerAt = nullptr;
  Subscription* olderOf = nullptr;  // of the subscriber
  Subscription* newerOf = nullptr;
};

// The subscriptions of all services, as their requests passed the router: what a provider keeps beside it may be less,
// when it refused one, or when it took data from before its last leave that the loader did not see.  A subscriber has
// named the return path and the command itself, so a notification that keeps to them does what it asked for.
//
// B1  two subscriptions of one channel differ in their filters
// B2  a channel is there as long as a subscription uses it
// B3  a subscription stands in the list of its provider and in that of its subscriber
// B4  the account of its subscriber counts it, and the bytes of its paths and its filter, as long as it is there
//
// Errors:    a subscription beyond the limits is refused.
// Ownership: owns the subscriptions; borrows the services, which must be forgotten here before they go.
// Threads:   belongs to one thread.
// Cost:      finding a channel takes constant time and allocates nothing, adding and removing takes constant time, also
//            when somebody chooses paths so that they collide; the request is built as a message only if it has fields
//            that are not the system's.
class Subscriptions {
 public:
  enum class Outcome : unsigned char {
    kAdded,
    kKnown,    // an equal one is there
    kRefused,  // the account of the subscriber has no room for it
  };

  Subscriptions();
  // With a seed of the caller's choice.
  explicit Subscriptions(std::uint64_t seed) : seed_(seed) {}

  // Called with each one that is refused.
  using OnRefused = std::function<void(const Service& subscriber, const Service& provider)>;
  void setOnRefused(OnRefused onRefused) { onRefused_ = std::move(onRefused); }

  // The subscription that `subscriber` asks the handler for, with the SYS_NOTIFYCMD and the filter of the request.
  Outcome add(Service& provider, Path handler, Service& subscriber, Path returnPath,
              std::span<const unsigned char> request);
  // Removes the one that equals what a request to unsubscribe names, if there is one.
  void remove(Service& provider, Path handler, Service& subscriber, Path returnPath,
              std::span<const unsigned char> request);

  // True when somebody asked for notifications on exactly this way.
  bool has(const Channel& channel) const { return find(channel, hashOf(channel)) != nullptr; }

  // How many the subscriber has at the provider.
  unsigned int countAt(const Service& provider, const Service& subscriber) const;

  // A service is gone: as a provider, as a subscriber.
  void forgetProvider(Service& provider);
  void forgetSubscriber(Service& subscriber);
  // The subscriptions behind a subscriber's return path are gone, and the handler has been told; without a path all
  // handlers of the provider have.
  void forgetBehind(Service& provider, Path handler, Service& subscriber, Path returnPath);

  std::size_t size() const { return subscriptions_.size(); }
  std::size_t channels() const { return channels_.size(); }

 private:
  // The fields of a request to subscribe beside its paths.
  struct Wish {
    unsigned int command = kl::CMD_NOTIFY;
    bool namesCommand = false;
    std::vector<unsigned char> filter;
  };

  static Wish readWish(std::span<const unsigned char> request);

  std::uint64_t hashOf(const Channel& channel) const;
  std::uint64_t hashOf(const KeptChannel& channel, const Wish& wish) const;
  KeptChannel* find(const Channel& channel, std::uint64_t hash) const;
  Subscription* find(const KeptChannel& channel, const Wish& wish, std::uint64_t hash);
  KeptChannel& keep(const Channel& channel, std::uint64_t hash);
  void insert(KeptChannel& channel, Wish wish, std::uint64_t hash);
  void erase(Subscription& subscription);

  std::uint64_t seed_;
  OnRefused onRefused_;
  std::unordered_multimap<std::uint64_t, KeptChannel> channels_;
  std::unordered_multimap<std::uint64_t, Subscription> subscriptions_;
  std::unordered_map<std::uint64_t, unsigned int> pairs_;  // how many of a subscriber are at a provider
};

}  // namespace loader
