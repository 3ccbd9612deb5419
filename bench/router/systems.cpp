#include "bench/router/systems.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace bench {
namespace {

constexpr char kLoaderSocket[] = "/ram/kelosock";
constexpr char kGreeterSocket[] = "/ram/greeter";

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "router_bench: %s\n", what);
  std::exit(1);
}

sockaddr_un addressOf(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  return address;
}

bool canConnect(const char* path) {
  const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

Child startLoader() {
  ::unlink(kLoaderSocket);
  Child loader("kl-loader", {});
  for (unsigned int tries = 0; !canConnect(kLoaderSocket); ++tries) {
    if (tries == 5'000) die("the loader's socket does not appear");
    ::usleep(1'000);
  }
  return loader;
}

Child startIdle(unsigned int count) {
  Child idle("router_idle", {std::to_string(count)});
  if (idle.readLine().empty()) die("the idle services do not all register");
  return idle;
}

class Product : public System {
 public:
  Product(unsigned int members, unsigned int idle) : meeting_(members), loader_(startLoader()) {
    if (idle > 0) idle_ = startIdle(idle);
    for (unsigned int i = 0; i < members; ++i)
      services_.emplace_back("router_service", meeting_.memberArguments(), meeting_.memberDescriptors());
    if (members == 0) services_.emplace_back("router_service", std::vector<std::string>());
    std::vector<std::string> arguments{std::to_string(meeting_.allArrived.first.get())};
    for (const Child& service : services_) {
      arguments.push_back(service.readLine());
      if (arguments.back().empty()) die("a service did not register");
    }
    client_ = Child("router_client", arguments, {meeting_.allArrived.first.get()});
  }
  ~Product() override { client_ = Child(); }

  pid_t idleProcess() const override { return services_.front().pid(); }
  pid_t middle() const override { return loader_.pid(); }

 private:
  Meeting meeting_;
  Child loader_;
  Child idle_;
  std::vector<Child> services_;
};

class Relay : public System {
 public:
  Relay(unsigned int members, FrameSizes sizes) : meeting_(members) {
    const std::string request = std::to_string(sizes.request);
    const std::string reply = std::to_string(sizes.reply);
    Pair toClient = makeSocketPair();
    std::vector<std::string> arguments{"relay", request, reply, std::to_string(toClient.first.get())};
    std::vector<int> inherited{toClient.first.get()};
    std::vector<Descriptor> kept;
    for (unsigned int i = 0; i < std::max(members, 1U); ++i) {
      Pair toPeer = makeSocketPair();
      startPeer(std::to_string(toPeer.second.get()), toPeer.second.get(), request, reply);
      arguments.push_back(std::to_string(toPeer.first.get()));
      inherited.push_back(toPeer.first.get());
      kept.push_back(std::move(toPeer.first));
    }
    relay_ = Child("raw_peers", arguments, inherited);
    const int allArrived = meeting_.allArrived.first.get();
    client_ =
        Child("raw_peers",
              {"client", std::to_string(toClient.second.get()), std::to_string(allArrived), request, reply},
              {toClient.second.get(), allArrived});
  }

  pid_t idleProcess() const override { return peers_.front().pid(); }
  pid_t middle() const override { return relay_.pid(); }

 private:
  void startPeer(const std::string& connection, int fd, const std::string& request,
                 const std::string& reply) {
    if (meeting_.members == 0) {
      peers_.emplace_back("raw_peers", std::vector<std::string>{"echo", connection, request, reply},
                          std::vector<int>{fd});
      return;
    }
    std::vector<std::string> arguments{"member", connection, request};
    for (const std::string& argument : meeting_.memberArguments()) arguments.push_back(argument);
    std::vector<int> inherited = meeting_.memberDescriptors();
    inherited.push_back(fd);
    peers_.emplace_back("raw_peers", arguments, inherited);
  }

  Meeting meeting_;
  std::vector<Child> peers_;
  Child relay_;
};

class ProductToConnectTo : public System {
 public:
  ProductToConnectTo() : loader_(startLoader()) { client_ = Child("router_client", {}); }
  pid_t idleProcess() const override { return client_.pid(); }
  pid_t middle() const override { return loader_.pid(); }

 private:
  Child loader_;
};

class Greeter : public System {
 public:
  Greeter() : listening_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    ::unlink(kGreeterSocket);
    const sockaddr_un address = addressOf(kGreeterSocket);
    if (::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listening_.get(), 128) != 0)
      die("no socket to greet on");
    greeter_ = Child("raw_peers", {"greeter", std::to_string(listening_.get())}, {listening_.get()});
    client_ = Child("raw_peers", {"connect", kGreeterSocket});
  }
  pid_t idleProcess() const override { return greeter_.pid(); }
  pid_t middle() const override { return greeter_.pid(); }

 private:
  Descriptor listening_;
  Child greeter_;
};

}  // namespace

Answer System::run(const Command& command) const {
  writeWhole(client_.in(), command);
  Answer answer{};
  if (!readWhole(client_.out(), answer)) die("the client ended");
  return answer;
}

Meeting::Meeting(unsigned int count)
    : members(count), memory(::memfd_create("arrivals", MFD_CLOEXEC)), allArrived(makePipe()) {
  if (::ftruncate(memory.get(), 4096) != 0) die("no shared memory");
}

std::vector<std::string> Meeting::memberArguments() const {
  return {std::to_string(memory.get()), std::to_string(allArrived.second.get()), std::to_string(members)};
}

std::unique_ptr<System> startProduct(unsigned int members, unsigned int idle) {
  return std::make_unique<Product>(members, idle);
}
std::unique_ptr<System> startRelay(unsigned int members, FrameSizes sizes) {
  return std::make_unique<Relay>(members, sizes);
}
std::unique_ptr<System> startProductToConnectTo() { return std::make_unique<ProductToConnectTo>(); }
std::unique_ptr<System> startGreeter() { return std::make_unique<Greeter>(); }

}  // namespace bench
