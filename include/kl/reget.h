#pragma once
// kl/reget.h: reads a service's whole table of objects, chunk by chunk.
//
// A service answers CMD_GETALL with some of its objects in STD_OBJS and, while more remain, with the id to go on from
// in STD_GETALLID.  FullReget follows the chunks and waits for each; AsyncReget follows them and lets the loop run.

#include "kl/export.h"
#include "kl/field.h"
#include "kl/looper.h"
#include "kl/message.h"

namespace kl {

// The value of setFilter(), in requests for a table and in the objects that pop() gives.
inline constexpr field<unsigned int> REGET_FILTER{0x08fe000c};

// Objects, one after the other, from a source that a derived class knows.
//
// Errors:    those of the derived class.
// Ownership: owns its request and the object at hand.
// Threads:   belongs to one thread.
// Cost:      that of the derived class; the object at hand is copied once.
class KL_API Reget {
 public:
  // Makes the next object current_; false when there is none.
  virtual bool load() = 0;
  virtual ~Reget();

  // The value that requests and objects without a REGET_FILTER of their own are given; 0 at first.  A base that is
  // set already takes it too, unless it has one.
  void setFilter(unsigned int value);

  // The request, for the chunks that are not fetched yet.
  void setBase(const message& base);

  // How long each reply may take, in ticks; 0, as at first, is a minute.
  void setTimeout(unsigned int ticks) { timeout_ = ticks; }

  // True when no object is left; may fetch.
  bool isEmpty();

  // The object that isEmpty() found.  Needs: isEmpty() was false since the last pop().
  message pop();

 protected:
  Reget() = default;
  Reget(const Reget&) = default;
  Reget& operator=(const Reget&) = default;

  unsigned int filter_ = 0;
  message base_;
  unsigned int timeout_ = 0;
  message current_;
  bool ended_ = false;
  bool ready_ = false;
};

// Reads a table once and waits for each reply; nothing else runs meanwhile.  After its end it stays empty: to read the
// table again, make a new one.
//
//     kl::FullReget reget;
//     kl::message request;
//     request.insert(kl::SYS_TO, {32});
//     reget.setBase(request);
//     while (!reget.isEmpty()) show(reget.pop());
//
// Errors:    an error reply is one line on standard output and has no objects: the walk ends there, unless the reply
//            has the id to go on from.
// Ownership: a value.
// Threads:   belongs to the thread of the Looper.  Needs: a Looper.
// Cost:      one exchange for each chunk; holds one chunk.
class KL_API FullReget : public Reget {
 public:
  bool load() override;

  // Fetches the next chunk, the first one as the base asks, with CMD_GETALL unless it names another command.
  void getChunk();

 private:
  message reply_;
  bool firstChunk_ = true;
  bool failed_ = false;
  unsigned int count_ = 0;
  unsigned int index_ = 0;
};

// Reads a table while the loop runs.
//
//     void Netif::fetch() {
//       kl::message request;
//       request.insert(kl::SYS_TO, {32});
//       request.insert(kl::SYS_CMD, kl::CMD_GETALL);
//       reget_.start(request, this, kl::bind<Netif, &Netif::onObject>(), kl::bind<Netif, &Netif::onDone>());
//     }
//     void onObject(const kl::message& object);
//     void onDone(const kl::message& reply);     // the last reply, or the error that ended the walk
//
// Both callbacks may do anything: stop, begin another walk, destroy the AsyncReget.  A walk that is begun inside
// onObject takes the place of the one at hand, whose onDone is not called.
//
// Errors:    an error reply, a time-out included, ends the walk; onDone gets it, and without onDone it is one line on
//            standard output, as is the end of a walk.  A reply without STD_OBJS is always a line and ends the walk.
// Ownership: owns its request; the context is borrowed until onDone or stop().  Its open request is its own and ends
//            with it.  A resource, so it is not copied.
// Threads:   belongs to the thread of the Looper.  Needs: a Looper.
// Cost:      one posted request for each chunk.
class KL_API AsyncReget {
 public:
  using ObjectCallback = void (*)(void* context, const message& object);
  using DoneCallback = void (*)(void* context, const message& reply);

  AsyncReget() = default;
  AsyncReget(const AsyncReget&) = delete;
  AsyncReget& operator=(const AsyncReget&) = delete;
  ~AsyncReget();

  // Begins a walk: onObject for each object, then onDone once; either may be null.  The request names its command.
  // Each reply may take `timeout` ticks, a minute by default.
  void start(const message& request, void* context, ObjectCallback onObject, DoneCallback onDone,
             unsigned int timeout = 0xdeadbeef);

  // Posts the request as it stands.
  void fetch();

  // Takes a reply to the request.
  void onReply(const message& reply, const message& data);

  // Ends the walk.  Inside onObject, onDone is still called, with the reply at hand; elsewhere it is not.
  void stop();

  // Goes on where the last walk ended, for example after an error: with the chunk that did not come, or in the
  // middle of which it was stopped.  While one runs it is only a line on standard output.
  void retry();

  // The same from the first object on.
  void restart();

  bool isRunning() const { return running_; }

 private:
  enum class Delivery { kWhole, kStopped, kReplaced };

  Delivery deliverObjects(const message& reply);
  void cancelPost();

  unsigned int postID_ = BADID;
  message request_;
  unsigned int timeout_ = 0;
  void* context_ = nullptr;
  ObjectCallback onObject_ = nullptr;
  DoneCallback onDone_ = nullptr;
  bool running_ = false;
  // Set while objects are delivered: where another walk, or the end of this object, leaves its mark.
  bool* replaced_ = nullptr;
};

}  // namespace kl
