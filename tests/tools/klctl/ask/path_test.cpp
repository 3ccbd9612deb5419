#include "tools/klctl/ask/path.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

kl::message serviceObject(unsigned int id, const std::string& name) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(kl::SVC_NAME, name);
  return m;
}

kl::message serviceTable(const std::string& name, unsigned int id) {
  kl::message reply;
  reply.insert(kl::STD_OBJS, {serviceObject(id, name).flattened()});
  return reply;
}

// Answers as the loader does, from a table of four services.
kl::message loader(const kl::message& request) {
  const kl::message table[] = {serviceObject(1, "loader"), serviceObject(32, "netif"),
                               serviceObject(65536, "twin"), serviceObject(65537, "twin")};
  EXPECT_EQ(request.get(kl::SYS_TO, {}), std::vector<unsigned int>{1});
  if (request.get(kl::SYS_CMD, 0) == kl::CMD_GETOBJ) {
    for (const kl::message& service : table)
      if (service.get(kl::STD_ID, 0) == request.get(kl::STD_ID, 0)) return service;
    return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  }
  std::vector<kl::message::flat_message> objects;
  for (const kl::message& service : table) service.flatten(objects.emplace_back());
  kl::message reply;
  reply.insert(kl::STD_OBJS, objects);
  return reply;
}

kl::message nobody(const kl::message&) {
  ADD_FAILURE() << "asked the loader";
  return {};
}

}  // namespace

TEST(Path, AServiceIsANameOrANumber) {
  EXPECT_EQ(parsePath("netif").service, "netif");
  EXPECT_EQ(parsePath("24").service, "24");
  EXPECT_TRUE(parsePath("netif").handlers.empty());
  EXPECT_FALSE(parsePath("netif").object.has_value());
}

TEST(Path, HandlersFollowBehindSlashesAndAnObjectBehindAColon) {
  const NamedPath path = parsePath("netif/3/0x10:7");
  EXPECT_EQ(path.service, "netif");
  EXPECT_EQ(path.handlers, (std::vector<unsigned int>{3, 16}));
  EXPECT_EQ(path.object, 7u);
  EXPECT_EQ(parsePath("24/0").handlers, std::vector<unsigned int>{0});
  EXPECT_EQ(parsePath("netif:4294967295").object, 4294967295u);
}

TEST(Path, TheFirstElementMayBeTheNameOfAnObject) {
  NamedPath path = parsePath("log/rule/3:7");
  EXPECT_EQ(path.service, "log");
  EXPECT_EQ(path.objectName, "rule");
  EXPECT_EQ(path.handlers, std::vector<unsigned int>{3});
  EXPECT_EQ(pathText(path), "log/rule/3:7");
  path.named = {1};
  EXPECT_EQ(handlersOf(path), (std::vector<unsigned int>{1, 3}));
  EXPECT_EQ(resolvePath(path, [](const kl::message&) { return serviceTable("log", 18); }),
            (std::vector<unsigned int>{18, 1, 3}));
}

TEST(Path, WhatIsNoPathIsRefused) {
  for (const std::string word :
       {"", "/", "/3", ":3", "netif/", "netif:", "netif/X", "netif/3/x", "netif/x/y", "netif:x", "netif:3/4",
        "netif/-1", "netif//3", "netif:3:4", "netif/4294967296"}) {
    const Told told = failureOf([&] { (void)parsePath(word); });
    EXPECT_EQ(told.status, 2) << word;
    EXPECT_NE(told.sentence.find("'" + word + "' is no path"), std::string::npos) << told.sentence;
  }
  std::string longest = "netif";
  for (int i = 0; i < 31; ++i) longest += "/1";
  EXPECT_EQ(parsePath(longest).handlers.size(), 31u);
  EXPECT_EQ(failureOf([&] { (void)parsePath(longest + "/1"); }).status, 2);
}

TEST(Path, ANameIsFoundInTheLoadersTable) {
  EXPECT_EQ(resolveId("netif", loader), 32u);
  EXPECT_EQ(resolveId("loader", nobody), 1u);
  EXPECT_EQ(resolveName("netif", nobody), "netif");
}

TEST(Path, ANumberIsTakenAsItIsAndItsNameIsAsked) {
  EXPECT_EQ(resolveId("4711", nobody), 4711u);
  EXPECT_EQ(resolveId("0x20", nobody), 32u);
  EXPECT_EQ(resolveName("32", loader), "netif");
  EXPECT_EQ(resolveName("1", nobody), "loader");
  EXPECT_EQ(resolveName("24", loader), "system");  // not in the table: its fixed name
  EXPECT_EQ(resolveName("4711", loader), "");
}

TEST(Path, ANameThatNoServiceHasIsRefused) {
  const Told told = failureOf([] { (void)resolveId("nobody", loader); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "no service is called 'nobody' (klctl services lists them)");
}

TEST(Path, ANameThatIsLikeAServicesNameIsAskedBack) {
  EXPECT_EQ(failureOf([] { (void)resolveId("netfi", loader); }).sentence,
            "no service is called 'netfi'; did you mean 'netif'? (klctl services lists them)");
}

TEST(Path, ANameThatTwoServicesHaveIsRefused) {
  const Told told = failureOf([] { (void)resolveId("twin", loader); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "several services are called 'twin', 65536 and 65537 among them: give the number");
}

TEST(Path, ALoaderThatHidesItsTableIsToldAsSuch) {
  const auto refuses = [](const kl::message&) { return kl::errorMsg(kl::ERROR_NOTALLOWED, ""); };
  const Told told = failureOf([&] { (void)resolveId("netif", refuses); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "loader: std failure: not allowed (9); klctl rights explain " + ownName() +
                               " loader CMD_GETALL says why");
  EXPECT_EQ(resolveName("32", refuses), "netif");
}

}  // namespace klctl
