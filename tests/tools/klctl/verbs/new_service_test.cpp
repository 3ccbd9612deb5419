#include "tools/klctl/verbs/new_service.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "services/describe/reader.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/recorded_channels.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

namespace fs = std::filesystem;

// In a folder of its own, in which the process works meanwhile.
class NewService : public testing::Test {
 protected:
  NewService() : before_(fs::current_path()) {
    char name[] = "/tmp/new_service_XXXXXX";
    folder_ = ::mkdtemp(name);
    fs::current_path(folder_);
  }
  ~NewService() override {
    fs::current_path(before_);
    fs::remove_all(folder_);
  }

  std::string make(const char* name) { return channels_.perform(parsed({"new", name})); }

  static std::string contentOf(const fs::path& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  RecordedChannels channels_;

 private:
  fs::path before_;
  fs::path folder_;
};

TEST_F(NewService, HasDescriptionCodeTestBuildSectionAndUnit) {
  EXPECT_EQ(make("lamp"),
            "lamp/CMakeLists.txt\nlamp/kl-loader.toml\nlamp/lamp.cpp\nlamp/lamp.service\nlamp/lamp.toml\n"
            "lamp/lamp_test.sh\n");
}

TEST_F(NewService, NothingIsLeftToPutIn) {
  (void)make("lamp");
  for (const auto& entry : fs::directory_iterator("lamp"))
    for (const char* place : {"@NAME@", "@ID@"})
      EXPECT_EQ(contentOf(entry.path()).find(place), std::string::npos) << entry.path();
}

TEST_F(NewService, ItsDescriptionIsRightAndHasTheNumberOfTheSection) {
  (void)make("lamp");
  common::Mistakes mistakes;
  const describe::Description description =
      describe::readFile("lamp/lamp.toml", describe::OtherKeys::kRefused, mistakes);
  EXPECT_TRUE(mistakes.empty());
  EXPECT_EQ(description.name, "lamp");
  ASSERT_TRUE(description.id);
  EXPECT_NE(contentOf("lamp/kl-loader.toml").find("\nid = " + std::to_string(*description.id) + "\n"),
            std::string::npos);
}

TEST_F(NewService, ResultsMayBeJson) {
  const Json files = Json::parse(channels_.perform(parsed({"new", "lamp", "--json"})));
  EXPECT_EQ(files.size(), 6u);
  EXPECT_EQ(files[0], "lamp/CMakeLists.txt");
}

TEST_F(NewService, WhatIsThereIsLeftAlone) {
  fs::create_directory("lamp");
  const Told told = failureOf([this] { (void)make("lamp"); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "cannot make the folder lamp: File exists");
  EXPECT_TRUE(fs::is_empty("lamp"));
}

TEST_F(NewService, AWordThatIsNoNameIsRefused) {
  const std::string longest(40, 'a');
  for (const std::string& name :
       {std::string("../x"), std::string("Lamp"), std::string("1lamp"), longest + "a"}) {
    const Told told = failureOf([&] { (void)make(name.c_str()); });
    EXPECT_EQ(told.status, 2) << name;
    EXPECT_TRUE(told.sentence.starts_with("'" + name + "' is no name of a service")) << told.sentence;
  }
  EXPECT_TRUE(fs::is_empty("."));
}

}  // namespace
}  // namespace klctl
