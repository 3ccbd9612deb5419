#include "tools/klctl/verbs/help.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

// A folder of descriptions, and a loader that knows the service 300.
class HelpPages : public testing::Test {
 protected:
  HelpPages() {
    char name[] = "/tmp/klctl-help-XXXXXX";
    folder_ = ::mkdtemp(name);
    write("leases",
          "settings = [{ name = \"seconds\", field = \"u32:1\", unit = \"s\", default = 3600 }]\n"
          "topics = [{ name = \"leases\", number = 300, doc = \"who has what\" }]\n"
          "fields = [{ name = \"inner\", field = \"u32:9\" }]\n"
          "[service]\nname = \"leases\"\nid = 300\ntitle = \"DHCP leases\"\nversion = \"1.2\"\n"
          "[[objects]]\nname = \"lease\"\nkey = \"id\"\ndoc = \"who has an address\"\n"
          "fields = [{ name = \"id\", field = \"u32:std.1\" },\n"
          "{ name = \"pin\", field = \"string:2\", secret = true, max = 8 }]\n"
          "[[objects.commands]]\nname = \"getobj\"\n"
          "[[objects.commands]]\nname = \"release_all\"\ncode = 0x60001\nright = \"change\"\n"
          "takes = [\"id\"]\ngives = [\"id\"]\nerrors = [\"busy\"]\ndoc = \"ends all\"\n"
          "[[objects]]\nname = \"pool\"\nhandler = 3\nfields = [\"id\"]\n");
  }
  ~HelpPages() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& service, const std::string& text) {
    std::ofstream(folder_ / (service + ".toml")) << text;
  }

  std::string run(std::vector<const char*> words) {
    words.insert(words.begin(), {"--fields", folder_.c_str(), "help"});
    return RecordedChannels([](const kl::message&) {
             kl::message m;
             m.insert(kl::SVC_NAME, "leases");
             return m;
           })
        .perform(parsed(words));
  }

  std::filesystem::path folder_;
};

}  // namespace

TEST_F(HelpPages, AServiceIsShownWhole) {
  EXPECT_EQ(run({"leases"}),
            "leases (300): DHCP leases, version 1.2\n"
            "\nleases: who has an address (one of them: leases:id)\n"
            "\nfields\n"
            "  id   u32:std.1\n"
            "  pin  string:2  at most 8; secret\n"
            "\ncommands, and the right that each needs\n"
            "  getobj      read\n"
            "  release_all change ends all\n"
            "                     takes id\n"
            "                     gives id\n"
            "                     may answer busy\n"
            "\nleases/pool\n"
            "\nfields\n"
            "  id   u32:std.1\n"
            "\nother fields\n"
            "  inner u32:9\n"
            "\nsettings, in the configuration of the loader\n"
            "  seconds u32:1 in s; without it 3600\n"
            "\ntopics of the log\n"
            "  leases    300 who has what\n");
}

TEST_F(HelpPages, AnObjectIsShownAlone) {
  const std::string text = run({"leases/pool"});
  EXPECT_NE(text.find("leases/pool"), std::string::npos) << text;
  EXPECT_EQ(text.find("release_all"), std::string::npos) << text;
  EXPECT_EQ(text.find("settings"), std::string::npos) << text;
  EXPECT_EQ(failureOf([&] { (void)run({"leases/poll"}); }).sentence,
            "leases has no object 'poll'; did you mean 'pool'? (klctl help leases lists them)");
}

TEST_F(HelpPages, ANumberIsTheServiceOfTheLoadersTable) {
  EXPECT_TRUE(run({"300"}).starts_with("leases (300): DHCP leases"));
}

TEST_F(HelpPages, JsonIsTheDescription) {
  const Json page = Json::parse(run({"leases", "--json"}));
  EXPECT_EQ(page["id"], 300);
  EXPECT_EQ(page["objects"][0]["commands"][1]["name"], "release_all");
}

TEST_F(HelpPages, WithoutADescriptionTheOthersAreNamed) {
  write("other", "");
  const Told told = failureOf([&] { (void)run({"lease"}); });
  EXPECT_EQ(told.status, 1);
  EXPECT_TRUE(told.sentence.starts_with("there is no description of lease in " + folder_.string() + ", "))
      << told.sentence;
  EXPECT_NE(told.sentence.find("; there are those of leases, "), std::string::npos) << told.sentence;
  EXPECT_NE(told.sentence.find(", other"), std::string::npos) << told.sentence;
}

TEST_F(HelpPages, TextCannotSteerTheTerminal) {
  write("evil",
        "fields = [{ name = \"a\", field = \"u32:1\", doc = \"\\u001b\\u202e\" }]\n[service]\ntitle = "
        "\"\\u001b\"\n");
  const std::string text = run({"evil"});
  EXPECT_NE(text.find("\\x1b"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_EQ(text.find("\xe2\x80\xae"), std::string::npos);
}

}  // namespace klctl
