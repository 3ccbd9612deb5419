// A channel is found by a hash of its ends, a subscription by a hash of its channel and its filter.  Many subscriptions
// may share a channel, so a notification is looked up among the channels alone.
//
// The fields of a filter are a set: equal requests may have them in different orders.  The hashes of its records are
// added up, and filters of one hash are compared as messages.

#include "routing/subscriptions.h"

#include <algorithm>
#include <array>
#include <utility>

#include "kl/message.h"
#include "quota/accounts.h"
#include "routing/secret_hash.h"
#include "routing/service.h"

namespace loader {
namespace {

constexpr unsigned char kMagic[2] = {0x4d, 0x32};

// The fields that a provider leaves out of the request that it keeps, and that a channel has of it.
constexpr bool isOfChannel(unsigned int id) {
  constexpr std::array<unsigned int, 12> kIds{
      kl::SYS_TO,  kl::SYS_FROM,  kl::SYS_TYPE, kl::SYS_STATUS, kl::SYS_REPLYEXP, kl::SYS_REQID,
      kl::SYS_CMD, kl::SYS_ERRNO, kl::SYS_USER, kl::SYS_POLICY, kl::SYS_CTRL,     kl::SYS_NOTIFYCMD};
  return std::find(kIds.begin(), kIds.end(), id) != kIds.end();
}

void append(std::vector<unsigned char>& to, std::span<const unsigned char> more) {
  to.insert(to.end(), more.begin(), more.end());
}

// The shortest form of each field, each once.
std::vector<unsigned char> normalized(const std::vector<unsigned char>& records) {
  if (records.size() == sizeof kMagic) return {};
  std::vector<unsigned char> filter;
  kl::message(records).flatten(filter);
  return filter;
}

bool isSame(std::span<const unsigned char> a, std::span<const unsigned char> b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

bool beginsWith(std::span<const unsigned char> path, std::span<const unsigned char> beginning) {
  return path.size() >= beginning.size() && isSame(path.first(beginning.size()), beginning);
}

std::vector<unsigned int> idsIn(std::span<const unsigned char> path) {
  std::vector<unsigned int> ids;
  for (; !path.empty(); path = path.subspan(sizeof(std::uint32_t))) ids.push_back(kl::readLe32(path.data()));
  return ids;
}

bool areEqualFilters(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  if (a == b) return true;
  return a.size() == b.size() && kl::message(a) == kl::message(b);
}

bool hasRoomFor(const Account* account, std::size_t bytes) {
  return account == nullptr || (account->hasRoomFor(Resource::kSubscriptions, 1) &&
                                account->hasRoomFor(Resource::kSubscriptionBytes, bytes));
}

std::size_t bytesOf(const Subscription& one) { return one.channel->paths.size() + one.filter.size(); }

// The loader picks the ids of strangers, so nobody can make pairs collide.
std::uint64_t pairOf(const Service& provider, const Service& subscriber) {
  return std::uint64_t{provider.id} << 32 | subscriber.id;
}

// The two lists that a subscription stands in are kept by the same steps.
using Link = Subscription* Subscription::*;

void appendTo(Subscription*& oldest, Subscription*& newest, Subscription& one, Link older, Link newer) {
  one.*older = newest;
  if (newest == nullptr) oldest = &one;
  else newest->*newer = &one;
  newest = &one;
}

void takeFrom(Subscription*& oldest, Subscription*& newest, Subscription& one, Link older, Link newer) {
  Subscription* const before = one.*older;
  Subscription* const behind = one.*newer;
  if (before == nullptr) oldest = behind;
  else before->*newer = behind;
  if (behind == nullptr) newest = before;
  else behind->*older = before;
}

template <class Map, class Value>
void eraseFrom(Map& map, std::uint64_t hash, const Value& value) {
  auto at = map.equal_range(hash).first;
  while (&at->second != &value) ++at;
  map.erase(at);
}

}  // namespace

std::vector<unsigned int> KeptChannel::handlerIds() const { return idsIn(handler()); }

std::vector<unsigned int> KeptChannel::returnPathIds() const { return idsIn(returnPath()); }

Subscriptions::Subscriptions() : Subscriptions(drawSeed()) {}

Subscriptions::Outcome Subscriptions::add(Service& provider, Path handler, Service& subscriber,
                                          Path returnPath, std::span<const unsigned char> request) {
  Wish wish = readWish(request);
  const Channel channel{provider, handler, subscriber, returnPath, wish.command};
  const std::uint64_t hash = hashOf(channel);
  KeptChannel* kept = find(channel, hash);
  if (kept != nullptr && find(*kept, wish, hashOf(*kept, wish)) != nullptr) return Outcome::kKnown;  // B1
  const std::size_t bytes = handler.bytes().size() + returnPath.bytes().size() + wish.filter.size();
  if (!hasRoomFor(subscriber.account, bytes)) {
    if (onRefused_) onRefused_(subscriber, provider);
    return Outcome::kRefused;
  }
  if (kept == nullptr) kept = &keep(channel, hash);
  const std::uint64_t ownHash = hashOf(*kept, wish);
  insert(*kept, std::move(wish), ownHash);
  return Outcome::kAdded;
}

void Subscriptions::remove(Service& provider, Path handler, Service& subscriber, Path returnPath,
                           std::span<const unsigned char> request) {
  const Wish wish = readWish(request);
  const Channel channel{provider, handler, subscriber, returnPath, wish.command};
  const KeptChannel* kept = find(channel, hashOf(channel));
  if (kept == nullptr) return;
  if (Subscription* found = find(*kept, wish, hashOf(*kept, wish))) erase(*found);
}

void Subscriptions::forgetProvider(Service& provider) {
  while (provider.subscriptions.oldestAt != nullptr) erase(*provider.subscriptions.oldestAt);
}

void Subscriptions::forgetSubscriber(Service& subscriber) {
  while (subscriber.subscriptions.oldestOf != nullptr) erase(*subscriber.subscriptions.oldestOf);
}

void Subscriptions::forgetBehind(Service& provider, Path handler, Service& subscriber, Path returnPath) {
  for (Subscription* next = subscriber.subscriptions.oldestOf; next != nullptr;) {
    Subscription& one = *std::exchange(next, next->newerOf);
    const KeptChannel& channel = *one.channel;
    const bool isTold = handler.empty() || isSame(channel.handler(), handler.bytes());
    if (channel.provider == &provider && isTold && beginsWith(channel.returnPath(), returnPath.bytes()))
      erase(one);
  }
}

unsigned int Subscriptions::countAt(const Service& provider, const Service& subscriber) const {
  const auto pair = pairs_.find(pairOf(provider, subscriber));
  return pair == pairs_.end() ? 0 : pair->second;
}

Subscriptions::Wish Subscriptions::readWish(std::span<const unsigned char> request) {
  Wish wish;
  std::vector<unsigned char> records(std::begin(kMagic), std::end(kMagic));
  kl::RecordWalk walk(request);
  for (kl::Record record; walk.next(record);) {
    if (!isOfChannel(record.id())) append(records, record.bytes());
    if (record.id() != kl::SYS_NOTIFYCMD) continue;
    wish.command = record.u32();
    wish.namesCommand = true;
  }
  wish.filter = normalized(records);
  return wish;
}

std::uint64_t Subscriptions::hashOf(const Channel& channel) const {
  return SecretHash(seed_)
      .number(channel.provider.id)
      .number(channel.subscriber.id)
      .number(channel.command)
      .numbers(channel.handler)
      .numbers(channel.returnPath)
      .value();
}

std::uint64_t Subscriptions::hashOf(const KeptChannel& channel, const Wish& wish) const {
  std::uint64_t sum = channel.hash + (wish.namesCommand ? 1 : 0);
  kl::RecordWalk walk(wish.filter);
  for (kl::Record record; walk.next(record);) sum += SecretHash(seed_).bytes(record.bytes()).value();
  return sum;
}

KeptChannel* Subscriptions::find(const Channel& channel, std::uint64_t hash) const {
  const auto [first, last] = channels_.equal_range(hash);
  for (auto at = first; at != last; ++at) {
    const KeptChannel& kept = at->second;
    if (kept.provider == &channel.provider && kept.subscriber == &channel.subscriber &&
        kept.command == channel.command && isSame(kept.handler(), channel.handler.bytes()) &&
        isSame(kept.returnPath(), channel.returnPath.bytes()))
      return const_cast<KeptChannel*>(&kept);
  }
  return nullptr;
}

Subscription* Subscriptions::find(const KeptChannel& channel, const Wish& wish, std::uint64_t hash) {
  const auto [first, last] = subscriptions_.equal_range(hash);
  for (auto at = first; at != last; ++at) {
    Subscription& one = at->second;
    if (one.channel == &channel && one.namesCommand == wish.namesCommand &&
        areEqualFilters(one.filter, wish.filter))
      return &one;
  }
  return nullptr;
}

KeptChannel& Subscriptions::keep(const Channel& channel, std::uint64_t hash) {
  const std::span<const unsigned char> handler = channel.handler.bytes();
  std::vector<unsigned char> paths;
  paths.reserve(handler.size() + channel.returnPath.bytes().size());
  append(paths, handler);
  append(paths, channel.returnPath.bytes());
  const auto at = channels_.emplace(hash, KeptChannel{&channel.provider, &channel.subscriber, channel.command,
                                                      0, handler.size(), std::move(paths), hash});
  return at->second;
}

void Subscriptions::insert(KeptChannel& channel, Wish wish, std::uint64_t hash) {
  Subscription& one = subscriptions_.emplace(hash, Subscription{})->second;
  one.channel = &channel;
  one.namesCommand = wish.namesCommand;
  one.account = channel.subscriber->account;
  one.filter = std::move(wish.filter);
  one.hash = hash;
  ++channel.subscriptions;
  SubscriptionLists& at = channel.provider->subscriptions;
  appendTo(at.oldestAt, at.newestAt, one, &Subscription::olderAt, &Subscription::newerAt);
  SubscriptionLists& of = channel.subscriber->subscriptions;
  appendTo(of.oldestOf, of.newestOf, one, &Subscription::olderOf, &Subscription::newerOf);
  ++pairs_[pairOf(*channel.provider, *channel.subscriber)];
  if (one.account == nullptr) return;
  one.account->take(Resource::kSubscriptions, 1);  // B4
  one.account->take(Resource::kSubscriptionBytes, bytesOf(one));
}

void Subscriptions::erase(Subscription& one) {
  if (one.account != nullptr) {
    one.account->giveBack(Resource::kSubscriptions, 1);  // B4
    one.account->giveBack(Resource::kSubscriptionBytes, bytesOf(one));
  }
  KeptChannel& channel = *one.channel;
  SubscriptionLists& at = channel.provider->subscriptions;
  takeFrom(at.oldestAt, at.newestAt, one, &Subscription::olderAt, &Subscription::newerAt);
  SubscriptionLists& of = channel.subscriber->subscriptions;
  takeFrom(of.oldestOf, of.newestOf, one, &Subscription::olderOf, &Subscription::newerOf);
  const auto pair = pairs_.find(pairOf(*channel.provider, *channel.subscriber));
  if (--pair->second == 0) pairs_.erase(pair);
  eraseFrom(subscriptions_, one.hash, one);
  if (--channel.subscriptions == 0) eraseFrom(channels_, channel.hash, channel);  // B2
}

}  // namespace loader
