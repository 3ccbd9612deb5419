// The service that is to blame that requests are not answered.
//
// From each request that is old enough the way goes on to the oldest request of its asked service, and so on: at the end
// stands a service that waits for nobody, the culprit, or the way comes back to itself, a circle.  A service there is
// asked for CMD_NOOP.  One that answers is not stuck; it is named only when a request has been with it for so long, or so
// many are with it, that it may have forgotten them.  A circle in which somebody answers is none: he waits with patience.

#include <algorithm>
#include <set>

#include "kl/conventions.h"
#include "output/show.h"
#include "services/common/text.h"
#include "values/failure.h"
#include "values/process_state.h"
#include "values/units.h"
#include "verbs/requests.h"

namespace klctl {
namespace {

constexpr unsigned long long kOldMs = 500;
constexpr unsigned long long kForgottenMs = 10'000;  // by a service that answers others
constexpr std::ptrdiff_t kForgottenCount = 16;

using Ids = std::vector<unsigned int>;

bool isOld(const OpenRequest* request) { return request != nullptr && request->ageMs >= kOldMs; }

// Where the way from a service ends: at one service, or in a circle of several.
struct End {
  Ids services;  // of a circle, each waits for the next one, and the last for the first
  bool isCircle = false;
};

// A circle is the same wherever the way came into it.
Ids fromSmallest(Ids circle) {
  std::rotate(circle.begin(), std::min_element(circle.begin(), circle.end()), circle.end());
  return circle;
}

End endOfWay(const OpenRequests& open, unsigned int service) {
  Ids way = {service};
  for (;;) {
    const OpenRequest* next = open.oldestOf(way.back());
    if (!isOld(next)) return {{way.back()}, false};
    const auto met = std::find(way.begin(), way.end(), next->asked);
    if (met != way.end()) return {fromSmallest({met, way.end()}), true};
    way.push_back(next->asked);
  }
}

std::vector<End> endsOf(const OpenRequests& open) {
  std::vector<End> ends;
  std::set<Ids> met;
  for (const OpenRequest& request : open.requests) {
    if (!isOld(&request)) break;  // the oldest come first
    const End end = endOfWay(open, request.asked);
    if (met.insert(end.services).second) ends.push_back(end);
  }
  return ends;
}

pid_t pidOf(const OpenRequests& open, unsigned int service) {
  const auto found = open.services.find(service);
  return found == open.services.end() ? 0 : found->second.pid;
}

// "leases (300, pid 812)"
std::string described(const OpenRequests& open, unsigned int service) {
  const pid_t pid = pidOf(open, service);
  return open.nameOf(service) + " (" + std::to_string(service) +
         (pid > 0 ? ", pid " + std::to_string(pid) + ")" : ")");
}

// Whether a service answers anything at all within the time-out.
bool answers(unsigned int service, const Channels& channels) {
  kl::message question;
  question.insert(kl::SYS_CMD, kl::CMD_NOOP);
  question.insert(kl::SYS_TO, {service});
  try {
    const kl::message reply = channels.exchange(question);
    unsigned int code = kl::ERROR_OK;
    (void)kl::isError(reply, &code);
    return code != kl::ERROR_BUSY && code != kl::ERROR_BRKPATH && code != kl::ERROR_NOTALLOWED;
  } catch (const Failure& failure) {
    if (failure.status() != Status::kTimeout) throw;
    return false;
  }
}

class Report {
 public:
  Report(const CommandLine& line, const Channels& channels, const OpenRequests& open)
      : channels_(channels), open_(open), names_(line) {}

  void add(const End& end) { end.isCircle ? addCircle(end.services) : addCulprit(end.services.front()); }

  const std::string& text() const { return text_; }
  const std::vector<Json>& rows() const { return rows_; }
  unsigned int stuck() const { return stuck_; }

