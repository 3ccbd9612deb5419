// kl-attack-victim: a service that answers, may leave, and saves something when it does.

#include "kl/looper.h"

namespace {

class Victim : public kl::Handler {
  void savePermData(kl::message& data) override {
    Handler::savePermData(data);
    data.insert(kl::field<unsigned int>{0x08000002}, 1);
  }
  kl::message cmdGet(const kl::message& request) override {
    kl::message reply;
    reply.insert(kl::STD_ID, request.get(kl::STD_ID, 0));
    return reply;
  }
};

}  // namespace

int main() {
  kl::Looper loop(kl::Looper::kInherited);
  Victim victim;
  loop.addHandler(1, &victim);
  loop.setupLeave(1);
  loop.run();
  loop.removeHandler(1);
}
