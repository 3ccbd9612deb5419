// netif: serves the machine's network interfaces to other services, and notifies them of changes.
//
// The fields of its messages stand in netif.toml, of which klgen makes netif.kl.h for the service and its clients.
//
// The whole service is one Looper that is a table (kl/table.h), on the path [32].  Its objects are the kernel's: each
// request is answered from the kernel's own tables, read anew, and the kernel's notifications (link_monitor.h) become
// those of the service.
// Only the descriptions are netif's own; they outlive the process in a handler of their own (memory.h).  One belongs to
// the name of an interface, whatever index the kernel gives it.

#include "netif.kl.h"

#include <ostream>
#include <set>

#include "kl/description.h"
#include "kl/logger.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "kl/table.h"
#include "link_monitor.h"
#include "memory.h"

namespace {
constexpr unsigned int kVersion = 0x01006600;  // of this service: it counts its own
constexpr unsigned int kMemory = 1;            // the number of the handler with the lasting data
constexpr unsigned int kMayLeave = 1;          // any value but 0 says so
constexpr unsigned int kRetryTicks = 100;      // until the kernel is asked again that did not answer
constexpr std::size_t kAddressesShown = 512;   // of one interface and kind, or a reply would grow too large

using netif::Interface;

class Netif : public kl::TableView<Interface, kl::Looper> {
 public:
  Netif() : TableView(kAny, netif::SERVICE, kVersion) {
    reportTooBig(true);
    addHandler(kMemory, &memory_);  // now it has what the last leave saved
    addSocket(monitor_.fd(), this, kl::bind<Netif, &Netif::onNews>(), POLLIN);
    retryIfStale();
    notifyWhatMayHaveChanged();
    setupLeave(kMayLeave);
  }

 private:
  // --- the table

  kl::Error list(unsigned int from, Take& take) override {
    const auto links = readLinks();
    if (!links) return noAnswer();
    for (auto at = links->lower_bound(from); at != links->end(); ++at)
      if (!take(at->first, shown(at->first, at->second))) break;
    return {};
  }

  kl::Result<Interface> find(unsigned int id) override {
    const auto links = readLinks();
    if (!links) return noAnswer();
    return findIn(*links, id);
  }

  kl::Result<Interface> findIn(const Links& links, unsigned int id) const {
    const auto link = links.find(id);
    if (link == links.end()) return kl::Error{kl::ERROR_UNKNOWNID};
    return shown(id, link->second);
  }

  kl::Result<unsigned int> count() override {
    takeNews();
    return static_cast<unsigned int>(monitor_.links().size());
  }

  // An empty description is none.
  kl::message cmdSetObj(const kl::message& request, unsigned int id) override {
    takeNews();
    kl::message m = request;
    if (request.has(kl::STD_DESCR) && request.get(kl::STD_DESCR, "").empty()) {
      m.remove(kl::STD_DESCR);
      m.insert(kl::TABLE_CLEARS, {kl::STD_DESCR});
    } else if (!request.has(kl::STD_DESCR)) {
      const auto found = find(id);
      return found ? kl::errorMsg(kl::ERROR_MISSING, "") : found.error().reply();
    }
    request_ = request;
    return TableView::cmdSetObj(m, id);
  }

  kl::Error put(const Interface& interface) override {
    if (keepDescription(*interface.name, interface.descr.value_or(""))) return {};
    return {kl::ERROR_FAILED, "no room for more descriptions"};
  }

  // The undo is the same request with the former text; an empty text where there was none.
  void changed(const Interface& before, const Interface& now) override {
    const std::string what = "description of " + *now.name;
    kl::message undo;
    undo.insert(kl::STD_ID, now.id);
    undo.insert(kl::STD_DESCR, before.descr.value_or(""));
    sendUndo(request_, undo, what, kl::CMD_SETOBJ);
    log_ << what << (before.descr ? " changed" : " given") << std::endl;
  }

  // Those whose interface is not there make room when it is needed.
  bool keepDescription(const std::string& name, const std::string& text) {
    if (memory_.describe(name, text)) return true;
    std::set<std::string> names;
    for (const auto& [id, link] : monitor_.links()) names.insert(link.name);
    memory_.forgetAllBut(names);
    return memory_.describe(name, text);
  }

