#include "services/loader/crashes/symbols.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "services/loader/crashes/crash.h"

namespace {

using loader::nameIn;
using loader::Place;
using loader::Symbols;

class Loop : public kl::Runner {
 public:
  void stop() { stop_ = true; }
};

std::string answerTo(const Place& place) {
  Loop loop;
  Symbols symbols(loop);
  std::string answer = "none";
  bool isDone = false;
  symbols.ask(place, [&](const std::string& name) {
    answer = name;
    isDone = true;
    loop.stop();
  });
  if (!isDone) loop.run();
  return answer;
}

TEST(SymbolsTest, TheInnermostPlaceOutsideTheSystemIsNamed) {
  EXPECT_EQ(nameIn("leases::Leases::cmdGetObj(kl::message const&, unsigned int)\n/src/leases.cpp:175\n"),
            "leases.cpp:175 leases::Leases::cmdGetObj");
  EXPECT_EQ(nameIn("std::vector<int>::operator[](unsigned long)\n/usr/include/c++/12/bits/stl_vector.h:1126\n"
                   "(anonymous namespace)::serve(Peer&)\n/src/x.cpp:9 (discriminator 2)\n"),
            "x.cpp:9 (anonymous namespace)::serve");
  EXPECT_EQ(nameIn("f(int) const\n/usr/include/x.h:3\n"), "x.h:3 f");
  EXPECT_EQ(nameIn("Table::operator()(int)\n??:?\n"), "Table::operator()");
}

TEST(SymbolsTest, WithoutSymbolsThereIsNoName) {
  EXPECT_EQ(nameIn("??\n??:0\n"), "");
  EXPECT_EQ(nameIn(""), "");
}

TEST(SymbolsTest, ANameCannotSteerTheTerminal) {
  EXPECT_EQ(nameIn("a\x1b[2J\nx.cpp:1\n"), "x.cpp:1 a\\x1b[2J");
}

TEST(SymbolsTest, WhereNobodyKnowsTheAnswerIsEmpty) {
  EXPECT_EQ(answerTo({"/nowhere/program", "", 0, ::geteuid(), {}}), "");
  EXPECT_EQ(answerTo({"/proc/self/exe", "another build", 0x1000, ::geteuid(), {}}), "");
}

TEST(SymbolsTest, TooManyQuestionsAreAnsweredAtOnce) {
  Loop loop;
  Symbols symbols(loop);
  std::size_t answered = 0;
  for (std::size_t i = 0; i < Symbols::kMostWaiting + 3; ++i)
    symbols.ask({"/nowhere/program", "", 0, ::geteuid(), {}}, [&](const std::string&) { ++answered; });
  EXPECT_EQ(answered, 2u);
}

}  // namespace
