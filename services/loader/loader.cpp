// A client is a connection and its other end: nobody known yet, or a service.  Arrows of the rooms below that would
// point up end here: frames go from a connection to the router or to the registration, ends of
// connections and of processes to the lifecycle, changes of the table to the loader's own service.

#include "loader.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "admission/rights.h"
#include "crashes/secrets.h"
#include "kl/utilities.h"
#include "life/markers.h"
#include "services/common/seconds.h"
#include "watch/bus_metrics.h"

namespace loader {
namespace {

constexpr char kMetricsSocket[] = "/ram/kelometrics";
constexpr mode_t kMetricsMode = 0660;
constexpr unsigned int kTicksPerSecond = 100;
constexpr unsigned int kRefusalSeconds = 10;   // between two lines about refused subscriptions
constexpr std::size_t kMostLastMessages = 64;  // that are kept with a crash
constexpr std::size_t kMostPending = 256;      // connections of one user that have not registered

// One user's connections must not exhaust the descriptors, nor take those that the output of services needs.
Limits limitsOf(const Configuration& configuration) {
  Limits limits = configuration.quota;
  const std::size_t all = descriptorLimit();
  limits.fitDescriptors(all - std::min(all, ServiceOutput::kMostDescriptors * configuration.services.size()));
  return limits;
}

std::string counterFile(const Configuration& configuration) { return configuration.stateFolder + "/next-id"; }

}  // namespace

class Loader::Client final : private ConnectionHost {
 public:
  Client(Loader& loader, Descriptor socket, const Applicant& applicant, Patience patience, Account& account)
      : who(applicant),
        connection(
            loader.sockets_, *this, loader.area_, loader.turns_, std::move(socket),
            applicant.startedAs == nullptr ? Connection::Origin::kAccepted : Connection::Origin::kLaunched,
            patience),
        loader_(loader) {
    charge_.set(1);
    chargeTo(account);
    if (connection.isPending()) place_ = pendingOfUser().insert(pendingOfUser().end(), this);
  }

  void become(Service& registered) {
    leavePending();
    if (registered.account == nullptr) registered.chargeTo(account());
    chargeTo(*registered.account);
    service = &registered;
    registered.connect(&connection);
    connection.attach(registered.out);
  }

  // The service that it was, if it was one.
  Service* close() {
    leavePending();
    connection.close();
    charge_.bind(nullptr, Resource::kConnections);
    if (service != nullptr) service->disconnect();
    return std::exchange(service, nullptr);
  }

  std::string name() const {
    if (service != nullptr) return describe(*service);
    if (who.startedAs != nullptr) return describe(*who.startedAs);
    return "pid " + std::to_string(who.pid);
  }

  // An ordinary user's process that registered, at the cost of all others, and has sent nothing since.
  bool hasWastedRegistration() const {
    return service != nullptr && !service->isConfigured && !account().isTrusted() &&
           service->traffic.messagesOut == 0;
  }

  Account& account() const { return *connection.account(); }

  const Applicant who;
  Service* service = nullptr;  // null until it has registered
  Connection connection;

 private:
  void onBatch() override { loader_.router_.setNow(common::momentNow()); }
  const char* onFrame(std::span<const unsigned char> body) override {
    return service != nullptr ? loader_.router_.route(*service, body, progress_)
                              : loader_.registerClient(*this, body);
  }
  bool isFrameUnfinished() const override { return progress_.isUnfinished; }
  void onPendingReadable() override { loader_.pending_.add(connection); }
  void onConnectionClosed(const std::string& reason) override { loader_.onConnectionClosed(*this, reason); }
  void writeQueues() override {
    if (service != nullptr) Outbox::noteWritten(*service);
    loader_.writeQueues();
  }

  void chargeTo(Account& account) {
    charge_.bind(&account, Resource::kConnections);
    connection.chargeTo(&account);
  }
  std::list<Client*>& pendingOfUser() { return loader_.pendingByUser_[who.uid]; }
  void leavePending() {
    if (!connection.isPending()) return;
    pendingOfUser().erase(place_);
    if (pendingOfUser().empty()) loader_.pendingByUser_.erase(who.uid);
  }

