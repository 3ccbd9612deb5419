#pragma once
// kl/table.h: a handler that is a table of objects, made of the structure that klgen makes of a description.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kl/callable.h"
#include "kl/chunk.h"
#include "kl/conventions.h"
#include "kl/described.h"
#include "kl/field.h"
#include "kl/looper.h"
#include "kl/message.h"
#include "kl/result.h"

namespace kl {

// The handler under which a Looper that is a table itself keeps its objects over a leave.
inline constexpr unsigned int HANDLER_KEEPER = 0xff0011;

// The faults of an object that somebody asks for, by the names of its fields.
//
// Errors:    none.
// Ownership: borrows the rules, which are constants.
// Threads:   belongs to one thread.
// Cost:      a text that grows with the problems.
class Problems {
 public:
  explicit Problems(const ObjectRules& rules) : rules_(rules) {}

  // "mac: has 6 bytes".  The first one's code becomes the error's.
  void add(unsigned int field, std::string_view what, unsigned int code = ERROR_FAILED);

  bool empty() const { return text_.empty(); }

  // The error reply with all of them, "mac: missing; mtu: at least 68"; an empty message without problems.
  message reply() const { return empty() ? message() : errorMsg(code_, text_); }

 private:
  const ObjectRules& rules_;
  unsigned int code_ = ERROR_OK;
  std::string text_;
};

namespace detail {

struct TableParts;  // the library's part of a table

// The calls that a table gets beside its commands.
class TableHooks {
 public:
  virtual void inspect(const message& object, Problems& problems) = 0;
  // Null `before`: the object is new; null `now`: it has gone.
  virtual void tell(const message* before, const message* now) = 0;
  // Empty where nothing is to be said but what was done.
  virtual std::string changeText(unsigned int done, const message& object) = 0;

 protected:
  ~TableHooks() = default;
};

// The objects of a table as messages, wherever they are.  A message that an operation returns is an error, or empty.
class TableSource {
 public:
  // Objects from `start` on go into the chunk until it is full.
  virtual message fillChunk(Chunk& chunk, unsigned int start) = 0;
  // False: `object` is then the error.
  virtual bool readRow(unsigned int id, message& object) = 0;
  // The same for a notification.
  virtual bool readChanged(unsigned int id, message& object) { return readRow(id, object); }
  // The fields that subscribers get of an object that is gone, beside its id.
  virtual message remains(unsigned int) { return {}; }
  virtual Result<unsigned int> countRows() = 0;
  // BADID where there is none.
  virtual unsigned int freeId() = 0;
  // `cause` is the request behind a change, or empty; `next` the object in front of which a new one goes, or BADID.
  virtual message writeRow(const message& cause, unsigned int id, const message& object,
                           unsigned int next) = 0;
  virtual message eraseRow(const message& cause, unsigned int id) = 0;
  virtual message moveRow(const message&, unsigned int) { return errorMsg(ERROR_NOTIMP, ""); }

 protected:
  ~TableSource() = default;
};

// The commands of a table, for objects as messages; the handler that they come to is another part of the same object.
class TableCore {
 public:
  // An object that is larger is refused.  It fits into one part of the table and, twice, into an undo record.
  static constexpr std::size_t kMostObjectBytes = Chunk::kMostBytes;

  TableCore(const TableCore&) = delete;
  TableCore& operator=(const TableCore&) = delete;

  // Reports each change that a request makes to the undo service, where the description has the command that takes it
  // back.  A change that the service makes on its own is not reported.  Not needed where the description says `undo`.
  void makeUndoable();

 protected:
  // Null `source`: the objects are in memory.
  TableCore(Handler& handler, const ObjectRules& rules, TableHooks& hooks, TableSource* source);
  ~TableCore();

  // `id` is the first object of CMD_GETALL, `count` their number.
  message carryOut(unsigned int command, const message& request, unsigned int id = BADID,
                   unsigned int count = 0);
  message changedObj(unsigned int id);

  std::unique_ptr<TableParts> parts_;
};

// The core of a table with its objects elsewhere.
class TableElsewhere : public TableSource, public TableCore {
 protected:
  TableElsewhere(Handler& handler, const ObjectRules& rules, TableHooks& hooks)
      : TableCore(handler, rules, hooks, this) {}
  ~TableElsewhere() = default;
};

// The core of a table with its objects in memory.
class TableMemory : public TableCore {
 public:
  unsigned int size() const;

