#pragma once
// recorded_channels.h: the channels of a verb, played by a test, and what the verb printed.

#include <string>
#include <utility>
#include <vector>

#include "tools/klctl/ask/fetch.h"
#include "tools/klctl/verbs/verb.h"

namespace klctl {

inline CommandLine parsed(std::vector<const char*> words) {
  words.insert(words.begin(), "klctl");
  return std::get<CommandLine>(parseCommandLine(static_cast<int>(words.size()), words.data()));
}

// Tables are walked through the same exchange, one chunk after the other.
class RecordedChannels {
 public:
  explicit RecordedChannels(const Exchange& exchange = {}, bool isTerminal = false) {
    channels_.isTerminal = isTerminal;
    channels_.exchange = exchange;
    channels_.send = [this](const kl::message& m) { sent = m; };
    channels_.walk = [exchange](const kl::message& request, const std::string& path) {
      return fetchAll(request, path, exchange);
    };
    channels_.disconnect = [] {};
    channels_.print = [this](const std::string& text) {
      printed += text;
      hasPrinted = true;
    };
    channels_.remark = [this](const std::string& sentence) { remarked += sentence + "\n"; };
  }
  RecordedChannels(const RecordedChannels&) = delete;
  RecordedChannels& operator=(const RecordedChannels&) = delete;

  // Performs the verb and returns what it printed.
  std::string perform(const CommandLine& line) {
    performerOf(line.verb)(line, channels_);
    return std::exchange(printed, "");
  }

  std::string printed;
  bool hasPrinted = false;  // something, if only an empty text
  std::string remarked;
  kl::message sent;  // the last message that expects no reply

 private:
  Channels channels_;
};

}  // namespace klctl
