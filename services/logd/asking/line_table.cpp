// Lines become objects when somebody asks for them.  A reply holds as many as fit into its chunk, and the number of
// the line with which the next one begins; a line that has left the memory meanwhile is passed over.

#include "asking/line_table.h"

#include "kl/chunk.h"
#include "log.kl.h"

namespace logd {

kl::message objectOf(const Line& line, unsigned int id) {
  const Origin& origin = *line.origin;
  kl::message object;
  object.insert(kl::STD_ID, id);
  object.insert(log_service::TIME, line.time);
  object.insert(log_service::PROCESS, origin.process);
  object.insert(log_service::PID, origin.pid);
  object.insert(log_service::UID, origin.uid);
  object.insert(log_service::SOURCE, origin.source);
  object.insert(log_service::TOPICS, std::vector<unsigned int>(origin.topics.begin(), origin.topics.end()));
  object.insert(log_service::TEXT, line.text);
  return object;
}

std::vector<kl::message::flat_message> takeChunk(const Ring& ring, const LineFilter& filter,
                                                 Ring::Number& next, unsigned int count) {
  std::vector<kl::message::flat_message> objects;
  std::size_t bytes = 0;
  for (const auto& [n, kept] : ring.since(next)) {
    next = n;
    if (count != 0 && objects.size() == count) return objects;
    if (!filter.passes(kept.line)) continue;
    kl::message::flat_message object = objectOf(kept.line, Ring::idOf(n)).flattened();
    bytes += object.size();
    if (!objects.empty() && bytes > kl::Chunk::kMostBytes) return objects;
    objects.push_back(std::move(object));
  }
  next = ring.end();
  return objects;
}

unsigned int countRest(const Ring& ring, const LineFilter& filter, Ring::Number& next) {
  unsigned int count = 0;
  for (const auto& [n, kept] : ring.since(next)) count += filter.passes(kept.line) ? 1 : 0;
  next = ring.end();
  return count;
}

kl::message getAll(const Ring& ring, const kl::message& request, unsigned int start, unsigned int count) {
  Ring::Number next = start == kl::BADID ? ring.begin() : ring.from(start);
  kl::message reply;
  reply.insert(kl::STD_OBJS, takeChunk(ring, LineFilter(request), next, count));
  if (next != ring.end()) reply.insert(kl::STD_GETALLID, Ring::idOf(next));
  return reply;
}

kl::message getObject(const Ring& ring, unsigned int id, std::optional<unsigned int> onlyOf) {
  const auto n = ring.find(id);
  if (!n || (onlyOf && ring[*n].origin->uid != *onlyOf)) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  return objectOf(ring[*n], id);
}

kl::message getCount(const Ring& ring, const kl::message& request) {
  Ring::Number next = ring.begin();
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, countRest(ring, LineFilter(request), next));
  return reply;
}

}  // namespace logd
