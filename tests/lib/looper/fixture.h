#pragma once
// tests/lib/looper/fixture.h: a process that is connected to a loader that the test plays.

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "kl/looper.h"
#include "tests/support/builders.h"
#include "tests/support/doubles/loader_double.h"

namespace kl {

// Lets a test begin with the counter anywhere, without a billion requests.
class HandlerProbe {
 public:
  static void setNextRequestID(Handler& handler, unsigned int id) { handler.nextRequestID_ = id; }
};

}  // namespace kl

namespace kl::test {

// A registered Looper of type L; what it sent to register has been received.
template <class L>
struct ConnectedAs {
  explicit ConnectedAs(const message& ready = message()) {
    loader.sendReady(ready);
    looper.emplace(L::kInherited, 34u);
    (void)loader.receiveFrame();
  }

  // One wake-up by the socket, as the loop gives it.
  void wake() { looper->onMsgSock(3, 1); }
  // One pass of the loop without its hooks.
  void pass() { looper->runSocks(getJiffies()); }

  LoaderDouble loader;
  std::optional<L> looper;
};

using Connected = ConnectedAs<Looper>;

inline message to(const Ids& path) {
  message m;
  m.insert(SYS_TO, path);
  return m;
}

inline message requestTo(const Ids& path, unsigned int command, unsigned int id = 5) {
  return request(path, command, id, {9});
}

inline message ctrl(unsigned int code) {
  message m = to({SERVICE_LOADER});
  m.insert(SYS_CTRL, code);
  return m;
}

inline unsigned int errorOf(const message& m) {
  unsigned int code = ERROR_OK;
  return isError(m, &code) ? code : ERROR_OK;
}

// Keeps what it was asked to handle.
class Recorder : public Handler {
 public:
  void handle(const message& m) override { seen.push_back(m); }
  std::vector<message> seen;
};

}  // namespace kl::test