  // The ids in the order of the table: ascending, or its own.
  std::vector<unsigned int> ids() const;

  // An object more than so many is refused; any number at first.
  void limitTo(unsigned int most);

  // Keeps the objects in the kl::Store of this path (kl/store.h) and takes those that are in it; added() is called for
  // each.  Needs: the table is empty; called by the constructor of the most derived class, so that added() is there.
  void keepIn(const std::string& path);

  // Keeps the objects over a leave (docs/leave.md): added() is called for each that comes back.  A table with more than
  // kMostKeptBytes of objects keeps its process from leaving, because all that a process leaves with is one message.
  // Needs: a Looper; the table is empty, and not added to the Looper yet.  Not together with keepIn().
  void keepOverLeave();
  static constexpr std::size_t kMostKeptBytes = 32768;

 protected:
  TableMemory(Handler& handler, const ObjectRules& rules, TableHooks& hooks)
      : TableCore(handler, rules, hooks, nullptr) {}
  ~TableMemory() = default;

  void keepAsDescribed();
  const message* findRow(unsigned int id) const;
  void saveRows(message& data) const;
  void loadRows(const message& data);

  // The table's own changes.
  unsigned int addRow(message object, const message& cause);
  bool setRow(const message& object, const message& cause);
  bool removeRow(unsigned int id, const message& cause);
};

// The handler below a table: with the operations of the description's own commands where it has any.
template <class Object, class Base>
struct Operated {
  using Type = Base;
};
template <class Object, class Base>
requires requires { typename Object::template Operations<Base>; }
struct Operated<Object, Base> {
  using Type = typename Object::template Operations<Base>;
};

// The handler of a table, whose objects are Core's matter.
template <class Object, class Base, class Core>
class TableHandler : public Operated<Object, Base>::Type, public TableHooks, public Core {
  using Below = typename Operated<Object, Base>::Type;

 public:
  template <class... Args>
  explicit TableHandler(Args&&... args)
      : Below(std::forward<Args>(args)...), Core(static_cast<Handler&>(*this), Object::kRules, *this) {}

  // A problem of an object that a request asks for and that keeps to the description.  The object is not there yet.
  virtual void check(const Object&, Problems&) {}
  // Called when an object came, was changed or has gone: of a Table whoever did it, of a TableView by a request.  They
  // may change the table.
  virtual void added(const Object&) {}
  virtual void changed(const Object& before, const Object& now) { (void)before, (void)now; }
  virtual void removed(const Object&) {}
  // The text that the undo service shows of a change by a request; "lease 4 added" where that is empty.  `done` is
  // CMD_ADDOBJ, CMD_SETOBJ, CMD_REMOVEOBJ or CMD_MOVEOBJ.
  virtual std::string describe(unsigned int done, const Object&) { return (void)done, std::string(); }

  message cmdGetObj(const message& request, unsigned int id) override {
    return Core::carryOut(CMD_GETOBJ, request, id);
  }
  message cmdGetAll(const message& request, unsigned int start, unsigned int count) override {
    return Core::carryOut(CMD_GETALL, request, start, count);
  }
  message cmdGetCount(const message& request) override { return Core::carryOut(CMD_GETCOUNT, request); }
  message cmdAddObj(const message& request) override { return Core::carryOut(CMD_ADDOBJ, request); }
  message cmdSetObj(const message& request, unsigned int id) override {
    return Core::carryOut(CMD_SETOBJ, request, id);
  }
  message cmdRemoveObj(const message& request, unsigned int id) override {
    return Core::carryOut(CMD_REMOVEOBJ, request, id);
  }
  message cmdMoveObj(const message& request, unsigned int id) override {
    return Core::carryOut(CMD_MOVEOBJ, request, id);
  }
  message getObject(unsigned int id) final { return Core::changedObj(id); }

