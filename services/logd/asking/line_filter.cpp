// A filter is read once from its request; each field that the request has becomes a condition, and a line passes when
// all of them hold.

#include "asking/line_filter.h"

#include "log.kl.h"

namespace logd {
namespace {

template <class T>
std::optional<T> valueIn(const kl::message& request, kl::field<T> field) {
  if (!request.has(field)) return {};
  return request.get(field, T());
}

// A number that is no topic fits no line; 0 is the one that none has.
Topics topicsIn(const kl::message& request) {
  Topics topics;
  for (const unsigned int topic : request.get(log_service::TOPICS, {}))
    topics.push_back(topic > 0xffff ? Topic{0} : static_cast<Topic>(topic));
  return topics;
}

template <class T>
bool fits(const std::optional<T>& wanted, const T& value) {
  return !wanted || *wanted == value;
}

}  // namespace

LineFilter::LineFilter(const kl::message& request)
    : topics_(topicsIn(request)),
      process_(valueIn(request, log_service::PROCESS)),
      pid_(valueIn(request, log_service::PID)),
      uid_(valueIn(request, log_service::UID)),
      source_(valueIn(request, log_service::SOURCE)),
      since_(request.get(log_service::SINCE, 0)),
      contains_(request.get(log_service::CONTAINS, "")) {}

bool LineFilter::passes(const Line& line) const {
  const Origin& origin = *line.origin;
  return line.time >= since_ && (topics_.empty() || haveOneInCommon(topics_, origin.topics)) &&
         fits(process_, origin.process) && fits(pid_, origin.pid) && fits(uid_, origin.uid) &&
         fits(source_, origin.source) &&
         (contains_.empty() || line.text.find(contains_) != std::string::npos);
}

}  // namespace logd
