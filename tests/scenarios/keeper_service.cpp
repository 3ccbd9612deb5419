// kl-test-keeper: a service that saves its state and leaves.

#include "tests/scenarios/keeper_service.h"

#include "kl/looper.h"

namespace {

class Keeper : public kl::Handler {
 public:
  void savePermData(kl::message& data) override {
    Handler::savePermData(data);
    if (value_ != 0) data.insert(keeper::VALUE, value_);
  }
  void loadPermData(const kl::message& data) override {
    Handler::loadPermData(data);
    value_ = data.get(keeper::VALUE, 0);
  }

 private:
  void subscribed(const kl::message&) override { ++told_; }

  kl::message getObject(unsigned int id) override {
    kl::message object;
    object.insert(kl::STD_ID, id);
    object.insert(keeper::VALUE, value_);
    return object;
  }

  kl::message cmdSetObj(const kl::message& request, unsigned int id) override {
    value_ = request.get(keeper::VALUE, 0);
    notifyChange(id, request);
    return {};
  }

  kl::message cmdGet(const kl::message&) override {
    kl::message reply;
    reply.insert(keeper::VALUE, value_);
    reply.insert(keeper::SUBSCRIPTIONS, static_cast<unsigned int>(getSubscriptions().size()));
    reply.insert(keeper::TOLD, told_);
    return reply;
  }

  kl::message cmdReset(const kl::message&) override { return kl::getLooper()->tellLeave(), kl::message(); }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(keeper::LOCALTIME, kl::getLooper()->getLocaltime());
    return reply;
  }

  kl::message cmdUnknown(const kl::message&, unsigned int command) override {
    switch (command) {
      case kl::CMD_START: kl::getLooper()->blockLeave(); return {};
      case kl::CMD_CANCEL: kl::getLooper()->unblockLeave(); return {};
      case kl::CMD_POLL: return askPeer();
      default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
    }
  }

  kl::message askPeer() {
    kl::message m;
    m.insert(kl::SYS_TO, {500});
    m.insert(kl::SYS_CMD, kl::CMD_GET);
    (void)exchangeMessage(m, 6000);
    return {};
  }

  unsigned int value_ = 0;
  unsigned int told_ = 0;
};

}  // namespace

int main() {
  kl::Looper looper(kl::Looper::kAny, keeper::kService);
  Keeper first, second;
  looper.addHandler(3, &first);
  looper.addHandler(4, &second);
  looper.setupLeave(1);
  looper.run();
  looper.removeHandler(3);
  looper.removeHandler(4);
}
