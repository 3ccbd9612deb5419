// kl-test-table [changing | large | leaving]: a table of objects for the loader to start.
//
//     changing    begins with a table that depends on the number of this start, and changes it all the time
//     large       begins with a hundred thousand objects
//     leaving     may be asked to leave

#include "tests/scenarios/table_service.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kl/chunk.h"
#include "kl/looper.h"

namespace {

using Objects = std::vector<kl::message::flat_message>;

constexpr unsigned int kChangingIds = 200;
constexpr unsigned int kLargeTable = 100000;

class Table : public kl::Handler {
 public:
  // A table like no other start's.
  void beginChanging(unsigned int start) {
    random_.seed(start);
    for (unsigned int id = 1; id <= kChangingIds; ++id)
      if ((id + start) % 3 != 0) put(id, start);
    tick();
  }

  void beginLarge() {
    for (unsigned int id = 1; id <= kLargeTable; ++id) put(id, id);
  }

 private:
  kl::message cmdSetObj(const kl::message& request, unsigned int) override {
    held_.push_back(request);
    if (request.get(table::HOLD, false)) return {};
    for (const kl::message& each : held_) change(each);
    held_.clear();
    return {};
  }

  kl::message cmdRemoveObj(const kl::message& request, unsigned int id) override {
    if (objects_.erase(id) == 0) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    notifyChange(id, request);
    return {};
  }

  kl::message cmdGetObj(const kl::message&, unsigned int id) override {
    return objects_.contains(id) ? objects_[id] : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  }

  kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
    kl::Chunk chunk(count);
    for (auto at = start == kl::BADID ? objects_.begin() : objects_.lower_bound(start); at != objects_.end();
         ++at)
      if (!chunk.add(at->first, at->second)) break;
    return chunk.reply();
  }

  kl::message cmdGetCount(const kl::message&) override {
    std::map<unsigned int, unsigned int> values;
    for (const auto& [id, object] : objects_) values[id] = object.get(table::VALUE, 0);
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(objects_.size()));
    reply.insert(table::SUBSCRIPTIONS, static_cast<unsigned int>(getSubscriptions().size()));
    reply.insert(table::HELD, static_cast<unsigned int>(held_.size()));
    reply.insert(table::DIGEST, table::digestOf(values));
    return reply;
  }

  kl::message cmdSet(const kl::message& request) override {
    const unsigned int first = request.get(table::FIRST, 1);
    for (unsigned int id = first; id < first + request.get(table::COUNT, 0); ++id) raise(id);
    return {};
  }

  kl::message cmdUnknown(const kl::message& request, unsigned int command) override {
    switch (command) {
      case kl::CMD_START: return changeAtRandom(request);
      case kl::CMD_CANCEL: kl::getLooper()->removeTimer(timer_); return {};
      case table::NOTIFY_OWN: return notifyOwn();
      case table::SEND_OBJECTS: return sendObjects(request);
      default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
    }
  }

  kl::message getObject(unsigned int id) override {
    const auto found = objects_.find(id);
    if (found != objects_.end()) return found->second;
    kl::message dead;
    dead.insert(kl::STD_ID, id);
    dead.insert(kl::STD_DEAD, 1);
    return dead;
  }

  void put(unsigned int id, unsigned int value) {
    objects_[id].insert(kl::STD_ID, id);
    objects_[id].insert(table::VALUE, value);
  }

  void change(const kl::message& request) {
    kl::message object(request);
    kl::cleanSys(object);
    object.remove(table::HOLD);
    const unsigned int id = object.get(kl::STD_ID, 0);
    objects_[id] = object;
    notifyChange(id, request);
  }

  void raise(unsigned int id) {
    put(id, objects_[id].get(table::VALUE, 0) + 1);
    notifyChange(id);
  }

  kl::message changeAtRandom(const kl::message& request) {
    std::uniform_int_distribution<unsigned int> any(0, request.get(table::FIRST, 1) - 1);
    for (unsigned int n = request.get(table::COUNT, 0); n > 0; --n) {
      const unsigned int id = any(random_);
      objects_[id].insert(table::PAYLOAD, request.get(table::PAYLOAD, {}));
      raise(id);
    }
    sendChanges();
    return {};
  }

  kl::message notifyOwn() {
    kl::message m;
    m.insert(kl::SYS_CMD, table::NOTIFY_OWN);
    sendNotify(m);
    return {};
  }

  kl::message sendObjects(const kl::message& request) {
    std::vector<kl::message> objects;
    for (const auto& object : request.get(kl::STD_OBJS, {})) objects.emplace_back(object);
    const kl::message* const first = objects.data();
    kl::message reply;
    reply.insert(kl::STD_GETALLNO,
                 static_cast<unsigned int>(sendNotifies(first, first + objects.size()) - first));
    return reply;
  }

  // One object comes, changes or goes.
  void tick() {
    const unsigned int id = std::uniform_int_distribution<unsigned int>(1, kChangingIds)(random_);
    if (objects_.contains(id) && random_() % 3 == 0) {
      objects_.erase(id);
      notifyChange(id);
    } else {
      raise(id);
    }
    timer_ = kl::getLooper()->addTimer(this, kl::bind<Table, &Table::tick>(), 1);
  }

  std::map<unsigned int, kl::message> objects_;
  std::vector<kl::message> held_;
  std::mt19937 random_;
  kl::TimerPtr timer_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string behaviour = argc > 1 ? argv[1] : "";
  kl::Looper looper(kl::Looper::kAny, table::kService);
  Table objects;
  looper.addHandler(table::kHandler, &objects);
  if (behaviour == "changing") objects.beginChanging(looper.getLoaderValue(3));
  if (behaviour == "large") objects.beginLarge();
  if (behaviour == "leaving") looper.setupLeave(1);
  looper.run();
}
