// The data that netif leaves with, beside the subscriptions in 0xa8000001:
//
//     0xa0000002   string[]   names of interfaces
//     0xa0000003   string[]   their descriptions, in the same order
//     0x88000004   u32[]      the indexes that subscribers know

#include "memory.h"

#include <algorithm>

namespace {
constexpr kl::field<std::vector<std::string>> kNames{0xa0000002};
constexpr kl::field<std::vector<std::string>> kTexts{0xa0000003};
constexpr kl::field<std::vector<unsigned int>> kKnown{0x88000004};

constexpr std::size_t kRoomBytes = 32768;
}  // namespace

std::string Memory::description(const std::string& interface) const {
  const auto found = descriptions_.find(interface);
  return found == descriptions_.end() ? "" : found->second;
}

bool Memory::describe(const std::string& interface, const std::string& text) {
  std::size_t bytes = text.size();
  for (const auto& [name, description] : descriptions_)
    if (name != interface) bytes += name.size() + description.size();
  if (bytes + interface.size() > kRoomBytes) return false;
  if (text.empty()) descriptions_.erase(interface);
  else descriptions_[interface] = text;
  return true;
}

void Memory::forgetAllBut(const std::set<std::string>& interfaces) {
  std::erase_if(descriptions_, [&](const auto& entry) { return !interfaces.contains(entry.first); });
}

void Memory::savePermData(kl::message& data) {
  Handler::savePermData(data);
  std::vector<std::string> names;
  std::vector<std::string> texts;
  for (const auto& [name, text] : descriptions_) {
    names.push_back(name);
    texts.push_back(text);
  }
  if (!names.empty()) {
    data.insert(kNames, names);
    data.insert(kTexts, texts);
  }
  if (!known_.empty()) data.insert(kKnown, known_);
}

void Memory::loadPermData(const kl::message& data) {
  Handler::loadPermData(data);
  const auto names = data.get(kNames, {});
  const auto texts = data.get(kTexts, {});
  for (std::size_t i = 0; i < std::min(names.size(), texts.size()); ++i) (void)describe(names[i], texts[i]);
  known_ = data.get(kKnown, {});
}