  Loader& loader_;
  Router::Progress progress_;
  Charge charge_;
  std::list<Client*>::iterator place_;  // in line() while the connection is pending
};

Loader::Loader(Configuration configuration, Log& log)
    : configuration_(std::move(configuration)),
      log_(log),
      logSender_(loop_, log),
      accounts_(limitsOf(configuration_), ::geteuid()),
      ids_(counterFile(configuration_), log),
      outbox_(configuration_.queueLimit),
      kept_(configuration_.stateFolder + "/leave", log),
      explainer_(configuration_, table_),
      openTable_(table_, requests_, common::momentNow),
      own_(
          loop_, addOwnRow(), table_, subscriptions_, outbox_,
          [this](Service& service, unsigned int action) { return lifecycle_.order(service, action); },
          [this] { writeQueues(); }),
      taps_(
          loop_, table_, requests_, outbox_, common::momentNow,
          [this](Witness* witness) {
            router_.setWitness(witness);
            outbox_.setWitness(witness);
          },
          [this] { writeQueues(); }),
      denials_(configuration_, log),
      probes_(outbox_),
      deadlocks_(
          loop_, table_, requests_, probes_, common::momentNow,
          [this](const std::string& line) { log_.line(line); }, [this] { writeQueues(); }),
      watchdog_(
          loop_, table_, requests_, probes_, common::momentNow,
          [this](const std::string& line) { log_.line(line); },
          [this](Service& service, const std::string& why) { lifecycle_.endHung(service, why); },
          [this] { writeQueues(); }),
      router_(table_, requests_, subscriptions_, outbox_,
              {[this](Service& caller, const kl::message& request) { own_.handle(caller, request); },
               [this](Service& sender, const Envelope& e) { lifecycle_.onControl(sender, e); },
               [this](Service& to) { lifecycle_.onNeeded(to); },
               [this](const Service& sender, const Envelope& e, unsigned int toId, Path rest,
                      const Access& access) {
                 denials_.report(sender, e, toId, rest, access, common::secondsNow());
               },
               [this] { deadlocks_.onChain(); },
               [this](Service& sender, unsigned int id) { onProbeAnswer(sender, id); }}),
      registration_(table_, ids_, configuration_),
      leaving_(table_, kept_),
      idleness_(loop_, common::secondsNow, [this](Service& service) { onIdle(service); }),
      lifecycle_(loop_, table_, requests_, outbox_, router_, registration_, leaving_, idleness_, log, *this),
      crashes_(
          loop_, log, configuration_.stateFolder + "/crashes",
          [this](unsigned int service) { return secretNamesOf(service); },
          [this](unsigned int service) { return ring_.messagesOf(service, kMostLastMessages); },
          [this](const Crashed& crashed, const std::string& end) { onCrashNamed(crashed, end); }),
      listener_(loop_, log,
                [this](Descriptor socket, common::Peer peer) { onConnection(std::move(socket), peer); }),
      pending_(loop_),
      metrics_(loop_, log, [this] {
        return common::metricsText(metricsOf(table_, requests_, connections_, common::momentNow()));
      }) {
  router_.setRing(&ring_);
  outbox_.setRing(&ring_);
  own_.setExplainer(explainer_);
  own_.setRequests(openTable_);
  own_.setCrashes(crashTable_);
  own_.setTraffic(trafficTable_);
  own_.setConnections(connections_);
  own_.setTaps(taps_);
  own_.setReload([this](const kl::message& request) { return onReloadOrder(request); });
  lifecycle_.setOnCrash([this](const Crashed& crashed) { crashes_.add(crashed); });
  table_.setListener([this](unsigned int id) { own_.onRowChanged(id); });
  subscriptions_.setOnRefused([this](const Service& subscriber, const Service& provider) {
    onSubscriptionRefused(subscriber, provider);
  });
  for (const ServiceConfiguration& service : configuration_.services) addConfigured(service);
}

Loader::~Loader() = default;

// The signals' handlers stand before the socket: a process that sees it may end the loader at once.
std::string Loader::start() {
  std::error_code error;
  std::filesystem::create_directories(configuration_.stateFolder, error);
  if (error) log_.line(configuration_.stateFolder + ": cannot be made: " + error.message());
  loop_.addSighandler(SIGCHLD, this, kl::bind<Loader, &Loader::onChildSignal>(), true);
  loop_.addSighandler(SIGTERM, this, kl::bind<Loader, &Loader::onEndSignal>(), true);
  loop_.addSighandler(SIGINT, this, kl::bind<Loader, &Loader::onEndSignal>(), true);
  loop_.addSighandler(SIGHUP, this, kl::bind<Loader, &Loader::onReloadSignal>(), true);
  loop_.addBeforeSleep(this, kl::bind<Loader, &Loader::onPassOver>());
  if (std::string problem = listener_.open(); !problem.empty()) return problem;
  openMetrics();
  removeStrangeMarkers(configuration_, kl::runFolderPath(), log_);
  kept_.open();
  crashes_.open();
  leaving_.restore();
  lifecycle_.begin();
  supervisor_.tellReady();
  return {};
}

void Loader::run() { loop_.run(); }

// No system goes without its services because nobody can be shown how they are.
void Loader::openMetrics() {
  metrics_.close();
  if (!configuration_.metrics.isOn) return;
  const std::string problem =
      metrics_.open(kl::underRoot(kMetricsSocket), {kMetricsMode, configuration_.metrics.group});
  if (!problem.empty()) log_.line(problem + "; there are no metrics");
}

Service& Loader::addOwnRow() {
  Service& own = table_.add(kl::SERVICE_LOADER);
  own.name = "loader";
  own.pid = ::getpid();
  own.user = configuration_.users.nameOf(::geteuid());
  own.starts = 1;
  own.rules = rulesFor(configuration_, kl::SERVICE_LOADER);
  own.state = kl::SVC_STATE_RUNNING;
  outbox_.setSender(own);
  return own;
}

void Loader::onProbeAnswer(Service& service, unsigned int requestId) {
  if (probes_.onAnswer(service, requestId)) deadlocks_.onAnswer(service);
}

// Neither its orders nor a word to the loader come any more, and it reads no tap.
void Loader::forgetAwayOne(const Service& service) {
  own_.forgetOrdersOf(service);
  taps_.forget(service);
  probes_.forget(service);
  deadlocks_.forget(service);
}

void Loader::addConfigured(const ServiceConfiguration& configured) {
  Service& service = table_.add(configured.id);
  service.chargeTo(accounts_.ofService(configured.id));
  service.name = configured.name;
  service.user = configured.user.empty() ? configuration_.users.nameOf(::geteuid()) : configured.user;
  service.rules = rulesFor(configuration_, configured.id);
  lifecycle_.configure(service, configured);
  watchdog_.watch(configured.id, configured.watchdogSeconds);
}

void Loader::onConnection(Descriptor socket, common::Peer peer) {
  Account& account = accounts_.ofUser(peer.uid, kl::getJiffies());
  if (!account.isTrusted() && !account.hasRoomFor(Resource::kConnections, 1)) return turnAway(peer, account);
  makeRoomFor(peer.uid);
  addClient(std::move(socket), {peer, nullptr}, account);
  pending_.add(clients_.back()->connection);  // poll would report the newest first
}

// The connection is closed rather than left where root would have to wait behind it.
void Loader::turnAway(common::Peer peer, Account& account) {
  if (!account.pace().takeLogLine(kl::getJiffies())) return;
  log_.line("pid " + std::to_string(peer.pid) + ": too many connections of " +
            configuration_.users.nameOf(peer.uid) + ", or of all users; refused");
}

// The oldest unregistered connection is closed when there are too many of one user: a genuine client registers at once.
void Loader::makeRoomFor(uid_t user) {
  const auto found = pendingByUser_.find(user);
  if (found != pendingByUser_.end() && found->second.size() >= kMostPending)
    onConnectionClosed(*found->second.front(), "has not registered, as too many others of its user");
}

// The credentials of a socket pair are those of its maker, the loader; the process is known anyway.
void Loader::adopt(Service& service, Descriptor connection) {
  (void)::fcntl(connection.get(), F_SETFL, O_NONBLOCK);
  addClient(std::move(connection), {{service.pid, registration_.userOf(service)}, &service},
            *service.account);
}

void Loader::addClient(Descriptor socket, const Applicant& who, Account& account) {
  const Patience patience{Shares::refusesFrom(configuration_.queueLimit),
                          configuration_.stallSeconds * kTicksPerSecond};
  ++connections_;
  clients_.push_back(std::make_unique<Client>(*this, std::move(socket), who, patience, account));
}

// The first frame of a connection must register it.
const char* Loader::registerClient(Client& client, std::span<const unsigned char> body) {
  Envelope e;
  if (const char* fault = readEnvelope(body, e)) return fault;
  const bool isForLoader = e.path().size() == 1 && e.path()[0] == kl::SERVICE_LOADER;
  if (!e.isControl || e.control != kl::CTRL_HELLO || !isForLoader)
    return "sent a message before its registration";
  router_.announceEnds();  // nothing of a successor precedes the end of who had the id
  Service* service = registration_.admit(client.who, e, refusal_);
  if (service == nullptr) return refusal_.c_str();
  client.become(*service);
  if (service->id == kl::SERVICE_LOG) logSender_.onServiceThere();
  lifecycle_.onRegistered(*service);
  return nullptr;
}

void Loader::onConnectionClosed(Client& client, const std::string& reason) {
  if (!client.connection.isOpen()) return;
  if (!reason.empty()) log_.line(client.name() + ": " + reason + "; disconnected");
  Service* startedAs = client.who.startedAs;
  const bool hasFailed = client.service == nullptr || !reason.empty() || client.hasWastedRegistration();
  if (hasFailed && startedAs == nullptr) countFailure(client, client.account());
  pending_.forget(client.connection);
  someoneClosed_ = true;
  if (Service* service = client.close()) lifecycle_.onConnectionClosed(*service);
  else if (startedAs != nullptr && !startedAs->isConnected()) lifecycle_.onHungUp(*startedAs);
}

// Connections of an account that come to nothing hold up its own next ones.
void Loader::countFailure(const Client& client, Account& account) {
  const unsigned int now = kl::getJiffies();
  if (account.pace().countFailure(now) && account.pace().takeLogLine(now))
    log_.line(configuration_.users.nameOf(client.who.uid) +
              ": too many connections come to nothing; new ones have to wait");
}

void Loader::disconnect(Service& service) {
  for (const auto& client : clients_)
    if (client->service == &service) return onConnectionClosed(*client, "is to stop");
}

// A process that never registered has no connection in its row; it is found by what it was started as.  One that
// registered at the socket has two connections.
void Loader::drainConnectionsOf(Service& service) {
  for (std::size_t i = 0; i < clients_.size(); ++i) {
    Client& client = *clients_[i];
    const bool isOfService = client.who.startedAs == &service || client.service == &service;
    if (!client.connection.isOpen() || !isOfService) continue;
    client.connection.drain();
    onConnectionClosed(client, "");
  }
}

void Loader::onIdle(Service& service) {
  if (lifecycle_.askToLeave(service) == nullptr)
    log_.line(describe(service) + ": is idle and asked to leave");
  writeQueues();
}

// By the installed description; who is not configured has the name that he says.
std::set<std::string> Loader::secretNamesOf(unsigned int service) const {
  std::set<std::string> names;
  const ServiceConfiguration* configured = configuration_.find(service);
  if (configured == nullptr) return names;
  common::Mistakes ignored;
  for (const unsigned int field :
       ServiceNames(configuration_.descriptions, configured->name, ignored).secretFields())
    names.insert(nameInReport(field));
  return names;
}

// The next process of the service may have ended meanwhile, of something else.
void Loader::onCrashNamed(const Crashed& crashed, const std::string& end) {
  Service* service = table_.find(crashed.serviceId);
  if (service == nullptr || !service->isConfigured || !end.starts_with(service->lastEnd)) return;
  service->lastEnd = end;
  table_.setState(*service, service->state);
}

void Loader::onSubscriptionRefused(const Service& subscriber, const Service& provider) {
  const unsigned int now = common::secondsNow();
  if (refusalReportedAt_ && now - *refusalReportedAt_ < kRefusalSeconds) return;
  refusalReportedAt_ = now;
  log_.line(describe(subscriber) + ": its subscription at " + describe(provider) +
            " is refused, as its account has too many");
}

void Loader::onAllEnded() {
  router_.announceEnds();
  writeQueues();
  kept_.flush();
  loop_.stop();
}

void Loader::writeQueues() {
  outbox_.eachDirty([](Service& service) {
    if (service.connection != nullptr) service.connection->onOutput();
  });
}

void Loader::onPassOver() {
  if (next_ && !isEnding_) applyNext();
  if (lifecycle_.hasDismissed() || !awaited_.empty()) addAwaited();
  turns_.serve();
  pending_.serve();
  router_.announceEnds();
  taps_.onPassOver();
  metrics_.onPassOver();
  writeQueues();
  removeClosed();
}

void Loader::removeClosed() {
  if (!someoneClosed_) return;
  someoneClosed_ = false;
  std::erase_if(clients_, [](const auto& client) { return !client->connection.isOpen(); });
  listener_.resume();
}

void Loader::onChildSignal(int) {
  lifecycle_.reap();
  writeQueues();
}

void Loader::onEndSignal(int sig) {
  log_.line("ends because of signal " + std::to_string(sig));
  isEnding_ = true;
  supervisor_.tellStopping();
  listener_.close();
  metrics_.close();  // for the loader that comes next
  lifecycle_.end();
  writeQueues();
}

}  // namespace loader
