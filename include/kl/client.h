#pragma once
// kl/client.h: asks a service for its objects by the structure that klgen makes of its description.

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "kl/callable.h"
#include "kl/conventions.h"
#include "kl/described.h"
#include "kl/field.h"
#include "kl/looper.h"
#include "kl/message.h"
#include "kl/result.h"
#include "kl/ticks.h"

namespace kl {
namespace detail {

// The open calls of a client, in a ring around it.  A call belongs to the ring until its reply comes.
class Asker {
 public:
  struct Link {
    Link* next = this;
    Link* previous = this;
  };

  // A call whose reply has not come.  finish() is called once, out of the ring; the asker may be gone behind it.
  class Call : public Link {
   public:
    virtual ~Call() = default;
    virtual void finish(std::unique_ptr<Call> self, const message& reply) = 0;

    Asker* asker = nullptr;
    unsigned int request = BADID;
  };

  Asker(Handler& handler, std::vector<unsigned int> path) : handler_(handler), path_(std::move(path)) {}
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;
  ~Asker() { cancel(); }

  void post(std::unique_ptr<Call> owned, message m, unsigned int command) {
    Call* const call = owned.release();
    call->asker = this;
    call->next = &calls_;
    call->previous = std::exchange(calls_.previous, call);
    call->previous->next = call;
    m.insert(SYS_TO, path_);
    m.insert(SYS_CMD, command);
    call->request = handler_.postMessage(m, call, onReply, message(), timeoutTicks);
  }

  void cancel() {
    while (calls_.next != &calls_) {
      const std::unique_ptr<Call> call = taken(static_cast<Call*>(calls_.next));
      handler_.cancelPost(call->request);
    }
  }

  bool isIdle() const { return calls_.next == &calls_; }

  int timeoutTicks = 6000;

 private:
  static std::unique_ptr<Call> taken(Call* call) {
    call->previous->next = call->next;
    call->next->previous = call->previous;
    return std::unique_ptr<Call>(call);
  }

  static void onReply(void* context, const message& reply, const message&) {
    std::unique_ptr<Call> call = taken(static_cast<Call*>(context));
    Call& its = *call;
    its.finish(std::move(call), reply);
  }

  Handler& handler_;
  std::vector<unsigned int> path_;
  Link calls_;
};

// A call with one reply, of which `read` makes the result.
template <class R>
class OneReply : public Asker::Call {
 public:
  using Done = Callable<void(Result<R>)>;
  using Read = R (*)(const message& reply);

  OneReply(Done done, Read read) : done_(std::move(done)), read_(read) {}
  void finish(std::unique_ptr<Asker::Call>, const message& reply) override {
    if (!done_) return;
    if (Error error = Error::of(reply)) done_(std::move(error));
    else done_(read_(reply));
  }

 private:
  Done done_;
  Read read_;
};

// A structure of a message that travelled: without what brought it here.
template <class T>
T fieldsOf(const message& travelled) {
  message m = travelled;
  cleanSys(m);
  return T::fromMessage(m);
}

// A whole table, part by part.
template <class Object>
class AllReplies : public Asker::Call {
 public:
  using Done = Callable<void(Result<std::vector<Object>>)>;

  explicit AllReplies(Done done) : done_(std::move(done)) {}
  void finish(std::unique_ptr<Asker::Call> self, const message& reply) override {
    if (Error error = Error::of(reply)) {
      if (done_) done_(std::move(error));
      return;
    }
    for (const message object : reply.get(STD_OBJS, {})) objects_.push_back(Object::fromMessage(object));
    if (!reply.has(STD_GETALLID)) {
      if (done_) done_(std::move(objects_));
      return;
    }
    message m;
    m.insert(STD_GETALLID, reply.get(STD_GETALLID, BADID));
    Asker& again = *asker;
    again.post(std::move(self), m, CMD_GETALL);
  }

