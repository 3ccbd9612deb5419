// kl-test-service BEHAVIOUR [ARGUMENT]: a service for the loader to start.  It speaks on descriptor 3 without the
// library's loop, so that it can also do what no proper service does.
//
//     serve           registers, answers every request with what it got, ends with the status that CMD_SHUTDOWN
//                     carries in u32 0x08000001
//     late MS         waits so long, then serves
//     crash           registers and ends with status 3
//     hide            never registers and never ends
//     stubborn        serves, and ignores SIGTERM
//     hangup          registers, closes its connection and never ends
//     environment     serves; its replies carry its working directory and $KL_TEST
//     fault           serves; CMD_START is a segment fault, CMD_RESET an abort, CMD_CANCEL overflows the stack
//     hang [ID]       serves; CMD_START never comes back, CMD_RESET waits for the answer of service ID to CMD_START
//     circle ID       serves; CMD_RESET waits for the answer of service ID to CMD_RESET
//     chatter TEXT    writes TEXT as a line to its output and to its errors, then serves
//     flood BYTES     writes so many bytes to its errors, in lines of 50, then serves
//     junk            writes to its errors what is no text, a line of 3,000 and an unfinished one, and ends with status 0
//     outside ID      connects to the socket, registers there under its id, and serves
//     impostor ID     asks for another id than its own, then waits

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "kl/backtrace.h"
#include "kl/conventions.h"
#include "kl/runner.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using kl::test::RawPeer;

using Ids = std::vector<unsigned int>;

constexpr int kForever = INT_MAX;

void addSurroundings(kl::message& m) {
  char folder[PATH_MAX] = "";
  const char* word = std::getenv("KL_TEST");
  m.insert_string(0x20000001, ::getcwd(folder, sizeof folder) != nullptr ? folder : "");
  m.insert_string(0x20000002, word != nullptr ? word : "");
}

[[gnu::noinline]] void touch(const volatile int* place) { (void)*place; }

// Calls itself until no stack is left.
[[gnu::noinline]] int dig(int depth) {
  volatile char room[4096] = {};
  room[0] = static_cast<char>(depth);
  return depth == INT_MAX ? 0 : dig(depth + 1) + room[0];
}

[[gnu::noinline]] void fail(const kl::message& asked, unsigned int command) {
  const kl::MessageBacktraceInfo inHand("fail", asked);
  if (command == kl::CMD_START) touch(nullptr);
  if (command == kl::CMD_RESET) std::abort();
  if (command == kl::CMD_CANCEL) std::exit(dig(0));
}

// It waits as a service does that asks from a handler: it reads, but answers nobody.
void waitFor(RawPeer& loader, unsigned int other, unsigned int command) {
  if (!loader.send(kl::test::request({other}, command, 1, {7}))) return;
  while (const auto m = loader.receive(kForever))
    if (kl::isReply(*m) && m->get(kl::SYS_FROM, {}) != Ids{kl::SERVICE_LOADER}) return;
}

void hang(RawPeer& loader, unsigned int command, unsigned int other) {
  if (command == kl::CMD_START)
    for (volatile unsigned int turns = 0;;) turns = turns + 1;
  if (command == kl::CMD_RESET) waitFor(loader, other, kl::CMD_START);
}

int serve(RawPeer& loader, const std::string& behaviour, const std::string& argument) {
  kl::message running;
  running.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  running.insert(kl::SYS_CTRL, kl::CTRL_RUNNING);
  (void)loader.send(running);
  const auto other = static_cast<unsigned int>(std::atoi(argument.c_str()));
  while (const auto asked = loader.receive(kForever)) {
    const unsigned int command = asked->get(kl::SYS_CMD, kl::CMD_NOOP);
    if (command == kl::CMD_SHUTDOWN) return static_cast<int>(asked->get_u32(0x08000001, 0));
    if (behaviour == "fault") fail(*asked, command);
    if (behaviour == "hang") hang(loader, command, other);
    if (behaviour == "circle" && command == kl::CMD_RESET) waitFor(loader, other, command);
    if (kl::isReply(*asked) || !kl::getRequestID(*asked) || command == kl::CMD_POLL)
      continue;  // POLL is never answered
    kl::message answer = kl::test::replyTo(*asked);
    answer.insert(kl::STD_OBJS, {[&] {
                    kl::message::flat_message copy;
                    asked->flatten(copy);
                    return copy;
                  }()});
    if (behaviour == "environment") addSurroundings(answer);
    if (loader.ready().has(kl::READY_CONFIGURATION))
      answer.insert(kl::READY_CONFIGURATION, loader.ready().get(kl::READY_CONFIGURATION, {}));
    (void)loader.send(answer);
  }
  return 1;
}

void writeErrors(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t count = ::write(STDERR_FILENO, text.data() + at, text.size() - at);
    if (count < 0) ::_exit(4);
    at += static_cast<std::size_t>(count);
  }
}

void flood(std::size_t bytes) {
  const std::string line = std::string(49, 'f') + "\n";
  std::string block;
  while (block.size() < 50'000) block += line;
  for (std::size_t written = 0; written < bytes; written += block.size()) writeErrors(block);
}

void writeJunk() { writeErrors(std::string("\xff\x1b[2J\0\n", 7) + std::string(3000, 'l') + "\nunfinished"); }

[[noreturn]] void waitForEver() {
  while (true) ::pause();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string behaviour = argc > 1 ? argv[1] : "serve";
  const std::string argument = argc > 2 ? argv[2] : "";
  RawPeer loader(3);
  const kl::Runner reporter;  // writes the report of a crash
  if (behaviour == "hide") waitForEver();
  if (behaviour == "chatter") {
    (void)!::write(STDOUT_FILENO, (argument + "\n").data(), argument.size() + 1);
    (void)!::write(STDERR_FILENO, (argument + "\n").data(), argument.size() + 1);
  }
  if (behaviour == "flood") flood(std::stoul(argument));
  if (behaviour == "junk") writeJunk();
  if (behaviour == "stubborn") (void)::signal(SIGTERM, SIG_IGN);
  if (behaviour == "late") ::usleep(static_cast<useconds_t>(std::atoi(argument.c_str())) * 1000);
  if (behaviour == "outside" && !loader.connect()) return 1;
  const bool asksForId = behaviour == "impostor" || behaviour == "outside";
  const unsigned int id = asksForId ? static_cast<unsigned int>(std::atoi(argument.c_str())) : 0;
  if (loader.registerAs(id) == 0) waitForEver();
  if (behaviour == "crash") return 3;
  if (behaviour == "junk") return 0;
  if (behaviour == "hangup") {
    loader.close();
    waitForEver();
  }
  return serve(loader, behaviour, argument);
}
