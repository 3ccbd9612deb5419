#pragma once
// router.h: carries frames from service to service.

#include <functional>
#include <span>
#include <utility>

#include "crashes/frame_ring.h"
#include "routing/ends.h"
#include "routing/open_requests.h"
#include "routing/outbox.h"
#include "routing/service_table.h"
#include "routing/subscriptions.h"
#include "routing/witness.h"

namespace loader {

// A path's first element names a service.  It is removed on delivery, and the sender's id is put in front of the
// return path: A's handler 7 asking [24, 0] arrives at service 24 as SYS_TO [0], SYS_FROM [A, 7], and the reply
// comes back to A as SYS_TO [7].
//
// R1  the first element of a delivered return path is the id of the connection that the frame came in on
// R2  a reply is delivered only if it answers an open request, and then once
// R3  nothing is ever sent about a reply or about an error notice
// R4  a notification passes without rights where its receiver asked for it, and in nothing else than it asked for
// R5  a frame with many receivers costs a turn what it has and one delivery more
//
// Errors:    a frame that may not be carried is named by route()'s result; its sender is to be disconnected.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      one pass over the record headers and one copy of the bytes for each delivery; no message is built and
//            nothing is allocated for what passes through.
class Router {
 public:
  static constexpr unsigned int kMaxOpenRequests = 4096;  // of one caller
  static constexpr unsigned int kOldSeconds = 600;        // older ones make room

  // The frames that are meant for the loader itself.
  struct Calls {
    // A request to the loader's own service, as any service would get it: path without the loader's id, return path
    // with the caller's in front.
    std::function<void(Service& caller, const kl::message& request)> onOwnRequest;
    // A control message of a process that has registered; its code may be one that nobody knows.
    std::function<void(Service& sender, const Envelope& e)> onControl;
    // Something is held for the service that it is to be started for.
    std::function<void(Service& to)> onNeeded;
    // A request to this path was not delivered because of its sender's rights.
    std::function<void(const Service& sender, const Envelope& e, unsigned int toId, Path rest,
                       const Access& access)>
        onDenied = {};
    // A request was delivered by somebody who is waited for, to somebody who waits: it may have closed a circle.
    std::function<void()> onChain = {};
    // A service has answered a request that the loader itself has made.
    std::function<void(Service& sender, unsigned int requestId)> onOwnAnswer = {};
  };

  Router(ServiceTable& table, OpenRequests& requests, Subscriptions& subscriptions, Outbox& outbox,
         Calls calls)
      : table_(table),
        requests_(requests),
        subscriptions_(subscriptions),
        outbox_(outbox),
        calls_(std::move(calls)),
        ends_(table, outbox) {}

  // The time that requests are stamped with, from any beginning.
  void setNow(common::Moment now) {
    now_ = now;
    if (ring_ != nullptr) ring_->setNow(now);
  }

  // The ring keeps the headers of each frame, and what became of it: of one to several services for each of them.  Null:
  // nobody does.
  void setRing(FrameRing* ring) { ring_ = ring; }

  // The witness is told of each frame; null: nobody.
  void setWitness(Witness* witness) { witness_ = witness; }

  // How far a frame with many receivers has come, when the turn of its sender was over before it had reached all.
  struct Progress {
    bool isUnfinished = false;
    unsigned int next =
        0;  // PATH_ALL: the first id that may lack its copy; PATH_MULTI: elements of the path to pass
    bool hasReachedLoader = false;
  };

  // Carries one frame of a registered service.  Null, or what makes the frame garbage.
  const char* route(Service& sender, std::span<const unsigned char> body);
  // The same, as far as the work of the turn allows: while `progress` is unfinished afterwards, the same frame is to
  // be routed with it again, and no other frame of the sender before.
  const char* route(Service& sender, std::span<const unsigned char> body, Progress& progress);

  // The service is gone: waiting callers are answered, its own requests are forgotten, and those who can know it are
  // notified by the next announceEnds().  Needs: it has no connection any more.
  void onServiceGone(Service& gone);
  void announceEnds() { ends_.announce(); }

  // The service has left: what it was given and did not answer is answered and what it asked is forgotten, but what
  // is held for it stays, and nobody is notified.  Needs: it has no connection any more.
  void onServiceLeft(Service& left);

  // Notifies one service that another is gone.
  void reportGone(Service& to, unsigned int goneId) { ends_.report(to, goneId); }

  // Answers and forgets the requests that wait for a service that does not take them, and throws away what is queued
  // for it.
  void breakPathsTo(Service& callee);

 private:
  void breakOldestTo(Service& callee, const OpenRequest& request);
  void forgetRequestsOf(Service& caller);
  void noteFrame(Service& sender, const Envelope& e) const;
  void keepHeader(const Service& sender, const Envelope& e, unsigned int to);
  void noteFate(Fate fate) {
    if (ring_ != nullptr) ring_->setFate(noted_, fate);
  }
  const char* handleControl(Service& sender, const Envelope& e);
  void deliverToAll(Service& sender, const Envelope& e, Progress& progress);
  void deliverToEach(Service& sender, const Envelope& e, Progress& progress);
  void deliver(Service& sender, const Envelope& e, Path path);
  void deliverToLoader(Service& sender, const Envelope& e, Path path);
  void deliverCopy(Service& sender, const Envelope& e, Service& to, Path rest);
  void noteActivity(const Envelope& e, Service& to) const;
  void deliverReply(Service& sender, const Envelope& e, Service& to, Path rest);
  void deliverRequest(Service& sender, const Envelope& e, Service& to, Path rest);
  void noteOpen(Service& sender, const Envelope& e, Service& to, Path rest);
  void deliverSubscribe(Service& sender, const Envelope& e, Service& to, Path rest, const Access& access);
  bool receiverHasSubscribed(Service& sender, const Envelope& e, Service& to, Path rest) const;
  void forgetEndedSubscriptions(Service& sender, const Envelope& e, Service& to, Path rest,
                                const Access& access);
  void breakRequestsTo(Service& callee);
  void reportNeed(Service& to, const Envelope& e);
  bool makeRoom(Service& caller);

  void reportBrokenPath(Service& sender, const Envelope& e, Path path);
  void refuse(Service& sender, const Envelope& e, unsigned int toId, Path rest, unsigned int code,
              const std::string& text = {});
  void deny(Service& sender, const Envelope& e, unsigned int toId, Path rest, const Access& access);
  void sendError(Service& to, kl::message m, const Envelope& e);
  void answerOpen(const OpenRequest& request, unsigned int code);

  ServiceTable& table_;
  OpenRequests& requests_;
  Subscriptions& subscriptions_;
  Outbox& outbox_;
  Calls calls_;
  Ends ends_;
  Buffer scratch_;
  common::Moment now_;
  Witness* witness_ = nullptr;
  FrameRing* ring_ = nullptr;
  FrameRing::Number noted_ = FrameRing::kNone;  // the frame that is being carried
};

}  // namespace loader
