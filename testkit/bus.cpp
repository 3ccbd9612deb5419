// The loader's work for the service and its peers: registrations, routing, leaving, ends.
//
// Frames take the loader's router, so what a peer gets is what it would get anywhere.  The rest follows the loader's
// lifecycle for a service that its configuration names: it is greeted with what it saved, with the ends that it has
// missed and with what was held, in this order.

#include "testkit/bus.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <utility>

#include "kl/services.h"
#include "testkit/failures.h"
#include "testkit/folder.h"
#include "testkit/member.h"

namespace kl::test {
namespace {

constexpr std::size_t kQueueLimit = 1024 * 1024;  // the loader's, unless its configuration says otherwise
constexpr unsigned int kFirstPicked = 0x10000;
constexpr std::time_t kFirstSecond = 1767225600;  // 2026 in UTC

unsigned int askedId(std::span<const unsigned char> body) {
  RecordWalk walk(body);
  for (Record record; walk.next(record);)
    if (record.id() == REGISTRATION_VALUES) return record.u32At(0);
  return 0;
}

bool isHello(const loader::Envelope& e) {
  return e.isControl && e.control == CTRL_HELLO && e.path().size() == 1 && e.path()[0] == SERVICE_LOADER;
}

message controlOf(unsigned int code) {
  message m;
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, code);
  return m;
}

std::vector<unsigned char> dataIn(const loader::Envelope& e) {
  RecordWalk walk(e.body);
  for (Record record; walk.next(record);)
    if (record.id() == READY_DATA) return {record.payload().begin(), record.payload().end()};
  return {};
}

std::string textOf(const char* what, unsigned int id) { return what + std::to_string(id); }

}  // namespace

Bus::Bus()
    : outbox_(kQueueLimit),
      router_(table_, requests_, subscriptions_, outbox_,
              {[this](loader::Service& caller, const message& m) { onLoaderRequest(caller, m); },
               [this](loader::Service& sender, const loader::Envelope& e) { onControl(sender, e); },
               [](loader::Service&) {}}),
      wallClock_(kFirstSecond) {
  (void)freshRoot();
  const int event = ::eventfd(0, EFD_CLOEXEC);
  marker_ = ::fcntl(event, F_DUPFD_CLOEXEC, kAside);
  ::close(event);
  wire.open();
  play(this);
}

Bus::~Bus() {
  ownLooper_.reset();
  play(nullptr);
  wire.close();
  ::close(marker_);
  if (exception_ && failure_.empty()) failure_ = "a script has thrown, and nobody was left to catch it";
  if (!failure_.empty()) reportLast(failure_);
}

// --- The service -----------------------------------------------------------------------------------

void Bus::makeLooper(unsigned int service) {
  ownNumber_ = service;
  ownLooper_ = std::make_unique<Looper>(Looper::kInherited, service);
  raise();
}

void Bus::startAgain() {
  ownLooper_.reset();
  if (getLooper() != nullptr) complain("the Looper of the last process is there: destroy it first");
  pump();
  if (!failure_.empty()) return raise();
  wire.open();
  hasBegun_ = hasEnded_ = false;
  if (ownNumber_ != 0) makeLooper(ownNumber_);
}

bool Bus::readService() {
  switch (wire.read([this](std::span<const unsigned char> body) { onFrame(body); })) {
    case Wire::Outcome::kNothing: return false;
    case Wire::Outcome::kBytes: return true;
    case Wire::Outcome::kTooLong: complain("the service announced a frame of more than 65535 bytes"); break;
    case Wire::Outcome::kEnd: break;
  }
  wire.hangUp();
  onServiceEnd();
  return true;
}

void Bus::onFrame(std::span<const unsigned char> body) {
  if (service_ == nullptr || !service_->isConnected()) return registerService(body);
  if (const char* fault = router_.route(*service_, body))
    complain(textOf("service ", service_->id) + " " + fault + ", and the loader disconnects it");
}

// A Looper that is not confirmed ends the process, so what is wrong is said at once.
void Bus::registerService(std::span<const unsigned char> body) {
  loader::Envelope e;
  const char* fault = loader::readEnvelope(body, e);
  if (fault == nullptr && !isHello(e)) fault = "sent a message before its registration";
  if (fault != nullptr) giveUp(std::string("the service ") + fault);
  controls.push_back(e.control);
  router_.announceEnds();
  unsigned int id = askedId(body);
  const bool isPicked = id == 0;
  if (isPicked) id = pickId();
  if (service_ == nullptr || service_->id != id) {
    if (table_.find(id) != nullptr) giveUp(textOf("a peer has the id of the service, ", id));
    service_ = &addRow(id, "service");
    service_->isConfigured = !isPicked;
  }
  service_->connect();
  service_->leaveValue = 0;
  service_->wantsToLeave = false;
  service_->state = SVC_STATE_REGISTERED;
  ++service_->starts;
  if (Looper* const looper = getLooper())
    looper->addSocket(
        marker_, nullptr, [](void*, int, unsigned int) {}, POLLIN);
  greet();
}

