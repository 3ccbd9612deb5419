// The asking side, on the library: carries out the commands of its standard input.
//
// usage: router_client ALL-ARRIVED SERVICE...    asks the first service, fans out to all of them
//        router_client                           connects and disconnects, again and again

#include <poll.h>

#include <cstdio>
#include <cstdlib>

#include "bench/router/commands.h"
#include "bench/router/request.h"
#include "kl/looper.h"

namespace {

using bench::Answer;
using bench::Command;
using bench::Task;

constexpr unsigned int kHandler = 7;
constexpr int kFiveSeconds = 500;
constexpr int kNoLimit = -1;
constexpr kl::field<unsigned int> kSerial{0x08000007};

class Asker : public kl::Handler {
 public:
  Asker(int allArrived, std::vector<unsigned int> services)
      : allArrived_(allArrived), services_(std::move(services)) {}

  void onCommand(int fd, unsigned int /*events*/) {
    if (!bench::readWhole(fd, command_)) std::exit(0);  // whoever gave the commands is gone
    answer_ = {};
    watch_ = {};
    switch (command_.task) {
      case Task::kRoundTrip: return roundTrips(kNoLimit);
      case Task::kRoundTripWithTimeout: return roundTrips(kFiveSeconds);
      case Task::kOutstanding: return openWindow();
      case Task::kFanOut: return fanOuts(pathToEach());
      case Task::kFanOutToAll: return fanOuts({kl::PATH_ALL, 0});
      case Task::kConnect: std::exit(2);
    }
  }

  void onReply(const kl::message& reply, const kl::message& /*data*/) {
    if (kl::isError(reply)) fail(reply);
    bench::readRequest(reply);
    ++answered_;
    if (asked_ < command_.times) return post();
    if (answered_ == command_.times) finish();
  }

  void handle(const kl::message& m) override {
    if (kl::isReply(m)) Handler::handle(m);  // one's own copy of what went to everybody ends here
  }

 private:
  [[noreturn]] void fail(const kl::message& reply) {
    std::fprintf(stderr, "router_client: error %u\n", reply.get(kl::SYS_ERRNO, 0));
    std::exit(1);
  }

  void finish() {
    answer_.nanoseconds = watch_.nanoseconds();
    bench::writeWhole(STDOUT_FILENO, answer_);
  }

  kl::message request() {
    kl::message m;
    m.insert(kl::SYS_TO, {services_.front(), 0});
    bench::fillRequest(m, asked_++, command_.payloadBytes);
    return m;
  }

  void roundTrips(int timeout) {
    asked_ = 0;
    while (asked_ < command_.times) {
      kl::message m = request();
      const kl::message reply = exchangeCmd(m, kl::CMD_GET, timeout);
      if (kl::isError(reply)) fail(reply);
      bench::readRequest(reply);
      if (asked_ == command_.times) noteSizes(m, reply);
    }
    finish();
  }

  void noteSizes(const kl::message& m, const kl::message& reply) {
    std::vector<unsigned char> bytes;
    m.flatten(bytes);
    answer_.requestBytes = static_cast<unsigned int>(bytes.size()) + 4;
    reply.flatten(bytes);
    answer_.replyBytes = static_cast<unsigned int>(bytes.size()) + 4;
  }

  void openWindow() {
    asked_ = answered_ = 0;
    while (asked_ < command_.window) post();
  }

  void post() {
    kl::message m = request();
    m.insert(kl::SYS_CMD, kl::CMD_GET);
    postMessage(m, this, kl::bind<Asker, &Asker::onReply>(), kl::message(), kFiveSeconds);
  }

  std::vector<unsigned int> pathToEach() const {
    std::vector<unsigned int> path{kl::PATH_MULTI};
    for (const unsigned int service : services_) path.insert(path.end(), {2, service, 0});
    return path;
  }

  void fanOuts(const std::vector<unsigned int>& path) {
    for (unsigned int i = 0; i < command_.times; ++i) {
      kl::message m;
      m.insert(kl::SYS_TO, path);
      m.insert(kl::SYS_TYPE, kl::TYPE_REQUEST);
      m.insert(kSerial, i);  // a notification is no request: nobody answers it
      bench::fillRequest(m, i, command_.payloadBytes);
      sendCmd(m, kl::CMD_NOTIFY);
      kl::getLooper()->flushMessages();  // what follows waits for it
      char last = 0;
      if (::read(allArrived_, &last, 1) != 1) std::exit(1);
      if (i > 0) continue;
      m.insert(kl::SYS_TO, {0});  // as it arrives
      noteSizes(m, kl::message());
    }
    finish();
  }

  int allArrived_;
  std::vector<unsigned int> services_;
  Command command_{};
  Answer answer_{};
  bench::Stopwatch watch_;
  unsigned int asked_ = 0;
  unsigned int answered_ = 0;
};

void connectAgainAndAgain() {
  for (Command command{}; bench::readWhole(STDIN_FILENO, command);) {
    const bench::Stopwatch watch;
    for (unsigned int i = 0; i < command.times; ++i) kl::Looper loop(kl::Looper::kConnect);
    bench::writeWhole(STDOUT_FILENO, Answer{watch.nanoseconds(), 0, 0});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    connectAgainAndAgain();
    return 0;
  }
  std::vector<unsigned int> services;
  for (int i = 2; i < argc; ++i) services.push_back(static_cast<unsigned int>(std::atoi(argv[i])));
  kl::Looper loop(kl::Looper::kConnect);
  Asker asker(std::atoi(argv[1]), services);
  loop.addHandler(kHandler, &asker);
  loop.addSocket(STDIN_FILENO, &asker, kl::bind<Asker, &Asker::onCommand>(), POLLIN);
  loop.run();
  loop.removeHandler(kHandler);
}
