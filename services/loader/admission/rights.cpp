// The records are flattened once, when a process registers; with every command they are only copied.

#include "admission/rights.h"

#include "kl/conventions.h"
#include "kl/message.h"

namespace loader {
namespace {

constexpr std::size_t kMagicBytes = 2;

}  // namespace

RightsRecords rightsRecords(const std::string& user, const Rights& rights) {
  if (rights.all) return {};
  kl::message m;
  m.insert(kl::SYS_USER, user);
  m.insert(kl::SYS_POLICY, rights.bits);
  RightsRecords records;
  m.flatten(records);
  records.erase(records.begin(), records.begin() + kMagicBytes);
  return records;
}

}  // namespace loader
