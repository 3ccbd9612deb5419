// A script of what processes do to the loader: they register, send frames, stop reading, and end.  The bytes of a
// frame are the script's own or made from few fields, so that paths, replies and the loader's own commands are met.
//
//   - a service gets an id that nobody has and that may be given
//   - a frame is delivered only to a service that its path names; it is a whole message, its SYS_FROM begins with the
//     id of its sender, it is no control message, and a command carries the rights of its sender, or none where its
//     receiver has subscribed to it
//   - a reply is delivered only to who has asked, and once
//   - who has ended has no open requests
//   - an account has what its services take, a pool what its accounts have, and no user more than its limits, which are
//     small here; when all have ended nothing is taken any more

#include <unistd.h>

#include <map>
#include <set>
#include <tuple>

#include "admission/registration.h"
#include "config/configuration.h"
#include "fuzz/input.h"
#include "own/own_service.h"
#include "routing/router.h"
#include "transport/frame_reader.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using loader::Account;
using loader::Amounts;
using loader::Pool;
using loader::Resource;
using loader::Service;
using Ids = std::vector<unsigned int>;

constexpr std::size_t kQueueLimit = 4000;
constexpr unsigned int kNobody = 65534;
constexpr unsigned int kAnother = 65533;
constexpr unsigned int kConfigured = 40;

// A loop that is never run: its timers wait.
struct Loop final : kl::ThinRunner {
  int sleepTime(unsigned int) override { return 0; }
};

loader::Configuration configuration() {
  loader::Configuration c;
  c.services.emplace_back();
  c.services[0].id = kConfigured;
  c.services[0].name = "configured";
  c.services[0].rights = loader::Rights::of(3);
  return c;
}

// Limits that few frames reach.
Pool poolOf(bool isReserve) {
  Pool pool;
  const auto set = [&](Resource resource, std::size_t one, std::size_t all) {
    pool.mostOfOne[resource] = one;
    pool.most[resource] = all;
  };
  set(Resource::kConnections, 3, 4);
  set(Resource::kQueueBytes, 26 * 1024, 40 * 1024);
  set(Resource::kRequests, 3, 4);
  set(Resource::kSubscriptions, 3, 4);
  set(Resource::kSubscriptionBytes, 48, 64);
  pool.isReserve = isReserve;
  return pool;
}

// An account of each user, and one of the configured service.
class Quotas {
 public:
  Account& of(uid_t user) {
    const bool isOrdinary = user != 0;
    return users_.try_emplace(user, isOrdinary ? ordinary_ : reserve_, loader::Pace()).first->second;
  }
  Account& ofConfigured() { return configured_; }

  template <class Function>
  void each(Function function) const {
    for (const auto& [user, account] : users_) function(account);
    function(configured_);
  }
  void checkPools() const {
    for (const loader::ResourceRow& row : loader::kResourceRows) {
      std::size_t ofUsers = 0;
      std::size_t ofReserve = 0;
      each([&](const Account& account) {
        (account.isTrusted() ? ofReserve : ofUsers) += account.used(row.resource);
      });
      require(ordinary_.used[row.resource] == ofUsers, "a pool has what its accounts have");
      require(reserve_.used[row.resource] == ofReserve, "the reserve has what its accounts have");
    }
  }

 private:
  Pool ordinary_ = poolOf(false);
  Pool reserve_ = poolOf(true);
  std::map<uid_t, Account> users_;
  Account configured_{reserve_, loader::Pace()};
};

// A whole frame's body, as it lies in a queue.
template <class Queue>
std::vector<Bytes> framesBehind(const Queue& queue, std::size_t before) {
  std::vector<Bytes> frames;
  for (auto rest = queue.bytes().subspan(before); !rest.empty();) {
    require(rest.size() >= kl::FRAME_PREFIX_BYTES, "queues hold whole frames");
    const std::size_t length = kl::readLe32(rest.data());
    require(length <= rest.size() - kl::FRAME_PREFIX_BYTES, "queues hold whole frames");
    const auto body = rest.subspan(kl::FRAME_PREFIX_BYTES, length);
    frames.emplace_back(body.begin(), body.end());
    rest = rest.subspan(kl::FRAME_PREFIX_BYTES + length);
  }
  return frames;
}

