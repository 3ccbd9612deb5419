// Following the chunks of CMD_GETALL.

#include "ask/fetch.h"

#include <pwd.h>
#include <unistd.h>

#include <set>

#include "kl/conventions.h"
#include "values/field_names.h"

namespace klctl {

std::string ownName() {
  const passwd* const entry = ::getpwuid(::geteuid());
  return entry != nullptr ? entry->pw_name : std::to_string(::geteuid());
}

std::string errorSentence(const std::string& path, const kl::message& reply, unsigned int command) {
  return errorSentence(path, reply, path.substr(0, path.find(':')), command);
}

std::string errorSentence(const std::string& path, const kl::message& reply, const std::string& place,
                          unsigned int command) {
  std::string sentence = path + ": " + kl::getError(reply);
  unsigned int code = kl::ERROR_OK;
  std::string text;
  (void)kl::isError(reply, &code, &text);
  if (code != kl::ERROR_NOTALLOWED || !text.empty()) return sentence;
  return sentence + "; klctl rights explain " + ownName() + " " + place + " " + commandWord(command) +
         " says why";
}

Failure refused(const std::string& path, const kl::message& reply, unsigned int command) {
  return {Status::kRefused, errorSentence(path, reply, command)};
}

Failure endless(const std::string& path, unsigned int id) {
  return {Status::kRefused,
          path + ": the table does not end, it continues at " + std::to_string(id) + " for the second time"};
}

kl::message fetch(const kl::message& request, const std::string& path, const Exchange& exchange) {
  kl::message reply = exchange(request);
  if (kl::isError(reply)) throw refused(path, reply, request.get(kl::SYS_CMD, kl::CMD_NOOP));
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
