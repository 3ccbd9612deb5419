#pragma once
// table_commands.h: the commands of a table, for objects as messages, wherever they are.

#include <string>

#include "kl/table.h"
#include "kl/utilities.h"

namespace kl::detail {

class TableCommands {
 public:
  TableCommands(Handler& handler, const ObjectRules& rules, TableHooks& hooks, TableSource& source)
      : handler_(handler), rules_(rules), hooks_(hooks), source_(source) {}

  message carryOut(unsigned int command, const message& request, unsigned int id, unsigned int count);
  message changedObj(unsigned int id);

  // Makes a change and tells it to everybody.  Null `before`: the object is new; null `now`: it goes.  Gives an empty
  // message, or the error of whoever has the objects.
  message change(const message& cause, unsigned int id, const message* before, const message* now,
                 unsigned int next = BADID);

  // The last two steps of a change.
  void reportUndo(const message& cause, message undo, unsigned int command, unsigned int done,
                  const message& object);
  void tell(const message* before, const message* now) { hooks_.tell(before, now); }

  bool takes(unsigned int change) const { return (rules_.changes & change) != 0; }
  Handler& handler() { return handler_; }
  // Of the store that the description names.
  std::string storePath() const {
    return underRoot("/kelo/").append(rules_.store).append("/").append(rules_.name);
  }

  bool isUndoable = false;

 private:
  message getObj(unsigned int id);
  message getAll(unsigned int start, unsigned int count);
  message getCount();
  message addObj(const message& request);
  message setObj(const message& request, unsigned int id);
  message removeObj(const message& request, unsigned int id);
  message refusalOf(const message& object, const message& request, unsigned int use);
  bool isReported(const message& cause) const { return isUndoable && cause.has(SYS_CMD); }

  Handler& handler_;
  const ObjectRules& rules_;
  TableHooks& hooks_;
  TableSource& source_;
};

}  // namespace kl::detail
