// The list of topics is read line by line; a mistake in one leaves the others as they are.  Names are looked up by
// walking the list: there are a few dozen, and only people use them.

#include "keeping/topic_names.h"

#include <charconv>
#include <sstream>

namespace logd {
namespace {

constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz";
constexpr char kLettersAndMore[] = "abcdefghijklmnopqrstuvwxyz0123456789_-.";

std::optional<Topic> numberOf(const std::string& word) {
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size() || number == 0 || number > 0xffff) return {};
  return static_cast<Topic>(number);
}

bool isName(const std::string& word) {
  return word.find_first_of(kLetters) == 0 && word.find_first_not_of(kLettersAndMore) == std::string::npos;
}

}  // namespace

TopicNames TopicNames::parse(const std::string& text, const std::string& file, common::Mistakes& mistakes) {
  TopicNames names;
  std::istringstream in(text);
  std::string line;
  for (unsigned int number = 1; std::getline(in, line); ++number) {
    const char* fault = names.readLine(line.substr(0, line.find('#')));
    if (fault != nullptr) mistakes.push_back({file, number, fault});
  }
  return names;
}

const char* TopicNames::readLine(const std::string& line) {
  std::istringstream words(line);
  std::string number;
  std::string name;
  std::string more;
  if (!(words >> number)) return nullptr;
  const auto topic = numberOf(number);
  if (!topic) return "expected the number of a topic, from 1 to 65535, and its name";
  if (!(words >> name) || words >> more || !isName(name))
    return "expected one name behind the number: a small letter, then small letters, digits, _, - and .";
  if (names_.contains(*topic) || find(name)) return "expected a topic and a name that did not come before";
  names_[*topic] = name;
  return nullptr;
}

const std::string* TopicNames::findName(Topic topic) const {
  const auto found = names_.find(topic);
  return found == names_.end() ? nullptr : &found->second;
}

std::optional<Topic> TopicNames::find(const std::string& word) const {
  for (const auto& [topic, name] : names_)
    if (name == word) return topic;
  return numberOf(word);
}

std::string TopicNames::listOf(const Topics& topics) const {
  std::string list;
  for (const Topic topic : topics) {
    const std::string* name = findName(topic);
    list += (list.empty() ? "" : ",") + (name != nullptr ? *name : std::to_string(topic));
  }
  return list.empty() ? "-" : list;
}

}  // namespace logd
