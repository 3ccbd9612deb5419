#pragma once
// fixture.h: a handler that tests of the kit put behind a bus.

#include <gtest/gtest.h>

#include <vector>

#include "kl/test.h"
#include "kl/timer.h"

namespace kl::test {

inline constexpr unsigned int kService = 34;
inline constexpr unsigned int kOther = 24;
inline constexpr field<unsigned int> kNumber{0x08000001};
inline constexpr field<std::string> kLabel{0x20000002};
inline const Peer::Path kPath{kService, 0};

inline message numbered(unsigned int number) {
  message m;
  m.insert(kNumber, number);
  return m;
}

inline unsigned int errorOf(const message& m) {
  unsigned int code = ERROR_OK;
  (void)isError(m, &code);
  return code;
}

// Keeps a number; CMD_RESET asks the other service for one and waits.
class Keeper : public Handler {
 public:
  void loadPermData(const message& data) override {
    Handler::loadPermData(data);
    number = data.get(kNumber, number);
  }
  void savePermData(message& data) override {
    Handler::savePermData(data);
    data.insert(kNumber, number);
  }

  message cmdGet(const message& request) override {
    last = request;
    return numbered(number);
  }
  message cmdSet(const message& request) override {
    number = request.get(kNumber, 0);
    notifyChange(1);
    return {};
  }
  message cmdReset(const message&) override {
    message m;
    m.insert(SYS_TO, {kOther, 0});
    m.insert(kLabel, "which");
    return exchangeCmd(m, CMD_GET, patience);
  }
  message getObject(unsigned int id) override {
    message m = numbered(number);
    m.insert(STD_ID, id);
    return m;
  }
  void cmdDisconnected(const message& m) override {
    Handler::cmdDisconnected(m);
    if (!m.get(SYS_FROM, {}).empty()) deaths.push_back(m.get(SYS_FROM, {}).front());
  }

  unsigned int number = 7;
  int patience = 100;
  message last;
  std::vector<unsigned int> deaths;
};

class KeeperOnABus : public testing::Test {
 protected:
  KeeperOnABus() { bus.add(0, keeper); }

  TestBus bus{kService};
  Keeper keeper;
};

}  // namespace kl::test
