// The rights that each command needs.
//
//     64    reading            CMD_GET..., CMD_NOOP, CMD_SUBSCRIBE, CMD_UNSUBSCRIBE
//     128   changing           CMD_SET..., CMD_ADDOBJ, CMD_REMOVEOBJ, CMD_MOVEOBJ, CMD_RESET
//     512   setting going      CMD_START, CMD_POLL, CMD_CANCEL
//     2^31  nobody's           CMD_NOTIFY, and every command that the table does not name
//
// "Nobody's" is met only by a request without SYS_POLICY, which has all rights: messages between services.

#include <vector>

#include "kl/looper.h"

namespace kl {
namespace {

constexpr unsigned int kRead = 64;
constexpr unsigned int kChange = 128;
constexpr unsigned int kOperate = 512;
constexpr unsigned int kNobody = 0x80000000;
constexpr unsigned int kAllRights = 0xffffffff;

// A command that has no name and keeps its entry.
constexpr unsigned int kUnnamedChange = 0xfe0008;

constexpr field<unsigned int> kRequired{0x08000001};
constexpr field<bool> kSatisfied{0x00000002};

bool covers(unsigned int have, unsigned int need) { return (need & have) == need; }

message::flat_message flatEntry(unsigned int command, unsigned int bits, bool satisfied) {
  message entry;
  entry.insert(STD_ID, command);
  entry.insert(kRequired, bits);
  entry.insert(kSatisfied, satisfied);
  message::flat_message flat;
  entry.flatten(flat);
  return flat;
}

}  // namespace

policies::policies()
    : required_{
          {CMD_GETPOLICIES, kRead}, {CMD_NOOP, kRead},      {CMD_GETOBJ, kRead},
          {CMD_GETALL, kRead},      {CMD_ADDOBJ, kChange},  {CMD_SETOBJ, kChange},
          {CMD_REMOVEOBJ, kChange}, {CMD_MOVEOBJ, kChange}, {kUnnamedChange, kChange},
          {CMD_NOTIFY, kNobody},    {CMD_SUBSCRIBE, kRead}, {CMD_UNSUBSCRIBE, kRead},
          {CMD_GET, kRead},         {CMD_SET, kChange},     {CMD_RESET, kChange},
          {CMD_POLL, kOperate},     {CMD_START, kOperate},  {CMD_CANCEL, kOperate},
          {CMD_GETCOUNT, kRead},
      } {}

void policies::set_policy(unsigned int command, unsigned int bits) { required_[command] = bits; }

void policies::add_policy(unsigned int command, unsigned int bits) { required_[command] |= bits; }

bool policies::is_allowed(const message& request) const {
  const auto entry = required_.find(request.get(SYS_CMD, CMD_NOOP));
  const unsigned int need = entry == required_.end() ? kNobody : entry->second;
  return covers(request.get(SYS_POLICY, kAllRights), need);
}

message policies::get_policies(const message& request) const {
  const unsigned int have = request.get(SYS_POLICY, kAllRights);
  std::vector<message::flat_message> entries;
  entries.reserve(required_.size());
  for (const auto& [command, bits] : required_)
    entries.push_back(flatEntry(command, bits, covers(have, bits)));
  message table;
  table.insert(STD_OBJS, entries);
  return table;
}

}  // namespace kl
