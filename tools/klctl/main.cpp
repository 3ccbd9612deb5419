// klctl: asks and tells the services of this machine from the command line.

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
#include "verbs/command_line.h"
#include "verbs/commands.h"
#include "verbs/log_follow.h"
#include "verbs/store.h"
#include "verbs/watch.h"

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

// What could be read is printed, whatever stands behind it.
void print(const Dumped& dumped) {
  writeResults(dumped.text);
  if (!dumped.fault.empty()) throw Failure(Status::kRefused, dumped.fault);
}

void say(const std::string& sentence) { std::cerr << "klctl: " + printable(sentence) + "\n"; }

void printBoth(const std::string& results, const std::string& remark) {
  if (!results.empty()) writeResults(results);
  if (!remark.empty()) say(remark);
}

void printWatched(const WatchReport::Text& text) { printBoth(text.results, text.remark); }

// Connects when something is first asked, so that mistakes in the words are told without a loader.  What reads a
// table connects anew.
void carryOut(const CommandLine& line) {
  std::optional<Session> session;
  const auto connected = [&]() -> Session& { return session ? *session : session.emplace(line.timeout); };
  const Exchange exchange = [&](const kl::message& request) { return connected().exchange(request); };
  const Send send = [&](const kl::message& m) { connected().send(m); };
  const Walk walkAlone = [&](const kl::message& request, const std::string& path) {
    session.reset();
    return walk(request, path, line.timeout);
  };
  if (line.verb == Verb::kLog && line.log.follows) {
    const LogTopics topics(exchange);
    session.reset();
    return followLog(line, topics, printBoth);
  }
  if (line.verb != Verb::kWatch) return writeResults(run(line, exchange, send, walkAlone));
  const Subject subject = subjectOf(line, exchange);
  session.reset();
  watch(line, subject, printWatched);
}

Status runProgram(int argc, const char* const* argv) {
  try {
    const auto words = parseCommandLine(argc, argv);
    const auto* line = std::get_if<CommandLine>(&words);
    if (line == nullptr) writeResults(std::get<std::string>(words));
    else if (line->verb == Verb::kDump) print(dumpFile(*line));
    else if (isStore(line->verb)) print(runStore(*line));
    else carryOut(*line);
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
