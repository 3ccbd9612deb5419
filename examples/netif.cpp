// netif: serves the machine's network interfaces to other services, and notifies them of changes.
//
// What its messages are made of stands in netif.toml, of which klgen makes netif.kl.h for the service and its clients.
//
// The whole service is one Looper, on the path [32].  Each request is answered from the kernel's own tables, read anew,
// and the kernel's notifications (link_monitor.h) become those of the service.
// Only the descriptions are netif's own; they outlive the process in a handler of their own (memory.h).  One belongs to
// the name of an interface, whatever index the kernel gives it.

#include "netif.kl.h"

#include <ostream>
#include <set>

#include "kl/chunk.h"
#include "kl/description.h"
#include "kl/logger.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "link_monitor.h"
#include "memory.h"

namespace {
constexpr unsigned int kVersion = 0x01006600;
constexpr unsigned int kMemory = 1;           // the number of the handler with the lasting data
constexpr unsigned int kMayLeave = 1;         // any value but 0 says so
constexpr unsigned int kRetryTicks = 100;     // until the kernel is asked again that did not answer
constexpr std::size_t kAddressesShown = 512;  // of one interface and kind, or a reply would grow too large
constexpr std::size_t kLongestDescription = 255;

class Netif : public kl::Looper {
 public:
  Netif() : kl::Looper(kAny, netif::SERVICE, kVersion) {
    reportTooBig(true);
    addHandler(kMemory, &memory_);  // now it has what the last leave saved
    addSocket(monitor_.fd(), this, kl::bind<Netif, &Netif::onNews>(), POLLIN);
    retryIfStale();
    notifyWhatMayHaveChanged();
    setupLeave(kMayLeave);
  }

 private:
  // --- requests

  kl::message cmdGetObj(const kl::message&, unsigned int id) override {
    const auto links = readLinks();
    if (!links) return noAnswer();
    const auto link = links->find(id);
    return link == links->end() ? kl::errorMsg(kl::ERROR_UNKNOWNID, "") : object(id, link->second);
  }

  kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
    const auto links = readLinks();
    if (!links) return noAnswer();
    kl::Chunk chunk(count);
    for (auto at = start == kl::BADID ? links->begin() : links->lower_bound(start); at != links->end(); ++at)
      if (!chunk.add(at->first, object(at->first, at->second))) break;
    return chunk.reply();
  }

  kl::message cmdGetCount(const kl::message&) override {
    takeNews();
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(monitor_.links().size()));
    return reply;
  }

  kl::message cmdSetObj(const kl::message& request, unsigned int id) override {
    takeNews();
    const auto link = monitor_.links().find(id);
    if (link == monitor_.links().end()) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    if (!request.has(kl::STD_DESCR)) return kl::errorMsg(kl::ERROR_MISSING, "");
    const std::string text = request.get(kl::STD_DESCR, "");
    if (text.size() > kLongestDescription) return kl::errorMsg(kl::ERROR_TOOBIG, "");
    const std::string& name = link->second.name;
    const std::string before = memory_.description(name);
    if (text == before) return {};
    if (!describe(name, text)) return kl::errorMsg(kl::ERROR_FAILED, "no room for more descriptions");
    reportChange(request, id, "description of " + name, before);
    return {};
  }

  // The undo is the same request with the former text; an empty text where there was none.
  void reportChange(const kl::message& request, unsigned int id, const std::string& what,
                    const std::string& before) {
    kl::message undo;
    undo.insert(kl::STD_ID, id);
    undo.insert(kl::STD_DESCR, before);
    sendUndo(request, undo, what, kl::CMD_SETOBJ);
    notifyChange(id, request);  // all subscribers but the caller
    log_ << what << (before.empty() ? " given" : " changed") << std::endl;
  }

  // Those whose interface is not there make room when it is needed.
  bool describe(const std::string& name, const std::string& text) {
    if (memory_.describe(name, text)) return true;
    std::set<std::string> names;
    for (const auto& [id, link] : monitor_.links()) names.insert(link.name);
    memory_.forgetAllBut(names);
    return memory_.describe(name, text);
  }

  static kl::message noAnswer() { return kl::errorMsg(kl::ERROR_FAILED, "the kernel does not answer"); }

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
  kl::message getObject(unsigned int id) override {
    if (!batch_) batch_ = readLinks().value_or(monitor_.links());
    const auto link = batch_->find(id);
    return link == batch_->end() ? deadObject(id) : object(id, link->second);
  }

  kl::message deadObject(unsigned int id) const {
    kl::message m;
    m.insert(kl::STD_ID, id);
    m.insert(kl::STD_DEAD, 1);
    if (const auto known = names_.find(id); known != names_.end()) m.insert(netif::NAME, known->second);
    return m;
  }

  // Now all subscribers know the removed interfaces.
  void notifiesSent() override {
    batch_.reset();
    names_.clear();
  }

  kl::message object(unsigned int id, const Link& link) const {
    kl::message m;
    m.insert(kl::STD_ID, id);
    m.insert(netif::NAME, link.name);
    if (!link.hardwareAddress.empty()) m.insert(netif::HWADDR, link.hardwareAddress);
    m.insert(netif::ADDRESSES, shownAddresses(link, false));
    m.insert(netif::ADDRESSES4, shownAddresses(link, true));
    m.insert(netif::MTU, link.mtu);
    m.insert(netif::UP, link.up);
    m.insert(netif::RUNNING, link.running);
    m.insert(netif::RX_BYTES, link.counters.rxBytes);
    m.insert(netif::TX_BYTES, link.counters.txBytes);
    m.insert(netif::RX_PACKETS, link.counters.rxPackets);
    m.insert(netif::TX_PACKETS, link.counters.txPackets);
    const std::string description = memory_.description(link.name);
    if (!description.empty()) m.insert(kl::STD_DESCR, description);
    return m;
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
  std::optional<Links> batch_;                 // the interfaces while a batch of notifications is made
  std::map<unsigned int, std::string> names_;  // of those that changed since the last batch
};

}  // namespace

int main() {
  kl::setDescription(netif::kDescription);  // klctl introspect netif shows it
  Netif().run();
}
