// The latest crash is the first of the list, so a list in several chunks goes on behind the crash that the last chunk
// ended with.  A crash that happens again meanwhile moves to the front: it is then missed or told twice, and the next
// list has it in its place.

#include "own/crash_table.h"

#include <algorithm>

#include "kl/chunk.h"
#include "kl/conventions.h"
#include "kl/looper.h"
#include "loader.kl.h"

namespace loader {
namespace {

bool mayRead(const kl::message& request) {
  return (request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) & kl::RIGHT_CONTROL) != 0;
}

}  // namespace

kl::message CrashTable::answer(const kl::message& request, unsigned int command) const {
  if (command == kl::CMD_NOOP) return {};
  if (!mayRead(request)) return kl::errorMsg(kl::ERROR_NOTALLOWED, "lacks the right control");
  switch (command) {
    case kl::CMD_GETALL: return getAll(request);
    case kl::CMD_GETOBJ: return getObject(request);
    case kl::CMD_GETCOUNT: {
      kl::message reply;
      reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(store_.all().size()));
      return reply;
    }
    default: return kl::errorMsg(kl::ERROR_NOTIMP, "");
  }
}

kl::message CrashTable::getAll(const kl::message& request) const {
  const unsigned int start = request.get(kl::STD_GETALLID, kl::BADID);
  const auto& all = store_.all();
  auto at =
      std::find_if(all.begin(), all.end(), [start](const KeptCrash& crash) { return crash.id == start; });
  if (start == kl::BADID) at = all.begin();
  kl::Chunk chunk(request.get(kl::STD_GETALLNO, 0));
  for (; at != all.end(); ++at)
    if (!chunk.add(at->id, at->message())) break;
  return chunk.reply();
}

kl::message CrashTable::getObject(const kl::message& request) const {
  const unsigned int id = request.get(kl::STD_ID, kl::BADID);
  if (store_.find(id) == nullptr) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  kl::message crash = store_.read(id);
  return crash.has(loader_service::REPORT) ? crash
                                           : kl::errorMsg(kl::ERROR_FAILED, "the report cannot be read");
}

}  // namespace loader
