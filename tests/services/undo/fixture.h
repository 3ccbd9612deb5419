#pragma once
// fixture.h: kl-undo as a service of a real loader, and peers that make and use records.  Needs: a private root.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace undo {

using kl::test::flat;
using kl::test::Ids;
using kl::test::RawPeer;

inline const Ids kUndo = {kl::SERVICE_UNDO};

// Everybody has the rights that his messages say.
constexpr char kAllRights[] = "default = \"all\"\n";
// Two makers that somebody else starts.
constexpr char kMakers[] =
    "[[service]]\nname = \"other\"\nid = 501\n[[service]]\nname = \"lamp\"\nid = 500\n";

// `settings` are those of kl-undo; `makers` are more services.
inline std::string configuration(const std::string& folder, const std::string& settings,
                                 const std::string& rights, const std::string& makers) {
  return "[rights]\n" + rights +
         "[[service]]\nname = \"undo\"\nid = 17\ncommand = [\"" KL_BIN_DIR
         "/kl-undo\"]\n[service.settings]\n0x20000002 = \"" +
         folder + "\"\n" + settings + makers;
}

inline Ids idsIn(const kl::message& reply) {
  Ids ids;
  for (const kl::message object : reply.get(kl::STD_OBJS, {}))
    ids.push_back(object.get(kl::STD_ID, kl::BADID));
  return ids;
}

inline unsigned int errorOf(const kl::message& reply) {
  unsigned int code = kl::ERROR_OK;
  (void)kl::isError(reply, &code);
  return code;
}

// The undo message that the tests use: a command of its own and a value.
inline constexpr kl::field<unsigned int> VALUE{0x08000040};
inline kl::message setValue(unsigned int value) {
  kl::message m;
  m.insert(kl::SYS_CMD, kl::CMD_SET);
  m.insert(VALUE, value);
  return m;
}

// The report of a change, as the library makes it.
inline kl::message report(const std::string& description, unsigned int rights = 128) {
  kl::message m;
  m.insert(kl::SYS_TO, kUndo);
  m.insert(kl::SYS_CMD, kl::CMD_ADDOBJ);
  m.insert(kl::UNDO_REQUEST, flat(setValue(2)));
  m.insert(kl::UNDO_MESSAGE, flat(setValue(1)));
  m.insert(kl::UNDO_DESCRIPTION, description);
  m.insert(kl::UNDO_USER, "alice");
  m.insert(kl::UNDO_RIGHTS, rights);
  return m;
}

// The report that record `id` was undone.
inline kl::message undoneReport(unsigned int id, unsigned int value, unsigned int rights = 128) {
  kl::message m;
  m.insert(kl::SYS_TO, kUndo);
  m.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  m.insert(kl::STD_ID, id);
  m.insert(kl::UNDO_MESSAGE, flat(setValue(value)));
  m.insert(kl::UNDO_RIGHTS, rights);
  return m;
}

// A request with these rights.
inline kl::message withRights(kl::message m, unsigned int rights) {
  m.insert(kl::SYS_POLICY, rights);
  return m;
}

// A request of a user with these rights.
inline kl::message by(const std::string& user, unsigned int rights, kl::message m) {
  m.insert(kl::SYS_USER, user);
  return withRights(std::move(m), rights);
}

class UndoProcess : public testing::Test {
 protected:
  explicit UndoProcess(const std::string& settings = "", const std::string& rights = kAllRights,
                       const std::string& makers = kMakers) {
    char name[] = "/tmp/undo-process-XXXXXX";
    folder_ = ::mkdtemp(name);
    loader_.emplace(configuration(folder_ + "/undo", settings, rights, makers));
  }
  ~UndoProcess() override {
    loader_.reset();
    std::filesystem::remove_all(folder_);
  }

  // A process with this id; 0: one that the loader picks.
  static RawPeer connected(unsigned int id = 0) { return RawPeer::registered(id); }

  // A process of another user with an id that the loader picks.
  static RawPeer connectedAs(uid_t user) {
    const uid_t own = ::geteuid();
    EXPECT_EQ(::seteuid(user), 0);
    RawPeer peer = connected();
    EXPECT_EQ(::seteuid(own), 0);
    return peer;
  }

  // The answer to a message that is made a request.
  kl::message ask(RawPeer& peer, kl::message m) {
    const unsigned int id = send(peer, std::move(m));
    return peer.receiveReply(id).value_or(kl::errorMsg(kl::ERROR_TIMEOUT, "no reply came"));
  }

  // Sends a request and gives its id.
  unsigned int send(RawPeer& peer, kl::message m) {
    const unsigned int id = nextId_++;
    m.insert(kl::SYS_REQID, id);
    m.insert(kl::SYS_REPLYEXP, true);
    EXPECT_TRUE(peer.send(m));
    return id;
  }

  kl::message ask(RawPeer& peer, unsigned int command, std::optional<unsigned int> id = {}) {
    return ask(peer, to(command, id));
  }

  static kl::message to(unsigned int command, std::optional<unsigned int> id = {}) {
    kl::message m;
    m.insert(kl::SYS_TO, kUndo);
    m.insert(kl::SYS_CMD, command);
    if (id) m.insert(kl::STD_ID, *id);
    return m;
  }

  // Makes a record and gives its id.
  unsigned int add(RawPeer& maker, const kl::message& m) { return ask(maker, m).get(kl::STD_ID, kl::BADID); }

  Ids all(RawPeer& peer) { return idsIn(ask(peer, kl::CMD_GETALL)); }

  // Asks the loader about service 17, or tells it what to do with it.
  kl::message askLoader(RawPeer& peer, unsigned int command, unsigned int action = 0) {
    kl::message m = to(command, kl::SERVICE_UNDO);
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    if (action != 0) m.insert(kl::SVC_ACTION, action);
    return ask(peer, m);
  }

  // Waits until kl-undo runs for the n-th time and answers.
  void awaitStart(RawPeer& peer, unsigned int n) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < end) {
      if (askLoader(peer, kl::CMD_GETOBJ).get(kl::SVC_STARTS, 0) >= n &&
          !kl::isError(ask(peer, kl::CMD_NOOP)))
        return;
      ::usleep(5000);
    }
    ADD_FAILURE() << "kl-undo does not come again";
  }

  std::string folder_;
  std::optional<kl::test::LoaderProcess> loader_;
  unsigned int nextId_ = 1;
};

}  // namespace undo
