// kl-soak-chatter SEED: asks everybody for everything.

#include <algorithm>
#include <cstdlib>
#include <random>

#include "kl/logger.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "tests/soak/soak_services.h"

namespace {

constexpr unsigned int kNetif = 32;
constexpr unsigned int kMostOpen = 200;
constexpr unsigned int kTimeoutTicks = 2000;
constexpr unsigned int kRequestsATurn = 8;  // each tick
constexpr unsigned int kLongestText = 300;
constexpr unsigned int kNotMuted = 700;  // a topic of its own

class Chatter : public kl::Handler {
 public:
  explicit Chatter(unsigned int seed) : random_(seed) {}

  void begin() { timer_ = kl::getLooper()->addTimer(this, kl::bind<Chatter, &Chatter::onTurn>(), 1); }

 private:
  void onTurn() {
    for (unsigned int n = upTo(kRequestsATurn); n > 0 && open_ < kMostOpen; --n) ask();
    begin();
  }

  void ask() {
    kl::message m;
    switch (upTo(10)) {
      case 0: address(m, {soak::kKeeper, soak::kTable}, kl::CMD_REMOVEOBJ); break;
      case 1:
      case 2: setText(m); break;
      case 3: address(m, {kNetif}, kl::CMD_GETCOUNT); break;
      case 4: address(m, {kl::SERVICE_UNDO}, kl::CMD_GETCOUNT); break;
      case 5: address(m, {kl::SERVICE_SYSTEM}, kl::CMD_GET); break;
      case 6: address(m, {kl::SERVICE_LOADER}, kl::CMD_GETALL); break;
      case 7: address(m, {soak::kFollower, soak::kTable}, kl::CMD_GETCOUNT); break;
      default: address(m, {soak::kKeeper, soak::kTable}, kl::CMD_GETOBJ); break;
    }
    ++asked_;
    ++open_;
    postMessage(m, this, kl::bind<Chatter, &Chatter::onReply>(), kl::message(), kTimeoutTicks);
    if (asked_ % 100 == 0) log_ << "asked " << asked_ << std::endl;
  }

  void address(kl::message& m, const std::vector<unsigned int>& to, unsigned int command) {
    m.insert(kl::SYS_TO, to);
    m.insert(kl::SYS_CMD, command);
    if (command == kl::CMD_GETOBJ || command == kl::CMD_REMOVEOBJ)
      m.insert(kl::STD_ID, 1 + upTo(soak::kMostObjects - 1));
  }

  void setText(kl::message& m) {
    address(m, {soak::kKeeper, soak::kTable}, kl::CMD_SETOBJ);
    m.insert(kl::STD_ID, 1 + upTo(soak::kMostObjects - 1));
    m.insert(kl::STD_DESCR, std::string(upTo(kLongestText), static_cast<char>('a' + upTo(25))));
  }

  void onReply(const kl::message& reply, const kl::message&) {
    --open_;
    ++answered_;
    if (reply.get(kl::SYS_ERRNO, 0) == kl::ERROR_TIMEOUT) ++timeouts_;
  }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(soak::ASKED, asked_);
    reply.insert(soak::ANSWERED, answered_);
    reply.insert(soak::TIMEOUTS, timeouts_);
    reply.insert(soak::OPEN, open_);
    return reply;
  }

  kl::message cmdUnknown(const kl::message& request, unsigned int command) override {
    switch (command) {
      case kl::CMD_START: flood(request.get(kl::STD_GETALLNO, 0)); return {};
      case kl::CMD_CANCEL:
        kl::getLooper()->removeTimer(timer_);
        timer_ = {};
        return {};
      default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
    }
  }

  void flood(unsigned int lines) {
    for (unsigned int n = 0; n < lines; ++n) log_ << "line " << n << " of a flood" << std::endl;
  }

  unsigned int upTo(unsigned int most) {
    return std::uniform_int_distribution<unsigned int>(0, most)(random_);
  }

  std::mt19937 random_;
  kl::TimerPtr timer_{};
  kl::lstream log_{kNotMuted, kl::TOPIC_INFO, 0U};
  unsigned long long asked_ = 0;
  unsigned long long answered_ = 0;
  unsigned long long timeouts_ = 0;
  unsigned int open_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  kl::Looper loop(kl::Looper::kAny, soak::kChatter);
  Chatter chatter(argc > 1 ? static_cast<unsigned int>(std::atoi(argv[1])) : 1);
  loop.addHandler(soak::kTable, &chatter);
  chatter.begin();
  loop.run();
  loop.removeHandler(soak::kTable);
}
