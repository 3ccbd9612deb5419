// The log service leaves out what it can: topics, severities, times and plain texts.  The rest is left out here, because
// it takes the loader's knowledge, or a pattern.

#include "verbs/log_filter.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "values/failure.h"
#include "verbs/log.h"

namespace klctl {
namespace {

constexpr char kPlainSigns[] = " _-:,/=@#%<>\"'&;!~`";

using Topics = std::vector<unsigned int>;

bool hasOneOf(const kl::message& line, const Topics& wanted) {
  const Topics topics = line.get(kl::LOG_TOPICS, {});
  return std::find_first_of(topics.begin(), topics.end(), wanted.begin(), wanted.end()) != topics.end();
}

// Only the loader's lines have these.
bool isByLoader(const kl::message& line) {
  return hasOneOf(line, {kl::TOPIC_LOADER, kl::TOPIC_OUTPUT, kl::TOPIC_ERRORS});
}

bool isPlain(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::string_view(kPlainSigns).find(c) != std::string_view::npos;
}

// The number behind "leases (300" in "leases (300, pid 812): started".
std::optional<unsigned int> pidIn(std::string_view rest) {
  constexpr std::string_view kBefore = ", pid ";
  if (!rest.starts_with(kBefore)) return std::nullopt;
  rest.remove_prefix(kBefore.size());
  unsigned int pid = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), pid);
  return error == std::errc() ? std::optional(pid) : std::nullopt;
}

unsigned int levelOf(const std::string& word, const LogTopics& topics) {
  try {
    if (const unsigned int level = topics.find(word); level <= kl::TOPIC_DEBUG) return level;
  } catch (const Failure&) {
    // It is none either.
  }
  throw Failure(
      Status::kUsage,
      "log: --level takes emergency, alert, critical, error, warning, notice, info or debug, not '" + word +
          "'");
}

Topics upTo(unsigned int level) {
  Topics severities;
  for (unsigned int topic = kl::TOPIC_EMERGENCY; topic <= level; ++topic) severities.push_back(topic);
  return severities;
}

}  // namespace

unsigned int severityOf(const std::vector<unsigned int>& topics) {
  unsigned int most = kl::TOPIC_INFO;
  bool isFirst = true;
  for (const unsigned int topic : topics) {
    if (topic < kl::TOPIC_EMERGENCY || topic > kl::TOPIC_DEBUG || (!isFirst && topic >= most)) continue;
    most = topic;
    isFirst = false;
  }
  return most;
}

LinesOfService::LinesOfService(const std::string& word, const Exchange& exchange) {
  const unsigned int id = resolveId(word, exchange);
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
  request.insert(kl::STD_ID, id);
  const kl::message row = fetch(request, word, exchange);
  label_ = row.get(kl::SVC_NAME, word) + " (" + std::to_string(id);
  if (row.has(kl::SVC_PID)) pids_.insert(row.get(kl::SVC_PID, 0));
}

bool LinesOfService::has(const kl::message& line) {
  if (!isByLoader(line)) return pids_.contains(line.get(kl::LOG_PROCESS_ID, 0));
  const std::string text = line.get(kl::LOG_TEXT, "");
  if (!text.starts_with(label_)) return false;
  const std::string_view rest = std::string_view(text).substr(label_.size());
  if (const auto pid = pidIn(rest)) pids_.insert(*pid);
  return rest.starts_with(')') || rest.starts_with(',');
}

LogFilter::LogFilter(const LogWords& words, const LogTopics& topics, const Exchange& exchange)
    : since_(words.since) {
  if (!words.grep.empty()) readPattern(words.grep);
  for (const std::string& word : words.topics) topics_.push_back(topics.find(word));
  if (!words.level.empty()) level_ = levelOf(words.level, topics);
  if (!words.service.empty()) service_.emplace(words.service, exchange);
}

void LogFilter::readPattern(const std::string& text) {
  auto pattern = std::make_unique<regex_t>();
  if (const int error = ::regcomp(pattern.get(), text.c_str(), REG_EXTENDED | REG_NOSUB); error != 0) {
    char reason[128];
    (void)::regerror(error, pattern.get(), reason, sizeof reason);
    throw Failure(Status::kUsage, "log: --grep '" + text + "': " + reason);
  }
  pattern_.reset(pattern.release());
  if (std::all_of(text.begin(), text.end(), isPlain)) plain_ = text;
}

// Lines that are not asked for tell the numbers of a service's processes, and a line without a severity is information.
void LogFilter::narrow(kl::message& request) const {
  if (since_) request.insert(kl::LOG_SINCE, *since_);
  if (service_) return;
  if (!topics_.empty()) request.insert(kl::LOG_TOPICS, topics_);
  else if (level_ && *level_ < kl::TOPIC_INFO) request.insert(kl::LOG_TOPICS, upTo(*level_));
  if (!plain_.empty()) request.insert(kl::LOG_CONTAINS, plain_);
}

bool LogFilter::passes(const kl::message& line) {
  if (service_ && !service_->has(line)) return false;
  if (!topics_.empty() && !hasOneOf(line, topics_)) return false;
  if (level_ && severityOf(line.get(kl::LOG_TOPICS, {})) > *level_) return false;
  return !pattern_ || ::regexec(pattern_.get(), line.get(kl::LOG_TEXT, "").c_str(), 0, nullptr, 0) == 0;
}

}  // namespace klctl
