#include "tools/klgen/header.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "sample.kl.h"
#include "services/describe/json.h"
#include "tests/tools/klgen/described.h"
#include "tools/klgen/taken_words.h"

namespace klgen {
namespace {

constexpr char kStrict[] = " -std=c++20 -Wall -Wextra -Wconversion -Wshadow -Werror ";

std::string headerFor(const describe::Description& description) {
  common::Mistakes mistakes;
  std::string text = headerOf(description, "svc.toml", mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return text;
}

std::string output(const std::string& command) {
  std::string text;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  char part[4096];
  for (std::size_t n = 0; (n = ::fread(part, 1, sizeof part, pipe)) > 0;) text.append(part, n);
  return ::pclose(pipe) == 0 ? text : "failed: " + command + "\n" + text;
}

// A folder with svc.kl.h in it, where compilers run.
class CompiledHeader : public testing::Test {
 protected:
  CompiledHeader() {
    char name[] = "/tmp/klgen-XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~CompiledHeader() override { (void)output("rm -rf " + folder_); }

  std::string compiled(const std::string& header, const std::string& source, const std::string& flags) {
    std::ofstream(folder_ + "/svc.kl.h") << header;
    std::ofstream(folder_ + "/user.cpp") << "#include \"svc.kl.h\"\n" << source;
    return output(KL_COMPILER + std::string(kStrict) + "-I " KL_SOURCE_DIR "/include " + flags + " " +
                  folder_ + "/user.cpp -o " + folder_ + "/user.o");
  }
  // Bytes of code and data, as size(1) counts them.
  unsigned long bytes() {
    std::istringstream table(output("size " + folder_ + "/user.o | tail -n 1"));
    unsigned long text = 0, data = 0;
    table >> text >> data;
    return text + data;
  }

  std::string folder_;
};

[[maybe_unused]] std::string fieldList(const std::vector<std::string>& names,
                                       const std::vector<std::string>& types) {
  std::string fields = "fields = [\n", object;
  for (std::size_t i = 0; i < names.size(); ++i) {
    fields += "{ name = \"" + names[i] + "\", field = \"" + types[i % types.size()] + ":" +
              std::to_string(i) + "\" },\n";
    object += "\"" + names[i] + "\", ";
  }
  return fields + "]\n[[objects]]\nname = \"thing\"\nfields = [" + object + "]\n";
}

// Every word that is taken and could be the name of a field.
[[maybe_unused]] std::vector<std::string> takenNames() {
  std::set<std::string> names;
  std::istringstream words(std::string(kKeywords) + kMacros);
  for (std::string word; words >> word;) {
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (describe::isName(word)) names.insert(word);
  }
  return {names.begin(), names.end()};
}

kl::message everything() {
  kl::message m;
  m.insert(sample::ID, 7);
  m.insert(sample::STATE, 9);  // none of its words
  m.insert(sample::KIND, 2);
  m.insert(sample::UP, true);
  m.insert(sample::BYTES, 1ull << 40);
  m.insert(sample::ADDRESS, kl::IPAddr6{{1, 2, 3}});
  m.insert(sample::HOST, "host");
  m.insert(sample::REQUEST, kl::message().flattened());
  m.insert(sample::MAC, {1, 2, 3});
  m.insert(sample::FLAGS, {true, false});
  m.insert(sample::HOPS, {1, 2});
  m.insert(sample::TOTALS, {1, 2});
  m.insert(sample::ADDRESSES, {kl::IPAddr6{{9}}});
  m.insert(sample::NAMES, {"a", "b"});
  m.insert(sample::PARTS, {kl::message().flattened()});
  m.insert(sample::KEYS, {{1}, {}});
  m.insert(sample::CLASS, 16);
  m.insert(sample::EOF_, 17);
  return m;
}

}  // namespace

TEST(SampleHeader, ConstantsAreThoseOfTheDescription) {
  EXPECT_EQ(sample::SERVICE, 300u);
  EXPECT_EQ(sample::HANDLER_POOL, 1u);
  EXPECT_EQ(sample::CMD_RELEASE_ALL, 0x60001u);
  EXPECT_EQ(sample::TOPIC_SAMPLES, 300u);
  EXPECT_EQ(sample::ID, 0x08fe0001u);
  EXPECT_EQ(sample::KEYS, 0xb000000fu);
  EXPECT_EQ(sample::SETTING_LIMIT, 0x08000001u);
  EXPECT_EQ(static_cast<unsigned int>(sample::State::delete_), 3u);
}

TEST(SampleHeader, SettingsHaveTheirDefaultsAndBounds) {
  EXPECT_EQ(sample::SETTING_LIMIT_DEFAULT, 5u);
  EXPECT_EQ(sample::SETTING_LIMIT_MIN, 1u);
  EXPECT_EQ(sample::SETTING_LIMIT_MAX, 9u);
  EXPECT_EQ(sample::SETTING_BYTES_DEFAULT, 4294967296u);
  EXPECT_EQ(sample::SETTING_BYTES_MAX, 5000000000u);
  EXPECT_STREQ(sample::SETTING_FOLDER_DEFAULT, "/a \"b\"");
  EXPECT_TRUE(sample::SETTING_FAST_DEFAULT);
}

// The compiler has read the text as it was written.
TEST(SampleHeader, HasItsDescriptionAsAText) {
  common::Mistakes mistakes;
  const auto told = describe::read(sample::kDescription, "told", describe::OtherKeys::kRefused, mistakes);
  EXPECT_TRUE(mistakes.empty());
  EXPECT_EQ(describe::jsonOf(told), describe::jsonOf(sample()));
}

TEST(Header, ADescriptionThatIsTooLongIsNoText) {
  std::string fields;
  for (int i = 1; i <= 500; ++i)
    fields += "{ name = \"field_" + std::to_string(i) + "\", field = \"u32:" + std::to_string(i) + "\" },\n";
  const std::string text = headerFor(described("fields = [\n" + fields + "]\n"));
  EXPECT_EQ(text.find("kDescription"), std::string::npos);
  EXPECT_NE(text.find("// The description is too long for a process to carry."), std::string::npos);
}

TEST(SampleHeader, AStructureHasWhatTheMessageHas) {
  const auto thing = sample::Thing::fromMessage(everything());
  EXPECT_EQ(thing.id, 7u);
  EXPECT_EQ(thing.kind, sample::Kind::second);
  EXPECT_EQ(thing.up, true);
  EXPECT_EQ(thing.bytes, 1ull << 40);
  EXPECT_EQ(thing.host, "host");
  EXPECT_EQ(thing.mac, (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(thing.hops, (std::vector<unsigned int>{1, 2}));
  EXPECT_EQ(thing.names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(thing.class_, 16u);
  EXPECT_EQ(thing.toMessage(), everything());
}

TEST(SampleHeader, AValueWithoutAWordIsKept) {
  const auto thing = sample::Thing::fromMessage(everything());
  EXPECT_EQ(static_cast<unsigned int>(thing.state.value()), 9u);
  EXPECT_EQ(thing.toMessage().get(sample::STATE, 0), 9u);
}

TEST(SampleHeader, UnknownFieldsAreKept) {
  kl::message m = everything();
  m.insert_string(0x20000099, "from a newer program");
  m.insert_u32_array(0x88000098, {1, 2, 3});
  auto thing = sample::Thing::fromMessage(m);
  thing.host = "other";
  m.insert(sample::HOST, "other");
  EXPECT_EQ(thing.toMessage(), m);
}

TEST(SampleHeader, AbsentFieldsStayAbsentAndEmptiedOnesGo) {
  EXPECT_FALSE(sample::Thing::fromMessage(kl::message()).up.has_value());
  auto thing = sample::Thing::fromMessage(everything());
  thing.state.reset();
  thing.host.reset();
  thing.flags.reset();
  const kl::message m = thing.toMessage();
  EXPECT_FALSE(m.has(sample::STATE));
  EXPECT_FALSE(m.has(sample::HOST));
  EXPECT_FALSE(m.has(sample::FLAGS));
  EXPECT_TRUE(m.has(sample::NAMES));
}

TEST(SampleHeader, RequiredFieldsAreAlwaysThere) {
  const kl::message m = sample::Thing{.id = 5, .kind = sample::Kind::first}.toMessage();
  EXPECT_EQ(m.get(sample::ID, 0), 5u);
  EXPECT_EQ(m.get(sample::KIND, 0), 1u);
  EXPECT_FALSE(m.has(sample::UP));
}

TEST(SampleHeader, CommandsHaveStructuresForWhatTheyTakeAndGive) {
  EXPECT_EQ(sample::PoolReleaseAllRequest{.host = "x"}.toMessage().get(sample::HOST, ""), "x");
  EXPECT_EQ(sample::PoolReleaseAllReply{.released = 3}.toMessage().get(sample::RELEASED, 0), 3u);
}

TEST(Header, TwoThingsOfOneNameAreAMistake) {
  common::Mistakes mistakes;
  (void)headerOf(described("fields = [{ name = \"a_1b\", field = \"u32:1\", values = { x = 1 } },\n"
                           "{ name = \"a1b\", field = \"u32:2\", values = { x = 1 } }]\n"),
                 "svc.toml", mistakes);
  ASSERT_EQ(mistakes.size(), 1u);
  EXPECT_EQ(mistakes[0].describe(), "svc.toml:2: two things would be called A1b in C++: rename one of them");
}

TEST(Header, OneCommandOfTwoHandlersIsOneConstant) {
  const std::string text = headerFor(described(
      "objects = [{ name = \"a\", commands = [{ name = \"go\", code = 1, right = \"read\" }] },\n"
      "{ name = \"b\", handler = 1, commands = [{ name = \"go\", code = 1, right = \"read\" }] }]\n"));
  EXPECT_EQ(text.find("CMD_GO"), text.rfind("CMD_GO"));
}

// A compiler has no emulator to run in.
#ifndef KL_EMULATED
TEST_F(CompiledHeader, EveryWordOfCppMayBeAField) {
  const auto names = takenNames();
  EXPECT_GT(names.size(), 500u);
  const auto header = headerFor(described(fieldList(names, {"u32"})));
  EXPECT_EQ(
      compiled(header,
               "kl::message echo(const kl::message& m) { return svc::Thing::fromMessage(m).toMessage(); }",
               "-fsyntax-only"),
      "");
}

// The types inside the structures, and the values of a field.
TEST_F(CompiledHeader, ObjectsMayBeCalledAsWhatIsInThem) {
  const auto header =
      headerFor(described("fields = [{ name = \"calls\", field = \"u32:1\", values = { a = 1 } }]\n"
                          "[[objects]]\nname = \"operations\"\nfields = [\"calls\"]\n"
                          "commands = [{ name = \"awaits\", code = 1, right = \"read\", takes = [\"calls\"], "
                          "gives = [\"calls\"] }]\n"));
  EXPECT_EQ(compiled(header,
                     "#include \"kl/client.h\"\n#include \"kl/table.h\"\n"
                     "struct Mine : kl::Table<svc::Operations_> {\n"
                     "  kl::Result<svc::OperationsAwaitsReply> cmdAwaits(\n"
                     "      const svc::OperationsAwaitsRequest& asked, const kl::message&) override {\n"
                     "    return svc::OperationsAwaitsReply{.calls = asked.calls};\n  }\n};\n"
                     "void ask(kl::Client<svc::Operations_>& client) { client.awaits({}); }\n"
                     "kl::Handler* make() { return new Mine; }\n",
                     "-fsyntax-only"),
            "");
}
#endif

// The limit is for this compiler and this processor.
#if defined(__x86_64__) && !defined(__clang__)
TEST_F(CompiledHeader, ConstantsCostNothingAndStructuresLittle) {
  std::vector<std::string> names;
  for (int i = 0; i < 100; ++i) names.push_back("field" + std::to_string(i));
  const auto header =
      headerFor(described(fieldList(names, {"u32", "string", "bool", "u64", "raw", "u32[]", "addr6"})));
  ASSERT_EQ(compiled(header, "", "-O2 -c"), "");
  EXPECT_EQ(bytes(), 0u);

  const std::string few = headerFor(described(fieldList(
      {"a", "b", "c", "d", "e", "f", "g"}, {"u32", "string", "bool", "u64", "raw", "u32[]", "addr6"})));
  const std::string user =
      "kl::message echo(const kl::message& m) { return svc::Thing::fromMessage(m).toMessage(); }";
  ASSERT_EQ(compiled(few, user, "-Os -c -fno-asynchronous-unwind-tables"), "");
  const unsigned long once = bytes();
  ASSERT_EQ(compiled(header, user, "-Os -c -fno-asynchronous-unwind-tables"), "");
  EXPECT_LE(bytes() - once, 93 * 60u);
}
#endif

}  // namespace klgen
