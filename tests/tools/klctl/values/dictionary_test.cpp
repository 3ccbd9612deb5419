#include "tools/klctl/values/dictionary.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <utility>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

class Dictionaries : public testing::Test {
 protected:
  Dictionaries() {
    char name[] = "/tmp/klctl-dictionary-XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~Dictionaries() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& name, const std::string& text) { std::ofstream(folder_ / name) << text; }

  std::string refusal(const std::string& text) {
    write("svc.toml", text);
    const Told told = failureOf([&] { (void)namesFor("svc", {folder_}); });
    EXPECT_EQ(told.status, 2);
    EXPECT_TRUE(told.sentence.starts_with((folder_ / "svc.toml").string() + ":")) << told.sentence;
    return told.sentence.substr((folder_ / "svc.toml").string().size() + 1);
  }

  std::filesystem::path folder_;
};

// A variable of the environment, as long as this lives.
class Variable {
 public:
  Variable(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* const former = std::getenv(name_.c_str())) former_ = former;
    ::setenv(name_.c_str(), value.c_str(), 1);
  }
  ~Variable() {
    if (former_) ::setenv(name_.c_str(), former_->c_str(), 1);
    else ::unsetenv(name_.c_str());
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> former_;
};

const std::filesystem::path kShipped = std::filesystem::path(KL_SOURCE_DIR) / "tools/fields";

}  // namespace

TEST_F(Dictionaries, NamesFieldsInItsOrder) {
  write("svc.toml",
        "fields = [\n"
        "  { name = \"size\", field = \"u64:2\" },\n"
        "  { name = \"state\", field = \"u32:1\", values = { idle = 1, busy = 2 } },\n"
        "]\n");
  const FieldNames names = namesFor("svc", {folder_});
  EXPECT_EQ(names.find("size"), 0x10000002u);
  EXPECT_EQ(names.valueWord(0x08000001, 2), "busy");
  std::vector<unsigned int> ids = {0x08000001, 0x10000002};
  names.sort(ids);
  EXPECT_EQ(ids, (std::vector<unsigned int>{0x10000002, 0x08000001}));
}

TEST_F(Dictionaries, UnitsAndSecretsAreOfTheFields) {
  write("svc.toml",
        "fields = [\n"
        "  { name = \"size\", field = \"u64:2\", unit = \"bytes\" },\n"
        "  { name = \"pin\", field = \"string:1\", secret = true },\n"
        "]\n");
  const FieldNames names = namesFor("svc", {folder_});
  EXPECT_EQ(names.unitOf(0x10000002), "bytes");
  EXPECT_EQ(names.unitOf(0x20000001), "");
  EXPECT_TRUE(names.isHidden(0x20000001));
  EXPECT_FALSE(names.isHidden(0x10000002));
}

