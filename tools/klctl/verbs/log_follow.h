#pragma once
// log_follow.h: the log as it grows.

#include <functional>
#include <string>

#include "ask/courier.h"
#include "verbs/command_line.h"
#include "verbs/log.h"

namespace klctl {

// The courier's part: gives an event for each line that is there and that comes, a kObject without a STD_ID when lines
// were left out, and kLost whenever the service is not there.
Job logJob(const kl::message& request, int timeoutTicks);

// Follows the log until the user interrupts.  `print` takes results and remarks.
using PrintLog = std::function<void(const std::string& results, const std::string& remark)>;
void followLog(const CommandLine& line, const LogTopics& topics, const PrintLog& print);

}  // namespace klctl
