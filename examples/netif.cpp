// netif: shows the machine's network interfaces to other services.
//
// The whole service is one Looper: it answers what is sent to its path, [32], from the kernel's own tables, read
// anew for each request.  Only the descriptions are its own; they live as long as it does.

#include "netif.h"

#include <algorithm>

#include "kl/looper.h"
#include "links.h"

namespace {
constexpr unsigned int kVersion = 0x00010000;
constexpr std::size_t kChunkBytes = 16384;    // of objects in one reply; a frame could carry four times that
constexpr std::size_t kAddressesShown = 512;  // of one interface, for the same reason
constexpr std::size_t kLongestDescription = 255;

class Netif : public kl::Looper {
 public:
  Netif() : kl::Looper(kAny, netif::SERVICE, kVersion) {}

 private:
  kl::message cmdGetObj(const kl::message&, unsigned int id) override {
    const auto links = readLinks();
    const auto link = links.find(id);
    return link == links.end() ? kl::errorMsg(kl::ERROR_UNKNOWNID, "") : object(id, link->second);
  }

  kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
    const auto links = readLinks();
    auto next = start == kl::BADID ? links.begin() : links.lower_bound(start);
    std::vector<kl::message::flat_message> objects;
    std::size_t bytes = 0;
    while (next != links.end() && bytes < kChunkBytes && (count == 0 || objects.size() < count)) {
      object(next->first, next->second).flatten(objects.emplace_back());
      bytes += objects.back().size();
      ++next;
    }
    kl::message reply;
    reply.insert(kl::STD_OBJS, objects);
    if (next != links.end()) reply.insert(kl::STD_GETALLID, next->first);
    return reply;
  }

  kl::message cmdGetCount(const kl::message&) override {
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(readLinks().size()));
    return reply;
  }

  kl::message cmdSetObj(const kl::message& request, unsigned int id) override {
    if (!readLinks().contains(id)) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    if (!request.has(kl::STD_DESCR)) return kl::errorMsg(kl::ERROR_MISSING, "");
    const std::string description = request.get(kl::STD_DESCR, "");
    if (description.size() > kLongestDescription) return kl::errorMsg(kl::ERROR_TOOBIG, "");
    if (description.empty()) descriptions_.erase(id);
    else descriptions_[id] = description;
    return {};
  }

  kl::message object(unsigned int id, const Link& link) const {
    kl::message m;
    m.insert(kl::STD_ID, id);
    m.insert(netif::NAME, link.name);
    if (!link.hardwareAddress.empty()) m.insert(netif::HWADDR, link.hardwareAddress);
    m.insert(netif::ADDRESSES, {link.addresses.begin(),
                                link.addresses.begin() + std::min(link.addresses.size(), kAddressesShown)});
    m.insert(netif::MTU, link.mtu);
    m.insert(netif::UP, link.up);
    m.insert(netif::RX_BYTES, link.rxBytes);
    m.insert(netif::TX_BYTES, link.txBytes);
    m.insert(netif::RX_PACKETS, link.rxPackets);
    m.insert(netif::TX_PACKETS, link.txPackets);
    if (const auto known = descriptions_.find(id); known != descriptions_.end()) {
      m.insert(kl::STD_DESCR, known->second);
    }
    return m;
  }

  std::map<unsigned int, std::string> descriptions_;
};

}  // namespace

int main() { Netif().run(); }
