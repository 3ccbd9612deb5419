#pragma once
// waiting_services.h: a loader whose services wait for each other as a test says.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tools/klctl/values/failure.h"

namespace klctl {

class WaitingServices {
 public:
  using Rows = std::vector<kl::message::flat_message>;

  void add(unsigned int id, const std::string& name, unsigned int pid = 0) {
    kl::message row;
    row.insert(kl::STD_ID, id);
    row.insert(kl::SVC_NAME, name);
    if (pid != 0) row.insert(kl::SVC_PID, pid);
    services_.push_back(kl::test::flat(row));
  }
  void wait(unsigned int asker, unsigned int asked, unsigned long long ageMs,
            unsigned int command = kl::CMD_GETALL, const std::vector<unsigned int>& path = {0}) {
    kl::message row;
    row.insert(kl::STD_ID, static_cast<unsigned int>(requests_.size()));
    row.insert(kl::REQUEST_ASKER, asker);
    row.insert(kl::REQUEST_ASKED, asked);
    row.insert(kl::REQUEST_PATH, path);
    row.insert(kl::REQUEST_COMMAND, command);
    row.insert(kl::REQUEST_AGE, ageMs);
    requests_.push_back(kl::test::flat(row));
  }
  struct Sent {
    unsigned int sender;
    unsigned long long messages;
    unsigned long long bytes;
  };
  struct Subscribed {
    unsigned int subscriber;
    std::vector<unsigned int> path;
    unsigned int command;
    unsigned int times;
  };
  // What came to a service, and who has subscribed there.
  void setTraffic(unsigned int id, const std::vector<Sent>& senders,
                  const std::vector<Subscribed>& subscribers = {}) {
    Rows sent;
    for (const Sent& one : senders) {
      kl::message entry;
      entry.insert(kl::TRAFFIC_SERVICE, one.sender);
      entry.insert(kl::SVC_MESSAGES_IN, one.messages);
      entry.insert(kl::SVC_BYTES_IN, one.bytes);
      sent.push_back(kl::test::flat(entry));
    }
    Rows subscribed;
    for (const Subscribed& one : subscribers) {
      kl::message entry;
      entry.insert(kl::TRAFFIC_SERVICE, one.subscriber);
      entry.insert(kl::REQUEST_PATH, one.path);
      entry.insert(kl::REQUEST_COMMAND, one.command);
      entry.insert(kl::TRAFFIC_TIMES, one.times);
      subscribed.push_back(kl::test::flat(entry));
    }
    kl::message row;
    row.insert(kl::STD_ID, id);
    row.insert(kl::TRAFFIC_SENDERS, sent);
    row.insert(kl::TRAFFIC_SUBSCRIBERS, subscribed);
    traffic_.push_back(kl::test::flat(row));
  }
  // A service that answers CMD_NOOP; the others do not.
  void setAlive(unsigned int id) { alive_.insert(id); }

  kl::message answer(const kl::message& request) const {
    const std::vector<unsigned int> to = request.get(kl::SYS_TO, {});
    kl::message reply;
    if (to.front() != kl::SERVICE_LOADER) {
      if (alive_.contains(to.front())) return reply;
      throw Failure(Status::kTimeout, "no reply");
    }
    if (to.size() == 1) reply.insert(kl::STD_OBJS, services_);
    else reply.insert(kl::STD_OBJS, to.back() == kl::LOADER_TRAFFIC ? traffic_ : requests_);
    return reply;
  }

 private:
  Rows services_;
  Rows requests_;
  Rows traffic_;
  std::set<unsigned int> alive_;
};

}  // namespace klctl
