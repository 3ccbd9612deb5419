#pragma once
// limits.h: the table of what users may take of the loader.

#include <array>
#include <cstddef>
#include <string_view>

namespace loader {

// The resources that an account counts.
enum class Resource : unsigned char {
  kConnections,        // at the socket, registered or not
  kFrameBytes,         // memory of frames that have not come whole
  kQueueBytes,         // memory of what waits for its connections, or is held for them
  kRequests,           // delivered and not answered
  kSubscriptions,      // recorded ones, at all providers together
  kSubscriptionBytes,  // of their paths and filters
};
inline constexpr std::size_t kResources = static_cast<std::size_t>(Resource::kSubscriptionBytes) + 1;

// An amount of each resource.
class Amounts {
 public:
  constexpr std::size_t& operator[](Resource resource) {
    return amounts_[static_cast<std::size_t>(resource)];
  }
  constexpr std::size_t operator[](Resource resource) const {
    return amounts_[static_cast<std::size_t>(resource)];
  }
  friend constexpr bool operator==(const Amounts&, const Amounts&) = default;

 private:
  std::array<std::size_t, kResources> amounts_{};
};

// One row of the table: the key of the configuration, the defaults, and the bytes of memory that one of them takes of
// the loader at most.
struct ResourceRow {
  Resource resource;
  std::string_view key;
  std::size_t user;     // of one ordinary user
  std::size_t all;      // of all ordinary users together
  std::size_t reserve;  // of root, the loader's user and the configured services together
  std::size_t memory;
  std::size_t least;  // that may be configured
};

inline constexpr std::size_t kKiB = 1024;
inline constexpr std::array<ResourceRow, kResources> kResourceRows{{
    {Resource::kConnections, "connections", 128, 384, 128, 6 * kKiB, 4},
    {Resource::kFrameBytes, "frame_bytes", 512 * kKiB, 1536 * kKiB, 1024 * kKiB, 1, 64 * kKiB},
    {Resource::kQueueBytes, "queue_bytes", 2048 * kKiB, 4096 * kKiB, 8192 * kKiB, 1, 128 * kKiB},
    {Resource::kRequests, "requests", 1024, 2048, 8192, 512, 4},
    {Resource::kSubscriptions, "subscriptions", 256, 1024, 2048, 256, 0},
    {Resource::kSubscriptionBytes, "subscription_bytes", 32 * kKiB, 128 * kKiB, 256 * kKiB, 1, 0},
}};

// The limits of accounts.  One trusted account gets at most three quarters of the reserve.
struct Limits {
  Amounts user;
  Amounts all;
  Amounts reserve;
  unsigned int registrations = 100;      // of one ordinary user, in a second
  unsigned int registrationBurst = 200;  // at once, after some quiet

  Limits();

  friend bool operator==(const Limits&, const Limits&) = default;

  // The bytes that the loader takes for everybody together when all limits are reached.
  std::size_t memory() const;

  // Leaves the loader and the reserve their descriptors: with `descriptors` of them in all, ordinary users get fewer
  // connections if need be, one of them and all together in the same proportion.
  void fitDescriptors(std::size_t descriptors);
};

}  // namespace loader
