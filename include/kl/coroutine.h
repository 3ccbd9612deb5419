#pragma once
// kl/coroutine.h: C++20 coroutines that wait beside the loop: for a reply, for objects of a table, for a while.

#if defined(__clang__) && defined(__cpp_coroutines) && !defined(__cpp_impl_coroutine)
#define __cpp_impl_coroutine 201902L  // clang 14 to 16 have them, and do not say so to the standard library
#endif

#include <chrono>
#include <concepts>
#include <coroutine>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "kl/client.h"
#include "kl/looper.h"
#include "kl/result.h"
#include "kl/ticks.h"
#include "kl/timer.h"

namespace kl {
namespace detail {

// A task as its owner has it: a place in the owner's ring.  It is in one of three states:
//
//     owned, waiting     in the ring, with a frame to resume or to end
//     owned, running     in the ring, without
//     ended, running     out of the ring: its frame goes when it waits next, or when it returns
class TaskLink {
 public:
  TaskLink() = default;
  TaskLink(const TaskLink&) = delete;
  TaskLink& operator=(const TaskLink&) = delete;
  ~TaskLink() { leave(); }

  void enter(TaskLink& ring) {
    next_ = &ring;
    previous_ = std::exchange(ring.previous_, this);
    previous_->next_ = this;
  }
  bool isAlone() const { return next_ == this; }
  TaskLink& next() const { return *next_; }

  // False if the task was ended while it ran: then its frame is gone, and all that lies in it.
  bool wait(std::coroutine_handle<> frame) {
    if (isAlone()) {
      frame.destroy();
      return false;
    }
    waiting_ = frame;
    return true;
  }
  void resume() { std::exchange(waiting_, nullptr).resume(); }
  void end() {
    leave();
    if (const auto frame = std::exchange(waiting_, nullptr)) frame.destroy();
  }

 private:
  void leave() {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    next_ = previous_ = this;
  }

  TaskLink* next_ = this;
  TaskLink* previous_ = this;
  std::coroutine_handle<> waiting_;
};

// The thing that a task waits for.  It lies in the frame of the task from before the wait until after it.
class Awaited {
 public:
  Awaited() = default;
  Awaited(const Awaited&) = delete;
  Awaited& operator=(const Awaited&) = delete;

 protected:
  ~Awaited() = default;

  // False: nothing of this is there any more.
  template <class Promise>
  bool begin(std::coroutine_handle<Promise> frame) {
    task_ = &frame.promise();
    return task_->wait(frame);
  }
  void resume() { task_->resume(); }
  void end() { task_->end(); }

 private:
  TaskLink* task_ = nullptr;
};

// Stands for it in the co_await, of which g++ 12 makes a copy.
template <class A>
struct Waiter {
  A& awaited;

  bool await_ready() const noexcept { return false; }
  template <class Promise>
  void await_suspend(std::coroutine_handle<Promise> task) const {
    awaited.start(task);
  }
  auto await_resume() const { return awaited.result(); }
};

}  // namespace detail

// The tasks of an object, a handler in most cases; see Task.
//
// Errors:    none.
// Ownership: owns the tasks that were started with it and are not through.  Its destruction ends those.  As the last
//            member of its object it ends them while everything that they use is still there.  A resource, so it is
//            not copied.
// Threads:   belongs to the thread of the loop.  A task may end or destroy it: that one itself goes on to its next
//            co_await, or to its return.
// Cost:      three pointers.
class Tasks {
 public:
  Tasks() = default;
  Tasks(const Tasks&) = delete;
  Tasks& operator=(const Tasks&) = delete;
  ~Tasks() { cancel(); }

  // Ends all tasks: what lies in their frames is destroyed, and nothing of them runs any more.
  void cancel() {
    while (!ring_.isAlone()) ring_.next().end();
  }

  // Is there none?
  bool isIdle() const { return ring_.isAlone(); }

 private:
  friend class Task;