 private:
  void addCircle(const Ids& circle) {
    for (const unsigned int service : circle)
      if (answers(service, channels_)) return;
    std::string sentence = "a circle: ";
    Json members = Json::array();
    for (std::size_t i = 0; i < circle.size(); ++i) {
      const OpenRequest& request = *open_.oldestOf(circle[i]);
      if (i > 0) sentence += ", ";
      sentence += described(open_, circle[i]) + " waits for " + open_.nameOf(request.asked) + " (" +
                  names_.of(open_, request) + ", " + ageText(request.ageMs) + ")";
      members.push_back({{"service", open_.nameOf(circle[i])},
                         {"id", circle[i]},
                         {"pid", pidOf(open_, circle[i])},
                         {"waits_for", open_.nameOf(request.asked)},
                         {"command", names_.of(open_, request)},
                         {"age_ms", request.ageMs}});
    }
    say(sentence);
    rows_.push_back({{"stuck", true}, {"circle", members}});
    ++stuck_;
  }

  void addCulprit(unsigned int service) {
    const OpenRequest& oldest = oldestTo(service);
    const pid_t pid = pidOf(open_, service);
    const std::string does = pid > 0 ? whatItDoes(pid) : "does not run";
    const bool isAlive = pid > 0 && does != "is stopped" && answers(service, channels_);
    const bool mayHaveForgotten = oldest.ageMs >= kForgottenMs || oldTo(service) >= kForgottenCount;
    if (isAlive && !mayHaveForgotten) return;
    if (!isAlive) ++stuck_;
    say(sentenceAbout(oldest, isAlive ? "answers others" : does));
    rows_.push_back({{"stuck", !isAlive},
                     {"service", open_.nameOf(service)},
                     {"id", service},
                     {"pid", pid},
                     {"does", does},
                     {"asker", open_.nameOf(oldest.asker)},
                     {"asker_id", oldest.asker},
                     {"command", names_.of(open_, oldest)},
                     {"age_ms", oldest.ageMs},
                     {"waiting", countTo(service)}});
  }

  std::string sentenceAbout(const OpenRequest& oldest, const std::string& does) {
    const auto more = countTo(oldest.asked) - 1;
    std::string sentence = described(open_, oldest.asked) + " has not answered for " + ageText(oldest.ageMs) +
                           ": " + names_.of(open_, oldest) + " of " + open_.nameOf(oldest.asker) + " (" +
                           std::to_string(oldest.asker) + ")";
    if (more > 0) sentence += ", " + std::to_string(more) + " more wait";
    return does.empty() ? sentence : sentence + "; it " + does;
  }

  std::ptrdiff_t countTo(unsigned int service) const {
    return std::count_if(open_.requests.begin(), open_.requests.end(),
                         [service](const OpenRequest& request) { return request.asked == service; });
  }
  // A service that has much to do has many requests, and none of them for long.
  std::ptrdiff_t oldTo(unsigned int service) const {
    return std::count_if(open_.requests.begin(), open_.requests.end(), [service](const OpenRequest& request) {
      return request.asked == service && isOld(&request);
    });
  }
  const OpenRequest& oldestTo(unsigned int service) const {
    return *std::find_if(open_.requests.begin(), open_.requests.end(),
                         [service](const OpenRequest& request) { return request.asked == service; });
  }

  void say(const std::string& sentence) { text_ += common::printable(sentence) + "\n"; }

  const Channels& channels_;
  const OpenRequests& open_;
  CommandNames names_;
  std::string text_;
  std::vector<Json> rows_;
  unsigned int stuck_ = 0;
};

}  // namespace

void showStuck(const CommandLine& line, const Channels& channels) {
  const OpenRequests open = fetchOpenRequests(channels.exchange);
  Report report(line, channels, open);
  for (const End& end : endsOf(open)) report.add(end);
  if (line.json) channels.print(jsonText(Json(report.rows())));
  else printTable(channels, report.text(), "nothing is stuck");
  if (report.stuck() > 0) throw Failure(Status::kRefused, "not everybody answers");
}

}  // namespace klctl