// The fields are inserted in the loader's order, from which their order in the frame follows.
void Bus::greet() {
  message m = controlOf(CTRL_READY);
  m.insert(READY_ID, service_->id);
  m.insert(READY_VERSION, KL_VERSION_WORD);
  m.insert(READY_STARTS, service_->starts);
  if (!(leaveData == message())) m.insert(READY_DATA, leaveData.flattened());
  if (!(settings == message())) m.insert(READY_CONFIGURATION, settings.flattened());
  service_->isHeldFor = false;
  (void)outbox_.send(*service_, m, loader::Urgency::kNotice);
  tellWhatWasMissed();
  if (service_->bornAt == 0) service_->bornAt = ++births_;
  outbox_.release(*service_);
}

void Bus::tellWhatWasMissed() {
  if (leaveData == message()) return;
  for (const unsigned int id : known_) {
    const loader::Service* row = table_.find(id);
    const bool isTheSame = row != nullptr && row->bornAt != 0 && row->bornAt <= askedAt_;
    if (!isTheSame) router_.reportGone(*service_, id);
  }
}

void Bus::onControl(const loader::Service& sender, const loader::Envelope& e) {
  if (&sender != service_) return;
  controls.push_back(e.control);
  switch (e.control) {
    case CTRL_RUNNING: service_->state = SVC_STATE_RUNNING; break;
    case CTRL_LEAVE_VALUE: service_->leaveValue = e.controlArgument; break;
    case CTRL_WANT_LEAVE: service_->wantsToLeave = true; break;
    case CTRL_REFUSED:
      if (asked_ != Asked::kAsked) break;
      asked_ = Asked::kRefused;
      service_->isHeldFor = false;
      service_->state = SVC_STATE_RUNNING;
      outbox_.release(*service_);
      break;
    case CTRL_LEFT:
      if (asked_ == Asked::kAsked) leaveData = message(dataIn(e));
      break;
    default: break;
  }
}

bool Bus::mayLeave() const {
  return service_ != nullptr && service_->isConnected() && service_->state == SVC_STATE_RUNNING &&
         service_->leaveValue != 0;
}

TestBus::Leave Bus::askToLeave() {
  run(elapsed_);
  if (!mayLeave()) return TestBus::Leave::kMayNot;
  router_.announceEnds();
  (void)outbox_.send(*service_, controlOf(CTRL_LEAVE), loader::Urgency::kNotice);
  (void)distribute();
  service_->isHeldFor = true;
  service_->state = SVC_STATE_LEAVING;
  service_->wantsToLeave = false;
  asked_ = Asked::kAsked;
  askedAt_ = ++births_;
  known_.clear();
  for (const auto& [id, row] : table_.all())
    if (row.get() != service_ && row->bornAt != 0) known_.insert(id);
  leaveData = message();
  run(elapsed_);
  const Asked outcome = std::exchange(asked_, Asked::kNot);
  if (outcome == Asked::kRefused) return TestBus::Leave::kRefused;
  return service_->state == SVC_STATE_LEFT ? TestBus::Leave::kLeft : TestBus::Leave::kNoAnswer;
}

// Its process would end now: it has left, or nothing is to be heard of it any more.
void Bus::onServiceEnd() {
  if (service_ == nullptr || !service_->isConnected()) return;
  service_->disconnect();
  if (asked_ == Asked::kAsked) return onServiceLeft();
  service_->isHeldFor = false;
  service_->state = SVC_STATE_STOPPED;
  router_.onServiceGone(*service_);
  if (service_->isConfigured) return;
  outbox_.forget(*service_);
  table_.remove(std::exchange(service_, nullptr)->id);
}

void Bus::onServiceLeft() {
  service_->state = SVC_STATE_LEFT;
  router_.onServiceLeft(*service_);
}