 private:
  Done done_;
  std::vector<Object> objects_;
};

// A call for each of the description's own commands, where it has any.
struct NoCalls {};
template <class Object, class Client>
struct Called {
  using Type = NoCalls;
};
template <class Object, class Client>
requires requires { typename Object::template Calls<Client>; }
struct Called<Object, Client> {
  using Type = typename Object::template Calls<Client>;
};

}  // namespace detail

// Asks for the objects of one table, beside the loop.  The description tells where it is, which commands it has,
// and what they take and give:
//
//     kl::Client<leases::Lease> leases_{*this};         // a member of a handler, which the replies come to
//
//     leases_.get(4, [this](kl::Result<leases::Lease> lease) {
//       if (lease) show(*lease);
//       else complain(lease.error().describe());        // "std failure: unknown id (4)"
//     });
//     leases_.add({.mac = mac, .host = "printer"}, [this](kl::Result<unsigned int> id) { ... });
//     leases_.releaseAll([this](kl::Result<leases::LeaseReleaseAllReply> reply) { ... });
//
// A command of the service's own, `release_all`, is a call like these: with what it takes, if it takes something, and a
// callback.
//
// Each call ends in its callback, once: with the result, with an error of the service, with ERROR_BRKPATH where the
// service is not there or ended, or with ERROR_TIMEOUT.  A callback may be left out.
//
// Errors:    values of the results; nothing else.
// Ownership: owns its open calls and what their callbacks captured; its end cancels them, and they are not called.
//            Borrows the handler, which outlives it.  A resource, so it is not copied.
// Threads:   as the handler.  Callbacks may ask again, cancel, and destroy the client.
// Cost:      one allocation a call beside what a posted request takes (kl/looper.h); none for what a callback has
//            captured, up to two words.  getAll() holds all objects.
template <class Object>
class Client : public detail::Called<Object, Client<Object>>::Type {
 public:
  template <class T>
  using Done = Callable<void(Result<T>)>;

  // Asks the handler of the description.  Needs: a description in which the service has a number.
  explicit Client(Handler& handler) requires(Object::kRules.service != ObjectRules::kNone)
      : asker_(handler, Object::kRules.path()) {}
  // Asks there.
  Client(Handler& handler, std::vector<unsigned int> path) : asker_(handler, std::move(path)) {}

  // How long each reply of later calls may take, in ticks or as a duration; a minute at first.
  void setTimeout(int ticks) { asker_.timeoutTicks = ticks; }
  template <class Rep, class Period>
  void setTimeout(std::chrono::duration<Rep, Period> span) {
    asker_.timeoutTicks = inTicks(span);
  }

  void get(unsigned int id, Done<Object> done) {
    post<Object>(idMessage(id), CMD_GETOBJ, std::move(done), detail::fieldsOf<Object>);
  }
  // The whole table, in its order.  An object that changes meanwhile is in it as it was before or as it is afterwards.
  void getAll(Done<std::vector<Object>> done) {
    asker_.post(std::make_unique<detail::AllReplies<Object>>(std::move(done)), message(), CMD_GETALL);
  }
  void count(Done<unsigned int> done) {
    post<unsigned int>(message(), CMD_GETCOUNT, std::move(done),
                       [](const message& reply) { return reply.get(STD_GETALLNO, 0); });
  }

  // Gives the id of the new object.
  void add(const Object& object, Done<unsigned int> done = nullptr) {
    post<unsigned int>(object.toMessage(), CMD_ADDOBJ, std::move(done),
                       [](const message& reply) { return reply.get(STD_ID, BADID); });
  }
  // Sets the members that are not empty, in the object of the same id.  `clears`: fields that it is to lose, of a
  // kl::Table.
  void set(const Object& object, Done<NoFields> done = nullptr,
           const std::vector<unsigned int>& clears = {}) {
    message m = object.toMessage();
    if (!clears.empty()) m.insert(TABLE_CLEARS, clears);
    post<NoFields>(m, CMD_SETOBJ, std::move(done), NoFields::fromMessage);
  }
  void remove(unsigned int id, Done<NoFields> done = nullptr) {
    post<NoFields>(idMessage(id), CMD_REMOVEOBJ, std::move(done), NoFields::fromMessage);
  }
  // Puts an object in front of another one; BADID: at the end.
  void move(unsigned int id, unsigned int nextId, Done<NoFields> done = nullptr) {
    message m = idMessage(id);
    if (nextId != BADID) m.insert(STD_NEXTID, nextId);
    post<NoFields>(m, CMD_MOVEOBJ, std::move(done), NoFields::fromMessage);
  }

  // A command of the service's own, by its structure of the description's header, for code that is made for any.
  template <class Command>
  void call(const typename Command::Request& request, Done<typename Command::Reply> done = nullptr) {
    using Reply = typename Command::Reply;
    post<Reply>(request.toMessage(), Command::kCommand, std::move(done), detail::fieldsOf<Reply>);
  }

  // Forgets the open calls; their callbacks are not called.
  void cancel() { asker_.cancel(); }

  // Is no call open?
  bool isIdle() const { return asker_.isIdle(); }

 private:
  static message idMessage(unsigned int id) {
    message m;
    m.insert(STD_ID, id);
    return m;
  }

  template <class R>
  void post(const message& m, unsigned int command, Done<R> done, typename detail::OneReply<R>::Read read) {
    asker_.post(std::make_unique<detail::OneReply<R>>(std::move(done), read), m, command);
  }

  detail::Asker asker_;
};

}  // namespace kl
