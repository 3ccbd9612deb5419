#pragma once
// leaving.h: how a service leaves and comes again.

#include <map>

#include "life/kept_data.h"
#include "routing/router.h"

namespace loader {

// What leaving needs of the loader around it.
class LeavingHost {
 public:
  // The service wishes to be asked to leave, and could.
  virtual void wishesToLeave(Service& service) = 0;
  // It may leave now, or may no longer.
  virtual void readinessChanged(Service& service) = 0;
  virtual void refusedToLeave(Service& service) = 0;
  // It has said that it leaves, so its process has to end.
  virtual void saidThatItLeaves(Service& service) = 0;
  // Something for it came while it was away.
  virtual void isNeeded(Service& left) = 0;

 protected:
  ~LeavingHost() = default;
};

// The leave protocol from the loader's side:
//
//     RUNNING --ask: CTRL_LEAVE--> LEAVING --CTRL_REFUSED----------------------------> RUNNING
//                                     |----CTRL_LEFT (its data are kept), it ends----> LEFT
//                                     |----ends with status 0, having said nothing---> LEFT, without data
//                                     '----crashes, having said nothing--------------> as after any crash
//
// L1  from the asking on everything for the service is held
// L2  what is kept belongs to its last leave, however it ended since
// L3  kept data are handed out with the news of everybody who was there when the service was asked and has ended
//     since; it cannot know of anybody else
//
// A service's life goes on over its leaves: it has ended only when its end was announced.  Each life is stamped
// with the moment at which it began, so that two of the same id are told apart.
//
// Errors:    ask() says why a service cannot be asked.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      asking copies the ids of all services.
class Leaving final : public LeaveListener {
 public:
  Leaving(ServiceTable& table, OpenRequests& requests, Outbox& outbox, KeptData& kept, Log& log,
          LeavingHost& host)
      : table_(table), requests_(requests), outbox_(outbox), kept_(kept), log_(log), host_(host) {}

  // Puts the services that were away when the loader last ended where they were.  Needs: the kept data are open.
  void restore();

  // Asks a service that is connected; null, or why it cannot be asked.
  const char* ask(Service& service);

  // Whether the process of a service that was asked, which has now ended, has left.
  bool hasLeft(Service& service, bool crashed);

  // The end of the service is being announced.
  void ends(Service& service) { kept_.back(service.id); }

  // The service has registered: what it saved when it last left, null without anything, and who has ended since.
  const Kept* comes(Service& service);
  std::vector<unsigned int> endedSince(const Kept& kept) const;

  void leaveMessage(Service& sender, const Envelope& e) override;
  void demanded(Service& left) override { host_.isNeeded(left); }

 private:
  struct Asked {
    unsigned long long at = 0;
    std::vector<unsigned int> known;
    bool hasSaved = false;
  };

  void readiness(Service& service, unsigned int value);
  void wishes(Service& service);
  void refused(Service& service);
  void saved(Service& service, const Envelope& e);
  std::vector<unsigned int> othersOf(const Service& service) const;

  ServiceTable& table_;
  OpenRequests& requests_;
  Outbox& outbox_;
  KeptData& kept_;
  Log& log_;
  LeavingHost& host_;
  std::map<unsigned int, Asked> asked_;  // by service id; of use while the service is LEAVING
  unsigned long long now_ = 0;           // the latest moment
};

}  // namespace loader
