// A walk along the requests, from each service to those that it has asked.  The services of the way so far are marked: who
// meets one of them has found a circle.  From a service that was left behind no circle can be reached.

#include "watch/circles.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace loader {
namespace {

class Search {
 public:
  Search(const OpenRequests& requests, common::Moment latest,
         const std::function<bool(const Service& service)>& counts)
      : requests_(requests), latest_(latest), counts_(counts) {}

  // The members of a circle that can be reached from there.
  std::vector<Service*> from(Service& start) {
    enter(start);
    while (!way_.empty()) {
      Step& step = way_.back();
      const OpenRequest* request = step.next;
      if (request == nullptr) {
        leave();
        continue;
      }
      step.next = requests_.newerFrom(*request);
      if (!leadsOn(*request)) continue;
      if (isOnWay(*request->callee)) return wayFrom(*request->callee);
      enter(*request->callee);
    }
    return {};
  }
  bool hasMetYoung() const { return hasMetYoung_; }

 private:
  enum class Mark : unsigned char { kOnWay, kLeft };
  struct Step {
    Service* service;
    const OpenRequest* next;  // of its requests
  };

  // Only who is asked and asks can stand in a circle.
  bool canBeIn(const Service& service) const {
    return service.requests.madeCount != 0 && service.requests.servingCount != 0 && counts_(service);
  }

  void enter(Service& service) {
    if (marks_.contains(&service) || !canBeIn(service)) return;
    marks_[&service] = Mark::kOnWay;
    way_.push_back({&service, requests_.oldestFrom(service)});
  }
  void leave() {
    marks_[way_.back().service] = Mark::kLeft;
    way_.pop_back();
  }

  bool leadsOn(const OpenRequest& request) {
    if (!request.expectsReply || request.isHeld || !canBeIn(*request.callee)) return false;
    const bool isYoung = std::pair(request.since.seconds, request.since.milliseconds) >
                         std::pair(latest_.seconds, latest_.milliseconds);
    hasMetYoung_ = hasMetYoung_ || isYoung;
    return !isYoung;
  }

  bool isOnWay(const Service& service) const {
    const auto found = marks_.find(&service);
    return found != marks_.end() && found->second == Mark::kOnWay;
  }
  std::vector<Service*> wayFrom(const Service& service) const {
    const auto first =
        std::find_if(way_.begin(), way_.end(), [&](const Step& step) { return step.service == &service; });
    std::vector<Service*> members;
    for (auto at = first; at != way_.end(); ++at) members.push_back(at->service);
    return members;
  }

  const OpenRequests& requests_;
  common::Moment latest_;
  const std::function<bool(const Service& service)>& counts_;
  std::unordered_map<const Service*, Mark> marks_;
  std::vector<Step> way_;
  bool hasMetYoung_ = false;
};

}  // namespace

Circle findCircle(const ServiceTable& services, const OpenRequests& requests, common::Moment latest,
                  const std::function<bool(const Service& service)>& counts) {
  Search search(requests, latest, counts);
  for (const auto& [id, service] : services.all())
    if (std::vector<Service*> members = search.from(*service); !members.empty()) return {members, false};
  return {{}, search.hasMetYoung()};
}

}  // namespace loader
