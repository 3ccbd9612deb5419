// The library keeps a subscription without its system fields, so the sender's user and rights are copied to fields of
// this process's own.  Fields that a request brings under their numbers go first.

#include "viewers.h"

#include <utility>

#include "kl/conventions.h"

namespace undo {
namespace {

constexpr kl::field<std::string> kUser{0x20fd0001};
constexpr kl::field<unsigned int> kRights{0x08fd0002};

bool hasContents(unsigned int rights) { return (rights & kl::RIGHT_CONTENTS) != 0; }

}  // namespace

Viewer::Viewer(std::string user, bool seesAll) : user_(std::move(user)), seesAll_(seesAll) {}

Viewer Viewer::of(const kl::message& request) {
  return {request.get(kl::SYS_USER, ""), hasContents(request.get(kl::SYS_POLICY, kl::RIGHTS_ALL))};
}

Viewer Viewer::ofSubscription(const kl::message& record) {
  return {record.get(kUser, ""), hasContents(record.get(kRights, 0))};
}

kl::message withViewer(const kl::message& request) {
  kl::message m(request);
  m.removeIdMask(kl::NAMESPACE_LOCAL, kl::NAMESPACE_MASK);
  m.insert(kUser, request.get(kl::SYS_USER, ""));
  m.insert(kRights, request.get(kl::SYS_POLICY, kl::RIGHTS_ALL));
  return m;
}

}  // namespace undo
