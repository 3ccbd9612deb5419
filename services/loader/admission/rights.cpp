// The records are flattened once, when a process registers; with every command they are only copied.

#include "admission/rights.h"

#include "kl/conventions.h"
#include "kl/message.h"

namespace loader {
namespace {

constexpr std::size_t kMagicBytes = 2;

RightsRecords recordsOf(const kl::message& m) {
  RightsRecords records;
  m.flatten(records);
  records.erase(records.begin(), records.begin() + kMagicBytes);
  return records;
}

}  // namespace

RightsRecords rightsRecords(const std::string& user, const Rights& rights) {
  kl::message m;
  m.insert(kl::SYS_USER, user);
  m.insert(kl::SYS_POLICY, rights.bits);
  return recordsOf(m);
}

SenderRights trustedRights(const std::string& user) {
  kl::message m;
  m.insert(kl::SYS_USER, user);
  return {true, recordsOf(m), {}};
}

SenderRights equalRights(const std::string& user, const Rights& rights) {
  return {false, {}, {{rights, rightsRecords(user, rights)}}};
}

}  // namespace loader
