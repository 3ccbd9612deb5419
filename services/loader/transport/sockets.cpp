// The entries stand in one array, in the order in which poll would have them, whoever watches them.  An epoll descriptor
// says who is ready in an order of its own, so their places are sorted before the walk.

#include "transport/sockets.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace loader {

static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLERR == POLLERR && EPOLLHUP == POLLHUP,
              "events are passed on as they come");

Sockets::Sockets(kl::ThinRunner& runner) : runner_(runner), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {}

Sockets::~Sockets() {
  if (areTogether()) runner_.removeSocket(epoll_.get());
}

void Sockets::add(int fd, void* data, Callback callback, unsigned int events) {
  const Entry entry{fd, data, callback, events, 0, false};
  if (areTogether() && !control(EPOLL_CTL_ADD, entry)) part();
  if (!areTogether()) watchEach(entry);
  enter(entry, sockets_.size());
  if (!areTogether() && sockets_.size() >= gatherFrom_) gather();
}

void Sockets::change(int fd, unsigned int events) {
  const std::size_t place = placeOf(fd);
  if (place == kNowhere) return;
  sockets_[place].events = events;
  if (areTogether()) (void)control(EPOLL_CTL_MOD, sockets_[place]);
  else runner_.changeSocket(fd, events);
}

void Sockets::remove(int fd) {
  const std::size_t place = placeOf(fd);
  if (place == kNowhere) return;
  setReadAhead(fd, false);
  if (areTogether()) (void)control(EPOLL_CTL_DEL, sockets_[place]);
  else runner_.removeSocket(fd);
  if (place + 1 < sockets_.size()) enter(Entry(sockets_.back()), place);
  sockets_.pop_back();
  placeOf_[static_cast<std::size_t>(fd)] = kNowhere;
  if (areTogether() && sockets_.size() < kFew) part();
}

void Sockets::setReadAhead(int fd, bool holdsBytes) {
  const std::size_t place = placeOf(fd);
  if (place == kNowhere || sockets_[place].holdsBytes == holdsBytes) return;
  sockets_[place].holdsBytes = holdsBytes;
  if (holdsBytes) ahead_.push_back(fd);
  else std::erase(ahead_, fd);
  if (areTogether()) runner_.setReadAhead(epoll_.get(), !ahead_.empty());  // P3
  else runner_.setReadAhead(fd, holdsBytes);
}

// P1
void Sockets::enter(const Entry& entry, std::size_t place) {
  const auto fd = static_cast<std::size_t>(entry.fd);
  if (placeOf_.size() <= fd) placeOf_.resize(fd + 1, kNowhere);
  placeOf_[fd] = place;
  if (place == sockets_.size()) sockets_.push_back(entry);
  else sockets_[place] = entry;
}

bool Sockets::control(int operation, const Entry& entry) const {
  epoll_event event{};
  event.events = entry.events;
  event.data.fd = entry.fd;
  return ::epoll_ctl(epoll_.get(), operation, entry.fd, &event) == 0;
}

void Sockets::watchEach(const Entry& entry) {
  runner_.addSocket(entry.fd, entry.data, entry.callback, entry.events);
  if (entry.holdsBytes) runner_.setReadAhead(entry.fd, true);
}

// A step that the kernel refuses now is tried again when there are twice as many.
void Sockets::gather() {
  const auto isIn = [this](const Entry& entry) { return control(EPOLL_CTL_ADD, entry); };
  if (!std::all_of(sockets_.begin(), sockets_.end(), isIn)) {
    for (const Entry& entry : sockets_) (void)control(EPOLL_CTL_DEL, entry);
    gatherFrom_ = 2 * sockets_.size();
    return;
  }
  areTogether_ = true;
  for (const Entry& entry : sockets_) runner_.removeSocket(entry.fd);
  runner_.addSocket(epoll_.get(), this, kl::bind<Sockets, &Sockets::onReady>(), POLLIN);
  runner_.setReadAhead(epoll_.get(), !ahead_.empty());
}

// An entry that was ready and not called yet is called in the next pass.
void Sockets::part() {
  areTogether_ = false;
  gatherFrom_ = kMany;
  runner_.removeSocket(epoll_.get());
  for (Entry& entry : sockets_) {
    (void)control(EPOLL_CTL_DEL, entry);
    entry.ready = 0;
    watchEach(entry);
  }
}

void Sockets::onReady(int, unsigned int) {
  collectReady();
  for (const std::size_t place : due_) {
    if (!areTogether()) return;
    if (place >= sockets_.size() || sockets_[place].ready == 0) continue;
    const unsigned int ready = std::exchange(sockets_[place].ready, 0);  // P2
    const Entry entry = sockets_[place];                                 // its callback may remove it
    entry.callback(entry.data, entry.fd, ready);
  }
}

void Sockets::collectReady() {
  due_.clear();
  events_.resize(sockets_.size());
  const int count = ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), 0);
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events_[static_cast<std::size_t>(i)];
    noteReady(event.data.fd, event.events);
  }
  for (const int fd : ahead_) noteReady(fd, POLLIN);
  std::sort(due_.begin(), due_.end(), std::greater<>());
}

void Sockets::noteReady(int fd, unsigned int events) {
  const std::size_t place = placeOf(fd);
  if (sockets_[place].ready == 0) due_.push_back(place);
  sockets_[place].ready |= events;
}

}  // namespace loader
