// The tables of the page are those of the program, and every state meets every event.

#include "services/loader/life/states.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using loader::LifeEvent;
using loader::LifeState;
using loader::ProcessOf;
using loader::Step;
using loader::Steps;
using Words = std::vector<std::string>;

constexpr const char* kStepNames[] = {"cancel delay",   "declare gone", "give up", "drop",   "keep",
                                      "forget process", "log",          "wait",    "disarm", "greet",
                                      "launch",         "tell",         "arm",     "kill",   "release",
                                      "need",           "disconnect"};
static_assert(std::size(kStepNames) == loader::kSteps);

std::string trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(' ');
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

Words split(const std::string& text, char separator) {
  Words words;
  std::istringstream in(text);
  for (std::string word; std::getline(in, word, separator);) words.push_back(trimmed(word));
  return words;
}

// The rows of the page's table below this heading, cell by cell.
std::vector<Words> rowsBelow(const std::string& heading) {
  std::ifstream in(KL_SOURCE_DIR "/services/loader/life/README.md");
  std::vector<Words> rows;
  bool isThere = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("## ", 0) == 0) isThere = line == "## " + heading;
    if (isThere && line.rfind("|", 0) == 0) rows.push_back(split(line.substr(1), '|'));
  }
  if (rows.size() > 2) rows.erase(rows.begin(), rows.begin() + 2);  // the heading of the table, and its line
  return rows;
}

LifeState stateOf(std::size_t number) { return static_cast<LifeState>(number); }
LifeEvent eventOf(std::size_t number) { return static_cast<LifeEvent>(number); }

LifeState stateNamed(const std::string& name) {
  for (std::size_t i = 0; i < loader::kLifeStates; ++i)
    if (rowOf(stateOf(i)).name == name) return stateOf(i);
  EXPECT_EQ(name, "same");
  return LifeState::kSame;
}

LifeEvent eventNamed(const std::string& name) {
  for (std::size_t i = 0; i < loader::kLifeEvents; ++i)
    if (nameOf(eventOf(i)) == name) return eventOf(i);
  ADD_FAILURE() << "no event " << name;
  return LifeEvent::kTimeOut;
}

std::set<std::string> namesOf(Steps steps) {
  std::set<std::string> names;
  for (std::size_t i = 0; i < loader::kSteps; ++i)
    if (steps.has(static_cast<Step>(i))) names.insert(kStepNames[i]);
  return names;
}

struct Expected {
  LifeState to;
  std::set<std::string> steps;
};

std::map<std::pair<LifeState, LifeEvent>, Expected> pageOfTransitions() {
  std::map<std::pair<LifeState, LifeEvent>, Expected> page;
  for (const Words& row : rowsBelow("Transitions")) {
    EXPECT_GE(row.size(), 3u);
    std::set<std::string> steps;
    if (row.size() > 3)
      for (const std::string& step : split(row[3], ',')) steps.insert(step);
    steps.erase("");
    for (const std::string& from : split(row[0], ','))
      for (const std::string& event : split(row[1], ',')) {
        const bool isNew =
            page.insert({{stateNamed(from), eventNamed(event)}, {stateNamed(row[2]), steps}}).second;
        EXPECT_TRUE(isNew) << from << " meets " << event << " twice";
      }
  }
  return page;
}

TEST(LifeStates, ThePageShowsWhatEachStateShowsAndHolds) {
  static const std::map<std::string, unsigned int> kShown{
      {"stopped", kl::SVC_STATE_STOPPED},       {"starting", kl::SVC_STATE_STARTING},
      {"registered", kl::SVC_STATE_REGISTERED}, {"running", kl::SVC_STATE_RUNNING},
      {"waits", kl::SVC_STATE_DELAYED},         {"stopping", kl::SVC_STATE_STOPPING},
      {"leaving", kl::SVC_STATE_LEAVING},       {"left", kl::SVC_STATE_LEFT}};
  static const std::map<std::string, ProcessOf> kProcesses{
      {"none", ProcessOf::kNobody}, {"own", ProcessOf::kLoader}, {"other", ProcessOf::kSomebodyElse}};
  const std::vector<Words> rows = rowsBelow("States");
  ASSERT_EQ(rows.size(), loader::kLifeStates);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const loader::StateRow& state = rowOf(stateOf(i));
    EXPECT_EQ(rows[i][0], state.name);
    EXPECT_EQ(kShown.at(rows[i][1]), state.shown) << state.name;
    EXPECT_EQ(rows[i][2] == "held", state.holds) << state.name;
    EXPECT_EQ(kProcesses.at(rows[i][3]), state.process) << state.name;
  }
}

