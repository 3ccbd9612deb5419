// Words that are taken are looked up in two lists; everything else is a matter of capitals.

#include "identifiers.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "taken_words.h"

namespace klgen {
namespace {

bool isTaken(const char* words, const std::string& word) {
  return std::strstr(words, (" " + word + " ").c_str()) != nullptr;
}

std::string freed(const std::string& word) {
  return isTaken(kKeywords, word) || isTaken(kMacros, word) ? word + "_" : word;
}

// Types inside the structures of objects.
bool isOfStructures(const std::string& word) { return isTaken(" Operations Calls Awaits ", word); }

char capital(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

}  // namespace

std::string memberName(const std::string& name) { return freed(name); }

std::string constantName(const std::string& name) {
  std::string result = name;
  std::transform(result.begin(), result.end(), result.begin(), capital);
  return freed(result);
}

std::string camelName(const std::string& name) {
  std::string result;
  bool begins = true;
  for (const char c : name) {
    if (c != '_') result += begins ? capital(c) : c;
    begins = c == '_';
  }
  return result;
}

std::string typeName(const std::string& name) {
  const std::string result = camelName(name);
  return isOfStructures(result) ? result + "_" : freed(result);
}

std::string spaceName(const std::string& name) {
  return name == "std" || name == "kl" || name == "posix" ? name + "_" : freed(name);
}

std::string commentText(const std::string& text) {
  std::string result = text;
  std::replace_if(
      result.begin(), result.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; },
      ' ');
  result.erase(result.find_last_not_of(' ') + 1);
  if (result.ends_with('\\')) result += '.';  // the line ends here
  return result;
}

}  // namespace klgen
