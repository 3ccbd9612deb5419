#include "services/system/figures.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "kl/services.h"

namespace kl_system {
namespace {

Memory memoryIn(const std::string& text) {
  std::istringstream lines(text);
  return memoryFrom(lines);
}

bool tells(unsigned int object, void (*change)(Figures&)) {
  Figures told;
  told.memory = {32000, 16000};
  told.load = {100, 100, 100};
  Figures now = told;
  change(now);
  return isWorthTelling(object, told, now);
}

}  // namespace

TEST(SystemFigures, AreThoseOfTheMachine) {
  const Figures figures = readFigures();
  char name[256] = "";
  ASSERT_EQ(::gethostname(name, sizeof name), 0);
  EXPECT_EQ(figures.hostname, name);
  EXPECT_GT(figures.uptime, 0u);
  EXPECT_GT(figures.memory.available, 0u);
  EXPECT_GE(figures.memory.total, figures.memory.available);
}

TEST(SystemFigures, MemoryIsReadByTheNamesOfTheLines) {
  const Memory memory = memoryIn("MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 500 kB\nCached: 7 kB\n");
  EXPECT_EQ(memory.total, 1024000u);
  EXPECT_EQ(memory.available, 512000u);
}

TEST(SystemFigures, AKernelThatDoesNotSayWhatIsAvailableIsTakenAtWhatIsFree) {
  const Memory memory = memoryIn("MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 20 kB\nCached: 3 kB\n");
  EXPECT_EQ(memory.available, 123u * 1024);
}

TEST(SystemFigures, WithoutLinesNothingIsKnown) {
  EXPECT_EQ(memoryIn("").total, 0u);
  EXPECT_EQ(memoryIn("garbage\n").available, 0u);
}

TEST(SystemFigures, NamesAndTheTimeZoneAreAlwaysWorthTelling) {
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_HOST, [](Figures& f) { f.hostname = "x"; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_VERSION, [](Figures& f) { f.version = "1.0"; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_TIMEZONE, [](Figures& f) { f.timezone = -60; }));
}

TEST(SystemFigures, WhatAlwaysMovesIsToldInSteps) {
  EXPECT_FALSE(tells(kl::SYSTEM_OBJECT_UPTIME, [](Figures& f) { f.uptime = 59; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_UPTIME, [](Figures& f) { f.uptime = 60; }));
  EXPECT_FALSE(tells(kl::SYSTEM_OBJECT_MEMORY, [](Figures& f) { f.memory.available -= 999; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_MEMORY, [](Figures& f) { f.memory.available -= 1000; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_MEMORY, [](Figures& f) { f.memory.available += 1000; }));
  EXPECT_FALSE(tells(kl::SYSTEM_OBJECT_LOAD, [](Figures& f) { f.load[0] = 109; }));
  EXPECT_TRUE(tells(kl::SYSTEM_OBJECT_LOAD, [](Figures& f) { f.load[2] = 90; }));
}

TEST(SystemFigures, OneObjectDoesNotSpeakForAnother) {
  for (unsigned int id = 0; id <= kl::SYSTEM_OBJECT_LOAD + 1; ++id) {
    EXPECT_FALSE(tells(id, [](Figures&) {})) << id;
    EXPECT_EQ(tells(id, [](Figures& f) { f.hostname = "x"; }), id == kl::SYSTEM_OBJECT_HOST) << id;
  }
}

}  // namespace kl_system