  detail::TaskLink ring_;
};

// A coroutine that is started by its call, belongs to a kl::Tasks, and returns nothing:
//
//     class Printer : public kl::Handler {
//       kl::Task print(kl::Tasks&, unsigned int id) {
//         const kl::Result<leases::Lease> lease = co_await leases_.get(id);
//         if (!lease) co_return complain(lease.error().describe());
//         co_await kl::after(loop_, 500ms);
//         show(*lease);
//       }
//       void start(unsigned int id) { print(tasks_, id); }      // returns at the first co_await
//
//       kl::TaskClient<leases::Lease> leases_{*this};
//       kl::Tasks tasks_;                                       // the last member
//     };
//
// Its first parameter, as a member function or as another one, is the Tasks that it belongs to.  It may wait for what
// this header makes, and only in the expression that makes it: a call of a TaskClient, ask(), after().
//
// Errors:    what went wrong elsewhere is a kl::Result.  An exception that leaves the coroutine ends the process.
// Ownership: its frame is its own and ends with its return, or with its Tasks, whichever comes first.  An argument
//            by reference has to live as long: take parameters by value, and no captures in a lambda.
// Threads:   runs on the thread of the loop: from its call to the first co_await there, then in callbacks.
// Cost:      one allocation for the frame; waiting needs none beside those of what it waits for.
class Task {
 public:
  class promise_type : public detail::TaskLink {
   public:
    template <class... Args>
    explicit promise_type(Tasks& tasks, const Args&...) {
      enter(tasks.ring_);
    }
    template <class Self, class... Args>
    promise_type(const Self&, Tasks& tasks, const Args&...) {
      enter(tasks.ring_);
    }

    Task get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    [[noreturn]] void unhandled_exception() const noexcept { std::terminate(); }

    template <std::derived_from<detail::Awaited> A>
    detail::Waiter<A> await_transform(A&& awaited) const noexcept {
      return {awaited};
    }
  };
};

namespace detail {

// A call of a client.  Its callback and it know each other, and either may be gone first: a reply to an ended task is
// nobody's, and a call that the client forgets ends the task.
template <class R, class Start>
class AwaitedCall : public Awaited {
 public:
  explicit AwaitedCall(Start start) : start_(std::move(start)) {}
  ~AwaitedCall() {
    if (reply_ != nullptr) reply_->call_ = nullptr;
  }

  template <class Promise>
  void start(std::coroutine_handle<Promise> task) {
    if (begin(task)) start_(Callable<void(Result<R>)>(Reply(*this)));
  }
  Result<R> result() { return std::move(*result_); }

 private:
  class Reply {
   public:
    explicit Reply(AwaitedCall& call) : call_(&call) { call.reply_ = this; }
    Reply(Reply&& other) noexcept : call_(std::exchange(other.call_, nullptr)) {
      if (call_ != nullptr) call_->reply_ = this;
    }
    Reply& operator=(Reply&&) = delete;
    ~Reply() {
      if (AwaitedCall* const call = leave()) call->end();
    }

    void operator()(Result<R> result) {
      AwaitedCall* const call = leave();
      if (call == nullptr) return;
      call->result_ = std::move(result);
      call->resume();
    }

   private:
    friend class AwaitedCall;

    AwaitedCall* leave() {
      if (call_ != nullptr) call_->reply_ = nullptr;
      return std::exchange(call_, nullptr);
    }

    AwaitedCall* call_;
  };

  Start start_;
  Reply* reply_ = nullptr;
  std::optional<Result<R>> result_;
};

template <class R, class Start>
AwaitedCall<R, Start> awaitedCall(Start start) {
  return AwaitedCall<R, Start>(std::move(start));
}

// A request of a handler.
class AwaitedReply : public Awaited {
 public:
  AwaitedReply(Handler& handler, message m, int timeout)
      : handler_(handler), message_(std::move(m)), timeout_(timeout) {}
  ~AwaitedReply() {
    if (isOpen_) handler_.cancelPost(request_);
  }

  template <class Promise>
  void start(std::coroutine_handle<Promise> task) {
    if (!begin(task)) return;
    isOpen_ = true;
    request_ = handler_.postMessage(message_, this, onReply, message(), timeout_);
  }
  Result<message> result() {
    if (Error error = Error::of(message_)) return error;
    return std::move(message_);
  }

 private:
  static void onReply(void* context, const message& reply, const message&) {
    auto* const self = static_cast<AwaitedReply*>(context);
    self->isOpen_ = false;
    self->message_ = reply;
    self->resume();
  }

  Handler& handler_;
  message message_;  // the request, then its reply
  int timeout_;
  unsigned int request_ = BADID;
  bool isOpen_ = false;
};

// A call for each of the description's own commands, where it has any.
template <class Object, class Client>
struct AwaitedCalls {
  using Type = NoCalls;
};
template <class Object, class Client>
requires requires { typename Object::template Awaits<Client>; }
struct AwaitedCalls<Object, Client> {
  using Type = typename Object::template Awaits<Client>;
};

class AwaitedTicks : public Awaited {
 public:
  AwaitedTicks(ThinRunner& loop, unsigned int ticks) : timer_(loop), ticks_(ticks) {}

