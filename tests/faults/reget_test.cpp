// The re-fetch while the system refuses: the walk gives the whole table in its order, or the process ends.

#include <gtest/gtest.h>

#include <vector>

#include "kl/reget.h"
#include "tests/faults/process.h"

namespace kl {
namespace {

using test::exposed;
using test::FaultRun;
using test::Process;

using IdsInOrder = std::vector<unsigned int>;

const IdsInOrder kWholeTable = {1, 2, 3, 4, 5, 6};
constexpr field<std::vector<unsigned char>> kBlob{0x30000001};

// So large that a chunk takes several reads.
message object(unsigned int id) {
  message m;
  m.insert(STD_ID, id);
  m.insert(kBlob, std::vector<unsigned char>(id * 1500, static_cast<unsigned char>(id)));
  return m;
}

bool isWhole(const message& m) { return m.get(kBlob, {}) == object(m.get(STD_ID, 0)).get(kBlob, {}); }

// The answers to a walk's requests, which have the numbers 0, 1 and 2.
message chunk(unsigned int request, const IdsInOrder& to) {
  message m;
  std::vector<message::flat_message> objects;
  for (const unsigned int id : {2 * request + 1, 2 * request + 2}) object(id).flatten(objects.emplace_back());
  m.insert(STD_OBJS, objects);
  if (request < 2) m.insert(STD_GETALLID, 2 * request + 3);
  m.insert(SYS_TO, to);
  m.insert(SYS_FROM, {32});
  setType(m, TYPE_REPLY);
  setRequestID(m, request);
  return m;
}

void sendTable(Process& process, const IdsInOrder& to) {
  for (unsigned int request = 0; request < 3; ++request) process.loader.send(chunk(request, to));
}

void expectRequests(Process& process) {
  for (unsigned int request = 0; request < 3; ++request) {
    message m = process.loader.receive();
    if (m.has(SYS_CTRL)) m = process.loader.receive();  // that the loop begins
    EXPECT_EQ(m.get(SYS_CMD, 0), CMD_GETALL);
    EXPECT_EQ(m.get(STD_GETALLID, 1), 2 * request + 1);
  }
}

message request() {
  message m;
  m.insert(SYS_TO, {32});
  m.insert(SYS_CMD, CMD_GETALL);
  return m;
}

void expectSilenceOrFatal(const FaultRun& run) {
  test::expectWholeOrFatal(run);
  EXPECT_EQ(run.child.out, "");
}

TEST(RegetFaults, AWalkThatWaitsGivesTheWholeTableOrTheProcessEnds) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        sendTable(process, {});
        FullReget reget;
        reget.setBase(request());
        IdsInOrder ids;
        exposed([&] {
          while (!reget.isEmpty()) {
            const message m = reget.pop();
            EXPECT_TRUE(isWhole(m));
            ids.push_back(m.get(STD_ID, 0));
          }
        });
        EXPECT_EQ(ids, kWholeTable);
        expectRequests(process);
      },
      expectSilenceOrFatal);
  EXPECT_GE(tried, 30U);
}

TEST(RegetFaults, AWalkWhoseServiceDoesNotAnswerEndsAtItsTimeoutWithOneLine) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        FullReget reget;
        reget.setBase(request());
        reget.setTimeout(2);
        bool isEmpty = false;
        exposed([&] { isEmpty = reget.isEmpty(); });
        EXPECT_TRUE(isEmpty);
      },
      [](const FaultRun& run) {
        test::expectWholeOrFatal(run);
        EXPECT_EQ(run.child.out, run.child.exitStatus == 0
                                     ? "FULLREGET: " + getError(errorMsg(ERROR_TIMEOUT, "")) + "\n"
                                     : "");
      });
  EXPECT_GE(tried, 10U);
}

// Walks beside the loop, which ends with the walk.
struct Walk {
  void onObject(const message& m) {
    EXPECT_TRUE(isWhole(m));
    ids.push_back(m.get(STD_ID, 0));
  }
  void onDone(const message& reply) {
    EXPECT_FALSE(isError(reply));
    ++ends;
    getLooper()->shutdown();
  }

  AsyncReget reget;
  IdsInOrder ids;
  unsigned int ends = 0;
};

TEST(RegetFaults, AWalkBesideTheLoopGivesTheWholeTableOrTheProcessEnds) {
  const unsigned int tried = test::forEachFault(
      test::faultsWithout({"fcntl"}),
      [] {
        Process process;
        Walk walk;
        exposed([&] {
          walk.reget.start(request(), &walk, bind<Walk, &Walk::onObject>(), bind<Walk, &Walk::onDone>());
          test::spared([&] { sendTable(process, {}); });
          process.looper->run();
        });
        EXPECT_EQ(walk.ids, kWholeTable);
        EXPECT_EQ(walk.ends, 1U);
        EXPECT_FALSE(walk.reget.isRunning());
        expectRequests(process);
      },
      expectSilenceOrFatal);
  EXPECT_GE(tried, 30U);
}

}  // namespace
}  // namespace kl
