#pragma once
// siege.h: what every attack of ordinary users on the others has in common.

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "tests/attack/bystanders.h"
#include "tests/attack/scenarios.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child_process.h"

namespace attack {

// The deeds of the attackers, in memory that they share with the process that waits for them.
struct Deeds {
  std::atomic<unsigned int> inPlace;        // attackers that have begun
  std::atomic<unsigned long long> done;     // units of the attack: frames, registrations, lines
  std::atomic<unsigned long long> refused;  // that the loader refused
};

// Processes of user nobody that do harm until they are killed.
//
// Ownership: owns the processes and the memory in which they count.
class Attackers {
 public:
  using Life = std::function<void(unsigned int number, Deeds& deeds)>;

  Attackers();
  Attackers(const Attackers&) = delete;
  Attackers& operator=(const Attackers&) = delete;
  ~Attackers();

  // Each process counts itself as in place by beginAttack(), or it has ended.  Waits until they all have.
  void start(unsigned int processes, const Life& life);
  void kill();
  const Deeds& deeds() const { return *deeds_; }

 private:
  bool areInPlace() const;

  Deeds* deeds_;
  std::vector<kl::test::ChildProcess> processes_;
};

// A loader, two others that talk to each other, and attackers.
//
// It promises what every attack must leave alone: the two lose nothing, get nothing that is not theirs and are told of
// no end of a stranger, root and another user can register meanwhile, the loader's memory has a bound, its descriptors
// come back, it ends in order.
// Round trips are shown beside quiet ones and never judged.
//
// Needs: root, whom the attackers can cease to be.
class Siege {
 public:
  // `mostDeeds` of each attacker may be done while the others have one round trip; 0: any number.  The loader may have
  // `mostDescriptors` and no more; 0: those of a login.
  Siege(const std::string& title, Pace pace, unsigned int mostDeeds = 0,
        const std::string& configuration = "", std::size_t mostDescriptors = 0);

  // `meanwhile` runs once all attackers are in place.
  Report run(unsigned int attackers, const Attackers::Life& life,
             const std::function<void(Report&)>& meanwhile = nullptr);

  // So many descriptors more than before the run stay: those of services that start meanwhile.
  void expectDescriptors(std::size_t more) { moreDescriptors_ = more; }
  const kl::test::LoaderProcess& loader() const { return loader_; }

  // Of all attackers in the last run.
  unsigned long long deeds() const { return deeds_; }

 private:
  void letOthersRegister();
  void noteShare(unsigned long long done, unsigned int roundTrips, unsigned int attackers);
  void judge(const Deeds& deeds);
  void noteRoundTrips(const std::string& when, const Bystanders::Figures& figures);

  Pace pace_;
  unsigned int mostDeeds_;
  kl::test::LoaderProcess loader_;
  Bystanders bystanders_;
  Bystanders::Figures quiet_{};
  std::size_t descriptors_ = 0;
  std::size_t moreDescriptors_ = 0;
  unsigned long long deeds_ = 0;
  Report report_;
};

// The most memory that the loader may take, in an ordinary build.
inline constexpr std::size_t kMostLoaderBytes = 32 * 1024 * 1024;

// Until the process is killed.
[[noreturn]] void stay();

// Registers so many connections and keeps those that the loader does not refuse.
[[noreturn]] void comeWith(unsigned int connections, Deeds& deeds);

// A limit of descriptors with which an attacker can hold thousands of connections.
void takeManyDescriptors();

// The milliseconds until a process of this user that connects is registered; -1: it never is.
int registrationMs(uid_t user);

}  // namespace attack