TEST(LifeStates, EveryStateMeetsEveryEventAsThePageSays) {
  const auto page = pageOfTransitions();
  ASSERT_GT(page.size(), 120u);
  std::size_t met = 0;
  for (std::size_t s = 0; s < loader::kLifeStates; ++s)
    for (std::size_t e = 0; e < loader::kLifeEvents; ++e) {
      const loader::Transition* transition = findTransition(stateOf(s), eventOf(e));
      const auto expected = page.find({stateOf(s), eventOf(e)});
      const std::string pair =
          std::string(rowOf(stateOf(s)).name) + " meets " + std::string(nameOf(eventOf(e)));
      ASSERT_EQ(transition != nullptr, expected != page.end()) << pair;
      if (transition == nullptr) continue;
      ++met;
      EXPECT_EQ(transition->to, expected->second.to) << pair;
      EXPECT_EQ(namesOf(transition->steps), expected->second.steps) << pair;
    }
  EXPECT_EQ(met, page.size());
}

// Rules that hold of any such table.
TEST(LifeStates, StepsAndTargetsFitTogether) {
  for (std::size_t s = 0; s < loader::kLifeStates; ++s)
    for (std::size_t e = 0; e < loader::kLifeEvents; ++e) {
      const loader::Transition* t = findTransition(stateOf(s), eventOf(e));
      if (t == nullptr) continue;
      const std::string pair =
          std::string(rowOf(stateOf(s)).name) + " meets " + std::string(nameOf(eventOf(e)));
      const loader::StateRow& from = rowOf(stateOf(s));
      const loader::StateRow& to = t->to == LifeState::kSame ? from : rowOf(t->to);
      const bool launches = t->steps.has(Step::kLaunch);
      const bool forgets = t->steps.has(Step::kForgetProcess);
      const bool takes = t->steps.has(Step::kGreet) && from.process == ProcessOf::kNobody;
      const bool failed = eventOf(e) == LifeEvent::kStartFailed;
      // a process comes by a launch or as a guest, and goes by being forgotten or not starting
      EXPECT_EQ(from.process == ProcessOf::kNobody && to.process != ProcessOf::kNobody,
                (launches && !forgets) || takes)
          << pair;
      EXPECT_EQ(from.process != ProcessOf::kNobody && to.process == ProcessOf::kNobody,
                (forgets && !launches) || failed)
          << pair;
      // what is held is not left lying when nothing is held any more
      const bool empties = t->steps.has(Step::kRelease) || t->steps.has(Step::kGreet) ||
                           t->steps.has(Step::kDrop) || t->steps.has(Step::kGiveUp) ||
                           t->steps.has(Step::kDeclareGone);
      const bool waitsForItsEnd = to.process == ProcessOf::kLoader && to.shown == kl::SVC_STATE_STOPPING;
      EXPECT_TRUE(!from.holds || to.holds || empties || waitsForItsEnd || failed) << pair;
      // a delay is begun exactly on the way to a state that waits for it
      EXPECT_EQ(t->steps.has(Step::kWait),
                from.shown != kl::SVC_STATE_DELAYED && to.shown == kl::SVC_STATE_DELAYED)
          << pair;
      // whoever has to end is watched
      const bool mustEnd = to.shown == kl::SVC_STATE_STOPPING && from.shown != kl::SVC_STATE_STOPPING;
      EXPECT_TRUE(!mustEnd || t->steps.has(Step::kTell) || t->steps.has(Step::kArm)) << pair;
    }
}

}  // namespace