  static kl::Error noAnswer() { return {kl::ERROR_FAILED, "the kernel does not answer"}; }

  // --- notifications

  void onNews(int, unsigned int) { takeNews(); }

  void takeNews() {
    for (const auto& [id, before] : monitor_.takeNews()) {
      if (!before.name.empty() && !getSubscriptions().empty()) names_[id] = before.name;
      notifyChange(id);
      logChange(id, before);
    }
    retryIfStale();
  }

  void logChange(unsigned int id, const Link& before) {
    const auto link = monitor_.links().find(id);
    if (link == monitor_.links().end()) {
      log_ << before.name << " is gone" << std::endl;
    } else {
      log_ << link->second.name << (before.name.empty() ? " is new: " : ": ")
           << (link->second.up ? "up" : "down") << (link->second.running ? ", running" : "") << ", MTU "
           << link->second.mtu << ", addresses: " << link->second.addresses.size() << std::endl;
    }
  }

  void retryIfStale() {
    removeTimer(retry_);
    if (monitor_.isStale()) retry_ = addTimer(this, kl::bind<Netif, &Netif::takeNews>(), kRetryTicks);
  }

  // An interface as it is notified.  The kernel is asked once for the whole batch.
  kl::Result<Interface> findChanged(unsigned int id) override {
    if (!batch_) batch_ = readLinks().value_or(monitor_.links());
    return findIn(*batch_, id);
  }

  kl::message remains(unsigned int id) override {
    kl::message m;
    if (const auto known = names_.find(id); known != names_.end()) m.insert(netif::NAME, known->second);
    return m;
  }

  // Now all subscribers know the removed interfaces.
  void notifiesSent() override {
    batch_.reset();
    names_.clear();
  }

  Interface shown(unsigned int id, const Link& link) const {
    Interface interface;
    interface.id = id;
    interface.name = link.name;
    if (!link.hardwareAddress.empty()) interface.hwaddr = link.hardwareAddress;
    interface.addresses = shownAddresses(link, false);
    interface.addresses4 = shownAddresses(link, true);
    interface.mtu = link.mtu;
    interface.up = link.up;
    interface.running = link.running;
    interface.rx_bytes = link.counters.rxBytes;
    interface.tx_bytes = link.counters.txBytes;
    interface.rx_packets = link.counters.rxPackets;
    interface.tx_packets = link.counters.txPackets;
    const std::string description = memory_.description(link.name);
    if (!description.empty()) interface.descr = description;
    return interface;
  }

  // The set is ordered by the own address, so one that serves towards several neighbours is shown once.
  static std::vector<kl::IPAddr6> shownAddresses(const Link& link, bool wantIPv4) {
    std::vector<kl::IPAddr6> shown;
    for (const Address& address : link.addresses) {
      if (address.isIPv4() != wantIPv4 || (!shown.empty() && shown.back() == address.own)) continue;
      if (shown.size() < kAddressesShown) shown.push_back(address.own);
    }
    return shown;
  }

  // --- leaving

  void savePermData(kl::message& data) override {
    takeNews();
    memory_.setKnown(getSubscriptions().empty() ? std::vector<unsigned int>() : indexes());
    Looper::savePermData(data);
  }

  // The process missed all changes while it did not run, so subscribers are notified of every interface.
  void notifyWhatMayHaveChanged() {
    for (const unsigned int id : memory_.known()) notifyChange(id);
    for (const unsigned int id : indexes()) notifyChange(id);
  }

  std::vector<unsigned int> indexes() const {
    std::vector<unsigned int> result;
    for (const auto& [id, link] : monitor_.links()) result.push_back(id);
    return result;
  }

  kl::lstream log_{kl::TOPIC_NETIF, kl::TOPIC_NOTICE, 0};
  LinkMonitor monitor_;
  Memory memory_;
  kl::TimerPtr retry_;
  kl::message request_;                        // that sets a description
  std::optional<Links> batch_;                 // the interfaces while a batch of notifications is made
  std::map<unsigned int, std::string> names_;  // of those that changed since the last batch
};

}  // namespace

int main() {
  kl::setDescription(netif::kDescription);  // klctl introspect netif shows it
  Netif().run();
}
