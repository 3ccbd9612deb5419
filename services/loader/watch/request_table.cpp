// A request keeps its place among the open ones, so its place is the number of its row, and a table that is read chunk by
// chunk goes on behind the place that it had reached: what came to a place before it meanwhile is not shown.

#include "watch/request_table.h"

#include <algorithm>
#include <string>
#include <vector>

#include "kl/chunk.h"
#include "loader.kl.h"

namespace loader {
namespace {

// The user whom the request is made for.  The sender's own name is nobody that it speaks for.
std::string userOf(const kl::message& request) { return request.get(kl::SYS_USER, ""); }

// A request that is looked at, shown or not, and how many free places are passed for a unit.
constexpr Work::Units kLook = Work::kFrame;
constexpr unsigned int kFreePlaces = 8;

bool mayControl(const kl::message& request) {
  return (request.get(kl::SYS_POLICY, kl::RIGHTS_ALL) & kl::RIGHT_CONTROL) != 0;
}

}  // namespace

kl::message RequestTable::chunk(const Service& asker, const kl::message& request, Work& work) const {
  const common::Moment now = clock_();
  const unsigned int start = request.get(kl::STD_GETALLID, kl::BADID);
  kl::Chunk chunk(request.get(kl::STD_GETALLNO, 0));
  unsigned int place = start == kl::BADID ? 0 : start;
  for (; const OpenRequest* open = next(place, work); ++place) {
    if (!isShown(*open, asker, request)) continue;
    work.spend(Work::kRow);
    if (!chunk.add(place, rowOf(*open, place, now))) break;
  }
  return chunk.reply();
}

kl::message RequestTable::count(const Service& asker, const kl::message& request, Work& work) const {
  unsigned int shown = 0;
  for (unsigned int place = 0; const OpenRequest* open = next(place, work); ++place)
    if (isShown(*open, asker, request)) ++shown;
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, shown);
  return reply;
}

void RequestTable::addTo(kl::message& row, const Service& service) const {
  const common::Moment now = clock_();
  if (const OpenRequest* oldest = requests_.oldestTo(service))
    row.insert(loader_service::OLDEST, now.millisecondsSince(oldest->since));
  if (service.lastSent != 0) row.insert(loader_service::SILENT, now.seconds - service.lastSent);
}

const OpenRequest* RequestTable::next(unsigned int& place, Work& work) const {
  const unsigned int from = place;
  const OpenRequest* open = requests_.findFrom(place);
  work.spend(kLook + (place - from) / kFreePlaces);
  return open;
}

kl::message RequestTable::rowOf(const OpenRequest& request, unsigned int place, common::Moment now) const {
  std::vector<unsigned int> path = request.path.ids();
  path.resize(std::min<std::size_t>(path.size(), kMostPath));
  kl::message row;
  row.insert(kl::STD_ID, place);
  row.insert(loader_service::ASKER, request.caller->id);
  row.insert(loader_service::ASKED, request.callee->id);
  row.insert(loader_service::PATH, path);
  row.insert(loader_service::COMMAND, request.command);
  row.insert(loader_service::AGE, now.millisecondsSince(request.since));
  if (request.isHeld) row.insert(loader_service::HELD, true);
  return row;
}

bool RequestTable::isShown(const OpenRequest& open, const Service& asker, const kl::message& request) const {
  return maySee(asker, request, *open.caller, *open.callee);
}

bool maySee(const Service& asker, const kl::message& request, const Service& own, const Service& asked) {
  if (asker.rights.isTrusted) return mayControl(request);
  const std::string user = userOf(request);
  if (&own == &asker && asker.rights.spokenFor(user) == nullptr) return true;
  return Access::mayRead(asker.rights, user, asked.rules);
}

}  // namespace loader
