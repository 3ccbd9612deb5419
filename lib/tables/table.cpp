// The commands of a table.
//
// A request to change an object is judged as a whole, and then carried out as a whole:
//
//     fields that the command takes --> the object as it would be --> problems? the request is refused
//         --> whoever has the objects writes it --> subscribers, the undo service and the service are told
//
// B1  nothing was changed when a request is refused
// B2  the service hears of a change last, because it may end the table then

#include "kl/table.h"

#include <algorithm>

#include "tables/flat_fields.h"
#include "tables/problems.h"

namespace kl::detail {
namespace {

constexpr unsigned int kNameSpace = 0x00ff0000;  // of a field's id; 0 is that of the services

bool isPlace(unsigned int id) { return id == STD_ID || id == STD_NEXTID; }

// Does a command take this field of its request?
bool isTaken(const ObjectRules& rules, unsigned int id, unsigned int use) {
  if (isPlace(id)) return false;
  if (const FieldRule* rule = rules.find(id)) return (rule->uses & use) != 0;
  const unsigned int others = use == FieldRule::kAdded ? ObjectRules::kAddsOthers : ObjectRules::kSetsOthers;
  return (rules.changes & others) != 0 && (id & kNameSpace) == 0;
}

message takenOf(const ObjectRules& rules, const message& request, unsigned int use) {
  return pick(request, [&](const Record& record) { return isTaken(rules, record.id(), use); });
}

// What makes the later object the earlier one again.
message difference(const message& before, const message& now) {
  const message::flat_message early = before.flattened();
  const message::flat_message late = now.flattened();
  message result = pick(before, [&late](const Record& record) {
    Record other;
    return !findRecord(late, record.id(), other) || !std::ranges::equal(record.bytes(), other.bytes());
  });
  std::vector<unsigned int> cleared;
  RecordWalk walk(late);
  for (Record record, other; walk.next(record);)
    if (!findRecord(early, record.id(), other)) cleared.push_back(record.id());
  if (!cleared.empty()) result.insert(TABLE_CLEARS, cleared);
  return result;
}

}  // namespace

TableCore::TableCore(Handler& handler, const ObjectRules& rules) : handler_(handler), rules_(rules) {
  for (const CommandRule& command : rules.commands)
    handler.accessPolicies().set_policy(command.code, command.right);
}

TableCore::~TableCore() = default;

message TableCore::getObj(unsigned int id) {
  message object;
  (void)readRow(id, object);
  return object;
}

message TableCore::getAll(unsigned int start, unsigned int count) {
  Chunk chunk(count);
  const message error = fillChunk(chunk, start);
  return isError(error) ? error : chunk.reply();
}

message TableCore::getCount() {
  const Result<unsigned int> number = countRows();
  if (!number) return number.error().reply();
  message reply;
  reply.insert(STD_GETALLNO, *number);
  return reply;
}

message TableCore::addObj(const message& request) {
  if (!takes(ObjectRules::kAdd)) return errorMsg(ERROR_NOTIMP, "");
  unsigned int id = request.get(STD_ID, 0);
  if (id == 0 || id == BADID) id = freeId();
  if (id == BADID) return errorMsg(ERROR_MISSING, "");
  message there;
  if (readRow(id, there)) return errorMsg(ERROR_EXISTS, "");
  const unsigned int next = takes(ObjectRules::kMove) ? request.get(STD_NEXTID, BADID) : BADID;
  if (next != BADID && !readRow(next, there)) return errorMsg(ERROR_UNKNOWNNEXTID, "");
  message object = takenOf(rules_, request, FieldRule::kAdded);
  object.insert(STD_ID, id);
  if (const message refusal = refusalOf(object, request, FieldRule::kAdded); isError(refusal)) return refusal;
  if (const message refusal = change(request, id, nullptr, &object, next); isError(refusal)) return refusal;
  message reply;
  reply.insert(STD_ID, id);
  return reply;
}

message TableCore::setObj(const message& request, unsigned int id) {
  if (!takes(ObjectRules::kSet)) return errorMsg(ERROR_NOTIMP, "");
  message before;
  if (!readRow(id, before)) return before;
  const auto clears = request.get(TABLE_CLEARS, {});
  message now = pick(before, [&](const Record& record) {
    return !isTaken(rules_, record.id(), FieldRule::kSet) ||
           std::find(clears.begin(), clears.end(), record.id()) == clears.end();
  });
  now.merge(takenOf(rules_, request, FieldRule::kSet));
  if (const message refusal = refusalOf(now, request, FieldRule::kSet); isError(refusal)) return refusal;
  return now == before ? message() : change(request, id, &before, &now);
}

message TableCore::removeObj(const message& request, unsigned int id) {
  if (!takes(ObjectRules::kRemove)) return errorMsg(ERROR_NOTIMP, "");
  message before;
  return readRow(id, before) ? change(request, id, &before, nullptr) : before;
}

message TableCore::moveObj(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }

message TableCore::changedObj(unsigned int id) {
  message object;
  if (readChanged(id, object)) return object;
  object = remains(id);
  object.insert(STD_ID, id);
  object.insert(STD_DEAD, 1);
  return object;
}

message TableCore::remains(unsigned int) { return {}; }

// B1
message TableCore::refusalOf(const message& object, const message& request, unsigned int use) {
  if (object.flattened().size() > kMostObjectBytes) return errorMsg(ERROR_TOOBIG, "");
  Problems problems(rules_);
  findProblems(rules_, object, takenOf(rules_, request, use), problems);
  if (problems.empty()) inspect(object, problems);
  return problems.reply();
}

// B2
message TableCore::change(const message& cause, unsigned int id, const message* before, const message* now,
                          unsigned int next) {
  const message refusal = now != nullptr ? writeRow(cause, id, *now, next) : eraseRow(cause, id);
  if (isError(refusal)) return refusal;
  handler_.notifyChange(id, cause);
  if (before == nullptr) reportUndo(cause, message(), CMD_REMOVEOBJ, CMD_ADDOBJ, *now);
  else if (now == nullptr) reportUndo(cause, *before, CMD_ADDOBJ, CMD_REMOVEOBJ, *before);
  else reportUndo(cause, difference(*before, *now), CMD_SETOBJ, CMD_SETOBJ, *now);
  tell(before, now);
  return {};
}

void TableCore::reportUndo(const message& cause, message undo, unsigned int command, unsigned int done,
                           const message& object) {
  const unsigned int needed = command == CMD_ADDOBJ      ? ObjectRules::kAdd
                              : command == CMD_REMOVEOBJ ? ObjectRules::kRemove
                              : command == CMD_MOVEOBJ   ? ObjectRules::kMove
                                                         : ObjectRules::kSet;
  if (!reportsUndo_ || !takes(needed) || !cause.has(SYS_CMD)) return;
  undo.insert(STD_ID, object.get(STD_ID, BADID));
  handler_.sendUndo(cause, undo, changeText(done, object), command);
}

std::string TableCore::plainChangeText(unsigned int done, unsigned int id) const {
  return rules_.name + (" " + std::to_string(id)) +
         (done == CMD_ADDOBJ      ? " added"
          : done == CMD_REMOVEOBJ ? " removed"
          : done == CMD_MOVEOBJ   ? " moved"
                                  : " changed");
}

}  // namespace kl::detail
