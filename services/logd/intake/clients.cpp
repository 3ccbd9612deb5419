// P1  a user's clients are counted when they are taken and when they end: UserAccount::clients counts them
// P2  the last quarter of the clients is for the system: nobody else can keep it out
// P3  a client is ended for another one only when that has no place otherwise, when it was silent for idleSeconds, and
//     only of the same user, or of one that keeps as many as that user then has.  The system's make room for the system
//     alone

#include "intake/clients.h"

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kl/bind.h"
#include "kl/services.h"

namespace logd {

Clients::Clients(kl::ThinRunner& runner, LogBook& book, const Listener& listener, const Limits& limits,
                 pid_t loader)
    : runner_(runner),
      book_(book),
      listener_(listener),
      limits_(limits),
      loader_(static_cast<unsigned int>(loader)),
      accounts_(limits, book.system()) {
  runner_.addSocket(listener_.fd(), this, kl::bind<Clients, &Clients::onConnect>(), POLLIN);
}

Clients::~Clients() { runner_.removeSocket(listener_.fd()); }

void Clients::applyMutes() {
  for (const auto& [fd, client] : clients_) client->applyMutes();
}

void Clients::tick(Nanoseconds now) {
  accounts_.tick(book_, now);
  setListening(true);
}

void Clients::drain() {
  while (clients_.size() < limits_.clients) {
    common::Descriptor socket = listener_.accept();
    if (!socket.isOpen()) break;
    const Origin about = originAt(socket.get());
    if (hasRoomFor(*accounts_.userOf(about.uid))) take(std::move(socket), about);
  }
  for (const auto& [fd, client] : clients_) client->drain();
  book_.flush(steadyTime());
}

void Clients::onConnect(int, unsigned int) {
  common::Descriptor socket = listener_.accept();
  if (!socket.isOpen()) return rest(errno);
  const Origin about = originAt(socket.get());
  const auto user = accounts_.userOf(about.uid);
  if (!hasRoomFor(*user)) makeRoomFor(*user);
  if (!hasRoomFor(*user)) return refuse(*user, about);
  user->isRefused = false;
  take(std::move(socket), about);
}

// P2
bool Clients::hasRoomFor(const UserAccount& user) const {
  return clients_.size() < mostFor(user) && (user.isTrusted || user.clients < limits_.clientsPerUser);
}

std::size_t Clients::mostFor(const UserAccount& user) const {
  return user.isTrusted ? limits_.clients : limits_.clients - limits_.clients / 4;
}

// P3.  Those of the system are the last to go.
void Clients::makeRoomFor(const UserAccount& user) {
  if (clients_.size() > mostFor(user)) return;
  Client* idlest = nullptr;
  const auto rank = [](const Client& client) {
    return std::pair(client.user().isTrusted, client.lastRead());
  };
  for (const auto& [fd, client] : clients_)
    if (mayTakeFrom(user, client->user()) && (idlest == nullptr || rank(*client) < rank(*idlest)))
      idlest = client.get();
  const Nanoseconds enough = Nanoseconds{limits_.idleSeconds} * 1'000'000'000;
  if (idlest != nullptr && idlest->lastRead() + enough <= steadyTime()) idlest->makeRoom();
}

bool Clients::mayTakeFrom(const UserAccount& user, const UserAccount& other) const {
  if (&user == &other || user.isTrusted) return true;
  return user.clients < limits_.clientsPerUser && !other.isTrusted && other.clients > user.clients + 1;
}

void Clients::take(common::Descriptor socket, const Origin& about) {
  const int fd = socket.get();
  const auto account = accounts_.processOf(about);
  ++account->user().clients;  // P1
  const bool isLoader = loader_ != 0 && about.pid == loader_;
  clients_[fd] =
      std::make_unique<Client>(runner_, book_, tally_, std::move(socket), Standing{about, account, isLoader},
                               [this](Client& client) { remove(client); });
}

void Clients::refuse(UserAccount& user, const Origin& about) {
  if (std::exchange(user.isRefused, true)) return;
  accounts_.processOf(about)->remark(book_, steadyTime(),
                                     "refused: there are " + std::to_string(clients_.size()) + " clients, " +
                                         std::to_string(user.clients) + " of its user");
  book_.flush(steadyTime());
}

// A pending connection keeps the socket readable: without a rest each pass of the loop would try again.
void Clients::rest(int reason) {
  if (reason == EAGAIN || reason == EINTR || reason == ECONNABORTED) return;
  if (restRemarks_.allows(steadyTime()))  // a client that ends makes it try again
    book_.say(kl::TOPIC_WARNING, std::string("nobody can be taken: ") + std::strerror(reason));
  book_.flush(steadyTime());
  setListening(false);
}

void Clients::setListening(bool listens) {
  if (std::exchange(listens_, listens) != listens) runner_.changeSocket(listener_.fd(), listens ? POLLIN : 0);
}

// A client that has ended leaves a descriptor free.
void Clients::remove(Client& client) {
  for (auto entry = clients_.begin(); entry != clients_.end(); ++entry) {
    if (entry->second.get() != &client) continue;
    --client.user().clients;  // P1
    clients_.erase(entry);
    break;
  }
  setListening(true);
}

}  // namespace logd
