#pragma once
// clients.h: all processes that write lines.

#include <map>
#include <memory>

#include "intake/client.h"
#include "intake/limits.h"
#include "intake/listener.h"

namespace logd {

// Takes processes that connect, up to a number in all and of each user, and lets them go.
//
// Errors:    a client too many is refused with a line, one for a run of them; when no descriptor is left, pending
//            connections wait until one may be free.
// Ownership: owns the clients; borrows everything else.
// Threads:   belongs to one thread.
// Cost:      three system calls for each process that comes.
class Clients final {
 public:
  // `loader` is the process of the loader, 0 when it is not known.
  Clients(kl::ThinRunner& runner, LogBook& book, const Listener& listener, const Limits& limits,
          pid_t loader = 0);
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;
  ~Clients();

  // The rules have changed.
  void applyMutes();
  // A second has passed.
  void tick(Nanoseconds now);
  // Takes what those who wait and those who are there have written so far.
  void drain();

  std::size_t size() const { return clients_.size(); }
  const Tally& tally() const { return tally_; }

 private:
  void onConnect(int fd, unsigned int events);
  bool hasRoomFor(const UserAccount& user) const;
  std::size_t mostFor(const UserAccount& user) const;
  void makeRoomFor(const UserAccount& user);
  bool mayTakeFrom(const UserAccount& user, const UserAccount& other) const;
  void take(common::Descriptor socket, const Origin& about);
  void refuse(UserAccount& user, const Origin& about);
  void rest(int reason);
  void setListening(bool listens);
  void remove(Client& client);

  kl::ThinRunner& runner_;
  LogBook& book_;
  const Listener& listener_;
  const Limits& limits_;
  const unsigned int loader_;
  Accounts accounts_;
  std::map<int, std::unique_ptr<Client>> clients_;  // by descriptor
  Tally tally_;
  bool listens_ = true;
  RateLimit restRemarks_{1, 1};
};

}  // namespace logd
