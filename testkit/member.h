#pragma once
// member.h: a peer, as the bus sees it.

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kl/test.h"
#include "testkit/known_fields.h"

namespace loader {
struct Service;
}

namespace kl::test {

// The bus's side of a Peer: its row among the services, its mail, and its scripts.
//
// M1  mail is handled in its order, and one message at a time: a script may send, and what comes of that waits
// M2  a member that has ended handles nothing and sends nothing
class Member {
 public:
  Member(Bus& bus, unsigned int id);
  Member(const Member&) = delete;
  Member& operator=(const Member&) = delete;
  ~Member() { end(); }

  unsigned int id() const { return id_; }
  Bus& bus() const { return bus_; }
  bool hasEnded() const { return row_ == nullptr; }
  void end();
  void setUser(const std::string& user, unsigned int rights);

  void send(const message& m);
  unsigned int request(const Peer::Path& to, unsigned int command, const message& body);
  bool hasReply(unsigned int request) const { return replies_.contains(request); }
  std::optional<message> takeReply(unsigned int request);

  void setScript(unsigned int command, Peer::Script script) { scripts_[command] = std::move(script); }
  void delay(unsigned int ticks) { delay_ = ticks; }
  void reply(const message& request, message body);
  unsigned int subscribers() const { return static_cast<unsigned int>(subscriptions_.size()); }
  void notify(const message& body);
  void describedBy(std::unique_ptr<KnownFields> fields) { fields_ = std::move(fields); }

  std::vector<message> notified;
  std::vector<message> notices;
  std::vector<message> asked;
  std::vector<unsigned int> deaths;

  // Frames for it, which handleNext() takes one by one; false when there was none.
  void deliver(std::span<const unsigned char> frames);
  bool handleNext();

 private:
  void handle(const message& m);
  void handleRequest(const message& request, unsigned int command);
  void handleSubscription(const message& request, bool begins);
  void answer(const message& request, unsigned int command);
  void check(const message& m, const std::string& what) const;

  Bus& bus_;
  loader::Service* row_;
  unsigned int id_;
  unsigned int nextRequest_ = 0;
  unsigned int delay_ = 0;
  std::deque<message> mail_;
  std::map<unsigned int, message> replies_;
  std::map<unsigned int, Peer::Script> scripts_;  // an empty one leaves the request without an answer
  std::vector<message> subscriptions_;
  std::unique_ptr<KnownFields> fields_;  // none: everything is known
};

}  // namespace kl::test
