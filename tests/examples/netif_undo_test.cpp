// A description is undone by the undo service itself.

#include <gtest/gtest.h>

#include "tests/examples/netif_service.h"

namespace {

class NetifAndUndo : public NetifService {
 protected:
  NetifAndUndo()
      : NetifService("\"" KL_BIN_DIR "/netif\"", 0,
                     "[[service]]\nname = \"undo\"\nid = 17\ncommand = [\"" KL_BIN_DIR "/kl-undo\"]\n") {}

  // The newest record comes first.
  kl::message newest() {
    const auto records = ask(kl::CMD_GETALL, to(kl::SERVICE_UNDO)).get(kl::STD_OBJS, {});
    EXPECT_FALSE(records.empty());
    return records.empty() ? kl::message() : kl::message(records.front());
  }

  kl::message undo(const kl::message& record, unsigned int rights = 0xffffffff) {
    kl::message m = to(kl::SERVICE_UNDO);
    m.insert(kl::STD_ID, record.get(kl::STD_ID, kl::BADID));
    m.insert(kl::SYS_POLICY, rights);
    return ask(kl::CMD_START, m);
  }

  std::string description() { return askFor(kl::CMD_GETOBJ, lo_).get(kl::STD_DESCR, "none"); }
};

}  // namespace

TEST_F(NetifAndUndo, ADescriptionIsUndoneAndDoneAgain) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  const kl::message record = newest();
  EXPECT_EQ(record.get(kl::UNDO_DESCRIPTION, ""), "description of lo");
  EXPECT_FALSE(kl::isError(undo(record)));
  EXPECT_EQ(description(), "none");
  EXPECT_FALSE(kl::isError(undo(record)));
  EXPECT_EQ(description(), "to itself");
  EXPECT_EQ(newest().get(kl::STD_ID, 0), record.get(kl::STD_ID, 1));  // it is still the only one
}

TEST_F(NetifAndUndo, WhoMayNotDescribeMayNotUndo) {
  EXPECT_FALSE(kl::isError(describe(lo_, "to itself")));
  EXPECT_EQ(errorOf(undo(newest(), 64)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(description(), "to itself");
}
