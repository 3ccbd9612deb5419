// A row is bounded, so that it fits into a chunk whatever strangers do: the senders by what the outbox keeps, the
// subscriptions by being added up where they differ in nothing that is shown, and beyond that in one entry.

#include "watch/traffic_table.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "kl/chunk.h"
#include "loader.kl.h"
#include "watch/request_table.h"

namespace loader {
namespace {

using Entries = std::vector<kl::message::flat_message>;

// One sender or subscription that is looked at.
constexpr Work::Units kLook = Work::kFrame;

kl::message entryOf(const Senders::Sent& sent) {
  kl::message entry;
  entry.insert(loader_service::SERVICE_ID, sent.sender);
  entry.insert(loader_service::MESSAGES_IN, sent.messages);
  entry.insert(loader_service::BYTES_IN, sent.bytes);
  return entry;
}

Entries sendersOf(const Service& service) {
  Entries entries;
  for (const Senders::Sent& sent : service.senders.all()) entries.push_back(entryOf(sent).flattened());
  const Senders::Sent& others = service.senders.others();
  if (others.messages != 0) entries.push_back(entryOf(others).flattened());
  return entries;
}

// What subscriptions have in common that are shown as one: who subscribed, where inside the service, to what.
struct Kind {
  unsigned int subscriber;
  std::vector<unsigned int> path;
  unsigned int command;

  bool operator<(const Kind& other) const {
    return std::tie(subscriber, path, command) < std::tie(other.subscriber, other.path, other.command);
  }
};

Kind kindOf(const KeptChannel& channel) {
  std::vector<unsigned int> path = channel.handlerIds();
  path.resize(std::min<std::size_t>(path.size(), TrafficTable::kMostPath));
  return {channel.subscriber->id, std::move(path), channel.command};
}

std::map<Kind, unsigned int> countedAt(const Service& service, Work& work) {
  std::map<Kind, unsigned int> counts;
  for (const Subscription* one = service.subscriptions.oldestAt; one != nullptr; one = one->newerAt) {
    work.spend(kLook);
    Kind kind = kindOf(*one->channel);
    const bool isToldApart = counts.size() < TrafficTable::kMostSubscribers || counts.contains(kind);
    ++counts[isToldApart ? std::move(kind) : Kind{Senders::kOthers, {}, kl::CMD_NOOP}];
  }
  return counts;
}

Entries subscribersOf(const Service& service, Work& work) {
  Entries entries;
  for (const auto& [kind, count] : countedAt(service, work)) {
    kl::message entry;
    entry.insert(loader_service::SERVICE_ID, kind.subscriber);
    entry.insert(loader_service::TIMES, count);
    if (kind.subscriber != Senders::kOthers) {
      entry.insert(loader_service::PATH, kind.path);
      entry.insert(loader_service::COMMAND, kind.command);
    }
    entries.push_back(entry.flattened());
  }
  return entries;
}

kl::message rowOf(const Service& service, Work& work) {
  work.spend(Work::kRow + kLook * static_cast<Work::Units>(service.senders.all().size()));
  kl::message row;
  row.insert(kl::STD_ID, service.id);
  row.insert(loader_service::NAME, service.name);
  row.insert(loader_service::SENDERS, sendersOf(service));
  row.insert(loader_service::SUBSCRIBERS, subscribersOf(service, work));
  return row;
}

}  // namespace

kl::message TrafficTable::answer(const Service& asker, const kl::message& request, unsigned int command,
                                 Work& work) const {
  switch (command) {
    case kl::CMD_NOOP: return {};
    case kl::CMD_GETALL: return chunk(asker, request, work);
    case kl::CMD_GETOBJ: return row(asker, request, work);
    default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
  }
}

kl::message TrafficTable::chunk(const Service& asker, const kl::message& request, Work& work) const {
  const unsigned int start = request.get(kl::STD_GETALLID, kl::BADID);
  const ServiceTable::Map& all = services_.all();
  kl::Chunk chunk(request.get(kl::STD_GETALLNO, 0));
  for (auto at = start == kl::BADID ? all.begin() : all.lower_bound(start); at != all.end(); ++at) {
    const Service& service = *at->second;
    work.spend(kLook);
    if (maySee(asker, request, service, service) && !chunk.add(at->first, rowOf(service, work))) break;
  }
  return chunk.reply();
}

kl::message TrafficTable::row(const Service& asker, const kl::message& request, Work& work) const {
  const Service* service = services_.find(request.get(kl::STD_ID, kl::BADID));
  const bool isShown = service != nullptr && maySee(asker, request, *service, *service);
  return isShown ? rowOf(*service, work) : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
}

}  // namespace loader
