#pragma once
// outbox.h: what waits to be written, and for whom.

#include <vector>

#include "kl/message.h"
#include "routing/service.h"

namespace loader {

// How far a service's queue may fill before something for it is lost.
enum class Urgency : unsigned char {
  kOrdinary,  // up to the queue limit
  kReply,     // up to kMaxQueueBytes: whoever asked must get his answer, whoever depends must hear of an end
};

// Puts messages into the queues of services and remembers who has something new, so that everything that one read
// brought leaves with one write for each destination.
//
// Errors:    what a full queue cannot take is dropped and counted in the service's traffic.
// Ownership: borrows services; forget() one before it goes.
// Threads:   belongs to one thread.
// Cost:      a copy of the bytes.
class Outbox {
 public:
  static constexpr std::size_t kMaxQueueBytes = 16 * 1024 * 1024;
  // A larger frame is only taken as a reply, so a queue exceeds its limit by no more than this.
  static constexpr std::size_t kMaxOrdinaryBytes = 1024 * 1024;

  explicit Outbox(std::size_t queueLimit) : queueLimit_(queueLimit) {}

  // Whose messages send() carries: the loader's own row, which outlives this.
  void setSender(Service& loader) { sender_ = &loader; }

  // True when nothing but replies is taken for the service.
  bool isFull(const Service& to) const { return to.waiting() >= queueLimit_; }

  // Why an ordinary frame of that size would be dropped: ERROR_TOOBIG or ERROR_BUSY; ERROR_OK if it would be taken.
  unsigned int obstacleFor(const Service& to, std::size_t bytes) const;

  // Queues a frame on its way from `from`; false when it was dropped.
  bool deliver(Service& to, const Service& from, const Envelope& envelope, Path rest, Urgency urgency);

  // Queues a message of the loader's own; false when it was dropped.  Nobody waits for one to a service that is
  // neither connected nor held for.
  bool send(Service& to, const kl::message& m, Urgency urgency);

  // What was held is on its way now.  Needs: the service is connected.
  void release(Service& to);

  // Is something held that `sender` said, and no news of its end behind it?
  static bool holdsWordOf(const Service& to, unsigned int sender);

  // Of what is held only requests and notifications stay, and the ends of those that sent them: the process that
  // replies were for is no more, and whoever comes in its place is told anew of services that had ended before.
  static void keepForNext(Service& left);

  // Hands out the services that have something new, each once.  Calling it ends their having news.
  template <class Function>
  void eachWithNews(Function function) {
    for (std::size_t i = 0; i < news_.size(); ++i) {  // the function may add some
      Service* service = news_[i];
      if (service == nullptr) continue;
      service->hasNews = false;
      function(*service);
    }
    news_.clear();
  }
  void forget(Service& service);

 private:
  void sent(std::size_t bytes);
  bool takes(Service& to, std::size_t bytes, Urgency urgency);
  void queued(Service& to, std::size_t bytes, bool isHeld);
  void hasNews(Service& to);

  std::size_t queueLimit_;
  Service* sender_ = nullptr;
  std::vector<Service*> news_;
};

// Appends a message as a frame.
void appendFrame(Buffer& out, const kl::message& m);

}  // namespace loader
