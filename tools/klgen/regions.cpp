// A page is copied line by line.  The lines of a region are left out, and what its marker asks for is put in their place.

#include "regions.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

#include "pages.h"

namespace klgen {
namespace {

using describe::Description;
using Words = std::vector<std::string>;

// A name as a marker has it, "name" or "LABEL=name".
struct AskedName {
  std::string label;
  std::string name;
};
using AskedNames = std::vector<AskedName>;

// Thrown for a name that stands for nothing.
struct Unknown {
  std::string name;
};

template <class Thing>
Rows<Thing> rowsOf(const std::vector<Thing>& all, const AskedNames& names) {
  Rows<Thing> rows;
  if (names.empty())
    for (const Thing& thing : all) rows.push_back({"", &thing});
  for (const AskedName& name : names) {
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Thing& thing) { return thing.name == name.name; });
    if (found == all.end()) throw Unknown{name.name};
    rows.push_back({name.label, &*found});
  }
  return rows;
}

using Maker = std::function<std::string(const Description& description, const AskedNames& names)>;
using Makers = std::map<std::string, Maker>;

template <class Thing>
Maker making(std::vector<Thing> Description::*list, std::string (*toText)(const Rows<Thing>&)) {
  return [list, toText](const Description& description, const AskedNames& names) {
    return toText(rowsOf(description.*list, names));
  };
}

// How regions look in a kind of page.
struct Language {
  std::string begin;
  std::string close;  // ends the marker, where it may go over several lines
  std::string end;
  std::string around;  // stands between the markers and what is made
  Makers makers;
};

const Language& languageOf(const std::string& file) {
  static const Language markdown{"<!-- klgen ",
                                 "-->",
                                 "<!-- klgen end -->",
                                 "\n",
                                 {{"fields", making(&Description::fields, markdownFields)},
                                  {"settings", making(&Description::settings, markdownFields)},
                                  {"values", making(&Description::fields, markdownValues)},
                                  {"commands", making(&Description::objects, markdownCommands)},
                                  {"topics", making(&Description::topics, markdownTopics)}}};
  static const Language man{".\\\" klgen ",
                            "",
                            ".\\\" klgen end",
                            "",
                            {{"fields", making(&Description::fields, manFields)},
                             {"settings", making(&Description::settings, manSettings)},
                             {"commands", making(&Description::objects, manCommands)},
                             {"topics", making(&Description::topics, manTopics)}}};
  return std::filesystem::path(file).extension() == ".md" ? markdown : man;
}

Words wordsOf(const std::string& text) {
  std::istringstream in(text);
  Words words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

AskedNames namesIn(const Words& words, std::size_t from) {
  AskedNames names;
  for (std::size_t i = from; i < words.size(); ++i) {
    const std::size_t equals = words[i].find('=');
    if (equals == std::string::npos) names.push_back({"", words[i]});
    else names.push_back({words[i].substr(0, equals), words[i].substr(equals + 1)});
  }
  return names;
}

class Updater {
 public:
  Updater(const std::string& page, const std::string& file, const LoadDescription& load,
          common::Mistakes& mistakes)
      : lines_(page), file_(file), load_(load), mistakes_(mistakes), language_(languageOf(file)) {}

  std::string run();

 private:
  bool nextLine();
  std::string readMarker();
  void replaceRegion(const std::string& marker);
  std::optional<std::string> contentOf(const std::string& marker);
  void mistake(unsigned int line, const std::string& text) { mistakes_.push_back({file_, line, text}); }

  std::istringstream lines_;
  const std::string& file_;
  const LoadDescription& load_;
  common::Mistakes& mistakes_;
  const Language& language_;
  std::string line_;
  unsigned int number_ = 0;  // of the line
  std::string out_;
};

std::string Updater::run() {
  while (nextLine()) {
    if (!line_.starts_with(language_.begin) || line_ == language_.end) {
      out_ += line_ + "\n";
      continue;
    }
    replaceRegion(readMarker());
  }
  return std::move(out_);
}

bool Updater::nextLine() {
  if (!std::getline(lines_, line_)) return false;
  ++number_;
  return true;
}

// The words of the marker, which is copied.
std::string Updater::readMarker() {
  std::string marker = line_.substr(language_.begin.size());
  out_ += line_ + "\n";
  while (!language_.close.empty() && marker.find(language_.close) == std::string::npos && nextLine()) {
    marker += " " + line_;
    out_ += line_ + "\n";
  }
  return marker.substr(0, language_.close.empty() ? marker.size() : marker.find(language_.close));
}

void Updater::replaceRegion(const std::string& marker) {
  const unsigned int begin = number_;
  const auto content = contentOf(marker);
  std::string before;
  bool hasEnd = false;
  while (!hasEnd && nextLine()) {
    hasEnd = line_ == language_.end;
    if (!hasEnd) before += line_ + "\n";
  }
  if (!hasEnd) mistake(begin, "this region has no end '" + language_.end + "'");
  const bool isMade = content && hasEnd;
  out_ += isMade ? language_.around + *content + language_.around : before;
  if (hasEnd) out_ += line_ + "\n";
}

std::optional<std::string> Updater::contentOf(const std::string& marker) {
  const Words words = wordsOf(marker);
  const auto maker = language_.makers.find(words.empty() ? "" : words[0]);
  if (maker == language_.makers.end() || words.size() < 2) {
    std::string kinds;
    for (const auto& [kind, make] : language_.makers) kinds += (kinds.empty() ? "" : ", ") + kind;
    mistake(number_, "expected one of " + kinds + ", and a description");
    return {};
  }
  const auto description = load_((std::filesystem::path(file_).parent_path() / words[1]).string());
  if (!description) {
    mistake(number_, "there is no description " + words[1]);
    return {};
  }
  try {
    return maker->second(*description, namesIn(words, 2));
  } catch (const Unknown& unknown) {
    mistake(number_, words[1] + " has no '" + unknown.name + "' among its " + words[0]);
    return {};
  }
}

}  // namespace

std::string updatedPage(const std::string& page, const std::string& file, const LoadDescription& load,
                        common::Mistakes& mistakes) {
  return Updater(page, file, load, mistakes).run();
}

}  // namespace klgen
