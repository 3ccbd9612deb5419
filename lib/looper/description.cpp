// The description is a text that somebody else owns.  Nothing is done with it before somebody asks.

#include "looper/description.h"

#include <cstring>

#include "kl/description.h"
#include "looper/paths.h"

namespace kl {
namespace {

const char* theDescription = nullptr;

}  // namespace

bool setDescription(const char* text) {
  const bool fits = text == nullptr || std::strlen(text) <= kMostDescriptionBytes;
  theDescription = fits ? text : nullptr;
  return fits;
}

bool asksForDescription(const message& m) {
  const Path& to = pathOf(m, SYS_TO);
  return theDescription != nullptr && to.size() == 1 && to.front() == HANDLER_DESCRIPTION && m.has(SYS_CMD) &&
         !isReply(m);
}

message describeProcess(const message& request, const policies& rights) {
  const unsigned int command = request.get(SYS_CMD, CMD_NOOP);
  if (command == CMD_GETPOLICIES) return rights.get_policies(request);
  if (!rights.is_allowed(request)) return errorMsg(ERROR_NOTALLOWED, "");
  if (command != CMD_GET) return command == CMD_NOOP ? message() : errorMsg(ERROR_NOTIMP, "");
  message reply;
  reply.insert(STD_DESCR, theDescription);
  return reply;
}

}  // namespace kl
