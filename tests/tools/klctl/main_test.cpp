// The whole program against the real loader and netif, and against what is wrong with a loader.

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "kl/conventions.h"
#include "kl/utilities.h"
#include "tests/services/loader/leaver_program.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"
#include "tests/support/process/running_program.h"
#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/scripted_loader.h"

namespace klctl {
namespace {

using PlainJson = nlohmann::json;
using kl::test::ChildResult;
using kl::test::LoaderProcess;
using kl::test::RunningProgram;
using kl::test::runProgram;

constexpr char kNetif[] =
    "[[service]]\nname = \"netif\"\nrestart = \"always\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";
constexpr char kLo[] = "netif:1";  // the loopback interface has the first index in every network namespace

ChildResult klctl(std::vector<std::string> words) {
  words.insert(words.begin(), KL_BIN_DIR "/klctl");
  return runProgram(words);
}

// The complaint of a run without a result: nothing on the standard output.
std::string failed(int status, const std::vector<std::string>& words) {
  const ChildResult result = klctl(words);
  EXPECT_EQ(result.exitStatus, status) << result.err;
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(result.err.ends_with("\n"));
  return result.err;
}

std::string done(const std::vector<std::string>& words) {
  const ChildResult result = klctl(words);
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return result.out;
}

PlainJson doneJson(std::vector<std::string> words) {
  words.push_back("--json");
  return PlainJson::parse(done(words));
}

std::string sysText(const std::string& interface, const std::string& file) {
  std::string text;
  std::getline(std::ifstream("/sys/class/net/" + interface + "/" + file), text);
  return text;
}

class Klctl : public testing::Test {
 protected:
  LoaderProcess loader_{kNetif};
};

}  // namespace

TEST_F(Klctl, ListsTheServices) {
  const PlainJson services = doneJson({"services"});
  std::map<std::string, PlainJson> byName;
  for (const PlainJson& service : services) byName[service["name"]] = service;
  EXPECT_EQ(byName.at("loader")["id"], 1);
  EXPECT_EQ(byName.at("netif")["id"], 32);
  EXPECT_TRUE(byName.at("netif").contains("state"));
  const std::string text = done({"services"});
  for (const std::string word : {"id", "name", "state", "pid", "loader", "netif"})
    EXPECT_NE(text.find(word), std::string::npos) << text;
}

TEST_F(Klctl, ShowsATableOfObjectsAsTextAndAsJson) {
  const PlainJson objects = doneJson({"getall", "netif"});
  ASSERT_FALSE(objects.empty());
  const std::string text = done({"getall", "netif"});
  for (const PlainJson& object : objects) {
    char name[IF_NAMESIZE];
    ASSERT_NE(::if_indextoname(object["id"].get<unsigned int>(), name), nullptr);
    EXPECT_EQ(object["name"], name);
    EXPECT_EQ(object["mtu"].dump(), sysText(name, "mtu"));
    EXPECT_EQ(object["hwaddr"], sysText(name, "address"));
    EXPECT_TRUE(object["rx_bytes"].is_number_unsigned());
    EXPECT_TRUE(object["addresses"].is_array());
    EXPECT_NE(text.find(name), std::string::npos) << text;
  }
}

TEST_F(Klctl, EveryFieldOfNetifHasAName) {
  EXPECT_EQ(done({"set", kLo, "descr=to itself"}), "");
  const PlainJson lo = doneJson({"get", kLo});
  std::vector<std::string> names;
  for (const auto& [name, value] : lo.items()) names.push_back(name);
  EXPECT_EQ(names,
            (std::vector<std::string>{"addresses", "addresses4", "descr", "hwaddr", "id", "mtu", "name",
                                      "running", "rx_bytes", "rx_packets", "tx_bytes", "tx_packets", "up"}));
}

TEST_F(Klctl, EveryFieldOfTheLoaderHasAName) {
  const PlainJson services = doneJson({"getall", "loader"});
  for (const PlainJson& service : services)
    for (const auto& [name, value] : service.items()) EXPECT_EQ(name.find(':'), std::string::npos) << name;
}

TEST_F(Klctl, FollowsTheChunksOfATable) {
  EXPECT_EQ(doneJson({"getall", "netif", "getallno=1"}).size(), doneJson({"getall", "netif"}).size());
  EXPECT_EQ(doneJson({"get", "netif", "getall", "getallno=1"})["objs"].size(), 1u);
}

TEST_F(Klctl, SetsAndGetsOneObject) {
  EXPECT_EQ(done({"set", kLo, "descr=to itself"}), "");
  EXPECT_EQ(doneJson({"get", kLo})["descr"], "to itself");
  EXPECT_EQ(doneJson({"get", "32", "--id", "1"})["descr"], "to itself");
  EXPECT_NE(done({"get", kLo}).find("descr      to itself\n"), std::string::npos) << done({"get", kLo});
  EXPECT_EQ(doneJson({"set", kLo, "STD_DESCR="}), PlainJson::object());
  EXPECT_FALSE(doneJson({"get", kLo}).contains("descr"));
}

TEST_F(Klctl, SendsAnyCommand) {
  EXPECT_EQ(done({"send", "netif"}), "");
  EXPECT_EQ(doneJson({"send", "netif", "getcount"})["getallno"], doneJson({"getall", "netif"}).size());
  EXPECT_EQ(done({"send", "--no-reply", "netif", "CMD_SETOBJ", "id=1", "descr=sent"}), "");
  EXPECT_EQ(doneJson({"get", kLo})["descr"], "sent");
  EXPECT_GT(doneJson({"send", "netif", "getpolicies"})["objs"].size(), 10u);
}

TEST_F(Klctl, TheObjectsOfAJsonTableCanBeGivenBack) {
  const PlainJson lo = doneJson({"get", kLo});
  EXPECT_EQ(done({"send", "netif", "noop", "message:4=" + lo.dump()}), "");
}

TEST_F(Klctl, AnErrorReplyIsStatusOne) {
  EXPECT_EQ(failed(1, {"get", "netif:4000000000"}), "klctl: netif:4000000000: std failure: unknown id (4)\n");
  EXPECT_EQ(failed(1, {"get", "netif"}), "klctl: netif: std failure: not implemented (3)\n");
  EXPECT_EQ(failed(1, {"set", kLo}), "klctl: netif:1: std failure: missing fields (5)\n");
  EXPECT_EQ(failed(1, {"send", "netif/3"}), "klctl: netif/3: std failure: broken path (2)\n");
  EXPECT_EQ(failed(1, {"send", "4711"}), "klctl: 4711: std failure: broken path (2)\n");
  EXPECT_EQ(failed(1, {"getall", "nobody", "--json"}),
            "klctl: no service is called 'nobody' (klctl services lists them)\n");
}

TEST_F(Klctl, ARequestThatIsTooBigIsNotSent) {
  EXPECT_NE(failed(2, {"set", kLo, "descr=" + std::string(66000, 'x')}).find("the request is too big"),
            std::string::npos);
}

TEST_F(Klctl, AServiceThatDoesNotAnswerIsStatusThree) {
  EXPECT_EQ(done({"send", "netif"}), "");  // it runs
  const pid_t pid = doneJson({"get", "loader:32"})["pid"].get<pid_t>();
  ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  EXPECT_EQ(failed(3, {"send", "netif", "--timeout", "1"}), "klctl: no reply within 1 s\n");
  ASSERT_EQ(::kill(pid, SIGCONT), 0);
  EXPECT_EQ(done({"send", "netif"}), "");
}

TEST_F(Klctl, AKilledServiceIsAnErrorAndThenAnswersAgain) {
  EXPECT_EQ(done({"send", "netif"}), "");
  ASSERT_EQ(::kill(doneJson({"get", "loader:32"})["pid"].get<pid_t>(), SIGKILL), 0);
  ChildResult result;
  for (int i = 0; i < 1000; ++i) {
    result = klctl({"send", "netif"});
    if (result.exitStatus == 0) break;
    EXPECT_EQ(result.err, "klctl: netif: std failure: broken path (2)\n");
  }
  EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(Klctl, AServiceIsRestartedByAWordOfTheLoadersDictionary) {
  EXPECT_EQ(done({"send", "netif"}), "");
  const PlainJson before = doneJson({"get", "loader:32"});
  EXPECT_EQ(done({"set", "loader:32", "action=restart"}), "");
  PlainJson after;
  do after = doneJson({"get", "loader:32"});
  while (after["state"] != "running");
  EXPECT_EQ(after["starts"], before["starts"].get<int>() + 1);
}

TEST_F(Klctl, WatchShowsTheTableAndItsChangesUntilInterrupted) {
  EXPECT_EQ(done({"send", "netif"}), "");
  RunningProgram watch({KL_BIN_DIR "/klctl", "watch", "loader", "--json"});
  PlainJson row;
  do row = PlainJson::parse(watch.line());
  while (row["name"] != "netif");
  EXPECT_EQ(row["state"], "running");
  EXPECT_EQ(done({"set", "loader:32", "action=restart"}), "");
  do row = PlainJson::parse(watch.line());
  while (row["id"] != 32 || row["starts"] != 2 || row["state"] != "running");
  EXPECT_EQ(watch.end(SIGINT), 0);
}

TEST_F(Klctl, WatchSaysWhenTheServiceIsGoneAndBack) {
  EXPECT_EQ(done({"send", "netif"}), "");
  RunningProgram watch({KL_BIN_DIR "/klctl", "watch", "netif"});
  EXPECT_TRUE(watch.says("lo "));
  ASSERT_EQ(::kill(doneJson({"get", "loader:32"})["pid"].get<pid_t>(), SIGKILL), 0);
  EXPECT_TRUE(watch.remarks("klctl: netif is gone: it has ended; waiting for it\n"));
  EXPECT_TRUE(watch.remarks("klctl: netif is back\n"));
  EXPECT_EQ(watch.end(SIGINT), 0);
}

TEST_F(Klctl, WhatCannotBeWatchedIsToldAtOnce) {
  EXPECT_EQ(failed(1, {"watch", "nobody"}),
            "klctl: no service is called 'nobody' (klctl services lists them)\n");
  EXPECT_EQ(failed(2, {"watch", kLo}),
            "klctl: watch follows a whole table: it takes no command and no object\n");
}

TEST_F(Klctl, AServiceIsStoppedStartedAndRestartedByName) {
  EXPECT_EQ(done({"send", "netif"}), "");
  EXPECT_EQ(done({"stop", "netif"}), "");
  while (doneJson({"get", "loader:32"})["state"] != "stopped") {
  }
  EXPECT_EQ(done({"start", "32"}), "");
  while (doneJson({"get", "loader:32"})["state"] != "running") {
  }
  EXPECT_EQ(done({"restart", "netif"}), "");
  while (doneJson({"get", "loader:32"})["starts"] != 3) {
  }
  EXPECT_EQ(failed(1, {"stop", "loader"}), "klctl: loader: the loader does not start this service (6)\n");
  EXPECT_EQ(failed(1, {"stop", "4711"}), "klctl: 4711: std failure: unknown id (4)\n");
}

TEST_F(Klctl, TwentyAtOnceAreServed) {
  const ChildResult result = runProgram({"/bin/sh", "-c",
                                         "for i in $(seq 20); do " KL_BIN_DIR
                                         "/klctl get netif:1 >/dev/null & pids=\"$pids $!\"; done; "
                                         "for p in $pids; do wait $p || exit 1; done"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

TEST_F(Klctl, ResultsThatCannotBeWrittenAreAnError) {
  const ChildResult full = runProgram({"/bin/sh", "-c", KL_BIN_DIR "/klctl services >/dev/full"});
  EXPECT_EQ(full.exitStatus, 1);
  EXPECT_EQ(full.err, "klctl: cannot write the results: No space left on device\n");
  const ChildResult closed = runProgram({"/bin/sh", "-c", KL_BIN_DIR "/klctl services >&-"});
  EXPECT_EQ(closed.exitStatus, 1);
  const ChildResult allClosed = runProgram({"/bin/sh", "-c", KL_BIN_DIR "/klctl send netif <&- >&- 2>&-"});
  EXPECT_EQ(allClosed.exitStatus, 0);
}

TEST_F(Klctl, AnOrdinaryUserReadsWhatRootsLoaderLetsHimRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const auto asNobody = [](const std::string& command) {
    return runProgram(
        {"/bin/sh", "-c", "exec setpriv --reuid=65534 --regid=65534 --clear-groups " + command});
  };
  const std::string program = KL_BIN_DIR "/klctl ";
  if (asNobody("test -x " + program).exitStatus != 0) GTEST_SKIP() << "others cannot reach " << program;
  EXPECT_EQ(asNobody(program + "get netif:1 --json").exitStatus, 0);
  const ChildResult refused = asNobody(program + "set netif:1 descr=x");
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_EQ(refused.err,
            "klctl: netif:1: std failure: not allowed (9); klctl rights explain nobody netif CMD_SETOBJ says "
            "why\n");
  EXPECT_EQ(asNobody(program + "set loader:32 action=stop").err,
            "klctl: loader:32: lacks the right control (9)\n");
}

TEST_F(Klctl, ABrokenDictionaryIsToldWithFileAndLine) {
  const std::string folder = kl::underRoot("/ram/fields");
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/netif.toml") << "fields = [\n  { name = \"x\" },\n]\n";
  EXPECT_EQ(failed(2, {"get", kLo, "--fields", folder}),
            "klctl: " + folder + "/netif.toml:2: expected field = \"...\"\n");
  std::filesystem::remove_all(folder);
}

TEST_F(Klctl, ADictionaryOfOnesOwnIsBeforeTheInstalledOne) {
  char folder[] = "/tmp/klctl-fields-XXXXXX";
  ASSERT_NE(::mkdtemp(folder), nullptr);
  EXPECT_EQ(doneJson({"get", kLo, "--fields", folder})["name"], "lo");
  std::ofstream(std::string(folder) + "/netif.toml")
      << "fields = [ { name = \"title\", field = \"string:1\" } ]\n";
  EXPECT_EQ(doneJson({"get", kLo, "--fields", folder})["title"], "lo");
  std::ofstream(std::string(folder) + "/netif.toml") << "fields = []\n";
  EXPECT_EQ(doneJson({"get", kLo, "--fields", folder})["string:1"], "lo");
  std::filesystem::remove_all(folder);
}

TEST(KlctlAlone, AsksAServiceWhatItSaysOfItself) {
  std::string configuration = kNetif;
  for (const std::string name : {"log", "system", "undo"})
    configuration += "[[service]]\nname = \"" + name + "\"\ncommand = [\"" KL_BIN_DIR "/kl-" +
                     (name == "log" ? "logd" : name) + "\"]\n";
  configuration += "[[service]]\nname = \"hello\"\nid = 34\ncommand = [\"" KL_BIN_DIR "/hello\"]\n";
  const LoaderProcess loader(configuration);
  for (const char* service : {"loader", "log", "system", "undo", "netif"}) {
    (void)done({"send", service});
    EXPECT_EQ(done({"introspect", service}), done({"help", service}));  // and no remark of a difference
  }
  (void)done({"send", "hello/0"});
  const ChildResult hello = klctl({"introspect", "hello", "--fields", "/nowhere"});
  EXPECT_EQ(hello.exitStatus, 0);
  EXPECT_TRUE(hello.out.starts_with("hello (34): A greeting")) << hello.out;
  EXPECT_NE(failed(1, {"introspect", "nobody"}).find("no service is called 'nobody'"), std::string::npos);
}

TEST(KlctlAlone, UsageIsStatusTwoWithoutALoader) {
  EXPECT_NE(failed(2, {}).find("klctl: "), std::string::npos);
  EXPECT_NE(failed(2, {"bogus"}), "");
  EXPECT_EQ(
      failed(2, {"set", "netif", "mtu=big"}),
      "klctl: mtu is of the type u32 and takes a whole number from 0 to 4294967295 in bytes, not \"big\"\n");
  EXPECT_EQ(failed(2, {"set", "netif", "colour=red"}),
            "klctl: there is no field 'colour' (a form like u32:5 or string:std.9 names any)\n");
}

TEST(KlctlAlone, HelpAndVersionAreResults) {
  EXPECT_NE(done({"--help"}).find("services"), std::string::npos);
  EXPECT_NE(done({"set", "--help"}).find("PATH"), std::string::npos);
  EXPECT_TRUE(done({"--version"}).starts_with("klctl "));
}

TEST(KlctlAlone, DumpsMessagesInFilesAndFromItsInput) {
  const std::string file = kl::underRoot("/ram/message");
  std::ofstream(file, std::ios::binary) << std::string("M2\x05\0\0\x09\x07", 7);
  const std::string text =
      "--- kl::message --------\n u32 [global(5)]=7 0x7 0.0.0.7\n------------------------\n";
  EXPECT_EQ(done({"dump", file}), text);
  EXPECT_EQ(runProgram({"/bin/sh", "-c", "cat " + file + " | " KL_BIN_DIR "/klctl dump -"}).out, text);
  EXPECT_EQ(doneJson({"dump", file})[0]["message"]["u32:5"], 7);
  std::ofstream(file, std::ios::binary) << std::string("M2\x05\0\0\x09\x07\xff", 8);
  const ChildResult damaged = klctl({"dump", file});
  EXPECT_EQ(damaged.exitStatus, 1);
  EXPECT_EQ(damaged.out, text);
  EXPECT_EQ(damaged.err, "klctl: " + file + ": the message is damaged\n");
  EXPECT_EQ(failed(2, {"dump", file + ".none"}),
            "klctl: cannot read " + file + ".none: No such file or directory\n");
  std::filesystem::remove(file);
}

TEST(KlctlAlone, WhetherAServiceLeavesIsInTheExitStatus) {
  const LoaderProcess loader("[[service]]\nname = \"leaver\"\nid = 32\ncommand = [\"" KL_BIN_DIR
                             "/kl-test-leaver\"]\n");
  const std::string reaction = "u32:" + std::to_string(kl::test::leaver::kReaction & 0xffff) + "=";
  EXPECT_EQ(done({"send", "leaver", "CMD_SET", reaction + std::to_string(kl::test::leaver::kRefuse)}), "");
  EXPECT_EQ(failed(5, {"leave", "leaver"}), "klctl: leaver: the service refused to leave (12)\n");
  EXPECT_EQ(done({"send", "leaver", "CMD_SET", reaction + std::to_string(kl::test::leaver::kSaveAndEnd)}),
            "");
  EXPECT_EQ(done({"leave", "leaver"}), "");
  EXPECT_EQ(doneJson({"get", "loader:32"})["state"], "left");
  EXPECT_EQ(done({"leave", "32"}), "");  // it has
  EXPECT_EQ(done({"send", "leaver"}), "");
  EXPECT_EQ(doneJson({"get", "loader:32"})["starts"], 2);
  EXPECT_EQ(done({"stop", "leaver"}), "");
  while (doneJson({"get", "loader:32"})["state"] != "stopped") {
  }
  EXPECT_EQ(failed(1, {"leave", "leaver"}),
            "klctl: leaver: no process that the loader started runs for this service (6)\n");
  EXPECT_EQ(failed(1, {"leave", "loader"}), "klctl: loader: the loader does not start this service (6)\n");
}

TEST(KlctlAlone, AServiceThatDoesNotAnswerWhetherItLeavesIsStatusThree) {
  const LoaderProcess loader("[[service]]\nname = \"leaver\"\nid = 32\ncommand = [\"" KL_BIN_DIR
                             "/kl-test-leaver\"]\n");
  const std::string reaction = "u32:" + std::to_string(kl::test::leaver::kReaction & 0xffff) + "=";
  EXPECT_EQ(done({"send", "leaver", "CMD_SET", reaction + std::to_string(kl::test::leaver::kWait)}), "");
  EXPECT_EQ(failed(3, {"leave", "leaver", "--timeout", "0.2"}), "klctl: no reply within 0.2 s\n");
  EXPECT_EQ(done({"stop", "leaver"}), "");
}

TEST(KlctlAlone, NoLoaderIsStatusFour) {
  EXPECT_EQ(failed(4, {"services"}),
            "klctl: no loader runs at " + kl::loaderSocketPath() + ": No such file or directory\n");
  LoaderProcess past;
  past.signal(SIGKILL);
  EXPECT_EQ(past.waitForEnd(), 128 + SIGKILL);  // leaves its socket behind
  EXPECT_EQ(failed(4, {"get", "1"}),
            "klctl: no loader runs at " + kl::loaderSocketPath() + ": Connection refused\n");
  std::filesystem::remove(kl::loaderSocketPath());
}

TEST(KlctlAlone, ALoaderThatNeverConfirmsIsStatusFour) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) { awaitEnd(connection); });
  EXPECT_EQ(failed(4, {"services", "--timeout", "0.3"}),
            "klctl: the loader did not confirm the registration within 0.3 s\n");
}

// It never says a word, and the shell gets the names on the disk all the same.
TEST(KlctlAlone, CompletionDoesNotWaitForTheLoader) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) { awaitEnd(connection); });
  EXPECT_EQ(done({"complete", "--", "start", "ne"}), "netif\tNetwork interfaces\n");
}

TEST(KlctlAlone, CompletionNeedsNoLoader) {
  EXPECT_EQ(done({"complete", "--", "start", "ne"}), "netif\tNetwork interfaces\n");
}

TEST(KlctlAlone, ALoaderThatRefusesIsStatusFourAndNoAbort) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) { (void)connection.receive(); });
  EXPECT_TRUE(failed(4, {"services"}).ends_with("klctl: the loader refused the registration\n"));
}

