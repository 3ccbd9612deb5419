// Two indices over the rows: one in the order of ids, for walks and chunks, and one to find a row in constant time.

#include "routing/service_table.h"

namespace loader {

Service& ServiceTable::add(unsigned int id) {
  std::unique_ptr<Service>& place = services_[id];
  place = std::make_unique<Service>(id);
  index_[id] = place.get();
  return *place;
}

void ServiceTable::remove(unsigned int id) {
  if (const Service* service = find(id)) ofRemoved_ += service->traffic;
  index_.erase(id);
  services_.erase(id);
  notifyListener(id);
}

void ServiceTable::setState(Service& service, unsigned int state) {
  service.state = state;
  notifyListener(service.id);
}

Traffic ServiceTable::allTraffic() const {
  Traffic all = ofRemoved_;
  for (const auto& [id, service] : services_) all += service->traffic;
  return all;
}

void ServiceTable::notifyListener(unsigned int id) {
  if (listener_) listener_(id);
}

std::string describe(const Service& service) {
  std::string text = service.name + " (" + std::to_string(service.id);
  if (service.pid > 0) text += ", pid " + std::to_string(service.pid);
  return text + ")";
}

}  // namespace loader
