#pragma once
// systems.h: the two systems that are compared, each with its client: a loader with services on the
// library, and a relay with peers on bare sockets.

#include <memory>
#include <string>
#include <vector>

#include "bench/router/child.h"
#include "bench/router/commands.h"

namespace bench {

class System {
 public:
  virtual ~System() = default;
  // Has the client carry out the command, and waits until it has.
  Answer run(const Command& command) const;
  // A process of it that answers requests and has nothing to do now.
  virtual pid_t idleProcess() const = 0;
  // The process that frames pass through.
  virtual pid_t middle() const = 0;

 protected:
  Child client_;
};

// The things that a fan-out's members share with its sender; see members.h.
struct Meeting {
  explicit Meeting(unsigned int members);
  std::vector<std::string> memberArguments() const;
  std::vector<int> memberDescriptors() const { return {memory.get(), allArrived.second.get()}; }

  unsigned int members;
  Descriptor memory;
  Pair allArrived;
};

// The sizes of the frames that the relay moves.
struct FrameSizes {
  unsigned int request, reply;
};

// Without members: one service that answers.  So many others, `idle`, are connected beside them and say nothing.
std::unique_ptr<System> startProduct(unsigned int members, unsigned int idle = 0);
std::unique_ptr<System> startRelay(unsigned int members, FrameSizes sizes);

// For Task::kConnect.
std::unique_ptr<System> startProductToConnectTo();
std::unique_ptr<System> startGreeter();

}  // namespace bench
