#pragma once
// service_table.h: all services by their id.

#include <map>
#include <memory>
#include <unordered_map>

#include "routing/service.h"

namespace loader {

// Hears of rows that came, changed or went; traffic does not count as a change.
class TableListener {
 public:
  virtual void rowChanged(unsigned int id) = 0;

 protected:
  ~TableListener() = default;
};

// Errors:    none.
// Ownership: owns the services; they stay where they are until removed.
// Threads:   belongs to one thread.
// Cost:      find() takes constant time; walking is in the order of the ids.
class ServiceTable {
 public:
  using Map = std::map<unsigned int, std::unique_ptr<Service>>;

  void setListener(TableListener* listener) { listener_ = listener; }

  // Needs: the id is not in the table.
  Service& add(unsigned int id);
  // Needs: nobody else holds on to it.
  void remove(unsigned int id);

  Service* find(unsigned int id) const {
    const auto found = index_.find(id);
    return found == index_.end() ? nullptr : found->second;
  }

  // Sets the state and tells the listener, also when it is the old one: whoever calls it changed something.
  void setState(Service& service, unsigned int state);

  const Map& all() const { return services_; }

 private:
  void changed(unsigned int id);

  Map services_;
  std::unordered_map<unsigned int, Service*> index_;
  TableListener* listener_ = nullptr;
};

// "netif (32, pid 4711)", for the log.
std::string describe(const Service& service);

}  // namespace loader
