#pragma once
// kl/watcher.h: follows the table of objects of one service, whatever happens to the service.

#include <set>
#include <vector>

#include "kl/export.h"
#include "kl/looper.h"
#include "kl/reget.h"

namespace kl {

// A handler that knows a service's table: it subscribes, fetches the whole table beside the loop, and takes the
// notifications from then on.  When the service has crashed, when its path is broken or its answer an error, it tries
// again until the service answers, and reports the objects that have gone meanwhile as removed.
//
//     class Links : public kl::Watcher {
//       void objectChanged(const kl::message& link) override { names_[link.get(kl::STD_ID, 0)] = link.get(NAME, ""); }
//       void objectRemoved(unsigned int id) override { names_.erase(id); }
//       void tableComplete() override { show(names_); }
//       std::map<unsigned int, std::string> names_;
//     };
//
//     Links links;
//     looper.addHandler(1, &links);                  // a number of its own: notifications come to it
//     links.watch({32});
//     looper.run();
//
// objectChanged() may be called again without a change; the last call is current.  A service that leaves in order
// keeps its subscribers and is not lost.  A handler gets no notification of a change that it asked for itself: a
// program that changes the objects that it watches asks from another handler.
//
// Errors:    an error of the service is one call of providerLost() and a retry, after 50 ms at first and after a second
//            in the end.  A notification that the loader drops because this process does not read is lost.
// Ownership: belongs to the service, as any handler.  The destructor unsubscribes.
// Threads:   as any handler.  The operations that are called back may do everything but destroy the watcher.
// Cost:      remembers the id of each object, not the object; a walk is one request for each chunk.
class KL_API Watcher : public Handler {
 public:
  Watcher();
  ~Watcher() override;

  // Begins to follow the table at a path; a table that was followed before is forgotten.  `extra` holds what the
  // service takes as a filter: it goes into the subscription and into the requests.
  // Needs: a Looper that this handler was added to.
  void watch(const std::vector<unsigned int>& path, const message& extra = message());

  // Unsubscribes and forgets the table.  Nothing is called back from then on.
  void stop();

  // How long each reply of the service may take, in ticks; a minute at first.
  void setTimeout(unsigned int ticks) { timeout_ = ticks; }

  // Was the whole table fetched, and has the service been there since?
  bool isComplete() const { return complete_; }

  // Called for each event.  The defaults do nothing.

  // An object is new, changed, or the same as before.
  virtual void objectChanged(const message& object);
  // An object of an earlier objectChanged() is gone.
  virtual void objectRemoved(unsigned int id);
  // The whole table was fetched, for the first time or after the service was lost.
  virtual void tableComplete();
  // The service is lost, and the table may be out of date.  The reason is its error, or CMD_DISCONNECTED.
  virtual void providerLost(const message& reason);

  void handleCmd(const message& request, unsigned int command) override;
  void handleBrkpath(const message& notice) override;
  void cmdDisconnected(const message& m) override;

 private:
  bool isFromProvider(const message& m) const;
  void fetchTable();
  void take(const message& object);
  void onFetched(const message& reply);
  void removeStale();
  void tryLater(const message& reason);

  std::vector<unsigned int> path_;  // empty: nothing is watched
  message extra_;
  unsigned int timeout_ = 6000;
  unsigned int retryTicks_ = 0;
  unsigned int run_ = 0;  // calls of watch and stop: a loop that calls back ends when it changes
  bool complete_ = false;
  bool lost_ = false;
  std::set<unsigned int> known_;  // reported since the last fetch began
  std::set<unsigned int> stale_;  // reported before, and not again so far
  TimerPtr retryTimer_;
  AsyncReget reget_;
};

}  // namespace kl