// The services that a path names; PATH_ALL stands for itself.
std::set<unsigned int> namedBy(const Ids& path) {
  std::set<unsigned int> named;
  if (path.empty()) return named;
  if (path[0] != kl::PATH_MULTI) return {path[0]};
  for (std::size_t at = 1; at + 1 < path.size() && path[at] < path.size(); at += 1 + path[at])
    named.insert(path[at + 1]);
  return named;
}

class System {
 public:
  System() {
    self_.name = "loader";
    self_.state = kl::SVC_STATE_RUNNING;
    outbox_.setSender(self_);
    table_.setListener([this](unsigned int id) { own_.onRowChanged(id); });
    Service& configured = table_.add(kConfigured);
    configured.name = "configured";
    configured.isConfigured = true;
    configured.isHeldFor = true;
    configured.chargeTo(quotas_.ofConfigured());
    for (const unsigned int id : {10U, 24U}) registerAs(id, 0);
  }

  void step(fuzz::Input& input) {
    act(input);
    checkAccounts();
  }

  // Everybody ends, and what is held for the configured service is given up.
  void finish() {
    while (!services_.empty()) end(*services_.back());
    Service* configured = table_.find(kConfigured);
    require(configured != nullptr, "what is configured stays");
    router_.onServiceGone(*configured);
    router_.announceEnds();
    checkAccounts();
    quotas_.each([](const Account& account) {
      for (const loader::ResourceRow& row : loader::kResourceRows)
        require(account.used(row.resource) == 0, "who has ended takes nothing");
    });
  }

 private:
  using Open = std::tuple<unsigned int, unsigned int, unsigned int, Ids>;  // caller, callee, id, return path
  using Wish =
      std::tuple<unsigned int, Ids, Ids, unsigned int>;  // provider, handler, who subscribed, command

  void act(fuzz::Input& input) {
    const unsigned int operation = input.upTo(7);
    if (operation == 0) return registerOne(input);
    if (services_.empty()) return;
    Service& service = *services_[input.upTo(static_cast<unsigned int>(services_.size()) - 1)];
    switch (operation) {
      case 1: return end(service);
      case 2: return service.out.clear();
      case 3: return own_.sendChanges();
      case 4: return send(service, input.bytes(input.u8()));
      default: return send(service, madeFrom(input));
    }
  }

