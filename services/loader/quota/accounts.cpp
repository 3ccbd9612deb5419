// An amount is taken from an account and from its pool in one step, so their sums agree; whoever takes something holds
// a Charge, so that nothing stays taken when he goes.

#include "quota/accounts.h"

#include <algorithm>

namespace loader {
namespace {

Amounts threeQuartersOf(const Amounts& whole) {
  Amounts part;
  for (const ResourceRow& row : kResourceRows) part[row.resource] = whole[row.resource] / 4 * 3;
  return part;
}

bool fits(unsigned long long used, std::size_t amount, unsigned long long most, Part part) {
  return 8 * (used + amount) <= most * static_cast<unsigned int>(part);
}

}  // namespace

bool Account::hasRoomFor(Resource resource, std::size_t amount, Part part) const {
  return fits(used_[resource], amount, pool_.mostOfOne[resource], part) &&
         fits(pool_.used[resource], amount, pool_.most[resource], part);
}

void Account::take(Resource resource, std::size_t amount) {
  used_[resource] += amount;
  pool_.used[resource] += amount;  // Q1
}

void Account::giveBack(Resource resource, std::size_t amount) {
  used_[resource] -= amount;
  pool_.used[resource] -= amount;  // Q1
}

void Charge::bind(Account* account, Resource resource) {
  if (account_ != nullptr) account_->giveBack(resource_, amount_);
  account_ = account;
  resource_ = resource;
  if (account_ != nullptr) account_->take(resource_, amount_);
}

void Charge::change(std::size_t amount) {
  if (account_ != nullptr) {
    account_->take(resource_, amount);
    account_->giveBack(resource_, amount_);
  }
  amount_ = amount;
}

Accounts::Accounts(const Limits& limits, uid_t ownUser)
    : limits_(limits),
      ownUser_(ownUser),
      ordinary_{limits.user, limits.all, {}, false},
      trusted_{threeQuartersOf(limits.reserve), limits.reserve, {}, true} {}

Account& Accounts::ofUser(uid_t uid, unsigned int now) {
  const auto known = users_.find(uid);
  if (known != users_.end()) return *known->second;
  if (users_.size() >= dropAt_) dropIdle(now);
  const bool isOrdinary = !isTrusted(uid);
  const Pace pace = isOrdinary ? Pace(limits_.registrations, limits_.registrationBurst) : Pace();
  auto account = std::make_unique<Account>(isOrdinary ? ordinary_ : trusted_, pace);
  return *users_.emplace(uid, std::move(account)).first->second;
}

Account& Accounts::ofService(unsigned int id) {
  std::unique_ptr<Account>& account = services_[id];
  if (account == nullptr) account = std::make_unique<Account>(trusted_, Pace());
  return *account;
}

void Accounts::dropIdle(unsigned int now) {
  std::erase_if(users_,
                [&](const auto& entry) { return !isTrusted(entry.first) && entry.second->isIdle(now); });
  dropAt_ = std::max<std::size_t>(64, 2 * users_.size());
}

}  // namespace loader
