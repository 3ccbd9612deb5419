// A pair is known by its place in the list, in file names, in name spaces and in what a compiler says.

#include "tests/tools/klgen/edits/pairs.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "services/describe/field_id.h"
#include "tests/tools/klgen/edits/judge.h"
#include "tests/tools/klgen/edits/programs.h"
#include "tools/klgen/against.h"

namespace edits {
namespace {

using describe::Description;

bool isMember(const std::string& name, const Description& older, const Description& newer) {
  const auto structures = commonStructures(older, newer);
  return std::any_of(structures.begin(), structures.end(), [&](const Structures& both) {
    return std::find(both.newFields.begin(), both.newFields.end(), name) != both.newFields.end() &&
           std::any_of(both.oldFields.begin(), both.oldFields.end(),
                       [&](const std::string& old) { return meaningOfField(name, older, newer) == old; });
  });
}

bool hidesAnEnumeration(const Pair& pair) {
  for (const describe::Field& now : pair.newer.fields) {
    const describe::Field* old = pair.older.findField(meaningOfField(now.name, pair.older, pair.newer));
    if (old != nullptr && old->values.empty() && !now.values.empty() &&
        !isMember(now.name, pair.older, pair.newer))
      return true;
  }
  return false;
}

std::string oldPrefix(std::size_t number) { return "older" + std::to_string(number) + "_"; }
std::string newPrefix(std::size_t number) { return "newer" + std::to_string(number) + "_"; }

std::string includeOf(const std::string& prefix) { return "#include \"" + prefix + ".kl.h\"\n"; }

std::string sourceText(const std::vector<Pair>& pairs, std::size_t first, std::size_t end) {
  std::string includes, text;
  for (std::size_t i = first; i < end; ++i) {
    includes += includeOf(newPrefix(i));
    text += "namespace user" + std::to_string(i) + " {\n#line 1 \"pair_" + std::to_string(i) + "\"\n" +
            userProgram(pairs[i].older, newPrefix(i)) + "}\n";
  }
  return includes + text;
}

std::string exchangeText(const std::vector<Pair>& pairs, std::size_t first, std::size_t end) {
  std::string includes = "#include <cstdio>\n", text, calls;
  for (std::size_t i = first; i < end; ++i) {
    const std::string name = "pair" + std::to_string(i);
    includes += includeOf(oldPrefix(i)) + includeOf(newPrefix(i));
    text += exchangeProgram(pairs[i].older, oldPrefix(i), pairs[i].newer, newPrefix(i), name);
    calls += "  std::printf(\"" + std::to_string(i) + " %d\\n\", " + name + "() ? 1 : 0);\n";
  }
  return includes + kExchangeHelpers + text + "int main() {\n" + calls + "}\n";
}

std::string judgement(std::size_t number, const std::string& text) {
  return "pair " + std::to_string(number) + ": " + text + "\n";
}

// The pairs that a compiler says something of.
std::set<std::size_t> pairsIn(const std::string& errors) {
  std::set<std::size_t> numbers;
  static const std::string kMark = "pair_";
  for (std::size_t at = errors.find(kMark); at != std::string::npos; at = errors.find(kMark, at + 1))
    numbers.insert(std::stoul(errors.substr(at + kMark.size(), 9)));
  return numbers;
}

}  // namespace

Verdict verdictOf(const Pair& pair) {
  Verdict verdict = Verdict::kFine;
  for (const klgen::Break& found : klgen::breaksOf(pair.older, pair.newer))
    verdict = std::max(verdict, found.level == klgen::Level::kWire ? Verdict::kWire : Verdict::kSource);
  return verdict;
}

std::vector<Pair> randomPairs(unsigned int seed, unsigned int count) {
  Random random(seed);
  std::vector<Pair> pairs;
  while (pairs.size() < count) {
    Pair pair = randomPair(random);
    if (!hidesAnEnumeration(pair)) pairs.push_back(std::move(pair));
  }
  return pairs;
}

std::string differencesOnTheWire(const std::vector<Pair>& pairs) {
  std::string differences;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const std::string fault = misunderstanding(pairs[i].older, pairs[i].newer);
    const bool isBroken = verdictOf(pairs[i]) == Verdict::kWire;
    if (isBroken && fault.empty())
      differences += judgement(i, "klgen says that it breaks, and programs go on");
    if (!isBroken && !fault.empty()) differences += judgement(i, "klgen says nothing, but " + fault);
  }
  return differences;
}

void writePrograms(const std::vector<Pair>& pairs, const std::string& folder, unsigned int perFile) {
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    std::ofstream(folder + "/" + oldPrefix(i) + ".kl.h") << headerText(pairs[i].older, oldPrefix(i));
    std::ofstream(folder + "/" + newPrefix(i) + ".kl.h") << headerText(pairs[i].newer, newPrefix(i));
  }
  for (std::size_t first = 0; first < pairs.size(); first += perFile) {
    const std::size_t end = std::min(first + perFile, pairs.size());
    const std::string number = std::to_string(first / perFile);
    std::ofstream(folder + "/source_" + number + ".cpp") << sourceText(pairs, first, end);
    std::ofstream(folder + "/exchange_" + number + ".cpp") << exchangeText(pairs, first, end);
  }
}

std::string differencesOfExchanges(const std::vector<Pair>& pairs, const std::string& exchanged) {
  std::map<std::size_t, bool> understood;
  std::istringstream lines(exchanged);
  std::size_t number = 0;
  for (bool isUnderstood = false; lines >> number >> isUnderstood;) understood[number] = isUnderstood;
  std::string differences;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const std::string fault = misunderstandingOfStructures(pairs[i].older, pairs[i].newer);
    if (!understood.contains(i)) differences += judgement(i, "nothing was exchanged");
    else if (understood[i] != fault.empty())
      differences += judgement(i, "the programs " + std::string(fault.empty() ? "do not" : "") +
                                      " understand each other, and the interpreter says: " + fault);
  }
  return differences;
}

std::string differencesOfSources(const std::vector<Pair>& pairs, const std::string& errors) {
  const std::set<std::size_t> broken = pairsIn(errors);
  std::string differences;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const Pair& pair = pairs[i];
    const Verdict verdict = verdictOf(pair);
    if (verdict == Verdict::kWire) continue;  // a source may well be compiled
    const bool isLost = broken.contains(i) || !lostName(pair.older, pair.newer).empty();
    if (isLost != (verdict == Verdict::kSource))
      differences +=
          judgement(i, isLost ? "klgen says nothing, but a program cannot be compiled or finds no name"
                              : "klgen says that sources break, and they do not");
  }
  return differences;
}

}  // namespace edits
