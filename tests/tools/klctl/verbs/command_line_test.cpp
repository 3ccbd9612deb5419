#include "tools/klctl/verbs/command_line.h"

#include <gtest/gtest.h>

#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

std::variant<CommandLine, std::string> parse(std::vector<const char*> words) {
  words.insert(words.begin(), "klctl");
  return parseCommandLine(static_cast<int>(words.size()), words.data());
}

CommandLine line(const std::vector<const char*>& words) { return std::get<CommandLine>(parse(words)); }

std::string refusalOf(const std::vector<const char*>& words) {
  const Told told = failureOf([&] { (void)parse(words); });
  EXPECT_EQ(told.status, 2);
  return told.sentence;
}

}  // namespace

TEST(CommandLineWords, ServicesNeedsNothingElse) {
  const CommandLine services = line({"services"});
  EXPECT_EQ(services.verb, Verb::kServices);
  EXPECT_EQ(services.timeout.count(), 5000);
  EXPECT_FALSE(services.json);
  EXPECT_TRUE(services.fields.back().string().ends_with("share/kl/fields")) << services.fields.back();
}

TEST(CommandLineWords, ARequestHasAPathACommandAndFields) {
  const CommandLine get = line({"get", "netif/3:2", "CMD_GETCOUNT", "descr=a b", "u32:5=-"});
  EXPECT_EQ(get.verb, Verb::kGet);
  EXPECT_EQ(get.path.service, "netif");
  EXPECT_EQ(get.path.handlers, std::vector<unsigned int>{3});
  EXPECT_EQ(get.path.object, 2u);
  EXPECT_EQ(get.command, 0xfe0015u);
  EXPECT_EQ(get.assignments, (std::vector<std::string>{"descr=a b", "u32:5=-"}));
  EXPECT_EQ(line({"getall", "24"}).verb, Verb::kGetAll);
  EXPECT_EQ(line({"set", "netif", "--id", "0x10", "descr=x"}).path.object, 16u);
  EXPECT_EQ(line({"send", "netif", "0x60001"}).command, 0x60001u);
}

TEST(CommandLineWords, ACommandMayBeNamedLikeASubcommand) {
  const CommandLine send = line({"send", "netif", "get"});
  EXPECT_EQ(send.verb, Verb::kSend);
  EXPECT_EQ(send.command, 0xfe000du);
  EXPECT_EQ(line({"get", "services"}).path.service, "services");
  EXPECT_EQ(line({"get", "get", "set", "u32:1=1"}).command, 0xfe000eu);
}

TEST(CommandLineWords, AFieldNeedsNoCommandBeforeIt) {
  const CommandLine set = line({"set", "netif:2", "descr=x"});
  EXPECT_FALSE(set.command.has_value());
  EXPECT_EQ(set.assignments, std::vector<std::string>{"descr=x"});
}

TEST(CommandLineWords, OptionsStandAnywhere) {
  EXPECT_EQ(line({"--timeout", "0.25", "get", "netif"}).timeout.count(), 250);
  EXPECT_EQ(line({"get", "--timeout=2", "netif", "--json"}).timeout.count(), 2000);
  EXPECT_TRUE(line({"get", "netif", "--json", "descr=x"}).json);
  EXPECT_TRUE(line({"--json", "services"}).json);
  EXPECT_EQ(line({"services", "--fields", "/x"}).fields.front(), "/x");
  EXPECT_TRUE(line({"send", "--no-reply", "netif"}).noReply);
}

TEST(CommandLineWords, WhatBeginsWithADashCanBeAValue) {
  EXPECT_EQ(line({"set", "netif:2", "descr=--json"}).assignments, std::vector<std::string>{"descr=--json"});
  EXPECT_EQ(line({"set", "netif:2", "--", "descr=x"}).assignments, std::vector<std::string>{"descr=x"});
}

TEST(CommandLineWords, MistakesAreUsage) {
  EXPECT_NE(refusalOf({}), "");
  EXPECT_NE(refusalOf({"fetch", "netif"}), "");
  EXPECT_NE(refusalOf({"get"}).find("PATH"), std::string::npos);
  EXPECT_NE(refusalOf({"services", "extra"}), "");
  EXPECT_NE(refusalOf({"get", "netif", "--bogus"}), "");
  EXPECT_NE(refusalOf({"get", "netif", "--no-reply"}), "");
  EXPECT_NE(refusalOf({"get", "netif", "--timeout"}), "");
  EXPECT_EQ(line({"get", "netif", "nothing"}).commandName,
            "nothing");  // the service's description may have it
  EXPECT_EQ(refusalOf({"get", "netif:x"}), "'netif:x' is no path: a number must follow ':'");
  EXPECT_EQ(refusalOf({"get", "netif:1", "--id", "2"}),
            "the object is given twice, in the path and behind --id");
}

