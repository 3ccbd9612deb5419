#pragma once
// outbox.h: what waits to be written, and for whom.

#include <unistd.h>

#include <vector>

#include "crashes/frame_ring.h"
#include "kl/message.h"
#include "routing/service.h"
#include "routing/witness.h"
#include "transport/work.h"

namespace loader {

// How far a service's queue may fill before something for it is lost.  Each may take more of its account than the one
// before.
enum class Urgency : unsigned char {
  kOrdinary,  // up to the queue limit, and to its sender's share
  kReply,     // it was asked for
  kNotice,    // the loader says it: an error reply, a death, a control message
};

// Puts messages into the queues of services and marks those with new bytes, so that everything that one read brought
// leaves with one write for each destination.  Each sender may fill its share only of a queue that is not short
// (shares.h); replies count for who asked for them, and the loader's own messages for the loader.
//
// Errors:    what a full queue cannot take is dropped and counted in the service's traffic.
// Ownership: borrows services; forget() one before it goes.
// Threads:   belongs to one thread.
// Cost:      a copy of the bytes.
class Outbox {
 public:
  // The room that there must be for the reply to a request, or it is not worked on.
  static constexpr std::size_t kReplyBytes = 20 * 1024;

  explicit Outbox(std::size_t queueLimit) : queueLimit_(queueLimit), ownUser_(::geteuid()) {}

  // The sender of the messages that send() carries: the loader's own row, which outlives this.
  void setSender(Service& loader) { sender_ = &loader; }

  // The witness is told of each message of the loader's own; null: nobody.
  void setWitness(Witness* witness) { witness_ = witness; }

  // The ring keeps the headers of each message of the loader's own; null: nobody does.
  void setRing(FrameRing* ring) { ring_ = ring; }

  // The work of the deliveries is counted here.
  Work& work() { return work_; }

  // True when nothing but replies is taken for the service.
  bool isFull(const Service& to) const { return to.waiting() >= queueLimit_; }
  // True when nothing but replies is taken for the service from this sender: it has used its share of the queue.
  bool isFull(Service& to, const Service& from) const {
    return to.waiting() >= Shares::refusesFrom(queueLimit_) && isShareUsed(to, from);
  }
  // The bytes of the loader's own messages that the service has not read, as far as they are counted.
  std::size_t ownBytes(Service& to) const;

  // Some of the held frames were dropped.  Needs: nothing else waits for the service.
  void recount(Service& to);

  // True when a frame of so many bytes is taken.
  bool hasRoomFor(const Service& to, std::size_t bytes, Urgency urgency) const;
  // True when a reply to the service is taken, as far as one can tell before it is made.
  bool canAnswer(const Service& caller) const { return hasRoomFor(caller, kReplyBytes, Urgency::kReply); }

  // Queues a frame on its way from `from`, with the rights that `mark` says; false when it was dropped.
  bool deliver(Service& to, const Service& from, const Envelope& envelope, Path rest, Urgency urgency,
               const RightsMark& mark = {});

  // Queues a message of the loader's own; false when it was dropped.  A service that is neither connected nor held for
  // gets none.
  bool send(Service& to, const kl::message& m, Urgency urgency);

  // The held frames are on their way now.  Needs: the service is connected.
  void release(Service& to);

  // Calls `function` once for each service with new bytes and clears the mark.
  template <class Function>
  void eachDirty(Function function) {
    for (std::size_t i = 0; i < dirty_.size(); ++i) {  // the function may add some
      Service* service = dirty_[i];
      if (service == nullptr) continue;
      service->isDirty = false;
      function(*service);
      noteWritten(*service);
    }
    dirty_.clear();
  }
  void forget(Service& service);

  // Something has left the queue: of an empty one nothing is noted any more.
  static void noteWritten(Service& service) {
    if (service.shares.isCounting() && service.waiting() == 0) service.shares.clear();
  }

 private:
  void countSent(std::size_t bytes);
  void noteOwn(const Service& to, const kl::message& m) const;
  bool admit(Service& to, std::size_t bytes, Urgency urgency);
  bool isShareUsed(Service& to, const Service& from) const;
  unsigned int shareOf(const Service& service) const;
  bool drop(Service& to);
  template <class Write>
  std::size_t append(Service& to, unsigned int sender, unsigned int share, HeldKind kind, Write write);
  void markDirty(Service& to);

  std::size_t queueLimit_;
  uid_t ownUser_;
  Work work_;
  Service* sender_ = nullptr;
  Witness* witness_ = nullptr;
  FrameRing* ring_ = nullptr;
  std::vector<Service*> dirty_;
};

// Appends a message as a frame.
void appendFrame(Buffer& out, const kl::message& m);

}  // namespace loader
