#pragma once
// remarks.h: what the service reports to the log.

#include <string>

#include "kl/logger.h"
#include "kl/services.h"

namespace undo {

// `topic` is the weight of the line; it stands beside the topic of the service.
inline void log(unsigned int topic, const std::string& text) {
  kl::lstream line(kl::TOPIC_UNDO, topic, 0);
  line << text << std::endl;
}

inline std::string recordText(unsigned int id) { return "record " + std::to_string(id); }
inline std::string serviceText(unsigned int id) { return "service " + std::to_string(id); }

}  // namespace undo