 protected:
  void inspect(const message& object, Problems& problems) override {
    check(Object::fromMessage(object), problems);
  }
  void tell(const message* before, const message* now) override {
    if (before == nullptr) added(Object::fromMessage(*now));
    else if (now == nullptr) removed(Object::fromMessage(*before));
    else changed(Object::fromMessage(*before), Object::fromMessage(*now));
  }
  std::string changeText(unsigned int done, const message& object) override {
    return describe(done, Object::fromMessage(object));
  }
};

}  // namespace detail

// A table whose objects are in memory.  It needs nothing but what a description says of them:
//
//     class Leases : public kl::Table<leases::Lease> {
//       void check(const leases::Lease& lease, kl::Problems& problems) override {
//         if (isBlocked(lease.mac)) problems.add(leases::MAC, "is blocked");
//       }
//       void removed(const leases::Lease& lease) override { free(lease.address); }
//     };
//
//     kl::Looper loop(kl::Looper::kAny, leases::SERVICE);
//     Leases leases;
//     leases.limitTo(10000);
//     leases.keep();                              // where the description says: store = "leases"
//     loop.addHandler(0, &leases);
//
// A service that is one table and nothing else is kl::Table<leases::Lease, kl::Looper>, whose constructor takes what
// that of kl::Looper takes.
//
// It answers CMD_GETALL (in parts), CMD_GETOBJ and CMD_GETCOUNT, keeps subscribers informed, with STD_DEAD of what is
// gone, and carries out those of CMD_ADDOBJ, CMD_SETOBJ, CMD_REMOVEOBJ and CMD_MOVEOBJ that the description has among
// the object's commands; the others are ERROR_NOTIMP.  A command of the service's own has the right that the
// description says, and an operation to override: cmdReleaseAll() of `release_all`, as kl::Commands has them
// (kl/commands.h).
//
//     CMD_ADDOBJ   an id of the request is taken if it is free (else ERROR_EXISTS); without one, or with 0, the object
//                  gets one that was not used for long.  The reply has it in STD_ID.  With STD_NEXTID it goes in front
//                  of that one, in a table with an order; else to the end.
//     CMD_SETOBJ   changes the fields that the request has, takes those away that TABLE_CLEARS names, and leaves the
//                  others.  A request that changes nothing is carried out and told to nobody.
//     CMD_MOVEOBJ  puts the object in front of STD_NEXTID, or at the end.  A table whose description has this command
//                  has an order: its objects name the next one in STD_NEXTID.
//
// A command takes those fields of a request that the description names; where the description names none, all of the
// object's fields and those that the description does not know, which newer programs may.  They must keep to the
// description: `required`, `min`, `max`, and one of the `values` where the field has words for them.  A request that
// does not is refused with the names of the fields: "mac: missing; mtu: at least 68".
//
// Errors:    ERROR_UNKNOWNID, ERROR_EXISTS, ERROR_UNKNOWNNEXTID; ERROR_MISSING for a required field, ERROR_TOOBIG for
//            one that is too long and for an object of more than kMostObjectBytes, ERROR_FAILED with a text for the
//            rest.  CMD_GETALL of a table with an order that goes on from an object that has gone is ERROR_UNKNOWNID:
//            the asker begins again.
// Ownership: a handler, and owned as one.  Owns its objects, as messages, so that fields which the description does
//            not know stay with them.  It may be destroyed by added(), changed() and removed(), not by check() and
//            describe().
// Threads:   as any handler.
// Cost:      an object is one message in a map.  Its structure is made when check(), added() and their like are called;
//            to read the table makes none.  In a table with an order, adding, moving and finding the next one take time
//            in proportion to its size.
template <class Object, class Base = Handler>
class Table : public detail::TableHandler<Object, Base, detail::TableMemory> {
  using Parent = detail::TableHandler<Object, Base, detail::TableMemory>;

 public:
  using Parent::Parent;

  // Keeps the objects in the store of the description: `store = "leases"` of the object `lease` is the kl::Store
  // /kelo/leases/lease (below KL_ROOT).  Needs what keepIn() needs.
  void keep() requires(Object::kRules.store != nullptr) { Parent::keepAsDescribed(); }

  std::optional<Object> find(unsigned int id) const {
    const message* row = Parent::findRow(id);
    return row == nullptr ? std::nullopt : std::optional(Object::fromMessage(*row));
  }

  // f(const Object&) for each in the order of the table.  f may change the table; what it removes does not come any
  // more, what it adds may not.
  template <class F>
  void forEach(F f) const {
    for (const unsigned int id : Parent::ids())
      if (const auto object = find(id)) f(*object);
  }

  // The service's own changes.  Nothing is checked.  `cause` is the request behind a change: its sender is not
  // notified, and what it did can be undone (makeUndoable()); without one, all subscribers are told and nobody undoes it.

