#include "tools/klctl/verbs/complete.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/builders.h"
#include "tests/tools/klctl/recorded_channels.h"

namespace klctl {
namespace {

using kl::test::flat;

kl::message named(const std::string& name) {
  kl::message service;
  service.insert(kl::SVC_NAME, name);
  return service;
}

// A folder with the descriptions of leases and netif, and a loader that lists what a test tells it to.
class Completion : public testing::Test {
 protected:
  Completion() {
    char name[] = "/tmp/klctl-complete-XXXXXX";
    folder_ = ::mkdtemp(name);
    write("netif", "fields = [{ name = \"mtu\", field = \"u32:4\" }]\n[service]\ntitle = \"Interfaces\"\n");
    write("leases",
          "topics = [{ name = \"dhcp\", number = 300, doc = \"who has what\" }]\n"
          "fields = [{ name = \"inner\", field = \"u32:9\" }]\n"
          "[service]\nname = \"leases\"\nid = 300\ntitle = \"DHCP leases\"\n"
          "[[objects]]\nname = \"lease\"\nkey = \"id\"\ndoc = \"who has an address\"\n"
          "fields = [{ name = \"id\", field = \"u32:std.1\" }, { name = \"pin\", field = \"string:2\", doc = "
          "\"his\" },\n"
          "{ name = \"state\", field = \"u32:3\", values = { bound = 1, free = 2 } }]\n"
          "[[objects.commands]]\nname = \"getobj\"\ndoc = \"one\"\n"
          "[[objects.commands]]\nname = \"release_all\"\ncode = 0x60001\nright = \"change\"\ndoc = \"ends "
          "all\"\n"
          "[[objects]]\nname = \"pool\"\nhandler = 3\nfields = [\"id\"]\n");
  }
  ~Completion() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& service, const std::string& text) {
    std::ofstream(folder_ / (service + ".toml")) << text;
  }

  // The words that may follow; the last word is unfinished.
  std::string behind(std::vector<const char*> words) {
    words.insert(words.begin(), {"complete", "--"});
    CommandLine line = parsed(words);
    line.fields = {folder_};  // alone, without the installed ones
    return RecordedChannels([this](const kl::message& request) { return answer(request); }).perform(line);
  }

  kl::message answer(const kl::message& request) const {
    kl::message reply;
    kl::setType(reply, kl::TYPE_REPLY);
    if (listed_.empty()) throw Failure(Status::kTimeout, "no reply");
    if (request.get(kl::SYS_TO, {}) != std::vector<unsigned int>{kl::SERVICE_LOADER}) return reply;
    std::vector<kl::message::flat_message> objects;
    for (const std::string& name : listed_) objects.push_back(flat(named(name)));
    reply.insert(kl::STD_OBJS, objects);
    return reply;
  }

  std::filesystem::path folder_;
  std::vector<std::string> listed_;
};

}  // namespace

TEST_F(Completion, VerbsStandFirstAndSayWhatTheyDo) {
  EXPECT_EQ(behind({"geta"}), "getall\tRead a whole table of objects\n");
  EXPECT_EQ(behind({"log", "m"}), "mute\tMute every source with a topic\n");
  const std::string all = behind({});
  EXPECT_TRUE(all.starts_with("services\tList the services\n")) << all;
  EXPECT_EQ(behind({""}), all);
}

TEST_F(Completion, ItDoesNotTellOfItself) { EXPECT_EQ(behind({"complet"}), ""); }

TEST_F(Completion, OptionsFollowADashAnywhere) {
  EXPECT_EQ(behind({"--ti"}), "--timeout\tHow long to wait for each reply (default 5)\n");
  EXPECT_EQ(behind({"get", "netif", "--ti"}), "--timeout\tHow long to wait for each reply (default 5)\n");
  EXPECT_EQ(behind({"get", "--id"}), "--id\tThe object, as in PATH:ID\n");
  EXPECT_EQ(behind({"start", "--id"}), "");
}

TEST_F(Completion, TheValueOfAnOptionIsNoArgument) {
  EXPECT_EQ(behind({"--timeout", ""}), "");
  EXPECT_EQ(behind({"--timeout", "3", "geta"}), "getall\tRead a whole table of objects\n");
  EXPECT_EQ(behind({"get", "--id", "3", "n"}), "netif\tInterfaces\n");
  EXPECT_EQ(behind({"dump", "--format", "f"}), "framed\n");
}