  void registerAs(unsigned int id, uid_t user) {
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CTRL, kl::CTRL_HELLO);
    m.insert(kl::REGISTRATION_VALUES, {id, 1});
    Bytes bytes;
    m.flatten(bytes);
    admit(bytes, user);
  }

  void registerOne(fuzz::Input& input) {
    if (services_.size() >= 8) return;
    static constexpr uid_t kUsers[] = {0, kNobody, 0, kAnother};
    const uid_t user = kUsers[input.upTo(3)];
    if (input.upTo(1) == 0) return admit(input.bytes(input.u8()), user);
    registerAs(input.upTo(3) == 0 ? input.u32() : input.u8(), user);
  }

  void admit(const Bytes& hello, uid_t user) {
    loader::Envelope e;
    if (loader::readEnvelope(hello, e) != nullptr) return;
    Account& account = quotas_.of(user);
    if (!account.isTrusted() && !account.hasRoomFor(Resource::kConnections, 1)) return;
    std::string refusal;
    Service* service = registration_.admit({{::getpid(), user}, nullptr}, e, refusal);
    require((service == nullptr) != refusal.empty(), "a refusal says why");
    if (service == nullptr) return;
    require(!service->isConnected() && loader::isConfigurable(service->id), "an id that nobody has");
    service->connect();
    service->bornAt = 1;
    service->isHeldFor = false;
    if (service->account == nullptr) service->chargeTo(account);
    connections_[service].bind(service->account, Resource::kConnections);
    connections_[service].set(1);
    services_.push_back(service);
    outbox_.release(*service);
    requests_.release(*service);
    table_.setState(*service, kl::SVC_STATE_REGISTERED);
  }

  void end(Service& service) {
    std::erase_if(open_, [&](const Open& open) {
      return std::get<0>(open) == service.id || std::get<1>(open) == service.id;
    });
    std::erase_if(wishes_, [&](const Wish& wish) {
      return std::get<0>(wish) == service.id || std::get<2>(wish).at(0) == service.id;
    });
    std::erase(services_, &service);
    connections_.erase(&service);
    service.disconnect();
    own_.forgetOrdersOf(service);
    router_.onServiceGone(service);
    require(service.requests.madeCount == 0 && service.requests.servingCount == 0, "no open requests");
    require(service.subscriptions.oldestAt == nullptr && service.subscriptions.oldestOf == nullptr,
            "no subscriptions");
    if (service.isConfigured) table_.setState(service, kl::SVC_STATE_STOPPED);
    else table_.remove(service.id);
  }

  void checkAccounts() const {
    quotas_.checkPools();
    quotas_.each([this](const Account& account) {
      const Amounts taken = takenFrom(account);
      for (const Resource resource :
           {Resource::kConnections, Resource::kQueueBytes, Resource::kRequests, Resource::kSubscriptions})
        require(account.used(resource) == taken[resource], "an account has what its services take");
      if (account.isTrusted()) return;
      for (const Resource resource : {Resource::kConnections, Resource::kRequests, Resource::kSubscriptions,
                                      Resource::kSubscriptionBytes})
        require(!account.isOver(resource), "nobody takes more than he may");
    });
  }

  Amounts takenFrom(const Account& account) const {
    Amounts taken;
    for (const auto& [id, service] : table_.all()) {
      if (service->account != &account) continue;
      taken[Resource::kConnections] += service->isConnected() ? 1 : 0;
      taken[Resource::kQueueBytes] += service->out.charged() + service->held.charged();
      taken[Resource::kRequests] += service->requests.madeCount;
      for (const auto* one = service->subscriptions.oldestOf; one != nullptr; one = one->newerOf)
        ++taken[Resource::kSubscriptions];
    }
    return taken;
  }

  static Bytes madeFrom(fuzz::Input& input) {
    static constexpr unsigned int kHops[] = {1,  10, 24, kConfigured,  0x10000,        0,
                                             99, 2,  30, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF};
    const auto path = [&](unsigned int most) {
      Ids ids(input.upTo(most));
      for (unsigned int& id : ids) id = kHops[input.upTo(11)];
      return ids;
    };
    kl::message m;
    m.insert(kl::SYS_TO, path(5));
    const unsigned int fields = input.u8();
    if ((fields & 1) != 0) m.insert(kl::SYS_FROM, path(3));
    if ((fields & 2) != 0) m.insert(kl::SYS_CMD, 0xfe0000 + input.upTo(0x18));
    if ((fields & 4) != 0) m.insert(kl::SYS_REQID, input.upTo(3));
    if ((fields & 8) != 0) m.insert(kl::SYS_TYPE, 1 + input.upTo(1));
    if ((fields & 16) != 0) m.insert(kl::SYS_REPLYEXP, true);
    if ((fields & 32) != 0) m.insert(kl::SYS_STATUS, 1 + input.upTo(1));
    if ((fields & 64) != 0) m.insert(kl::SYS_USER, "root");
    if ((fields & 128) != 0) m.insert_u32(0x08fe0000 | input.upTo(20), kHops[input.upTo(11)]);
    Bytes bytes;
    m.flatten(bytes);
    const Bytes more = input.bytes(input.upTo(1) * input.upTo(40));
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
  }

  // Sends one frame, and looks at what it added to every queue.
  void send(Service& sender, const Bytes& body) {
    std::vector<std::tuple<Service*, std::size_t, std::size_t>> before;
    for (const auto& [id, service] : table_.all())
      before.emplace_back(service.get(), service->out.size(), service->held.size());
    const char* fault = router_.route(sender, body);
    const Ids path = kl::message(body).get(kl::SYS_TO, {});
    for (const auto& [service, out, held] : before) {
      for (const Bytes& frame : framesBehind(service->out, out))
        arrived(frame, sender, *service, path, fault);
      for (const Bytes& frame : framesBehind(service->held, held))
        arrived(frame, sender, *service, path, fault);
    }
    if (fault != nullptr) end(sender);
  }

  void arrived(const Bytes& frame, const Service& sender, const Service& at, const Ids& path,
               const char* fault) {
    kl::message m;
    require(m.unflatten(frame.data(), static_cast<unsigned int>(frame.size()), kl::message::normal),
            "what arrives is a message");
    const Ids from = m.get(kl::SYS_FROM, {});
    require(!m.has(kl::SYS_CTRL), "no control message arrives");
    const bool isOwnWord =
        &at == &sender && (from.empty() || from[0] != sender.id);  // an answer of the loader
    if (isOwnWord) return;
    require(fault == nullptr, "garbage is not delivered");
    require(!from.empty() && from[0] == sender.id, "SYS_FROM begins with the sender");
    const std::set<unsigned int> named = namedBy(path);
    require(named.contains(at.id) || named.contains(kl::PATH_ALL), "it arrives where its path says");
    if (&at == &sender) return;  // it may be what the loader said of a path that begins with the sender
    if (m.get(kl::SYS_TYPE, kl::TYPE_REQUEST) == kl::TYPE_REPLY) return answered(m, sender, at);
    if (m.has(kl::SYS_CMD)) checkRights(m, sender, at);
    if (m.get(kl::SYS_CMD, 0) == kl::CMD_SUBSCRIBE)
      wishes_.insert({at.id, m.get(kl::SYS_TO, {}), from, m.get(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY)});
    loader::Envelope e;
    if (loader::readEnvelope(frame, e) == nullptr || e.isTracked())
      open_.insert({sender.id, at.id, m.get(kl::SYS_REQID, 0), Ids(from.begin() + 1, from.end())});
  }

  void answered(const kl::message& reply, const Service& sender, const Service& caller) {
    const auto open =
        open_.find({caller.id, sender.id, reply.get(kl::SYS_REQID, 0), reply.get(kl::SYS_TO, {})});
    require(open != open_.end(), "a reply answers an open request, once");
    open_.erase(open);
  }

  // Without the rights of a sender nothing passes but what its receiver once asked for.
  void checkRights(const kl::message& command, const Service& sender, const Service& at) const {
    if (sender.rights.isTrusted) return require(command.has(kl::SYS_USER), "a command names a user");
    if (!command.has(kl::SYS_USER) && !command.has(kl::SYS_POLICY)) return checkWish(command, sender, at);
    const auto& records = sender.rights.grants.at(0).records;
    Bytes expected{0x4d, 0x32};
    expected.insert(expected.end(), records.begin(), records.end());
    require(command.includes(kl::message(expected)), "a command carries the rights of its sender");
  }

  void checkWish(const kl::message& command, const Service& sender, const Service& at) const {
    const Ids from = command.get(kl::SYS_FROM, {});
    Ids subscriber = command.get(kl::SYS_TO, {});
    subscriber.insert(subscriber.begin(), at.id);
    const Wish wish{sender.id, Ids(from.begin() + 1, from.end()), subscriber, command.get(kl::SYS_CMD, 0)};
    require(wishes_.contains(wish), "a command without rights was asked for");
    require(!command.has(kl::SYS_REQID) && !command.has(kl::SYS_REPLYEXP), "nobody can answer it");
  }

  Quotas quotas_;
  Loop loop_;
  const loader::Configuration configuration_ = configuration();
  loader::Log log_{-1};
  loader::IdCounter ids_{"/dev/null/none", log_};  // no file: it counts in memory
  loader::ServiceTable table_;
  loader::OpenRequests requests_{1};
  loader::Subscriptions subscriptions_{1};
  loader::Outbox outbox_{kQueueLimit};
  Service& self_ = table_.add(kl::SERVICE_LOADER);
  loader::OwnService own_{loop_,          self_,   table_,
                          subscriptions_, outbox_, [](Service&, unsigned int) { return "cannot be done"; },
                          [] {}};
  loader::Router router_{table_,
                         requests_,
                         subscriptions_,
                         outbox_,
                         {[this](Service& caller, const kl::message& m) { own_.handle(caller, m); },
                          [](Service&, const loader::Envelope&) {}, [](Service&) {}}};
  loader::Registration registration_{table_, ids_, configuration_};
  std::map<const Service*, loader::Charge> connections_;
  std::vector<Service*> services_;  // that are connected
  std::multiset<Open> open_;
  std::set<Wish> wishes_;  // subscriptions, some of which have been ended
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, std::min<std::size_t>(size, 4096));
  System system;
  while (!input.isEmpty()) system.step(input);
  system.finish();
  return 0;
}
