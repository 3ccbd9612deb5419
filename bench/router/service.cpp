// A service that decodes what it is asked and answers with as much.  It prints its number when it is
// there.
//
// usage: router_service                          answers requests
//        router_service MEMORY PIPE EXPECTED     counts what arrives, one of many members of a fan-out

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "bench/router/members.h"
#include "bench/router/request.h"
#include "kl/looper.h"

namespace {

class Answering : public kl::Handler {
 public:
  kl::message cmdGet(const kl::message& request) override {
    kl::message reply;
    const bool hasPayload = request.has(bench::kPayload);
    bench::fillRequest(reply, bench::readRequest(request), 0);
    if (hasPayload) reply.insert(bench::kPayload, request.get(bench::kPayload, {}));
    return reply;
  }
};

class Member : public kl::Handler {
 public:
  explicit Member(const bench::Arrivals& arrivals) : arrivals_(arrivals) {}

  void handle(const kl::message& m) override {
    if (bench::readRequest(m) != 0) arrivals_.arrived();
  }

 private:
  bench::Arrivals arrivals_;
};

}  // namespace

int main(int argc, char** argv) {
  kl::Looper loop(kl::Looper::kConnect);
  std::unique_ptr<kl::Handler> handler;
  if (argc == 4) {
    const bench::Arrivals arrivals(std::atoi(argv[1]), std::atoi(argv[2]),
                                   static_cast<unsigned int>(std::atoi(argv[3])));
    handler = std::make_unique<Member>(arrivals);
  } else {
    handler = std::make_unique<Answering>();
  }
  loop.addHandler(0, handler.get());
  std::printf("%u\n", loop.getLoaderValue(1));
  std::fflush(stdout);
  loop.run();
  loop.removeHandler(0);
}
