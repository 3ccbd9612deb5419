// Handler 0 answers with the offset alone and sends it with every change; the watch behind it notices changes.

#include "timezone.h"

#include "kl/services.h"
#include "system.kl.h"
#include "zone.h"

namespace kl_system {

Timezone::Timezone(kl::Runner& loop, void* context, void (*changed)(void*))
    : context_(context),
      changed_(changed),
      watch_(loop, zoneFile(), this, kl::bind<Timezone, &Timezone::onChange>()) {}

kl::message Timezone::cmdGet(const kl::message&) {
  kl::message reply;
  reply.insert(system_service::TIMEZONE, static_cast<unsigned int>(offset()));
  return reply;
}

// The offset stands in the notification itself: a receiver need not look into objects.
void Timezone::onChange() {
  kl::message m;
  m.insert(kl::SYS_CMD, kl::SYSTEM_TIMEZONE_CHANGED);
  m.insert(system_service::TIMEZONE, static_cast<unsigned int>(offset()));
  sendNotify(m);
  changed_(context_);
}

}  // namespace kl_system
