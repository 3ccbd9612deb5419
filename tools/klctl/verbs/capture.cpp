// A packet is a frame: the length of the message, and the message as its sender wrote it, as far as the tap showed it.

#include "verbs/capture.h"

#include <algorithm>
#include <csignal>
#include <utility>
#include <vector>

#include "output/capture_file.h"
#include "services/common/byte_order.h"
#include "services/common/tap.h"
#include "services/common/text.h"
#include "values/failure.h"
#include "verbs/tapping.h"

namespace klctl {
namespace {

namespace tap = common::tap;

constexpr unsigned int kTap = 0;  // no service has this number
constexpr std::size_t kPrefixBytes = 4;

std::vector<unsigned char> frameOf(const kl::message& shown) {
  std::vector<unsigned char> frame(kPrefixBytes);
  common::storeLe32(frame.data(), shown.get(tap::LENGTH, 0));
  const std::vector<unsigned char> contents = shown.get(tap::CONTENTS, {});
  frame.insert(frame.end(), contents.begin(), contents.end());
  return frame;
}

std::string withoutNewline(std::string line) {
  if (line.ends_with('\n')) line.pop_back();
  return line;
}

std::string sentence(const std::string& first, const std::string& second) {
  return first + (first.empty() || second.empty() ? "" : "; ") + second;
}

kl::message requestFor(const CommandLine& line, const Exchange& exchange) {
  kl::message request = tapRequest(line, exchange);
  if (line.captureBytes != 0) request.insert(tap::BYTES, line.captureBytes);
  return request;
}

// The blocks that follow from what the tap shows, until it is enough.
void capture(const CommandLine& line, const Channels& channels, const kl::message& request,
             CaptureReport& report, CaptureFile& file) {
  const std::string wish = tapWish(line);
  followTap(
      request, line,
      {.begin =
           [&] {
             channels.remark(wish);
             file.add(report.begin(wish));
           },
       .take = [&](const kl::message& shown) { file.add(report.blocksOf(shown)); },
       .pause = [&] { file.flush(); },
       .isEnough = [&] { return line.trace.count != 0 && report.trace().messages() >= line.trace.count; },
       .signals = {SIGINT, SIGTERM}});
}

// Also of a capture that has failed: what there is becomes a whole file.
void finish(CaptureReport& report, CaptureFile& file) {
  file.add(report.end());
  file.flush();
}

}  // namespace

std::string CaptureReport::begin(const std::string& wish) {
  return pcapng::section("klctl " KLCTL_VERSION, wish) + addInterface(kTap, "tap");
}

std::string CaptureReport::blocksOf(const kl::message& shown) {
  const unsigned long long at = shown.get(tap::AT, 0);
  noteTime(at);
  const std::string text = withoutNewline(trace_.lineOf(shown));
  if (shown.has(tap::LOST)) {
    senders_[kTap].lost += shown.get(tap::LOST, 0);
    gap_ = sentence(gap_, text);
    return {};
  }
  const unsigned int sender = shown.get(tap::SENDER, 0);
  std::string blocks = senders_.contains(sender) ? "" : addInterface(sender, trace_.nameOf(sender));
  pcapng::Statistics& seen = senders_[sender];
  ++seen.received;
  const std::vector<unsigned char> frame = frameOf(shown);
  return blocks + pcapng::packet({.interface = seen.interface,
                                  .at = at,
                                  .bytes = frame,
                                  .length = kPrefixBytes + shown.get(tap::LENGTH, 0),
                                  .comment = commentOf(shown, text)});
}

std::string CaptureReport::end() {
  std::string blocks;
  for (auto& [service, seen] : senders_) {
    seen.begin = firstAt_;
    seen.end = lastAt_;
    blocks += pcapng::statistics(seen);
  }
  return blocks;
}

std::string CaptureReport::addInterface(unsigned int service, const std::string& name) {
  const auto number = static_cast<unsigned int>(senders_.size());
  senders_[service].interface = number;
  const std::string shown = name == std::to_string(service) ? "unnamed" : common::printable(name);
  return pcapng::interface(shown + " (" + std::to_string(service) + ")",
                           static_cast<unsigned int>(kPrefixBytes + line_.captureBytes));
}

void CaptureReport::noteTime(unsigned long long at) {
  if (firstAt_ == 0) firstAt_ = at;
  lastAt_ = std::max(lastAt_, at);
}

std::string CaptureReport::commentOf(const kl::message& shown, const std::string& line) {
  const std::string gap = std::exchange(gap_, "");
  if (line_.captureBytes == 0) return sentence(gap, line);
  return sentence(gap, shown.get(tap::BY_LOADER, false) ? "by the loader" : "");
}

void captureMessages(const CommandLine& line, const Channels& channels) {
  if (line.file == CaptureFile::kStandardOutput && channels.isTerminal)
    throw usage("a capture is nothing for a terminal: name a file, or a program behind | that reads it");
  const kl::message request = requestFor(line, channels.exchange);
  CaptureReport report(line, fetchOpenRequests(channels.exchange));
  channels.disconnect();
  CaptureFile file(line.file);  // as late as this: a signal while the loader is asked leaves no empty file
  try {
    capture(line, channels, request, report, file);
  } catch (const Failure&) {
    finish(report, file);
    throw;
  }
  finish(report, file);
  channels.remark(report.trace().countText());
}

}  // namespace klctl
