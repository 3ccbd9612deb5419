// Two kinds of objects stand in one table: topics under their own numbers, files from LOG_FIRST_FILE on, in the order
// of the configuration.  Only topics can be set.

#include "asking/rule_table.h"

#include <iterator>
#include <set>

#include "kl/chunk.h"
#include "kl/services.h"
#include "log.kl.h"

namespace logd {
namespace {

bool isTopic(unsigned int id) { return id > 0 && id < kl::LOG_FIRST_FILE; }

}  // namespace

kl::message RuleTable::getObject(unsigned int id) {
  return isTopic(id) ? topicObject(static_cast<Topic>(id)) : fileObject(id);
}

kl::message RuleTable::cmdGetObj(const kl::message&, unsigned int id) {
  if (isTopic(id)) return topicObject(static_cast<Topic>(id));
  return id >= kl::LOG_FIRST_FILE && id - kl::LOG_FIRST_FILE < book_.files().size()
             ? fileObject(id)
             : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
}

kl::message RuleTable::cmdSetObj(const kl::message& request, unsigned int id) {
  if (!isTopic(id)) {
    const bool isFile = id >= kl::LOG_FIRST_FILE && id - kl::LOG_FIRST_FILE < book_.files().size();
    return isFile ? kl::errorMsg(kl::ERROR_NOTALLOWED, "files are set in the configuration")
                  : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  }
  if (!request.has(log_service::MUTED)) return kl::errorMsg(kl::ERROR_MISSING, "");
  if (!book_.mutes().set(static_cast<Topic>(id), request.get(log_service::MUTED, false))) return {};
  onMutesChanged_();
  notifyChange(id, request);
  return {};
}

kl::message RuleTable::cmdGetAll(const kl::message&, unsigned int start, unsigned int count) {
  kl::Chunk chunk(count);
  for (const unsigned int id : ids()) {
    if (start != kl::BADID && id < start) continue;
    if (!chunk.add(id, getObject(id))) break;
  }
  return chunk.reply();
}

kl::message RuleTable::cmdGetCount(const kl::message&) {
  kl::message reply;
  reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(ids().size()));
  return reply;
}

std::vector<unsigned int> RuleTable::ids() const {
  std::set<unsigned int> all(book_.mutes().topics().begin(), book_.mutes().topics().end());
  for (const auto& [topic, name] : book_.names().all()) all.insert(topic);
  for (std::size_t i = 0; i < book_.files().size(); ++i)
    all.insert(kl::LOG_FIRST_FILE + static_cast<unsigned int>(i));
  return {all.begin(), all.end()};
}

kl::message RuleTable::topicObject(Topic topic) const {
  kl::message object;
  object.insert(kl::STD_ID, topic);
  object.insert(log_service::MUTED, book_.mutes().isMuted(topic));
  if (const std::string* name = book_.names().findName(topic)) object.insert(log_service::TOPIC, *name);
  return object;
}

kl::message RuleTable::fileObject(unsigned int id) const {
  const LogFile& file =
      *std::next(book_.files().begin(), static_cast<std::ptrdiff_t>(id - kl::LOG_FIRST_FILE));
  const FileRule& rule = file.rule();
  kl::message object;
  object.insert(kl::STD_ID, id);
  object.insert(log_service::FILE, rule.path);
  object.insert(log_service::SIZE, rule.mostBytes);
  object.insert(log_service::FILES, rule.count);
  object.insert(log_service::SYNC, rule.sync);
  object.insert(log_service::LOST, file.lost());
  if (!rule.topics.empty())
    object.insert(log_service::TOPICS, std::vector<unsigned int>(rule.topics.begin(), rule.topics.end()));
  if (!file.failure().empty()) object.insert(log_service::FAILURE, file.failure());
  return object;
}

}  // namespace logd