void Bus::onLoaderRequest(loader::Service& caller, const message& request) {
  unsigned int id = 0;
  const auto script = loaderScripts.find(request.get(SYS_CMD, CMD_NOOP));
  message reply = errorMsg(ERROR_NOTIMP, "");
  if (script != loaderScripts.end() && script->second) reply = script->second(request);
  if (!getRequestID(request, &id)) return;
  setRequestID(reply, id);
  setType(reply, TYPE_REPLY);
  auto to = request.get(SYS_FROM, {});
  to.erase(to.begin());
  reply.insert(SYS_TO, to);
  reply.insert(SYS_FROM, {SERVICE_LOADER});
  (void)outbox_.send(caller, reply, loader::Urgency::kReply);
}

// --- The members -----------------------------------------------------------------------------------

loader::Service& Bus::addRow(unsigned int id, const std::string& name) {
  loader::Service& row = table_.add(id);
  row.name = name;
  row.user = "root";
  message user;
  user.insert(SYS_USER, row.user);
  const auto bytes = user.flattened();
  row.rights = {true, {bytes.begin() + 2, bytes.end()}, {}};
  return row;
}

unsigned int Bus::pickId() {
  while (table_.find(nextId_) != nullptr) ++nextId_;
  return nextId_++;
}

loader::Service& Bus::join(Member& member, unsigned int id) {
  if (id == 0) id = pickId();
  else if (table_.find(id) != nullptr) report(textOf("somebody has the id of the peer, ", id));
  router_.announceEnds();
  loader::Service& row = addRow(id, textOf("peer ", id));
  row.isConfigured = id < kFirstPicked;
  row.connect();
  row.state = SVC_STATE_RUNNING;
  row.bornAt = ++births_;
  members_[id] = &member;
  return row;
}

void Bus::part(loader::Service& row) {
  members_.erase(row.id);
  row.disconnect();
  router_.onServiceGone(row);
  table_.remove(row.id);
}

void Bus::route(loader::Service& from, const message& m) {
  const auto body = m.flattened();
  const char* const fault = router_.route(from, body);
  if (fault != nullptr) complain(from.name + " " + fault + ", and the loader disconnects it");
}

void Bus::sendLater(unsigned int ticks, unsigned int member, const message& m) {
  later_.insert({elapsed_ + ticks, {member, m}});
}

// --- The way of frames -----------------------------------------------------------------------------

// Moves everything that can move without the service.
void Bus::pump() {
  if (isPumping_) return;
  isPumping_ = true;
  router_.setNow(static_cast<unsigned int>(elapsed_ / 100));
  for (bool moves = true; moves;) {
    moves = readService();
    moves |= sendDue();
    router_.announceEnds();
    moves |= distribute();
    moves |= handleMail();
  }
  wire.write(elapsed_);
  isPumping_ = false;
}

// Sends what members have put off.
bool Bus::sendDue() {
  bool moved = false;
  while (!later_.empty() && later_.begin()->first <= elapsed_) {
    const Letter letter = later_.extract(later_.begin()).mapped();
    if (const auto found = members_.find(letter.member); found != members_.end())
      found->second->send(letter.m);
    moved = true;
  }
  return moved;
}

bool Bus::distribute() {
  bool moved = false;
  outbox_.eachDirty([&](loader::Service& row) {
    if (&row == service_) wire.send(row.out.bytes(), elapsed_);
    else if (const auto found = members_.find(row.id); found != members_.end())
      found->second->deliver(row.out.bytes());
    row.out.clear();
    moved = true;
  });
  return moved;
}

// A script may end its own peer or another one.
bool Bus::handleMail() {
  bool moved = false;
  std::vector<unsigned int> ids;
  for (const auto& [id, member] : members_) ids.push_back(id);
  for (const unsigned int id : ids)
    for (auto found = members_.find(id); found != members_.end() && found->second->handleNext();
         found = members_.find(id))
      moved = true;
  return moved;
}

// --- What is wrong ---------------------------------------------------------------------------------

void Bus::complain(const std::string& what) {
  if (!failure_.empty()) return;
  failure_ = what;
  if (isDisturbed_) failure_ += " (KL_TEST_SEED=" + std::to_string(seed_) + ")";
}

void Bus::raise() {
  if (isRunning_ || isPumping_) return;
  if (exception_) std::rethrow_exception(std::exchange(exception_, nullptr));
  if (!failure_.empty()) report(std::exchange(failure_, {}));
}

void Bus::disturb(unsigned int mostTicks) {
  if (!isDisturbed_) {
    const char* const given = std::getenv("KL_TEST_SEED");
    seed_ = given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10))
                             : std::random_device()();
  }
  isDisturbed_ = true;
  wire.disturb(mostTicks, seed_);
}

}  // namespace kl::test