TEST(CommandLineWords, ATimeoutIsAPositiveNumberOfSeconds) {
  for (const char* text : {"0", "-1", "x", "", "nan", "inf", "1e9", "5s"})
    EXPECT_NE(refusalOf({"services", "--timeout", text}).find("--timeout"), std::string::npos) << text;
}

TEST(CommandLineWords, AnObjectIdIsANumber) {
  for (const char* text : {"x", "-1", "4294967296", ""})
    EXPECT_NE(refusalOf({"get", "netif", "--id", text}).find("--id"), std::string::npos) << text;
}

TEST(CommandLineWords, StoreHasVerbsOfItsOwn) {
  EXPECT_EQ(line({"store", "ls", "/kelo/x"}).verb, Verb::kStoreList);
  const CommandLine get = line({"store", "get", "/kelo/x", "0x11", "--json"});
  EXPECT_EQ(get.verb, Verb::kStoreGet);
  EXPECT_EQ(get.file, "/kelo/x");
  EXPECT_EQ(get.path.object, 17u);
  EXPECT_TRUE(get.json);
  EXPECT_EQ(line({"store", "check", "x"}).verb, Verb::kStoreCheck);
  EXPECT_EQ(line({"store", "compact", "x"}).verb, Verb::kStoreCompact);
  EXPECT_NE(refusalOf({"store"}), "");
  EXPECT_NE(refusalOf({"store", "ls"}).find("PATH"), std::string::npos);
  EXPECT_NE(refusalOf({"store", "get", "x"}).find("ID"), std::string::npos);
  EXPECT_EQ(refusalOf({"store", "get", "x", "y"}), "ID takes a number, not 'y'");
}

TEST(CommandLineWords, AWordThatIsNoCommandIsNamed) {
  EXPECT_EQ(refusalOf({"gat", "netif"}),
            "there is no 'klctl gat'; did you mean 'get'? (klctl --help shows what there is)");
  EXPECT_EQ(refusalOf({"--json", "gat"}),
            "there is no 'klctl gat'; did you mean 'get'? (klctl --help shows what there is)");
  EXPECT_EQ(refusalOf({"store", "list", "x"}),
            "there is no 'klctl store list' (klctl store --help shows what there is)");
  EXPECT_EQ(refusalOf({"undo", "ls"}), "there is no 'klctl undo ls' (klctl undo --help shows what there is)");
  for (const std::vector<const char*>& words :
       std::vector<std::vector<const char*>>{{}, {"--json"}, {"store"}})
    EXPECT_EQ(refusalOf(words), "A subcommand is required (klctl --help shows what there is)");
}

