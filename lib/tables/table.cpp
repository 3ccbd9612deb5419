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
#include <cstdio>

#include "tables/flat_fields.h"
#include "tables/problems.h"
#include "tables/table_commands.h"
#include "tables/table_rows.h"

namespace kl::detail {

struct TableParts {
  TableParts(Handler& handler, const ObjectRules& rules, TableHooks& hooks, TableSource* source)
      : rows(source != nullptr ? nullptr : std::make_unique<TableRows>(commands)),
        commands(handler, rules, hooks, source != nullptr ? *source : *rows) {}

  std::unique_ptr<TableRows> rows;  // null: the objects are elsewhere
  TableCommands commands;
};

namespace {

bool isPlace(unsigned int id) { return id == STD_ID || id == STD_NEXTID; }

// Does a command take this field of its request?
bool isTaken(const ObjectRules& rules, unsigned int id, unsigned int use) {
  if (isPlace(id)) return false;
  if (const FieldRule* rule = rules.find(id)) return (rule->uses & use) != 0;
  const unsigned int others = use == FieldRule::kAdded ? ObjectRules::kAddsOthers : ObjectRules::kSetsOthers;
  return (rules.changes & others) != 0 && (id & NAMESPACE_MASK) == 0;
}

message takenOf(const ObjectRules& rules, const message& request, unsigned int use) {
  return pick(request, [&](const Record& record) { return isTaken(rules, record.id(), use); });
}

// The fields that make the later object the earlier one again.
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

// The command that takes back a change must be among those of the description.
unsigned int wayBack(unsigned int command) {
  switch (command) {
    case CMD_ADDOBJ: return ObjectRules::kAdd;
    case CMD_REMOVEOBJ: return ObjectRules::kRemove;
    case CMD_MOVEOBJ: return ObjectRules::kMove;
    default: return ObjectRules::kSet;
  }
}

const char* wordFor(unsigned int done) {
  switch (done) {
    case CMD_ADDOBJ: return " added";
    case CMD_REMOVEOBJ: return " removed";
    case CMD_MOVEOBJ: return " moved";
    default: return " changed";
  }
}

message notImplemented() { return errorMsg(ERROR_NOTIMP, ""); }

}  // namespace

message TableCommands::carryOut(unsigned int command, const message& request, unsigned int id,
                                unsigned int count) {
  switch (command) {
    case CMD_GETOBJ: return getObj(id);
    case CMD_GETALL: return getAll(id, count);
    case CMD_GETCOUNT: return getCount();
    case CMD_ADDOBJ: return takes(ObjectRules::kAdd) ? addObj(request) : notImplemented();
    case CMD_SETOBJ: return takes(ObjectRules::kSet) ? setObj(request, id) : notImplemented();
    case CMD_REMOVEOBJ: return takes(ObjectRules::kRemove) ? removeObj(request, id) : notImplemented();
    default: return takes(ObjectRules::kMove) ? source_.moveRow(request, id) : notImplemented();
  }
}

message TableCommands::getObj(unsigned int id) {
  message object;
  (void)source_.readRow(id, object);
  return object;
}

message TableCommands::getAll(unsigned int start, unsigned int count) {
  Chunk chunk(count);
  const message error = source_.fillChunk(chunk, start);
  return isError(error) ? error : chunk.reply();
}

message TableCommands::getCount() {
  const Result<unsigned int> number = source_.countRows();
  if (!number) return number.error().reply();
  message reply;
  reply.insert(STD_GETALLNO, *number);
  return reply;
}

message TableCommands::addObj(const message& request) {
  unsigned int id = request.get(STD_ID, 0);
  if (id == 0 || id == BADID) id = source_.freeId();
  if (id == BADID) return errorMsg(ERROR_MISSING, "");
  message there;
  if (source_.readRow(id, there)) return errorMsg(ERROR_EXISTS, "");
  const unsigned int next = takes(ObjectRules::kMove) ? request.get(STD_NEXTID, BADID) : BADID;
  if (next != BADID && !source_.readRow(next, there)) return errorMsg(ERROR_UNKNOWNNEXTID, "");
  message object = takenOf(rules_, request, FieldRule::kAdded);
  object.insert(STD_ID, id);
  if (const message refusal = refusalOf(object, request, FieldRule::kAdded); isError(refusal)) return refusal;
  if (const message refusal = change(request, id, nullptr, &object, next); isError(refusal)) return refusal;
  message reply;
  reply.insert(STD_ID, id);
  return reply;
}

message TableCommands::setObj(const message& request, unsigned int id) {
  message before;
  if (!source_.readRow(id, before)) return before;
  const auto clears = request.get(TABLE_CLEARS, {});
  message now = pick(before, [&](const Record& record) {
    return !isTaken(rules_, record.id(), FieldRule::kSet) ||
           std::find(clears.begin(), clears.end(), record.id()) == clears.end();
  });
  now.merge(takenOf(rules_, request, FieldRule::kSet));
  if (const message refusal = refusalOf(now, request, FieldRule::kSet); isError(refusal)) return refusal;
  return now == before ? message() : change(request, id, &before, &now);
}

message TableCommands::removeObj(const message& request, unsigned int id) {
  message before;
  return source_.readRow(id, before) ? change(request, id, &before, nullptr) : before;
}

message TableCommands::changedObj(unsigned int id) {
  message object;
  if (source_.readChanged(id, object)) return object;
  object = source_.remains(id);
  object.insert(STD_ID, id);
  object.insert(STD_DEAD, 1);
  return object;
}

// B1
message TableCommands::refusalOf(const message& object, const message& request, unsigned int use) {
  if (object.flattened().size() > TableCore::kMostObjectBytes) return errorMsg(ERROR_TOOBIG, "");
  Problems problems(rules_);
  findProblems(rules_, object, takenOf(rules_, request, use), problems);
  if (problems.empty()) hooks_.inspect(object, problems);
  return problems.reply();
}

// B2
message TableCommands::change(const message& cause, unsigned int id, const message* before,
                              const message* now, unsigned int next) {
  const message refusal =
      now != nullptr ? source_.writeRow(cause, id, *now, next) : source_.eraseRow(cause, id);
  if (isError(refusal)) return refusal;
  handler_.notifyChange(id, cause);
  if (before == nullptr) reportUndo(cause, message(), CMD_REMOVEOBJ, CMD_ADDOBJ, *now);
  else if (now == nullptr) reportUndo(cause, *before, CMD_ADDOBJ, CMD_REMOVEOBJ, *before);
  else if (isReported(cause)) reportUndo(cause, difference(*before, *now), CMD_SETOBJ, CMD_SETOBJ, *now);
  tell(before, now);
  return {};
}

void TableCommands::reportUndo(const message& cause, message undo, unsigned int command, unsigned int done,
                               const message& object) {
  if (!isReported(cause) || !takes(wayBack(command))) return;
  const unsigned int id = object.get(STD_ID, BADID);
  undo.insert(STD_ID, id);
  std::string text = hooks_.changeText(done, object);
  if (text.empty()) {
    char number[16];
    (void)std::snprintf(number, sizeof number, " %u", id);
    text.append(rules_.name).append(number).append(wordFor(done));
  }
  handler_.sendUndo(cause, undo, text, command);
}

// --- The public side.

TableCore::TableCore(Handler& handler, const ObjectRules& rules, TableHooks& hooks, TableSource* source)
    : parts_(std::make_unique<TableParts>(handler, rules, hooks, source)) {
  for (const CommandRule& command : rules.commands)
    handler.accessPolicies().set_policy(command.code, command.right);
  if ((rules.changes & ObjectRules::kUndone) != 0) makeUndoable();
}

TableCore::~TableCore() = default;

void TableCore::makeUndoable() { parts_->commands.isUndoable = true; }

message TableCore::carryOut(unsigned int command, const message& request, unsigned int id,
                            unsigned int count) {
  return parts_->commands.carryOut(command, request, id, count);
}

message TableCore::changedObj(unsigned int id) { return parts_->commands.changedObj(id); }

unsigned int TableMemory::size() const { return parts_->rows->size(); }
std::vector<unsigned int> TableMemory::ids() const { return parts_->rows->ids(); }
void TableMemory::limitTo(unsigned int most) { parts_->rows->limitTo(most); }
void TableMemory::keepIn(const std::string& path) { parts_->rows->keepIn(path); }
void TableMemory::keepAsDescribed() { parts_->rows->keepIn(parts_->commands.storePath()); }
void TableMemory::keepOverLeave() { parts_->rows->keepOverLeave(); }
const message* TableMemory::findRow(unsigned int id) const { return parts_->rows->find(id); }

void TableMemory::saveRows(message& data) const {
  if (parts_->rows->isKeptByItself()) parts_->rows->save(data);
}

void TableMemory::loadRows(const message& data) {
  if (parts_->rows->isKeptByItself()) parts_->rows->load(data);
}

unsigned int TableMemory::addRow(message object, const message& cause) {
  unsigned int id = object.get(STD_ID, 0);
  if (id == 0 || id == BADID) id = parts_->rows->freeId();
  object.insert(STD_ID, id);
  if (findRow(id) != nullptr || isError(parts_->commands.change(cause, id, nullptr, &object))) return BADID;
  return id;
}

bool TableMemory::setRow(const message& object, const message& cause) {
  const unsigned int id = object.get(STD_ID, BADID);
  message before;
  return parts_->rows->readRow(id, before) && !isError(parts_->commands.change(cause, id, &before, &object));
}

bool TableMemory::removeRow(unsigned int id, const message& cause) {
  message before;
  return parts_->rows->readRow(id, before) && !isError(parts_->commands.change(cause, id, &before, nullptr));
}

}  // namespace kl::detail
