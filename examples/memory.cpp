// The data that netif leaves with, beside the subscriptions; memory.toml has their fields.

#include "memory.h"

#include <algorithm>

#include "memory.kl.h"

namespace {
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
    data.insert(memory::NAMES, names);
    data.insert(memory::TEXTS, texts);
  }
  if (!known_.empty()) data.insert(memory::KNOWN, known_);
}

void Memory::loadPermData(const kl::message& data) {
  Handler::loadPermData(data);
  const auto names = data.get(memory::NAMES, {});
  const auto texts = data.get(memory::TEXTS, {});
  for (std::size_t i = 0; i < std::min(names.size(), texts.size()); ++i) (void)describe(names[i], texts[i]);
  known_ = data.get(memory::KNOWN, {});
}