  template <class Promise>
  void start(std::coroutine_handle<Promise> task) {
    if (begin(task)) timer_.start(ticks_, [this] { resume(); });
  }
  void result() const noexcept {}

 private:
  Timer timer_;
  unsigned int ticks_;
};

}  // namespace detail

// Asks for the objects of one table as a kl::Client does (kl/client.h), for tasks: each call gives, where it is awaited,
// the Result that the callback of a Client gets.
//
//     const leases::Lease lease{.mac = mac, .host = "printer"};
//     const kl::Result<unsigned int> id = co_await leases_.add(lease);
//
// A command of the service's own is such a call, too: co_await leases_.releaseAll().
//
// The arguments of a call are variables: g++ 12 mistreats braces in a co_await expression, so they do not compile.
//
// Errors:    values of the results; nothing else.
// Ownership: as Client.  Its end, and cancel(), end the tasks that wait for it.  The reply to a task that ended is
//            dropped when it comes.
// Threads:   as the handler.
// Cost:      as Client.
template <class Object>
class TaskClient : public detail::AwaitedCalls<Object, TaskClient<Object>>::Type {
 public:
  // As those of Client.
  explicit TaskClient(Handler& handler) requires(std::constructible_from<Client<Object>, Handler&>)
      : client_(handler) {}
  TaskClient(Handler& handler, std::vector<unsigned int> path) : client_(handler, std::move(path)) {}

  void setTimeout(int ticks) { client_.setTimeout(ticks); }
  template <class Rep, class Period>
  void setTimeout(std::chrono::duration<Rep, Period> span) {
    client_.setTimeout(span);
  }

  auto get(unsigned int id) {
    return detail::awaitedCall<Object>([this, id](auto done) { client_.get(id, std::move(done)); });
  }
  auto getAll() {
    return detail::awaitedCall<std::vector<Object>>([this](auto done) { client_.getAll(std::move(done)); });
  }
  auto count() {
    return detail::awaitedCall<unsigned int>([this](auto done) { client_.count(std::move(done)); });
  }
  auto add(const Object& object) {
    return detail::awaitedCall<unsigned int>(
        [this, object](auto done) { client_.add(object, std::move(done)); });
  }
  auto set(const Object& object, const std::vector<unsigned int>& clears = {}) {
    return detail::awaitedCall<NoFields>(
        [this, object, clears](auto done) { client_.set(object, std::move(done), clears); });
  }
  auto remove(unsigned int id) {
    return detail::awaitedCall<NoFields>([this, id](auto done) { client_.remove(id, std::move(done)); });
  }
  auto move(unsigned int id, unsigned int nextId) {
    return detail::awaitedCall<NoFields>(
        [this, id, nextId](auto done) { client_.move(id, nextId, std::move(done)); });
  }
  template <class Command>
  auto call(const typename Command::Request& request) {
    return detail::awaitedCall<typename Command::Reply>(
        [this, request](auto done) { client_.template call<Command>(request, std::move(done)); });
  }
  template <class Command>
  auto call() {
    const typename Command::Request nothing{};
    return call<Command>(nothing);
  }

  // Not an object that is built in the co_await itself: g++ 12 destroys it twice.
  void add(const Object&& object) = delete;
  void set(const Object&& object, const std::vector<unsigned int>& clears = {}) = delete;
  template <class Command>
  void call(const typename Command::Request&& request) = delete;

  void cancel() { client_.cancel(); }
  bool isIdle() const { return client_.isIdle(); }

 private:
  Client<Object> client_;
};

// The reply to a request, which has SYS_TO and SYS_CMD, as a Result<message>:
//
//     const kl::Result<kl::message> reply = co_await kl::ask(*this, m, kl::inTicks(3s));
//
// The handler outlives the task, and sends the request.  A task that ends cancels it.  Time-outs as in postMessage.
inline detail::AwaitedReply ask(Handler& handler, message m, int timeout) {
  return detail::AwaitedReply(handler, std::move(m), timeout);
}

// Waits so many ticks, or a duration: co_await kl::after(loop, 500ms).
inline detail::AwaitedTicks after(ThinRunner& loop, unsigned int delay) {
  return detail::AwaitedTicks(loop, delay);
}
template <class Rep, class Period>
detail::AwaitedTicks after(ThinRunner& loop, std::chrono::duration<Rep, Period> delay) {
  return detail::AwaitedTicks(loop, static_cast<unsigned int>(inTicks(delay)));
}

}  // namespace kl
