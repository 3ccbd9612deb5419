// kl-test-leaver: a service for the loader to start, which may be asked to leave.  It speaks on descriptor 3 without
// the library's loop, and is told by its requests how to behave:
//
//     CMD_GET          is answered with the data that it was started with, as READY_DATA
//     CMD_GETALL       is answered with everything that it got before this, as STD_OBJS
//     CMD_SET          takes what stands in it: kReaction, kAfterwards, kValue (its leave value), kWakeAt; kWish
//                      announces that it wants to leave.  It is answered before anything is sent on.
//     CMD_POLL         is never answered
//     CMD_SHUTDOWN     ends it with the status in u32 0x08000001
//
// The data that it saves are its start number and what it was started with.

#include "tests/services/loader/leaver_program.h"

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "tests/support/doubles/raw_peer.h"

namespace {

using namespace kl::test::leaver;
using kl::test::RawPeer;

constexpr int kForever = INT_MAX;

class Leaver {
 public:
  int run() {
    if (loader_.registerAs(0) == 0) return 1;
    tell(kl::CTRL_RUNNING);
    tell(kl::CTRL_LEAVE_VALUE, 1);
    while (const auto m = loader_.receive(kForever)) {
      if (m->get(kl::SYS_CTRL, 0) == kl::CTRL_LEAVE) react(reaction_);
      else take(*m);
    }
    return 1;
  }

 private:
  void tell(unsigned int code, unsigned int argument = 0) {
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CTRL, code);
    m.insert(kl::SYS_CTRL_ARG, argument);
    (void)loader_.send(m);
  }

  void save() {
    kl::message data;
    data.insert(kStart, loader_.ready().get(kl::READY_STARTS, 0));
    data.insert(kl::READY_DATA, loader_.ready().get(kl::READY_DATA, {}));
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CTRL, kl::CTRL_LEFT);
    m.insert(kl::SYS_CTRL_ARG, 1);
    m.insert_message(kl::READY_DATA, data);
    (void)loader_.send(m);
  }

  void react(unsigned int reaction) {
    switch (reaction) {
      case kSaveAndEnd: save(); std::exit(0);
      case kEndWithoutData: std::exit(0);
      case kRefuse: tell(kl::CTRL_REFUSED); return;
      case kCrash: ::raise(SIGKILL); return;
      case kSaveAndCrash:
        save();
        ::raise(SIGKILL);
        return;
      case kSaveAndStay:
        save();
        while (true) ::pause();
      case kEndWithStatus3: std::exit(3);
      case kWait:
        while (!std::filesystem::exists(goFile())) ::usleep(2000);
        return react(afterwards_);
      default: return;
    }
  }

  void take(const kl::message& m) {
    const unsigned int command = m.get(kl::SYS_CMD, kl::CMD_NOOP);
    kl::message answer = kl::test::replyTo(m);
    if (command == kl::CMD_GETALL) answer.insert(kl::STD_OBJS, seen_);
    kl::message::flat_message copy;
    m.flatten(copy);
    seen_.push_back(copy);
    if (command == kl::CMD_SHUTDOWN) std::exit(static_cast<int>(m.get_u32(0x08000001, 0)));
    if (command == kl::CMD_GET && loader_.ready().has(kl::READY_DATA))
      answer.insert(kl::READY_DATA, loader_.ready().get(kl::READY_DATA, {}));
    if (kl::getRequestID(m) && !kl::isReply(m) && command != kl::CMD_POLL) (void)loader_.send(answer);
    if (command == kl::CMD_SET) obey(m);
  }

  void obey(const kl::message& m) {
    reaction_ = m.get(kReaction, reaction_);
    afterwards_ = m.get(kAfterwards, afterwards_);
    if (m.has(kValue)) tell(kl::CTRL_LEAVE_VALUE, m.get(kValue, 0));
    if (m.has(kWakeAt)) tell(kl::CTRL_WAKE_AT, m.get(kWakeAt, 0));
    if (m.has(kSubscribe)) subscribe();
    if (m.has(kWish)) tell(kl::CTRL_WANT_LEAVE);
    if (m.has(kValueAfterWish)) tell(kl::CTRL_LEAVE_VALUE, m.get(kValueAfterWish, 0));
  }

  void subscribe() {
    kl::message m = kl::test::notification({kl::SERVICE_LOADER});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    (void)loader_.send(m);
  }

  RawPeer loader_{3};
  unsigned int reaction_ = kSaveAndEnd;
  unsigned int afterwards_ = kSaveAndEnd;
  std::vector<kl::message::flat_message> seen_;
};

}  // namespace

int main() { return Leaver().run(); }