TEST_F(Dictionaries, ServicesWithADescriptionAreListed) {
  write("b.toml", "");
  write("a.toml", "");
  write("c.txt", "");
  EXPECT_EQ(describedServices({folder_}), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(describedServices({folder_ / "missing"}).empty());
}

TEST_F(Dictionaries, OfSeveralFoldersTheFirstThatHasTheServiceCounts) {
  std::filesystem::create_directories(folder_ / "own");
  write("own/svc.toml", "fields = [ { name = \"mine\", field = \"u32:1\" } ]\n");
  write("svc.toml", "fields = [ { name = \"theirs\", field = \"u32:1\" } ]\n");
  write("other.toml", "fields = [ { name = \"else\", field = \"u32:1\" } ]\n");
  const Folders folders = {folder_ / "missing", folder_ / "own", folder_};
  EXPECT_EQ(namesFor("svc", folders).find("mine"), 0x08000001u);
  EXPECT_FALSE(namesFor("svc", folders).find("theirs").has_value());
  EXPECT_EQ(namesFor("other", folders).find("else"), 0x08000001u);
  EXPECT_EQ(describedServices(folders), (std::vector<std::string>{"other", "svc"}));
}

TEST_F(Dictionaries, OnesOwnAreBeforeTheInstalledOnes) {
  const Variable named("KL_FIELDS", "/one::/two");
  const Variable home("HOME", "/my/home");
  const Folders folders = dictionaryFolders("own");
  ASSERT_EQ(folders.size(), 5u);
  EXPECT_EQ(Folders(folders.begin(), folders.end() - 1),
            (Folders{"own", "/one", "/two", "/my/home/.config/kl"}));
  EXPECT_EQ(dictionaryFolders({}).front(), "/one");
}

TEST_F(Dictionaries, WithoutAHomeThereIsNoFolderInIt) {
  const Variable named("KL_FIELDS", "");
  const Variable home("HOME", "");
  EXPECT_EQ(dictionaryFolders({}).size(), 1u);
}

TEST_F(Dictionaries, CommandsHaveNamesAtTheirHandlers) {
  write(
      "svc.toml",
      "[[objects]]\nname = \"a\"\ncommands = [\"getobj\", { name = \"go\", code = 7, right = \"read\" }]\n"
      "[[objects]]\nname = \"b\"\nhandler = 2\ncommands = [{ name = \"go\", code = 8, right = \"read\" }]\n");
  const Dictionary dictionary = dictionaryOf("svc", {folder_});
  EXPECT_EQ(commandOf(dictionary, "svc", {}, "go"), 7u);
  EXPECT_EQ(commandOf(dictionary, "svc", {2}, "CMD_GO"), 8u);
  EXPECT_EQ(handlersOf(dictionary, "svc", "b"), std::vector<unsigned int>{2});
  EXPECT_EQ(commandText(dictionary, 8), "go");
  EXPECT_EQ(commandText(dictionary, 9), "0x9");
  EXPECT_EQ(commandText(dictionary, kl::CMD_GETOBJ), "CMD_GETOBJ");
}

TEST_F(Dictionaries, AServiceWithoutOneHasTheCommonNames) {
  EXPECT_TRUE(namesFor("svc", {folder_}).find("descr").has_value());
  EXPECT_TRUE(namesFor("svc", {folder_ / "missing"}).find("descr").has_value());
}

TEST_F(Dictionaries, ANameThatLeadsElsewhereIsNotFollowed) {
  write("outside.toml", "this is no TOML");
  std::filesystem::create_directory(folder_ / "in");
  EXPECT_TRUE(namesFor("../outside", {folder_ / "in"}).find("descr").has_value());
  EXPECT_TRUE(namesFor("", {folder_}).find("descr").has_value());
  EXPECT_TRUE(namesFor(".hidden", {folder_}).find("descr").has_value());
}

TEST_F(Dictionaries, MistakesNameTheLineAndWhatWasExpected) {
  EXPECT_EQ(refusal("fields = 7\n"), "1: expected a list 'fields = [ ... ]'");
  EXPECT_EQ(refusal("fields = [\n 7 ]\n"), "2: expected { name = \"...\", field = \"TYPE:NUMBER\" }");
  EXPECT_EQ(refusal("fields = [\n { field = \"u32:1\" } ]\n"), "2: expected name = \"...\"");
  EXPECT_EQ(refusal("fields = [\n { name = \"\", field = \"u32:1\" } ]\n"), "2: expected name = \"...\"");
  EXPECT_EQ(refusal("fields = [\n\n { name = \"a\" } ]\n"), "3: expected field = \"...\"");
  EXPECT_EQ(refusal("fields = [ { name = \"a\", field = \"u33:1\" } ]\n"),
            "1: expected a field like \"u32:5\" or \"string[]:std.9\", not \"u33:1\"");
  EXPECT_EQ(refusal("fields = [ { name = \"a\", field = \"u32:1\", values = 7 } ]\n"),
            "1: expected values = { word = number, ... } of a u32 field");
  EXPECT_EQ(refusal("fields = [ { name = \"a\", field = \"u64:1\", values = { x = 1 } } ]\n"),
            "1: expected values = { word = number, ... } of a u32 field");
  EXPECT_EQ(refusal("fields = [ { name = \"a\", field = \"u32:1\", values = { x = -1 } } ]\n"),
            "1: expected a number from 0 to 4294967295");
  EXPECT_TRUE(refusal("fields = [\n{ name = }\n]").starts_with("2: "));
}

TEST(ShippedDictionaries, TheLoadersAgreeWithItsHeader) {
  const FieldNames names = namesFor("loader", {kShipped});
  EXPECT_EQ(names.find("id"), kl::STD_ID);
  EXPECT_EQ(names.find("name"), kl::SVC_NAME);
  EXPECT_EQ(names.find("pid"), kl::SVC_PID);
  EXPECT_EQ(names.find("user"), kl::SVC_USER);
  EXPECT_EQ(names.find("state"), kl::SVC_STATE);
  EXPECT_EQ(names.find("starts"), kl::SVC_STARTS);
  EXPECT_EQ(names.find("messages_in"), kl::SVC_MESSAGES_IN);
  EXPECT_EQ(names.find("messages_out"), kl::SVC_MESSAGES_OUT);
  EXPECT_EQ(names.find("bytes_in"), kl::SVC_BYTES_IN);
  EXPECT_EQ(names.find("bytes_out"), kl::SVC_BYTES_OUT);
  EXPECT_EQ(names.find("queue"), kl::SVC_QUEUE);
  EXPECT_EQ(names.find("requests"), kl::SVC_REQUESTS);
  EXPECT_EQ(names.find("drops"), kl::SVC_DROPS);
  EXPECT_EQ(names.find("action"), kl::SVC_ACTION);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "stopped"), kl::SVC_STATE_STOPPED);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "starting"), kl::SVC_STATE_STARTING);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "registered"), kl::SVC_STATE_REGISTERED);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "running"), kl::SVC_STATE_RUNNING);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "delayed"), kl::SVC_STATE_DELAYED);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "stopping"), kl::SVC_STATE_STOPPING);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "leaving"), kl::SVC_STATE_LEAVING);
  EXPECT_EQ(names.findValue(kl::SVC_STATE, "left"), kl::SVC_STATE_LEFT);
  EXPECT_EQ(names.findValue(kl::SVC_ACTION, "start"), kl::SVC_START);
  EXPECT_EQ(names.findValue(kl::SVC_ACTION, "stop"), kl::SVC_STOP);
  EXPECT_EQ(names.findValue(kl::SVC_ACTION, "restart"), kl::SVC_RESTART);
  EXPECT_EQ(names.findValue(kl::SVC_ACTION, "leave"), kl::SVC_LEAVE);
}

