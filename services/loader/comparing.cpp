// The text goes to the loader that runs, which alone knows what it has, and it compares.  So it is also the machine of that
// loader, its users and its folders, on which programs are searched.

#include "comparing.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kl/conventions.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "services/common/descriptor.h"
#include "services/common/local_socket.h"
#include "services/common/text.h"

namespace loader {
namespace {

using Names = std::vector<std::string>;

constexpr int kPatienceTicks = 1000;
constexpr std::size_t kRoomForTheRest = 512;  // of a request: its system fields

int fail(const std::string& sentence, int status = common::kCannotRun) {
  std::fprintf(stderr, "kl-loader: %s\n", common::printable(sentence).c_str());
  return status;
}

// The library would end this process with a line of its own.
bool isLoaderThere() {
  const common::Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return fd.isOpen() && common::connectTo(fd.get(), kl::loaderSocketPath());
}

kl::message ask(const std::string& text) {
  kl::Looper looper(kl::Looper::kAny);
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::RELOAD_CANDIDATE, text);
  return looper.exchangeCmd(request, kl::CMD_RELOAD, kPatienceTicks);
}

// "would restart echo: memory".
void print(const std::string& sentence, const std::string& keys = "") {
  std::printf("%s\n", common::printable(sentence + (keys.empty() ? "" : ": ") + keys).c_str());
}

void printEach(const kl::message& reply, kl::field<Names> services, kl::field<Names> keysOfEach,
               const std::string& before, const std::string& after = "") {
  const Names names = reply.get(services, {});
  Names keys = reply.get(keysOfEach, {});
  keys.resize(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::string sentence = before + names[i];
    sentence += after;
    print(sentence, keys[i]);
  }
}

int printChanges(const kl::message& reply) {
  for (const std::string& name : reply.get(kl::RELOAD_STARTED, {})) print("would add " + name);
  for (const std::string& name : reply.get(kl::RELOAD_ENDED, {})) print("would remove " + name);
  printEach(reply, kl::RELOAD_RESTARTED, kl::RELOAD_RESTARTED_KEYS, "would restart ");
  printEach(reply, kl::RELOAD_ADJUSTED, kl::RELOAD_ADJUSTED_KEYS, "would change ", " without a restart");
  for (const std::string& key : reply.get(kl::RELOAD_LATER, {}))
    print("would change " + key + " when the loader starts again");
  for (const auto& field :
       {kl::RELOAD_STARTED, kl::RELOAD_ENDED, kl::RELOAD_RESTARTED, kl::RELOAD_ADJUSTED, kl::RELOAD_LATER})
    if (reply.has(field)) return kWouldChange;
  return 0;
}

// A mistake is one a line.
int printError(const kl::message& reply, unsigned int code) {
  if (code != kl::ERROR_FAILED) return fail("the loader says: " + kl::getError(reply));
  const std::string text = reply.get(kl::SYS_ERRSTR, "");
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    (void)fail(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return common::kMistake;
}

}  // namespace

common::Choice againstOption(std::string& word) {
  return {"--against",
          "With --check: say what a reload would change at the loader that runs",
          {"running"},
          &word};
}

int compareWithRunning(const common::CommandLine& line) {
  common::Mistakes mistakes;
  const std::string text = line.readFile(mistakes).value_or("");
  if (text.size() > kl::FRAME_MOST_BYTES - kRoomForTheRest)
    return fail(line.file + ": is too long for one message to the loader that runs");
  if (!isLoaderThere())
    return fail("no loader runs at " + kl::loaderSocketPath() + ": " + std::strerror(errno));
  const kl::message reply = ask(text);
  unsigned int code = kl::ERROR_OK;
  return kl::isError(reply, &code) ? printError(reply, code) : printChanges(reply);
}

}  // namespace loader
