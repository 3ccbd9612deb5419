// kl-test-subscribers COUNT: so many subscribers of kl-test-table in one process.

#include <cstdlib>
#include <deque>
#include <map>

#include "kl/looper.h"
#include "tests/scenarios/table_service.h"

namespace {

class Subscriber : public kl::Handler {
 public:
  void begin() { subscribe({table::kService, table::kHandler}, kl::CMD_NOTIFY, kl::message()); }

 private:
  kl::message cmdUnknown(const kl::message& request, unsigned int command) override {
    if (command != kl::CMD_NOTIFY) return kl::errorMsg(kl::ERROR_NOTIMP, "");
    ++notifications_;
    for (const kl::message object : request.get(kl::STD_OBJS, {}))
      values_[object.get(kl::STD_ID, kl::BADID)] = object.get(table::VALUE, 0);
    return {};
  }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(table::NOTIFICATIONS, notifications_);
    reply.insert(table::DIGEST, table::digestOf(values_));
    return reply;
  }

  std::map<unsigned int, unsigned int> values_;
  unsigned int notifications_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  kl::Looper looper(kl::Looper::kAny);
  std::deque<Subscriber> subscribers(argc > 1 ? static_cast<std::size_t>(std::atoi(argv[1])) : 1);
  unsigned int number = 0;
  for (Subscriber& each : subscribers) {
    looper.addHandler(++number, &each);
    each.begin();
  }
  looper.run();
}
