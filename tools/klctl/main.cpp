// klctl: sends requests to the services of this machine from the command line.  One verb is performed with channels to
// the services and to the user; every failure ends here, as one line and an exit status.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <iostream>
#include <optional>

#include "ask/session.h"
#include "ask/walk.h"
#include "services/common/descriptor.h"
#include "services/common/text.h"
#include "values/failure.h"
#include "verbs/verb.h"

namespace klctl {
namespace {

void writeResults(const std::string& text) {
  std::cout << text << std::flush;
  if (!std::cout)
    throw Failure(Status::kRefused, std::string("cannot write the results: ") + std::strerror(errno));
}

// A sentence may quote a service or a file.
void remark(const std::string& sentence) { std::cerr << "klctl: " + common::printable(sentence) + "\n"; }

void perform(const CommandLine& line) {
  std::optional<Session> session;
  const auto connected = [&]() -> Session& { return session ? *session : session.emplace(line.timeout); };
  const auto disconnect = [&] { session.reset(); };
  const Channels channels{
      .exchange = [&](const kl::message& request) { return connected().exchange(request); },
      .send = [&](const kl::message& m) { connected().send(m); },
      .walk =
          [&](const kl::message& request, const std::string& path) {
            disconnect();
            return walk(request, path, line.timeout);
          },
      .disconnect = disconnect,
      .print = writeResults,
      .remark = remark,
      .isTerminal = ::isatty(STDOUT_FILENO) == 1,
  };
  performerOf(line.verb)(line, channels);
}

Status runProgram(int argc, const char* const* argv) {
  try {
    const auto words = parseCommandLine(argc, argv);
    const auto* line = std::get_if<CommandLine>(&words);
    if (line == nullptr) writeResults(std::get<std::string>(words));
    else perform(*line);
    return Status::kDone;
  } catch (const Failure& failure) {
    remark(failure.what());
    return failure.status();
  }
}

}  // namespace
}  // namespace klctl

int main(int argc, char** argv) {
  common::occupyDescriptors(STDERR_FILENO, O_RDONLY | O_CLOEXEC);  // writing results to a closed one fails
  (void)std::setlocale(LC_ALL, "");
  return static_cast<int>(klctl::runProgram(argc, argv));
}