TEST(ShippedDictionaries, TheLogServicesAgreeWithItsHeader) {
  const FieldNames names = namesFor("log", {kShipped});
  EXPECT_EQ(names.find("time"), kl::LOG_TIME);
  EXPECT_EQ(names.find("process"), kl::LOG_PROCESS);
  EXPECT_EQ(names.find("pid"), kl::LOG_PID);
  EXPECT_EQ(names.find("source"), kl::LOG_SOURCE);
  EXPECT_EQ(names.find("topics"), kl::LOG_TOPICS);
  EXPECT_EQ(names.find("text"), kl::LOG_TEXT);
  EXPECT_EQ(names.find("since"), kl::LOG_SINCE);
  EXPECT_EQ(names.find("contains"), kl::LOG_CONTAINS);
  EXPECT_EQ(names.find("skipped"), kl::LOG_SKIPPED);
  EXPECT_EQ(names.find("topic"), kl::LOG_TOPIC_NAME);
  EXPECT_EQ(names.find("muted"), kl::LOG_MUTED);
  EXPECT_EQ(names.find("file"), kl::LOG_FILE);
  EXPECT_EQ(names.find("size"), kl::LOG_FILE_BYTES);
  EXPECT_EQ(names.find("files"), kl::LOG_FILE_COUNT);
  EXPECT_EQ(names.find("sync"), kl::LOG_FILE_SYNC);
  EXPECT_EQ(names.find("failure"), kl::LOG_FILE_FAILURE);
  EXPECT_EQ(names.find("lost"), kl::LOG_FILE_LOST);
  EXPECT_EQ(names.find("clients"), kl::LOG_CLIENTS);
  EXPECT_EQ(names.find("lines"), kl::LOG_LINES);
  EXPECT_EQ(names.find("dropped"), kl::LOG_DROPPED);
  EXPECT_EQ(names.find("torn"), kl::LOG_TORN);
  EXPECT_EQ(names.find("memory"), kl::LOG_MEMORY);
  EXPECT_EQ(names.findValue(kl::LOG_FILE_SYNC, "never"), kl::LOG_SYNC_NEVER);
  EXPECT_EQ(names.findValue(kl::LOG_FILE_SYNC, "second"), kl::LOG_SYNC_SECOND);
  EXPECT_EQ(names.findValue(kl::LOG_FILE_SYNC, "line"), kl::LOG_SYNC_LINE);
}

}  // namespace klctl
