#include "tools/klgen/operations.h"

#include <gtest/gtest.h>

#include "kl/client.h"
#include "kl/looper.h"
#include "sample.kl.h"
#include "tests/tools/klgen/described.h"

namespace klgen {
namespace {

class Pool : public kl::Commands<sample::Pool> {
 public:
  kl::Result<sample::PoolReleaseAllReply> cmdReleaseAll(const sample::PoolReleaseAllRequest& asked,
                                                        const kl::message& request) override {
    if (request.has(kl::STD_NEXTID)) return kl::Error{kl::ERROR_BUSY, "later"};
    return sample::PoolReleaseAllReply{.released = static_cast<unsigned int>(asked.host.value_or("").size())};
  }
};

kl::message askedFor(const std::string& host) {
  kl::message m;
  m.insert(sample::HOST, host);
  return m;
}

std::string errorText(const kl::message& reply) { return kl::isError(reply) ? kl::getError(reply) : ""; }

std::string textFor(const std::string& commands) {
  const auto description = described("objects = [{ name = \"a\", commands = [" + commands + "] }]\n");
  return operationsOf(description.objects[0]);
}

template <class Object>
concept HasOperations = requires {
  typename Object::template Operations<kl::Handler>;
};

bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Operations, TakeAndGiveWhatTheDescriptionSays) {
  Pool pool;
  EXPECT_EQ(pool.cmdUnknown(askedFor("host"), sample::CMD_RELEASE_ALL).get(sample::RELEASED, 0), 4u);
}

TEST(Operations, AnErrorIsTheReply) {
  Pool pool;
  kl::message m = askedFor("host");
  m.insert(kl::STD_NEXTID, 1);
  EXPECT_EQ(pool.cmdUnknown(m, sample::CMD_RELEASE_ALL), kl::errorMsg(kl::ERROR_BUSY, "later"));
}

TEST(Operations, ARequestThatDoesNotKeepToTheDescriptionIsRefused) {
  Pool pool;
  kl::message m = askedFor("host");
  m.insert(sample::BYTES, 10);
  const kl::message reply = pool.cmdUnknown(m, sample::CMD_RELEASE_ALL);
  EXPECT_TRUE(has(errorText(reply), "bytes: at most 9")) << errorText(reply);
  EXPECT_FALSE(reply.has(sample::RELEASED));
}

TEST(Operations, OneThatIsNotOverriddenIsNotImplemented) {
  kl::Commands<sample::Pool> pool;
  EXPECT_EQ(pool.cmdUnknown(askedFor("host"), sample::CMD_RELEASE_ALL), kl::errorMsg(kl::ERROR_NOTIMP, ""));
  Pool overridden;
  EXPECT_EQ(overridden.cmdUnknown(askedFor("host"), 0x70000), kl::errorMsg(kl::ERROR_NOTIMP, ""));
}

TEST(Operations, NeedTheRightOfTheDescription) {
  Pool pool;
  const kl::message policies = pool.cmdGetPolicies(kl::message());
  EXPECT_NE(policies, kl::Handler().cmdGetPolicies(kl::message()));
}

TEST(Operations, NamesThatAreTakenGetAnUnderscore) {
  const std::string text = textFor(
      "{ name = \"get_obj\", code = 1, right = \"read\" }, { name = \"count\", code = 2, right = \"read\" },"
      "{ name = \"delete\", code = 3, right = \"read\" }, { name = \"release_all\", code = 4, right = "
      "\"read\" }");
  for (const char* part : {" cmdGetObj_(", " cmdCount(", " cmdDelete(", " cmdReleaseAll(", " void getObj(",
                           " void count_(", " void delete_(", " void releaseAll("})
    EXPECT_TRUE(has(text, part)) << part << " is not in\n" << text;
}

TEST(Operations, TasksAwaitThem) {
  EXPECT_TRUE(has(textFor("{ name = \"go\", code = 1, right = \"read\" }"),
                  "auto go() { return static_cast<Client&>(*this).template call<AGo>(); }"));
}

TEST(Operations, ACommandWithoutFieldsTakesAndGivesNothing) {
  const std::string text = textFor("{ name = \"go\", code = 1, right = \"read\", doc = \"begins\" }");
  EXPECT_TRUE(has(text, "    // begins\n    virtual ::kl::Error cmdGo(const ::kl::message&) {")) << text;
  EXPECT_TRUE(has(text, "void go(::kl::Callable<void(::kl::Result<::kl::NoFields>)> theDone = nullptr)"))
      << text;
}

TEST(Operations, AnObjectOfStandardCommandsHasNone) {
  EXPECT_EQ(textFor("\"getall\", \"getobj\""), "");
  EXPECT_TRUE(HasOperations<sample::Pool>);
  EXPECT_FALSE(HasOperations<sample::Thing>);
}

}  // namespace klgen
