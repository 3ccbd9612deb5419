// An action is a request to the loader that sets SVC_ACTION of the service's row.  The loader answers a request to leave
// when the service has left or has refused to.

#include "verbs/action.h"

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "values/failure.h"
#include "verbs/request.h"

namespace klctl {
namespace {

kl::message requestFor(const CommandLine& line, unsigned int action, const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  request.insert(kl::STD_ID, resolveId(line.path.service, exchange));
  request.insert(kl::SVC_ACTION, action);
  return request;
}

void order(const CommandLine& line, const Channels& channels, unsigned int action) {
  const kl::message reply = channels.exchange(requestFor(line, action, channels.exchange));
  unsigned int code = kl::ERROR_OK;
  if (kl::isError(reply, &code)) {
    const bool stays = action == kl::SVC_LEAVE && code == kl::ERROR_BUSY;
    throw Failure(stays ? Status::kStays : Status::kRefused,
                  errorSentence(line.path.service, reply, "loader", kl::CMD_SETOBJ));
  }
  channels.print(line.dump ? dumpText(reply) : replyText(line, reply, FieldNames()));
}

}  // namespace

void startService(const CommandLine& line, const Channels& channels) { order(line, channels, kl::SVC_START); }
void stopService(const CommandLine& line, const Channels& channels) { order(line, channels, kl::SVC_STOP); }
void restartService(const CommandLine& line, const Channels& channels) {
  order(line, channels, kl::SVC_RESTART);
}
void leaveService(const CommandLine& line, const Channels& channels) { order(line, channels, kl::SVC_LEAVE); }

}  // namespace klctl