TEST(CommandLineWords, TheLogHasAFilterAndTwoVerbs) {
  const CommandLine all = line({"log"});
  EXPECT_EQ(all.verb, Verb::kLog);
  EXPECT_TRUE(all.log.topics.empty());
  EXPECT_FALSE(all.log.since);
  const CommandLine some =
      line({"log", "-f", "--topic", "error", "--topic", "32", "--since", "@5", "--json"});
  EXPECT_EQ(some.verb, Verb::kLogFollow);
  EXPECT_EQ(some.log.topics, (std::vector<std::string>{"error", "32"}));
  EXPECT_EQ(some.log.since, 5'000'000'000ull);
  EXPECT_TRUE(some.json);
  EXPECT_EQ(line({"log", "mute", "debug"}).verb, Verb::kLogMute);
  EXPECT_EQ(line({"log", "unmute", "debug"}).verb, Verb::kLogUnmute);
  EXPECT_EQ(line({"log", "mute", "debug"}).log.topics, (std::vector<std::string>{"debug"}));
  EXPECT_EQ(refusalOf({"log", "--since", "soon"}),
            "--since takes 10m, 06:30, \"2026-11-21 06:30\" or the like, not 'soon'");
  EXPECT_NE(refusalOf({"log", "mute"}), "");
  EXPECT_NE(refusalOf({"log", "debug"}), "");
}

TEST(CommandLineWords, UndoHasVerbsOfItsOwn) {
  EXPECT_EQ(line({"undo", "list"}).verb, Verb::kUndoList);
  const CommandLine show = line({"undo", "show", "7", "--json"});
  EXPECT_EQ(show.verb, Verb::kUndoShow);
  EXPECT_EQ(show.path.object, 7u);
  EXPECT_TRUE(show.json);
  EXPECT_EQ(line({"undo", "run", "0x10", "--timeout", "1"}).path.object, 16u);
  EXPECT_NE(refusalOf({"undo"}), "");
  EXPECT_NE(refusalOf({"undo", "everything"}), "");
  EXPECT_NE(refusalOf({"undo", "list", "7"}), "");
  EXPECT_NE(refusalOf({"undo", "run"}).find("ID"), std::string::npos);
  EXPECT_EQ(refusalOf({"undo", "run", "x"}), "ID takes a number, not 'x'");
}

TEST(CommandLineWords, DumpTakesAFileAndItsFormat) {
  const CommandLine dump = line({"dump", "-"});
  EXPECT_EQ(dump.verb, Verb::kDump);
  EXPECT_EQ(dump.file, "-");
  EXPECT_EQ(dump.format, FileFormat::kGuess);
  EXPECT_EQ(line({"dump", "x.dat", "--format", "store"}).format, FileFormat::kStore);
  EXPECT_EQ(line({"dump", "--format=framed", "x"}).format, FileFormat::kFramed);
  EXPECT_NE(refusalOf({"dump"}).find("FILE"), std::string::npos);
  EXPECT_NE(refusalOf({"dump", "x", "--format", "tape"}).find("--format"), std::string::npos);
  EXPECT_NE(refusalOf({"dump", "x", "--format", "7"}).find("--format"), std::string::npos);
}

TEST(CommandLineWords, AnActionTakesAServiceAndNothingElse) {
  EXPECT_EQ(line({"leave", "netif"}).verb, Verb::kLeave);
  EXPECT_EQ(line({"leave", "netif"}).path.service, "netif");
  EXPECT_EQ(line({"start", "32"}).verb, Verb::kStart);
  EXPECT_EQ(line({"stop", "32"}).verb, Verb::kStop);
  EXPECT_EQ(line({"restart", "32", "--timeout", "2"}).verb, Verb::kRestart);
  EXPECT_NE(refusalOf({"leave"}).find("SERVICE"), std::string::npos);
  EXPECT_NE(refusalOf({"leave", "netif", "other"}), "");
  for (const char* path : {"netif/3", "netif:2"})
    EXPECT_EQ(refusalOf({"stop", path}),
              "'" + std::string(path) + "' is no service: handlers and objects have no life of their own");
}

TEST(CommandLineWords, RepliesAreShownInOneWayOnly) {
  EXPECT_TRUE(line({"get", "netif", "--dump"}).dump);
  EXPECT_NE(refusalOf({"get", "netif", "--dump", "--json"}).find("--json"), std::string::npos);
}

TEST(CommandLineWords, AnOptionThatTheVerbDoesNotUseIsRefused) {
  EXPECT_EQ(refusalOf({"dump", "x", "--timeout", "3"}), "klctl dump does not use --timeout");
  EXPECT_EQ(refusalOf({"--dump", "store", "ls", "x"}), "klctl store ls does not use --dump");
  EXPECT_EQ(refusalOf({"store", "get", "x", "1", "--fields", "y"}), "klctl store get does not use --fields");
  EXPECT_EQ(refusalOf({"stop", "netif", "--fields", "y"}), "klctl stop does not use --fields");
  EXPECT_EQ(refusalOf({"log", "--dump"}), "klctl log does not use --dump");
  EXPECT_EQ(refusalOf({"log", "mute", "debug", "--fields", "y"}), "klctl log mute does not use --fields");
  EXPECT_EQ(refusalOf({"log", "-f", "mute", "debug"}), "klctl log mute does not use --follow");
  EXPECT_EQ(refusalOf({"log", "--topic", "error", "unmute", "debug"}),
            "klctl log unmute does not use --topic");
  EXPECT_NE(refusalOf({"send", "netif", "--no-reply", "--json"}).find("--json"), std::string::npos);
  EXPECT_TRUE(line({"log", "mute", "debug", "--json"}).json);
  EXPECT_TRUE(line({"store", "get", "x", "1", "--dump"}).dump);
}

TEST(CommandLineWords, HelpAndVersionAreResults) {
  EXPECT_NE(std::get<std::string>(parse({"--help"})).find("getall"), std::string::npos);
  EXPECT_NE(std::get<std::string>(parse({"get", "--help"})).find("PATH"), std::string::npos);
  EXPECT_TRUE(std::get<std::string>(parse({"--version"})).starts_with("klctl "));
}

}  // namespace klctl
