// B1  words_ are added by flush only: a file may have something to report while it is being written
// B2  what a file reports in a flush it reports once, and its reports cannot make it report more: flush comes to an end

#include "keeping/log_book.h"

#include <unistd.h>

#include <chrono>

#include "keeping/line_text.h"
#include "kl/services.h"

namespace logd {
namespace {

constexpr std::size_t kLongestText = 32768;
constexpr char kName[] = "kl-logd";

template <class Clock>
Nanoseconds nanoseconds() {
  return static_cast<Nanoseconds>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

void cut(std::string& text) {
  if (text.size() <= kLongestText) return;
  const std::string remark = " [" + std::to_string(text.size() - kLongestText) + " bytes cut]";
  text.resize(kLongestText);
  text += remark;
}

}  // namespace

std::shared_ptr<const Origin> ownOrigin(Topic severity, const Origin* about) {
  Origin origin;
  origin.process = about != nullptr ? about->process : kName;
  origin.pid = about != nullptr ? about->pid : static_cast<unsigned int>(::getpid());
  origin.uid = about != nullptr ? about->uid : static_cast<unsigned int>(::geteuid());
  origin.topics = {severity, static_cast<Topic>(kl::TOPIC_LOGD)};
  return std::make_shared<const Origin>(std::move(origin));
}

Nanoseconds timeOfDay() { return nanoseconds<std::chrono::system_clock>(); }
Nanoseconds steadyTime() { return nanoseconds<std::chrono::steady_clock>(); }

LogBook::LogBook(const BookRules& rules)
    : system_(rules.system), ring_(rules.memory, rules.system), names_(rules.names), syslog_(rules.syslog) {
  for (const Topic topic : rules.muted) (void)mutes_.set(topic, true);
  const auto report = [this](const std::string& sentence) { say(kl::TOPIC_ERROR, sentence); };  // B1
  for (const FileRule& rule : rules.files) files_.emplace_back(rule, report);
}

void LogBook::add(Line line, Nanoseconds now) {
  cut(line.text);
  if (syslog_.isOn()) (void)syslog_.send(line);
  keep(std::move(line), now);
}

void LogBook::say(Topic severity, const std::string& text, const Origin* about) {
  words_.push_back({timeOfDay(), ownOrigin(severity, about), text});
}

void LogBook::flush(Nanoseconds now) {
  flushFiles(now);
  while (!words_.empty()) {  // B2
    for (Line& line : std::exchange(words_, {})) add(std::move(line), now);
    flushFiles(now);
  }
}

// Lines that the machine's own log did not take are not reported to it: it would refuse that report, too, without end.
void LogBook::tick(Nanoseconds now) {
  if (const auto lost = syslog_.takeLost(); lost > 0)
    keep({timeOfDay(), ownOrigin(kl::TOPIC_WARNING, nullptr),
          "the machine's own log did not take " + std::to_string(lost) + " lines"},
         now);
  flush(now);
  for (LogFile& file : files_) file.tick();
}

void LogBook::reopen(Nanoseconds now) {
  for (LogFile& file : files_) file.reopen(now);
  flush(now);
}

void LogBook::keep(Line line, Nanoseconds now) {
  addToFiles(line, now);
  ring_.add(std::move(line));
  if (onNews_) onNews_();
}

void LogBook::flushFiles(Nanoseconds now) {
  for (LogFile& file : files_) file.flush(now);
}

void LogBook::addToFiles(const Line& line, Nanoseconds now) {
  const unsigned int uid = line.origin->uid;
  const auto user = system_.have(uid) ? std::nullopt : std::optional(uid);
  std::string text;
  for (LogFile& file : files_) {
    if (!file.rule().takes(line.origin->topics)) continue;
    if (text.empty()) text = textOf(line, names_);
    file.add(text, now, user);
  }
}

}  // namespace logd
