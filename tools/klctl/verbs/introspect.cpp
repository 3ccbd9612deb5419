// A process is believed what it calls things.  The installed description alone says what is secret, and which rights
// commands need.

#include "verbs/introspect.h"

#include <optional>

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/description.h"
#include "output/show.h"
#include "services/describe/check.h"
#include "services/describe/json.h"
#include "services/describe/reader.h"
#include "services/describe/told.h"
#include "values/failure.h"
#include "verbs/help.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

using describe::Description;

constexpr std::size_t kMostRemarks = 20;

// The process's answer: a text, or why there is none.
struct Answer {
  std::string text;
  std::string fault;
};

Answer ask(const std::string& service, const Exchange& exchange) {
  try {
    kl::message request;
    request.insert(kl::SYS_TO, {resolveId(service, exchange), kl::HANDLER_DESCRIPTION});
    request.insert(kl::SYS_CMD, kl::CMD_GET);
    const kl::message reply = exchange(request);
    if (kl::isError(reply)) return {"", service + " does not describe itself: " + kl::getError(reply)};
    return {reply.get(kl::STD_DESCR, ""), ""};
  } catch (const Failure& failure) {
    return {"", failure.what()};
  }
}

std::optional<Description> read(Answer& answer, const std::string& service) {
  if (!answer.fault.empty()) return {};
  common::Mistakes mistakes;
  auto description = describe::read(answer.text, service, describe::OtherKeys::kIgnored, mistakes);
  if (answer.text.size() > kl::kMostDescriptionBytes)
    answer.fault = "what " + service + " says of itself is too long";
  else if (!mistakes.empty())
    answer.fault = "what " + service + " says of itself is no description: " + mistakes.front().describe();
  return answer.fault.empty() ? std::optional(std::move(description)) : std::nullopt;
}

void remarkDifferences(const Channels& channels, const std::string& service, const Description& installed,
                       const Description& told) {
  const std::vector<std::string> differences = describe::differencesOf(installed, told);
  for (std::size_t i = 0; i < differences.size() && i < kMostRemarks; ++i)
    channels.remark(service + ": " + differences[i]);
  if (differences.size() > kMostRemarks)
    channels.remark(service + ": and " + std::to_string(differences.size() - kMostRemarks) +
                    " more differences");
}

// The installed one with the names of the process.
Description shown(const CommandLine& line, const Channels& channels, const std::string& name) {
  const std::string& service = line.path.service;
  const std::optional<Description> installed = dictionaryFor(line, name).description;
  Answer answer = ask(service, channels.exchange);
  const std::optional<Description> told = read(answer, service);
  if (!told && !installed)
    throw Failure(Status::kRefused, answer.fault + "; and no description of it is installed");
  if (!told) {
    channels.remark(answer.fault + "; this is the installed description");
    return *installed;
  }
  Description nothing;
  nothing.name = describe::isName(told->name) ? told->name : service;
  if (installed) remarkDifferences(channels, service, *installed, *told);
  else channels.remark("no description of " + service + " is installed; this is what the process says");
  return describe::completed(installed.value_or(nothing), *told);
}

}  // namespace

void introspectService(const CommandLine& line, const Channels& channels) {
  const std::string name = resolveName(line.path.service, channels.exchange);
  const Description description = shown(line, channels, name);
  channels.print(line.json ? jsonText(Json::parse(describe::jsonOf(description)))
                           : helpText(description, line.path.service, ""));
}

}  // namespace klctl
