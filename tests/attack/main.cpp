// kl-attack [--quick] [--seed N] [SCENARIO...]: attacks a loader and prints what came of it.  scripts/attack runs it.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/attack/scenarios.h"

namespace {

struct Scenario {
  const char* name;
  attack::Report (*run)(bool isQuick, unsigned int seed);
};

using attack::Report;

constexpr std::size_t kMostGrownBytes = 1024 * 1024;

attack::Pace paceOf(bool isQuick) { return isQuick ? attack::Pace{500, 1000} : attack::Pace{3000, 5000}; }

const Scenario kScenarios[] = {
    {"malformed",
     [](bool isQuick, unsigned int seed) {
       return isQuick ? attack::malformedFrames(6000, 2000, seed, 1000)
                      : attack::malformedFrames(1000000, 100000, seed, 20000);
     }},
    {"stuck",
     [](bool isQuick, unsigned int) { return attack::stuckReader(64, 10000, 1000, isQuick ? 5 : 60); }},
    {"descriptors",
     [](bool isQuick, unsigned int) { return attack::descriptorExhaustion(isQuick ? 5 : 50); }},
    {"connects", [](bool isQuick, unsigned int) { return attack::connects(isQuick ? 1000 : 10000); }},
    {"forgeries",
     [](bool isQuick, unsigned int seed) { return attack::forgeries(isQuick ? 10000 : 100000, seed); }},
    {"kills", [](bool isQuick, unsigned int seed) { return attack::kills(isQuick ? 50 : 1000, seed); }},
    {"endings", [](bool isQuick, unsigned int seed) { return attack::endings(isQuick ? 10 : 100, seed); }},
    {"huge", [](bool isQuick, unsigned int) { return attack::hugeFrames(paceOf(isQuick), 4, 16U << 20); }},
    {"unfinished",
     [](bool isQuick, unsigned int) {
       return attack::unfinishedFrames(paceOf(isQuick), isQuick ? 40 : 900);
     }},
    {"unread", [](bool isQuick, unsigned int) { return attack::unreadReplies(paceOf(isQuick), 64); }},
    {"tables1", [](bool isQuick, unsigned int) { return attack::pipelinedTables(paceOf(isQuick), 1); }},
    {"tables24", [](bool isQuick, unsigned int) { return attack::pipelinedTables(paceOf(isQuick), 24); }},
    {"multi", [](bool isQuick, unsigned int) { return attack::widePaths(paceOf(isQuick), 4); }},
    {"subscriptions",
     [](bool isQuick, unsigned int) { return attack::manySubscriptions(paceOf(isQuick), 200); }},
    {"queue", [](bool, unsigned int) { return attack::fullQueue(2000); }},
    {"registrations",
     [](bool isQuick, unsigned int) { return attack::manyRegistrations(paceOf(isQuick), 1017); }},
    {"few", [](bool isQuick, unsigned int) { return attack::fewDescriptors(paceOf(isQuick), 1017); }},
    {"ends",
     [](bool isQuick, unsigned int) { return attack::endsAtOnce(paceOf(isQuick), isQuick ? 2000 : 5000); }},
    {"silent", [](bool isQuick, unsigned int) { return attack::silentConnectors(paceOf(isQuick), 300); }},
    {"comings", [](bool isQuick, unsigned int) { return attack::comingsAndGoings(paceOf(isQuick), 4); }},
    {"ids", [](bool isQuick, unsigned int) { return attack::pickedIds(paceOf(isQuick), 4); }},
    {"markers", [](bool isQuick, unsigned int) { return attack::markerLinks(isQuick ? 10 : 100); }},
    {"log", [](bool isQuick, unsigned int) { return attack::logFlood(paceOf(isQuick), 50); }},
};

void print(const Report& report) {
  std::printf("%s\n", report.title.c_str());
  for (const auto& [name, value] : report.figures)
    std::printf("    %-36s %16s\n", name.c_str(), value.c_str());
  for (const std::string& promise : report.broken) std::printf("    BROKEN: %s\n", promise.c_str());
  std::fflush(stdout);
}

int refuse(const std::string& word) {
  std::fprintf(stderr, "kl-attack: what is '%s'?\n", word.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  bool isQuick = false;
  auto seed = static_cast<unsigned int>(std::time(nullptr));
  std::vector<const Scenario*> chosen;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::size_t before = chosen.size();
    for (const Scenario& scenario : kScenarios)
      if (words[i] == scenario.name) chosen.push_back(&scenario);
    if (chosen.size() > before) continue;
    if (words[i] == "--quick") isQuick = true;
    else if (words[i] == "--seed" && i + 1 < words.size())
      seed = static_cast<unsigned int>(std::atoi(words[++i].c_str()));
    else return refuse(words[i]);
  }
  if (chosen.empty())
    for (const Scenario& scenario : kScenarios) chosen.push_back(&scenario);
  bool isWhole = true;
  for (const Scenario* scenario : chosen) {
    Report report = scenario->run(isQuick, seed);
    report.promise(report.grownBytes < kMostGrownBytes, "the loader's memory grew");
    print(report);
    isWhole = isWhole && report.broken.empty();
  }
  return isWhole ? 0 : 1;
}
