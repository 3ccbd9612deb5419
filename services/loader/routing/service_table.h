#pragma once
// service_table.h: all services by their id.

#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "routing/service.h"

namespace loader {

// Errors:    none.
// Ownership: owns the services; they stay where they are until removed.
// Threads:   belongs to one thread.
// Cost:      find() takes constant time; walking is in the order of the ids.
class ServiceTable {
 public:
  using Map = std::map<unsigned int, std::unique_ptr<Service>>;

  // Called with the id of each row that came, changed or went; traffic does not count as a change.
  using Listener = std::function<void(unsigned int id)>;
  void setListener(Listener listener) { listener_ = std::move(listener); }

  // Needs: the id is not in the table.
  Service& add(unsigned int id);
  // Needs: nobody else holds on to it.
  void remove(unsigned int id);

  Service* find(unsigned int id) const {
    const auto found = index_.find(id);
    return found == index_.end() ? nullptr : found->second;
  }

  // Sets the state that the row shows and calls the listener, also when it is the old one: the caller changed
  // something.
  void setState(Service& service, unsigned int state);

  const Map& all() const { return services_; }

  // Of all services together, those that have been removed included: it never becomes less.  A look at each row.
  Traffic allTraffic() const;

 private:
  void notifyListener(unsigned int id);

  Map services_;
  std::unordered_map<unsigned int, Service*> index_;
  Listener listener_;
  Traffic ofRemoved_;
};

// "netif (32, pid 4711)", for the log.
std::string describe(const Service& service);

}  // namespace loader
