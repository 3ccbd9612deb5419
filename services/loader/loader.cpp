#include "loader.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>

namespace loader {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned int kTicksPerSecond = 100;
constexpr std::size_t kMostUnknown = 256;  // connections of one user that have not registered

std::string counterFile(const Configuration& configuration) { return configuration.stateFolder + "/next-id"; }

std::string nameOf(const Connection& connection) {
  if (connection.service() != nullptr) return describe(*connection.service());
  if (connection.who().startedAs != nullptr) return describe(*connection.who().startedAs);
  return "pid " + std::to_string(connection.who().pid);
}

}  // namespace

Loader::Loader(const Configuration& configuration, Log& log)
    : configuration_(configuration),
      log_(log),
      logSender_(loop_, log),
      ids_(counterFile(configuration), log),
      outbox_(configuration.queueLimit),
      kept_(configuration.stateFolder + "/leave", log),
      supervisor_(loop_, table_, log, *this),
      own_(loop_, table_, outbox_, supervisor_, *this),
      leaving_(table_, requests_, outbox_, kept_, log, *this),
      idleness_(loop_, *this),
      router_(table_, requests_, outbox_, own_, leaving_),
      registration_(table_, ids_, users_, configuration),
      listener_(loop_, *this) {
  table_.setListener(&own_);
  addOwnRow();
  for (const ServiceConfiguration& service : configuration.services) addConfigured(service);
}

// The signals' handlers stand before the socket: whoever sees it may end the loader at once.
std::string Loader::start() {
  std::error_code error;
  std::filesystem::create_directories(configuration_.stateFolder, error);
  if (error) log_.line(configuration_.stateFolder + ": cannot be made: " + error.message());
  loop_.addSighandler(SIGCHLD, this, kl::bind<Loader, &Loader::onChildSignal>(), true);
  loop_.addSighandler(SIGTERM, this, kl::bind<Loader, &Loader::onEndSignal>(), true);
  loop_.addSighandler(SIGINT, this, kl::bind<Loader, &Loader::onEndSignal>(), true);
  loop_.addBeforeSleep(&strangers_, kl::bind<Strangers, &Strangers::serve>());
  if (std::string problem = listener_.open(); !problem.empty()) return problem;
  kept_.open();
  leaving_.restore();
  supervisor_.startAll();
  return {};
}

void Loader::run() { loop_.run(); }

void Loader::addOwnRow() {
  Service& own = table_.add(kl::SERVICE_LOADER);
  own.name = "loader";
  own.pid = ::getpid();
  own.user = users_.nameOf(::geteuid());
  own.starts = 1;
  own.hasRegistered = true;
  own.state = kl::SVC_STATE_RUNNING;
  outbox_.setSender(own);
}

void Loader::addConfigured(const ServiceConfiguration& configured) {
  Service& service = table_.add(configured.id);
  service.name = configured.name;
  service.user = configured.user.empty() ? users_.nameOf(::geteuid()) : configured.user;
  service.configuration = &configured;
  if (!configured.command.empty()) supervisor_.supervise(service);
}

void Loader::onConnection(Descriptor socket, Applicant who) {
  makeRoomFor(who.uid);
  addConnection(std::move(socket), who);
  settle();
}

void Loader::cannotAccept(int errorNumber) {
  log_.line(std::string("connections have to wait: ") + std::strerror(errorNumber));
}

void Loader::tooManyFail() { log_.line("too many connections come to nothing; new ones have to wait"); }

// One user's processes that say nothing must not use up the descriptors of all.  The oldest goes: whoever comes to
// register does so at once.
void Loader::makeRoomFor(uid_t user) {
  std::size_t count = 0;
  Connection* oldest = nullptr;
  for (const auto& connection : connections_) {
    if (!connection->isUnknown() || connection->who().uid != user) continue;
    ++count;
    if (oldest == nullptr) oldest = connection.get();
  }
  if (count >= kMostUnknown) onEnd(*oldest, "has not registered, as too many others of its user");
}

// The credentials of a socket pair are those of whoever made it, that is the loader; the process is known anyway.
void Loader::adopt(Service& service, Descriptor connection) {
  (void)::fcntl(connection.get(), F_SETFL, O_NONBLOCK);
  const std::string& user = service.configuration->user;
  addConnection(std::move(connection),
                {service.pid, user.empty() ? ::geteuid() : Users::numberOf(user), &service});
}

void Loader::addConnection(Descriptor socket, Applicant who) {
  const Patience patience{configuration_.queueLimit, configuration_.stallSeconds * kTicksPerSecond};
  ConnectionHost& host = *this;
  connections_.push_back(std::make_unique<Connection>(loop_, host, area_, std::move(socket), who, patience));
}

void Loader::onBatch() { router_.setNow(Loader::seconds()); }

