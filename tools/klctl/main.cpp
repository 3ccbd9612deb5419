// klctl: asks and tells the services of this machine from the command line.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <iostream>
#include <optional>

#include "command_line.h"
#include "commands.h"
#include "failure.h"
#include "session.h"

namespace klctl {
namespace {

// A socket must not land on a standard descriptor that the caller closed.
void occupyStandardDescriptors() {
  while (true) {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);  // writing results to it fails, as it should
    if (fd > STDERR_FILENO) ::close(fd);
    if (fd < 0 || fd > STDERR_FILENO) return;
  }
}

void writeResults(const std::string& text) {
  std::cout << text << std::flush;
  if (!std::cout)
    throw Failure(Status::kRefused, std::string("cannot write the results: ") + std::strerror(errno));
}

// What could be read is printed, whatever stands behind it.
void dump(const CommandLine& line) {
  const Dumped dumped = dumpFile(line);
  writeResults(dumped.text);
  if (!dumped.fault.empty()) throw Failure(Status::kRefused, dumped.fault);
}

// Connects when something is first asked, so that mistakes in the words are told without a loader.
void carryOut(const CommandLine& line) {
  std::optional<Session> session;
  const auto connected = [&]() -> Session& { return session ? *session : session.emplace(line.timeout); };
  writeResults(run(
      line, [&](const kl::message& request) { return connected().exchange(request); },
      [&](const kl::message& m) { connected().send(m); }));
}

Status runProgram(int argc, const char* const* argv) {
  try {
    const auto words = parseCommandLine(argc, argv);
    const auto* line = std::get_if<CommandLine>(&words);
    if (line == nullptr) writeResults(std::get<std::string>(words));
    else if (line->verb == Verb::kDump) dump(*line);
    else carryOut(*line);
    return Status::kDone;
  } catch (const Failure& failure) {
    std::cerr << "klctl: " << failure.what() << "\n";
    return failure.status();
  }
}

}  // namespace
}  // namespace klctl

int main(int argc, char** argv) {
  klctl::occupyStandardDescriptors();
  (void)std::setlocale(LC_ALL, "");
  return static_cast<int>(klctl::runProgram(argc, argv));
}
