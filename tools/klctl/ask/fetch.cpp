// Following the chunks of CMD_GETALL.

#include "ask/fetch.h"

#include <set>

#include "kl/conventions.h"

namespace klctl {

Failure refused(const std::string& path, const kl::message& reply) {
  return {Status::kRefused, path + ": " + kl::getError(reply)};
}

Failure endless(const std::string& path, unsigned int id) {
  return {Status::kRefused,
          path + ": the table does not end, it continues at " + std::to_string(id) + " for the second time"};
}

kl::message fetch(const kl::message& request, const std::string& path, const Exchange& exchange) {
  kl::message reply = exchange(request);
  if (kl::isError(reply)) throw refused(path, reply);
  return reply;
}

std::vector<kl::message::flat_message> fetchAll(kl::message request, const std::string& path,
                                                const Exchange& exchange) {
  std::vector<kl::message::flat_message> objects;
  std::set<unsigned int> continued;
  for (;;) {
    const kl::message reply = fetch(request, path, exchange);
    for (const auto& object : reply.get(kl::STD_OBJS, {})) objects.push_back(object);
    if (!reply.has(kl::STD_GETALLID)) return objects;
    const unsigned int next = reply.get(kl::STD_GETALLID, kl::BADID);
    if (!continued.insert(next).second) throw endless(path, next);
    request.insert(kl::STD_GETALLID, next);
  }
}

}  // namespace klctl
