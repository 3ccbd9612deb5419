// P1  a user's clients are counted when they are taken and when they end: UserAccount::clients counts them
// P2  the last quarter of the clients is for root and the log service's own user: nobody else can keep them out

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
      accounts_(limits) {
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
  if (!hasRoomFor(*user)) return refuse(*user, about);
  user->isRefused = false;
  take(std::move(socket), about);
}

// P2
bool Clients::hasRoomFor(const UserAccount& user) const {
  if (user.isTrusted) return clients_.size() < limits_.clients;
  return clients_.size() < limits_.clients - limits_.clients / 4 && user.clients < limits_.clientsPerUser;
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
    --accounts_.userOf(client.uid())->clients;  // P1
    clients_.erase(entry);
    break;
  }
  setListening(true);
}

}  // namespace logd
