// leases: keeps DHCP leases, on disk as well, and ends each when its time comes.
//
// The table itself is the library's (kl/table.h), made of the description leases.toml: its commands, bounds, errors,
// notifications and undo records.  The rest are the rules that no description says.

#include <algorithm>
#include <ctime>
#include <ostream>

#include "kl/address.h"
#include "kl/description.h"
#include "kl/logger.h"
#include "kl/services.h"
#include "kl/table.h"
#include "kl/timer.h"
#include "leases.kl.h"

namespace {

constexpr unsigned int kMostLeases = 10000;       // some 2 MiB
constexpr unsigned long long kLongestSleep = 60;  // in seconds, so that a clock which is set is noticed

class Leases : public kl::Table<leases::Lease, kl::Looper> {
 public:
  Leases() : Table(kAny, leases::SERVICE) {
    reportTooBig(true);
    kl::setDescription(leases::kDescription);
    limitTo(kMostLeases);
    keep();
  }

 private:
  // One address is one client's.
  void check(const leases::Lease& lease, kl::Problems& problems) override {
    forEach([&](const leases::Lease& other) {
      if (other.address == lease.address && other.id != lease.id)
        problems.add(leases::ADDRESS, "has another lease");
    });
  }

  void added(const leases::Lease&) override { lookSoon(); }
  void changed(const leases::Lease&, const leases::Lease&) override { lookSoon(); }

  void lookSoon() {
    expiry_.start(0, [this] { endExpired(); });
  }

  // Ends what has expired, and sleeps until the next lease does.
  void endExpired() {
    const auto now = static_cast<unsigned long long>(std::time(nullptr));
    unsigned long long next = now + kLongestSleep;
    forEach([&](const leases::Lease& lease) {
      if (!lease.expires) return;
      if (*lease.expires > now) {
        next = std::min(next, *lease.expires);
        return;
      }
      remove(*lease.id);
      log_ << "the lease of " << kl::addressText(lease.address) << " has expired" << std::endl;
    });
    expiry_.start(std::chrono::seconds(next - now), [this] { endExpired(); });
  }

  kl::Result<leases::LeaseReleaseAllReply> cmdReleaseAll(const kl::message& request) override {
    const leases::LeaseReleaseAllReply reply{.released = size()};
    clear(request);
    return reply;
  }

  kl::lstream log_{leases::TOPIC_LEASES, kl::TOPIC_NOTICE, 0};
  kl::Timer expiry_{*this};
};

}  // namespace

int main() { Leases().run(); }
