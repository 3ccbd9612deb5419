#include "intake/clients.h"

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kl/bind.h"
#include "kl/services.h"

namespace logd {

Clients::Clients(kl::ThinRunner& runner, LogBook& book, const Listener& listener, const Limits& limits)
    : runner_(runner), book_(book), listener_(listener), limits_(limits) {
  runner_.addSocket(listener_.fd(), this, kl::bind<Clients, &Clients::onConnect>(), POLLIN);
}

Clients::~Clients() { runner_.removeSocket(listener_.fd()); }

void Clients::applyMutes() {
  for (const auto& [fd, client] : clients_) client->applyMutes();
}

void Clients::tick(Nanoseconds now) {
  for (const auto& [fd, client] : clients_) client->tick(now);
  setListening(true);
}

void Clients::drain() {
  while (clients_.size() < limits_.clients) {
    common::Descriptor socket = listener_.accept();
    if (!socket.isOpen()) break;
    take(std::move(socket));
  }
  for (const auto& [fd, client] : clients_) client->drain();
  book_.flush(steadyTime());
}

void Clients::onConnect(int, unsigned int) {
  common::Descriptor socket = listener_.accept();
  if (!socket.isOpen()) return rest(errno);
  if (clients_.size() >= limits_.clients) return refuse(socket);
  isRefusing_ = false;
  take(std::move(socket));
}

void Clients::take(common::Descriptor socket) {
  const int fd = socket.get();
  const RateLimit limit(limits_.linesPerSecond, limits_.burst);
  ClientHost& host = *this;
  clients_[fd] = std::make_unique<Client>(runner_, host, book_, tally_, std::move(socket), peerOf(fd), limit);
}

void Clients::refuse(const common::Descriptor& socket) {
  if (std::exchange(isRefusing_, true)) return;
  const Peer peer = peerOf(socket.get());
  book_.say(kl::TOPIC_WARNING, "refused: there are " + std::to_string(clients_.size()) + " clients; " +
                                   peer.process + " (pid " + std::to_string(peer.pid) + ") was the first");
  book_.flush(steadyTime());
}

// Who waits keeps the socket readable: without rest each pass of the loop would try again.
void Clients::rest(int reason) {
  if (reason == EAGAIN || reason == EINTR || reason == ECONNABORTED) return;
  book_.say(kl::TOPIC_WARNING, std::string("nobody can be taken: ") + std::strerror(reason));
  book_.flush(steadyTime());
  setListening(false);
}

void Clients::setListening(bool listens) {
  if (std::exchange(listens_, listens) != listens) runner_.changeSocket(listener_.fd(), listens ? POLLIN : 0);
}

// Who went has left a descriptor behind.
void Clients::onEnd(Client& client) {
  for (auto entry = clients_.begin(); entry != clients_.end(); ++entry) {
    if (entry->second.get() != &client) continue;
    clients_.erase(entry);
    break;
  }
  setListening(true);
}

}  // namespace logd
