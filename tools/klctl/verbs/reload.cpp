// The loader says what becomes of each service whose part of the configuration has changed, and of how many nothing
// does.  With a mistake in its file it says where, and nothing has changed.

#include "verbs/reload.h"

#include <algorithm>
#include <sstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "output/show.h"
#include "services/common/text.h"
#include "values/failure.h"
#include "verbs/request.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

constexpr char kTheLoader[] = "loader";

using Names = std::vector<std::string>;

struct Group {
  kl::field<Names> field;
  char sign;
  const char* word;
  const kl::field<Names>* keys = nullptr;
};

constexpr Group kGroups[] = {
    {kl::RELOAD_STARTED, '+', "started"},
    {kl::RELOAD_ENDED, '-', "ended"},
    {kl::RELOAD_RESTARTED, '~', "restarted", &kl::RELOAD_RESTARTED_KEYS},
    {kl::RELOAD_ADJUSTED, '~', "changed without a restart", &kl::RELOAD_ADJUSTED_KEYS}};

std::size_t widthOf(const kl::message& reply) {
  std::size_t width = 0;
  for (const Group& group : kGroups)
    for (const std::string& name : reply.get(group.field, {}))
      width = std::max(width, common::printable(name).size());
  return width;
}

// The keys of the service that changed; an older loader names none.
std::string keysText(const kl::message& reply, const Group& group, std::size_t index) {
  const Names keys = group.keys != nullptr ? reply.get(*group.keys, {}) : Names();
  return index < keys.size() && !keys[index].empty() ? ": " + common::printable(keys[index]) : "";
}

std::string changesText(const kl::message& reply) {
  const std::size_t width = widthOf(reply);
  std::ostringstream text;
  for (const Group& group : kGroups) {
    const Names names = reply.get(group.field, {});
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::string shown = common::printable(names[i]);
      text << group.sign << ' ' << shown << std::string(width - shown.size() + 2, ' ') << group.word
           << keysText(reply, group, i) << '\n';
    }
  }
  const unsigned int unchanged = reply.get(kl::RELOAD_UNCHANGED, 0);
  text << "  " << unchanged << (unchanged == 1 ? " service" : " services") << " unchanged\n";
  for (const std::string& key : reply.get(kl::RELOAD_LATER, {}))
    text << common::printable(key) << " changes when the loader starts again\n";
  return text.str();
}

// The mistakes are one a line.
void remarkMistakes(const kl::message& reply, const Channels& channels) {
  std::istringstream lines(reply.get(kl::SYS_ERRSTR, ""));
  for (std::string mistake; std::getline(lines, mistake);) channels.remark(mistake);
}

[[noreturn]] void fail(const kl::message& reply, unsigned int code, const Channels& channels) {
  if (code != kl::ERROR_FAILED)
    throw Failure(Status::kRefused, errorSentence(kTheLoader, reply, kTheLoader, kl::CMD_RELOAD));
  remarkMistakes(reply, channels);
  throw Failure(Status::kRefused, "the configuration stays as it is");
}

}  // namespace

void reloadConfiguration(const CommandLine& line, const Channels& channels) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_RELOAD);
  const kl::message reply = channels.exchange(request);
  unsigned int code = kl::ERROR_OK;
  if (kl::isError(reply, &code)) fail(reply, code, channels);
  if (line.dump) channels.print(dumpText(reply));
  else if (line.json) channels.print(replyText(line, reply, namesFor(kTheLoader, line.fields)));
  else channels.print(changesText(reply));
}

}  // namespace klctl
