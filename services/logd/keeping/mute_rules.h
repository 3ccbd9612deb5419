#pragma once
// mute_rules.h: which topics are muted.

#include <set>

#include "keeping/line.h"

namespace logd {

// A source is muted when one of its topics is.
class MuteRules {
 public:
  // False when it was so before.
  bool set(Topic topic, bool muted) {
    return muted ? topics_.insert(topic).second : topics_.erase(topic) > 0;
  }

  bool isMuted(Topic topic) const { return topics_.contains(topic); }
  bool mutes(const Topics& topics) const {
    return std::any_of(topics.begin(), topics.end(), [this](Topic topic) { return isMuted(topic); });
  }
  const std::set<Topic>& topics() const { return topics_; }

 private:
  std::set<Topic> topics_;
};

}  // namespace logd
