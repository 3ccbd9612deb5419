// The file in memory is there for who looks at the loader from outside: /proc/PID/fd names it, and a core has its pages.

#include "crashes/frame_ring.h"

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <tuple>

#include "kl/conventions.h"
#include "kl/records.h"

namespace loader {
namespace {

namespace tap = common::tap;

// One record, read.
struct Entry {
  explicit Entry(const unsigned char* at)
      : when(kl::readLe32(at), at[4] | static_cast<unsigned int>(at[5]) << 8),
        kind(at[6]),
        fate(at[7]),
        from(kl::readLe32(at + 8)),
        to(kl::readLe32(at + 12)),
        code(kl::readLe32(at + 16)),
        requestId(kl::readLe32(at + 20)),
        bytes(kl::readLe32(at + 24)) {}

  bool is(FrameHeader::Kind one) const { return (kind & one) != 0; }
  // The command of a reply says nothing.
  bool isRequest() const {
    return (kind & (FrameHeader::kCommand | FrameHeader::kReply | FrameHeader::kError)) ==
           FrameHeader::kCommand;
  }

  common::Moment when;
  unsigned int kind;
  unsigned int fate;
  unsigned int from;
  unsigned int to;
  unsigned int code;
  unsigned int requestId;
  unsigned int bytes;
};

unsigned long long microsecondsSince1970() {
  using namespace std::chrono;
  return static_cast<unsigned long long>(
      duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

kl::message messageOf(const Entry& entry, unsigned long long at) {
  kl::message m;
  m.insert(tap::AT, at);
  m.insert(tap::SENDER, entry.from);
  m.insert(tap::RECEIVERS, {entry.to});
  m.insert(tap::LENGTH, entry.bytes);
  if (entry.is(FrameHeader::kControl)) m.insert(tap::CONTROL, entry.code);
  else if (entry.is(FrameHeader::kError)) m.insert(tap::ERROR, entry.code);
  else if (entry.isRequest()) m.insert(tap::COMMAND, entry.code);
  if (entry.is(FrameHeader::kReply)) m.insert(tap::ANSWER, true);
  if (entry.is(FrameHeader::kNumbered)) m.insert(tap::NUMBER, entry.requestId);
  if (entry.is(FrameHeader::kByLoader)) m.insert(tap::BY_LOADER, true);
  if (entry.fate != 0) m.insert(tap::FATE, entry.fate);
  return m;
}

// A reply does not say what it answers; the request before it does.
class Commands {
 public:
  void addTo(kl::message& m, const Entry& entry) {
    if (!entry.is(FrameHeader::kNumbered)) return;
    if (entry.isRequest()) commands_[{entry.from, entry.to, entry.requestId}] = entry.code;
    if (!entry.is(FrameHeader::kReply)) return;
    const auto request = commands_.find({entry.to, entry.from, entry.requestId});
    if (request != commands_.end()) m.insert(tap::COMMAND, request->second);
  }

 private:
  std::map<std::tuple<unsigned int, unsigned int, unsigned int>, unsigned int> commands_;  // of each request
};

}  // namespace

FrameRing::FrameRing() : file_(::memfd_create("kl-loader messages", MFD_CLOEXEC)) {
  void* mapped = MAP_FAILED;
  if (file_.isOpen() && ::ftruncate(file_.get(), kBytes) == 0)
    mapped = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (mapped == MAP_FAILED) ordinary_ = std::make_unique<unsigned char[]>(kBytes);
  records_ = ordinary_ ? ordinary_.get() : static_cast<unsigned char*>(mapped);
}

FrameRing::~FrameRing() {
  if (!ordinary_) (void)::munmap(records_, kBytes);
}

std::vector<kl::message::flat_message> FrameRing::messagesOf(unsigned int service, std::size_t most) const {
  const auto isOfService = [service](const Entry& entry) {
    return entry.from == service || entry.to == service || entry.to == kl::PATH_ALL;
  };
  std::vector<Number> found;  // the latest first
  for (Number number = last_; has(number) && found.size() < most; --number)
    if (isOfService(Entry(recordOf(number)))) found.push_back(number);
  const unsigned long long now = microsecondsSince1970();
  const common::Moment moment = common::momentNow();
  std::vector<kl::message::flat_message> messages;
  Commands commands;
  for (auto at = found.rbegin(); at != found.rend(); ++at) {
    const Entry entry(recordOf(*at));
    kl::message m = messageOf(entry, now - 1000 * moment.millisecondsSince(entry.when));
    commands.addTo(m, entry);
    messages.push_back(m.flattened());
  }
  return messages;
}

}  // namespace loader
