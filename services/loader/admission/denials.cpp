// A bucket that is full again says nothing of its user and is the first to go.

#include "admission/denials.h"

#include <algorithm>

#include "config/commands.h"
#include "routing/service_table.h"

namespace loader {
namespace {

// A word that a shell takes as one, as it is.
bool isPlainWord(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
  });
}

// Whether the decision was about a user whom a gateway named, and not about the sender itself.
bool isInNameOfUser(const Service& sender, const Envelope& e, const Access& access) {
  return sender.rights.speaksFor != nullptr && !e.user.bytes().empty() &&
         access.denial != Access::Denial::kForeignUser;
}

// The option of the explaining command for a service that has rights of its own.
std::string senderOption(const ServiceConfiguration* sender) {
  if (sender == nullptr || !sender->rights) return {};
  return "--sender " + (isPlainWord(sender->name) ? sender->name : std::to_string(sender->id)) + " ";
}

// The user whom a gateway asks for, and the rights to which its request limits him.
std::string inWhoseName(const Envelope& e) {
  std::string text = " in the name of " + std::string(e.user.text());
  if (!e.policy.bytes().empty()) text += ", limited to " + wordsOf(e.policy.u32());
  return text;
}

void refill(unsigned int& tokens, unsigned int& since, unsigned int now) {
  tokens =
      static_cast<unsigned int>(std::min<unsigned long long>(Denials::kBurst, 0ULL + tokens + (now - since)));
  since = now;
}

}  // namespace

void Denials::report(const Service& sender, const Envelope& e, unsigned int toId, Path rest,
                     const Access& access, unsigned int now) {
  Bucket& bucket = bucketOf(sender.uid, now);
  refill(bucket.tokens, bucket.since, now);
  if (bucket.tokens == 0) {
    ++bucket.dropped;
    return;
  }
  --bucket.tokens;
  const std::string path = pathText(toId, rest);
  const std::string command = nameOfCommand(e.command);
  const bool isInName = isInNameOfUser(sender, e, access);
  const std::string user =
      isInName ? std::string(e.user.text()) : senderOption(configuration_.find(sender.id)) + sender.user;
  std::string line = describe(sender) + ": " + command + " to " + path + (isInName ? inWhoseName(e) : "") +
                     " is not allowed: " + access.reason() + "; see: ";
  if (access.denial == Access::Denial::kForeignUser) line += "the key speaks_for of " + sender.name;
  else line += "klctl rights explain " + user + " " + path + " " + command;
  if (bucket.dropped > 0) line += " (and " + std::to_string(bucket.dropped) + " more without a line)";
  bucket.dropped = 0;
  log_.line(line);
}

Denials::Bucket& Denials::bucketOf(uid_t uid, unsigned int now) {
  const auto found = buckets_.find(uid);
  if (found != buckets_.end()) return found->second;
  if (buckets_.size() >= kMostUsers)
    std::erase_if(buckets_, [&](const auto& entry) {
      return entry.second.tokens + 0ULL + (now - entry.second.since) >= kBurst && entry.second.dropped == 0;
    });
  if (buckets_.size() >= kMostUsers) return shared_;
  return buckets_[uid] = Bucket{kBurst, now, 0};
}

std::string Denials::pathText(unsigned int toId, Path rest) const {
  const ServiceConfiguration* service = configuration_.find(toId);
  std::string text = std::to_string(toId);
  if (toId == kl::SERVICE_LOADER) text = "loader";
  else if (service != nullptr && isPlainWord(service->name)) text = service->name;
  for (unsigned int i = 0; i < rest.size(); ++i) text += "/" + std::to_string(rest[i]);
  return text;
}

}  // namespace loader