  // Adds an object under its id, or under a free one if that is absent or 0.  Gives the id; BADID if it is taken or
  // there is no room.
  unsigned int add(const Object& object, const message& cause = message()) {
    return Parent::addRow(object.toMessage(), cause);
  }
  // Replaces the object of the same id; false if there is none.
  bool set(const Object& object, const message& cause = message()) {
    return Parent::setRow(object.toMessage(), cause);
  }
  // False if there is none.
  bool remove(unsigned int id, const message& cause = message()) { return Parent::removeRow(id, cause); }
  // Removes them all, one after the other.
  void clear(const message& cause = message()) {
    for (const unsigned int id : Parent::ids()) remove(id, cause);
  }

  void savePermData(message& data) override {
    Base::savePermData(data);
    Parent::saveRows(data);
  }
  void loadPermData(const message& data) override {
    Base::loadPermData(data);
    Parent::loadRows(data);
  }
};

// A table whose objects are elsewhere: in the kernel, in a file, in another program's hands.  Four operations, of which
// two may be left out, make it a table as kl::Table is, but without an order:
//
//     class Disks : public kl::TableView<disks::Disk> {
//       kl::Error list(unsigned int from, Take& take) override {
//         for (const Disk& disk : readDisks(from))
//           if (!take(disk.id, shown(disk))) break;
//         return {};
//       }
//       kl::Result<disks::Disk> find(unsigned int id) override;
//       kl::Error put(const disks::Disk& disk) override;           // CMD_SETOBJ and CMD_ADDOBJ
//       kl::Error erase(unsigned int id) override;                 // CMD_REMOVEOBJ
//     };
//
// The service says notifyChange(id) when an object changed, came or went without a request; changes by requests are
// told without that.
//
// Errors:    those of kl::Table, and whatever the four operations say.
// Ownership: a handler, and owned as one; has no objects.
// Threads:   as any handler.
// Cost:      that of the four operations.
template <class Object, class Base = Handler>
class TableView : public detail::TableHandler<Object, Base, detail::TableElsewhere> {
  using Parent = detail::TableHandler<Object, Base, detail::TableElsewhere>;

 public:
  using Parent::Parent;

  // Takes an object and its id; false when the list is to end.
  using Take = Callable<bool(unsigned int id, const Object& object)>;

  // Gives the objects whose ids are not below `from` to take, in ascending order, until it says no.
  virtual Error list(unsigned int from, Take& take) = 0;
  // ERROR_UNKNOWNID where there is none.
  virtual Result<Object> find(unsigned int id) = 0;
  // Keeps an object that is new or changed; it has all that find() gave.
  virtual Error put(const Object&) { return {ERROR_NOTIMP}; }
  virtual Error erase(unsigned int) { return {ERROR_NOTIMP}; }

  // How many there are; counts the list.
  virtual Result<unsigned int> count() {
    unsigned int number = 0;
    Take take = [&number](unsigned int, const Object&) { return ++number != 0; };
    if (Error error = list(0, take)) return error;
    return number;
  }
  // The id of a new object whose request has none; without one the request is refused.
  unsigned int freeId() override { return BADID; }
  // As find(), for a notification: one call for each object of a batch, notifiesSent() after the last.
  virtual Result<Object> findChanged(unsigned int id) { return find(id); }
  // The fields that subscribers get of an object that is gone, beside STD_ID and STD_DEAD.
  message remains(unsigned int) override { return {}; }

 protected:
  message fillChunk(Chunk& chunk, unsigned int start) override {
    Take take = [&chunk](unsigned int id, const Object& object) { return chunk.add(id, shown(id, object)); };
    return list(start == BADID ? 0 : start, take).reply();
  }
  bool readRow(unsigned int id, message& object) override { return took(id, find(id), object); }
  bool readChanged(unsigned int id, message& object) override { return took(id, findChanged(id), object); }
  Result<unsigned int> countRows() override { return count(); }
  message writeRow(const message&, unsigned int, const message& object, unsigned int) override {
    return put(Object::fromMessage(object)).reply();
  }
  message eraseRow(const message&, unsigned int id) override { return erase(id).reply(); }

 private:
  static message shown(unsigned int id, const Object& object) {
    message m = object.toMessage();
    m.insert(STD_ID, id);
    return m;
  }
  static bool took(unsigned int id, const Result<Object>& found, message& object) {
    object = found ? shown(id, *found) : found.error().reply();
    return static_cast<bool>(found);
  }
};

}  // namespace kl
