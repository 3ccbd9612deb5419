// klctl: sends requests to the services of this machine from the command line.  One verb is performed with channels to
// the services and to the user; every failure ends here, as one line and an exit status.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>

#include "ask/session.h"
#include "ask/walk.h"
#include "values/failure.h"
#include "verbs/verb.h"

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

// A sentence may quote what a service said; a terminal must not obey it.
std::string printable(const std::string& sentence) {
  std::string text;
  char code[8];
  for (const char c : sentence) {
    const auto byte = static_cast<unsigned char>(c);
    (void)std::snprintf(code, sizeof code, "\\x%02x", byte);
    text += byte < 0x20 || byte == 0x7f ? code : std::string(1, c);
  }
  return text;
}

void writeResults(const std::string& text) {
  std::cout << text << std::flush;
  if (!std::cout)
    throw Failure(Status::kRefused, std::string("cannot write the results: ") + std::strerror(errno));
}

void say(const std::string& sentence) { std::cerr << "klctl: " + printable(sentence) + "\n"; }

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
      .remark = say,
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
    say(failure.what());
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
