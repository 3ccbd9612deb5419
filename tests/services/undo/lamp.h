#pragma once
// lamp.h: a service that reports its changes as any service does, in a process of its own.  Needs: a private root.

#include "kl/looper.h"
#include "tests/support/process/child_process.h"

namespace undo {

// A lamp has a brightness.  CMD_SET changes it and reports the change; CMD_GET tells it, and who last changed it.
class Lamp : public kl::Handler {
 public:
  static constexpr unsigned int kService = 500;
  static constexpr unsigned int kHandler = 3;
  static constexpr kl::field<unsigned int> BRIGHTNESS{0x08000001};
  static constexpr kl::field<std::string> CHANGED_BY{0x20000002};
  static constexpr unsigned int kBrightest = 100;
  static constexpr unsigned int kTurnOff = 0x000042;

 private:
  kl::message cmdGet(const kl::message&) override {
    kl::message reply;
    reply.insert(BRIGHTNESS, brightness_);
    reply.insert(CHANGED_BY, changedBy_);
    return reply;
  }

  kl::message cmdSet(const kl::message& request) override {
    const unsigned int wanted = request.get(BRIGHTNESS, 0);
    if (wanted > kBrightest) return kl::errorMsg(kl::ERROR_FAILED, "the lamp is not that bright");
    kl::message undo;
    undo.insert(BRIGHTNESS, brightness_);
    brightness_ = wanted;
    changedBy_ = request.get(kl::SYS_USER, "nobody");
    sendUndo(request, undo, "brightness " + std::to_string(wanted), kl::CMD_SET);
    return {};
  }

  // A command that the table of rights does not name: it turns the lamp off.
  kl::message cmdUnknown(const kl::message& request, unsigned int command) override {
    if (command != kTurnOff) return kl::Handler::cmdUnknown(request, command);
    return cmdSet(request);
  }

  unsigned int brightness_ = 0;
  std::string changedBy_;
};

// Service 500, whose handler 3 is a lamp, for as long as it lives.
class LampProcess : public kl::test::ChildProcess {
 public:
  LampProcess() : ChildProcess(run) {}

 private:
  static void run() {
    kl::Looper loop(kl::Looper::kConnect, Lamp::kService);
    Lamp lamp;
    loop.addHandler(Lamp::kHandler, &lamp);
    loop.run();
  }
};

}  // namespace undo
