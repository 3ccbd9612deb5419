// The table has one object for each figure.  While somebody has subscribed a timer reads them all and compares each with
// what was last sent of it; without subscribers the timer is not set again.

#include "system_service.h"

#include <algorithm>
#include <iterator>

#include "kl/chunk.h"
#include "kl/logger.h"
#include "kl/services.h"
#include "services/common/version.h"
#include "system.kl.h"

namespace kl_system {
namespace {

constexpr const char* kNames[] = {"timezone", "host", "version", "uptime", "memory", "load"};
static_assert(std::size(kNames) == kl::SYSTEM_OBJECT_LOAD + 1, "each object has a name");

// The fields of one object, without its id.
void describe(kl::message& m, unsigned int object, const Figures& f) {
  switch (object) {
    case kl::SYSTEM_OBJECT_TIMEZONE:
      m.insert(system_service::TIMEZONE, static_cast<unsigned int>(f.timezone));
      break;
    case kl::SYSTEM_OBJECT_HOST: m.insert(system_service::HOSTNAME, f.hostname); break;
    case kl::SYSTEM_OBJECT_VERSION: m.insert(system_service::VERSION, f.version); break;
    case kl::SYSTEM_OBJECT_UPTIME: m.insert(system_service::UPTIME, f.uptime); break;
    case kl::SYSTEM_OBJECT_MEMORY:
      m.insert(system_service::MEMORY_TOTAL, f.memory.total);
      m.insert(system_service::MEMORY_AVAILABLE, f.memory.available);
      break;
    case kl::SYSTEM_OBJECT_LOAD: m.insert(system_service::LOAD, {f.load.begin(), f.load.end()}); break;
    default: break;
  }
}

kl::message objectOf(unsigned int id, const Figures& figures) {
  kl::message object;
  object.insert(kl::STD_ID, id);
  object.insert(kl::STD_DESCR, kNames[id]);
  describe(object, id, figures);
  return object;
}

}  // namespace

SystemService::SystemService()
    : kl::Looper(kAny, system_service::SERVICE, common::versionWord()),
      timezone_(*this, this, kl::bind<SystemService, &SystemService::onTimezone>()),
      lookTicks_(std::max(
          getLoaderData().get(system_service::SETTING_LOOK_TICKS, system_service::SETTING_LOOK_TICKS_DEFAULT),
          1U)) {
  addHandler(0, &timezone_);
}

kl::message SystemService::cmdGet(const kl::message&) {
  const Figures now = figures();
  kl::message reply;
  for (unsigned int id = 0; id < kObjects; ++id) describe(reply, id, now);
  return reply;
}

kl::message SystemService::cmdGetObj(const kl::message&, unsigned int id) {
  return id < kObjects ? objectOf(id, figures()) : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
}

kl::message SystemService::cmdGetAll(const kl::message&, unsigned int start, unsigned int count) {
  const Figures now = figures();
  kl::Chunk chunk(count);
  for (unsigned int id = start == kl::BADID ? 0 : start; id < kObjects; ++id)
    if (!chunk.add(id, objectOf(id, now))) break;
  return chunk.reply();
}

kl::message SystemService::cmdGetCount(const kl::message&) {
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, kObjects);
  return reply;
}

kl::message SystemService::getObject(unsigned int id) { return objectOf(id, figures()); }

void SystemService::subscribed(const kl::message&) {
  if (looks_) return;
  looks_ = true;
  told_.fill(figures());
  addTimer(this, kl::bind<SystemService, &SystemService::onLook>(), lookTicks_);
}

Figures SystemService::figures() const {
  Figures figures = readFigures();
  figures.timezone = timezone_.offset();
  return figures;
}

void SystemService::onTimezone() {
  kl::lstream log(kl::TOPIC_SYSTEM, kl::TOPIC_NOTICE, 0);
  log << "local time is now " << timezone_.offset() << " s east of UTC" << std::endl;
  told_[kl::SYSTEM_OBJECT_TIMEZONE].timezone = timezone_.offset();
  notifyChange(kl::SYSTEM_OBJECT_TIMEZONE);
}

// A figure is compared with what was last sent, not with the last look, so that slow changes are sent, too.
void SystemService::onLook() {
  looks_ = !getSubscriptions().empty();
  if (!looks_) return;
  addTimer(this, kl::bind<SystemService, &SystemService::onLook>(), lookTicks_);
  const Figures now = figures();
  for (unsigned int id = 0; id < kObjects; ++id) {
    if (!isWorthTelling(id, told_[id], now)) continue;
    told_[id] = now;
    notifyChange(id);
  }
}

}  // namespace kl_system