// Read from a page that the kernel shares: no system call.
unsigned int Loader::seconds() const {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned int>(now.tv_sec);
}

const char* Loader::onFrame(Connection& connection, std::span<const unsigned char> body) {
  if (connection.service() == nullptr) return enroll(connection, body);
  return router_.route(*connection.service(), body);
}

// The first frame of a connection must register it.
const char* Loader::enroll(Connection& connection, std::span<const unsigned char> body) {
  Envelope e;
  if (const char* fault = readEnvelope(body, e)) return fault;
  const bool isForLoader = e.path().size() == 1 && e.path()[0] == kl::SERVICE_LOADER;
  if (!e.isControl || e.control != kl::CTRL_HELLO || !isForLoader)
    return "sent a message before its registration";
  Service* service = registration_.admit(connection.who(), e, refusal_);
  if (service == nullptr) return refusal_.c_str();
  if (connection.who().startedAs == nullptr) supervisor_.strangerCame(*service);
  confirm(connection, *service);
  return nullptr;
}

// Behind the confirmation goes what the service has missed: who ended since it saved its data, then what was held.
void Loader::confirm(Connection& connection, Service& service) {
  connection.becomes(service);
  const Kept* kept = leaving_.comes(service);
  (void)outbox_.send(service, Registration::readyMessage(service, kept != nullptr ? kept->data : Bytes()),
                     Urgency::kReply);
  if (kept != nullptr)
    for (const unsigned int id : leaving_.endedSince(*kept)) router_.tellEnd(service, id);
  outbox_.release(service);
  requests_.release(service);
  table_.setState(service, kl::SVC_STATE_REGISTERED);
}

void Loader::onEnd(Connection& connection, const std::string& reason) {
  if (!connection.isOpen()) return;
  if (!reason.empty()) log_.line(nameOf(connection) + ": " + reason + "; disconnected");
  Service* service = connection.service();
  Service* startedAs = connection.who().startedAs;
  const bool cameToNothing = service == nullptr || !reason.empty();
  if (cameToNothing && startedAs == nullptr) listener_.cameToNothing();
  strangers_.forget(connection);
  connection.end();
  someoneEnded_ = true;
  if (service != nullptr) endService(*service);
  else if (startedAs != nullptr && !startedAs->isConnected()) supervisor_.connectionEnded(*startedAs);
}

// Whether a service that was asked to leave has left is known when its process has ended.
void Loader::endService(Service& service) {
  if (service.state == kl::SVC_STATE_LEAVING) return supervisor_.connectionEnded(service);
  forgetService(service);
  if (service.isConfigured()) supervisor_.connectionEnded(service);
  else table_.remove(service.id);
}

void Loader::forgetService(Service& service) {
  own_.forget(service);
  leaving_.ends(service);
  router_.endOf(service);
}

bool Loader::hasLeft(Service& service, bool crashed) {
  if (!leaving_.hasLeft(service, crashed)) return forgetService(service), false;
  own_.dropOrdersOf(service);
  router_.leftBy(service);
  return true;
}

void Loader::disconnect(Service& service) { onEnd(*service.connection, "is to stop"); }

void Loader::staysAway(Service& service) { forgetService(service); }

void Loader::wishesToLeave(Service& service) { (void)supervisor_.leave(service); }

void Loader::isIdle(Service& service) {
  if (supervisor_.leave(service) == nullptr) log_.line(describe(service) + ": is idle and asked to leave");
  settle();
}

// A process that never registered has no connection in its row; it is found by what it was started as.  One that
// registered at the socket has two connections.
void Loader::processEnded(Service& service) {
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    Connection& connection = *connections_[i];
    const bool isOfService = connection.who().startedAs == &service || connection.service() == &service;
    if (!connection.isOpen() || !isOfService) continue;
    connection.drain();
    onEnd(connection, "");
  }
  if (service.state == kl::SVC_STATE_LEAVING) return;
  router_.breakRequestsTo(service);
  outbox_.forget(service);
  service.out.clear();
  service.held.clear();
  service.isDemanded = false;
}

void Loader::allEnded() {
  kept_.flush();
  loop_.stop();
}

void Loader::settle() {
  outbox_.eachWithNews([](Service& service) {
    if (service.isConnected()) service.connection->onNews();
  });
  if (!someoneEnded_) return;
  someoneEnded_ = false;
  std::erase_if(connections_, [](const auto& connection) { return !connection->isOpen(); });
  listener_.resume();
}

void Loader::onChildSignal(int) {
  supervisor_.reap();
  settle();
}

void Loader::onEndSignal(int sig) {
  log_.line("ends because of signal " + std::to_string(sig));
  listener_.close();
  supervisor_.endAll();
  settle();
}

}  // namespace loader
