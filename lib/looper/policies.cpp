// The rights that each command needs.
//
//     RIGHT_READ       CMD_GET..., CMD_NOOP, CMD_SUBSCRIBE, CMD_UNSUBSCRIBE
//     RIGHT_CHANGE     CMD_SET..., CMD_ADDOBJ, CMD_REMOVEOBJ, CMD_MOVEOBJ, CMD_RESET
//     RIGHT_CONTROL    CMD_START, CMD_POLL, CMD_CANCEL
//     RIGHT_OF_NOBODY  CMD_NOTIFY, and every command that the table does not name
//
// Only a request without SYS_POLICY has the right of nobody, with all others: a message between services.

#include <utility>
#include <vector>

#include "kl/looper.h"

namespace kl {
namespace {

// A command that has no name and keeps its entry.
constexpr unsigned int kUnnamedChange = 0xfe0008;

// What a table knows at its beginning.
constexpr std::pair<unsigned int, unsigned int> kRequired[] = {
    {CMD_GETPOLICIES, RIGHT_READ}, {CMD_NOOP, RIGHT_READ},      {CMD_GETOBJ, RIGHT_READ},
    {CMD_GETALL, RIGHT_READ},      {CMD_ADDOBJ, RIGHT_CHANGE},  {CMD_SETOBJ, RIGHT_CHANGE},
    {CMD_REMOVEOBJ, RIGHT_CHANGE}, {CMD_MOVEOBJ, RIGHT_CHANGE}, {kUnnamedChange, RIGHT_CHANGE},
    {CMD_NOTIFY, RIGHT_OF_NOBODY}, {CMD_SUBSCRIBE, RIGHT_READ}, {CMD_UNSUBSCRIBE, RIGHT_READ},
    {CMD_GET, RIGHT_READ},         {CMD_SET, RIGHT_CHANGE},     {CMD_RESET, RIGHT_CHANGE},
    {CMD_POLL, RIGHT_CONTROL},     {CMD_START, RIGHT_CONTROL},  {CMD_CANCEL, RIGHT_CONTROL},
    {CMD_GETCOUNT, RIGHT_READ},
};

bool covers(unsigned int have, unsigned int need) { return (need & have) == need; }

message::flat_message flatEntry(unsigned int command, unsigned int bits, bool satisfied) {
  message entry;
  entry.insert(STD_ID, command);
  entry.insert(POLICY_RIGHTS, bits);
  entry.insert(POLICY_ALLOWED, satisfied);
  return entry.flattened();
}

}  // namespace

policies::policies() {
  for (const auto& [command, bits] : kRequired) required_.insert({command, bits});
}

void policies::set_policy(unsigned int command, unsigned int bits) {
  required_.insert({command, 0}).first->second = bits;
}

void policies::add_policy(unsigned int command, unsigned int bits) {
  required_.insert({command, 0}).first->second |= bits;
}

bool policies::is_allowed(const message& request) const {
  const auto entry = required_.find(request.get(SYS_CMD, CMD_NOOP));
  const unsigned int need = entry == required_.end() ? RIGHT_OF_NOBODY : entry->second;
  return covers(request.get(SYS_POLICY, RIGHTS_ALL), need);
}

message policies::get_policies(const message& request) const {
  const unsigned int have = request.get(SYS_POLICY, RIGHTS_ALL);
  std::vector<message::flat_message> entries;
  entries.reserve(required_.size());
  for (const auto& [command, bits] : required_)
    entries.push_back(flatEntry(command, bits, covers(have, bits)));
  message table;
  table.insert(STD_OBJS, entries);
  return table;
}

}  // namespace kl
