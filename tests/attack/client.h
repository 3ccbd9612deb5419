#pragma once
// client.h: asks the loader, or a service, and waits.

#include <map>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/raw_peer.h"

namespace attack {

using Ids = std::vector<unsigned int>;
using kl::test::RawPeer;

inline constexpr int kPatienceMs = 60000;

class Client {
 public:
  // Waits so long for a loader that takes it; 0: it is there or not.
  explicit Client(int patienceMs = kPatienceMs) {
    if (peer_.connect(patienceMs)) id_ = peer_.registerAs(0);
  }

  unsigned int id() const { return id_; }
  RawPeer& peer() { return peer_; }

  // An empty message when no reply comes.
  kl::message ask(const Ids& to, unsigned int command, kl::message m = {}) {
    const unsigned int id = nextId_++;
    m.merge(kl::test::request(to, command, id));
    if (!peer_.send(m)) return {};
    return peer_.receiveReply(id, kPatienceMs).value_or(kl::message());
  }

  kl::message row(unsigned int service) {
    kl::message m;
    m.insert(kl::STD_ID, service);
    return ask({kl::SERVICE_LOADER}, kl::CMD_GETOBJ, m);
  }

  void act(unsigned int service, unsigned int action) {
    kl::message m;
    m.insert(kl::STD_ID, service);
    m.insert(kl::SVC_ACTION, action);
    (void)ask({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, m);
  }

  // The loader's whole table, by id.
  std::map<unsigned int, kl::message> table() {
    std::map<unsigned int, kl::message> rows;
    for (unsigned int next = 0; next != kl::BADID;) {
      kl::message m;
      m.insert(kl::STD_GETALLID, next);
      const kl::message reply = ask({kl::SERVICE_LOADER}, kl::CMD_GETALL, m);
      for (const kl::message object : reply.get(kl::STD_OBJS, {})) rows[object.get(kl::STD_ID, 0)] = object;
      next = reply.get(kl::STD_GETALLID, kl::BADID);
    }
    return rows;
  }

 private:
  RawPeer peer_;
  unsigned int id_ = 0;
  unsigned int nextId_ = 1;
};

}  // namespace attack