TEST(KlctlAlone, ALoaderThatDiesInTheMiddleIsStatusFour) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) {
    confirm(connection);
    (void)connection.receive();
  });
  EXPECT_TRUE(failed(4, {"services"}).ends_with("klctl: the loader went away\n"));
}

TEST(KlctlAlone, ATerminalIsNotMadeToObeyAnErrorText) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) {
    confirm(connection);
    const kl::message request = connection.receive();
    kl::message reply = kl::errorMsg(kl::ERROR_FAILED, kHostile + "\n");
    kl::setType(reply, kl::TYPE_REPLY);
    kl::setRequestID(reply, request.get(kl::SYS_REQID, 0));
    connection.send(reply);
    awaitEnd(connection);
  });
  EXPECT_EQ(failed(1, {"services"}), "klctl: loader: " + kHarmless + "\\x0a (6)\n");
}

TEST(KlctlAlone, AFloodOfMessagesDoesNotReachTheResults) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) {
    confirm(connection);
    kl::message notice;
    notice.insert(kl::SYS_CMD, kl::CMD_NOTIFY);
    for (int i = 0; i < 500; ++i) connection.send(notice);
    const kl::message request = connection.receive();
    kl::message reply;
    kl::setType(reply, kl::TYPE_REPLY);
    kl::setRequestID(reply, request.get(kl::SYS_REQID, 0));
    connection.send(reply);
    awaitEnd(connection);
  });
  EXPECT_EQ(done({"services", "--json"}), "[]\n");
}

}  // namespace klctl