TEST_F(Completion, ServicesAreThoseOnTheDiskAndThoseOfTheLoader) {
  listed_ = {"netif", "hello"};
  EXPECT_EQ(behind({"start", ""}), "hello\nleases\tDHCP leases\nnetif\tInterfaces\n");
  EXPECT_EQ(behind({"get", "he"}), "hello\n");
  EXPECT_EQ(behind({"start", "netif", ""}), "");
}

TEST_F(Completion, WhereTheLoaderDoesNotAnswerTheDiskDoes) {
  EXPECT_EQ(behind({"start", ""}), "leases\tDHCP leases\nnetif\tInterfaces\n");
}

TEST_F(Completion, ObjectsFollowASlash) {
  EXPECT_EQ(behind({"getall", "leases/"}), "leases/lease\twho has an address\nleases/pool\n");
  EXPECT_EQ(behind({"getall", "nobody/"}), "");
}

TEST_F(Completion, FieldsAndCommandsAreThoseOfTheObject) {
  EXPECT_EQ(behind({"send", "leases:1", ""}), "id=\npin=\this\nstate=\ngetobj\tone\nrelease_all\tends all\n");
  EXPECT_EQ(behind({"set", "leases/pool", "i"}), "id=\n");
  EXPECT_EQ(behind({"set", "netif", "m"}), "mtu=\nmoveobj\n");
}

TEST_F(Completion, OneCommandIsEnough) {
  EXPECT_EQ(behind({"send", "leases", "release_all", ""}), "id=\npin=\this\nstate=\n");
  EXPECT_EQ(behind({"watch", "leases", "g"}), "");
}

TEST_F(Completion, ValuesAreCalledByTheirWords) {
  EXPECT_EQ(behind({"set", "leases:1", "state="}), "state=bound\nstate=free\n");
  EXPECT_EQ(behind({"set", "leases:1", "id=2", "state=f"}), "state=free\n");
  EXPECT_EQ(behind({"set", "leases:1", "pin="}), "");
}

TEST_F(Completion, CommandsOfARight) {
  EXPECT_EQ(behind({"rights", "explain", "root", "leases", "r"}), "release_all\tends all\n");
}

TEST_F(Completion, TopicsAreKnownWithoutTheLog) {
  EXPECT_EQ(behind({"log", "mute", "d"}), "dhcp\twho has what\n");
}

TEST_F(Completion, UsersAreThoseOfTheMachine) {
  const std::string users = behind({"rights", "explain", "roo"});
  EXPECT_EQ(users.substr(0, 5), "root\t") << users;
}

TEST_F(Completion, FilesAreLeftToTheShell) {
  EXPECT_EQ(behind({"dump", ""}), ":files\n");
  EXPECT_EQ(behind({"store", "ls", "/k"}), ":files\n");
  EXPECT_EQ(behind({"--fields", ""}), ":files\n");
}

TEST_F(Completion, ANameThatMeansSomethingToAShellIsLeftOut) {
  listed_ = {"$(reboot)", "a b", "`x`", "a;b", "\x1b[31m", "", "tab\tbed", "fine-1.x_y"};
  EXPECT_EQ(behind({"start", ""}), "fine-1.x_y\nleases\tDHCP leases\nnetif\tInterfaces\n");
}

TEST_F(Completion, WhatIsSaidOfANameIsOneLineOfHarmlessText) {
  write("netif", "[service]\ntitle = \"a\\nb\\u001b[31m\\tc\"\n");
  EXPECT_EQ(behind({"start", "netif"}), "netif\ta\\x0ab\\x1b[31m\\x09c\n");
}

TEST_F(Completion, ADescriptionThatCannotBeReadHasNoNames) {
  write("netif", "[service\n");
  EXPECT_EQ(behind({"set", "netif", "mt"}), "");
  EXPECT_EQ(behind({"start", "n"}), "netif\n");
}

TEST_F(Completion, WrongWordsInFrontHaveNothingBehindThem) {
  EXPECT_EQ(behind({"nonsense", "x"}), "");
  EXPECT_EQ(behind({"get", "a/b/c::", ""}).find("mtu"), std::string::npos);
}

}  // namespace klctl
