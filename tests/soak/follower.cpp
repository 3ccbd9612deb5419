// kl-soak-follower: has a copy of the keeper's table.

#include "kl/watcher.h"
#include "tests/soak/soak_services.h"

namespace {

class Follower : public kl::Watcher {
  void objectChanged(const kl::message& object) override {
    texts_[object.get(kl::STD_ID, kl::BADID)] = object.get(kl::STD_DESCR, "");
  }
  void objectRemoved(unsigned int id) override { texts_.erase(id); }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(texts_.size()));
    reply.insert(soak::DIGEST, soak::digestOf(texts_));
    return reply;
  }

  std::map<unsigned int, std::string> texts_;
};

}  // namespace

int main() {
  kl::Looper loop(kl::Looper::kAny, soak::kFollower);
  Follower follower;
  loop.addHandler(soak::kTable, &follower);
  follower.watch({soak::kKeeper, soak::kTable});
  loop.run();
  loop.removeHandler(soak::kTable);
}
