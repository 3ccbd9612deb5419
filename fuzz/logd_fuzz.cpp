// A stream of bytes from a process is cut into log records.
//
//   - however the bytes are split, the same records come out and the same fault ends them: those that a plain walk
//     over the whole stream finds
//   - through a client's socket: each line of a registered source is in the book once, with its text and its source;
//     the first fault ends the client, and nothing behind it is taken
//   - of a process that may write few lines or bytes a part of them is there, in their order: those of its burst, and
//     each other one is counted

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "fuzz/input.h"
#include "intake/client.h"
#include "kl/services.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

struct Record {
  unsigned int source;
  bool isRegistration;
  logd::Topics topics;
  std::string text;
  friend bool operator==(const Record&, const Record&) = default;
};

unsigned int u16(const Bytes& stream, std::size_t at) { return stream[at] * 256u + stream[at + 1]; }

// False at the first record that is none.
bool readPlainly(const Bytes& stream, std::vector<Record>& all) {
  for (std::size_t at = 0, length; at + 2 <= stream.size(); at += length) {
    length = u16(stream, at);
    if (length < 4) return false;
    if (at + length > stream.size()) break;
    const unsigned int source = u16(stream, at + 2);
    const auto first = stream.begin() + static_cast<std::ptrdiff_t>(at);
    if (source != 0) {
      all.push_back({source, false, {}, std::string(first + 4, first + static_cast<std::ptrdiff_t>(length))});
      continue;
    }
    const std::size_t topics = (length - 8) / 2;
    if (length < 8 || length % 2 != 0 || u16(stream, at + 4) != 0 || u16(stream, at + 6) == 0) return false;
    if (topics > logd::RecordReader::kMostTopics) return false;
    Record record{u16(stream, at + 6), true, {}, {}};
    for (std::size_t i = 0; i < topics; ++i)
      record.topics.push_back(static_cast<logd::Topic>(u16(stream, at + 8 + 2 * i)));
    all.push_back(record);
  }
  return true;
}

bool readInPieces(const Bytes& stream, const Bytes& sizes, std::vector<Record>& all) {
  logd::RecordReader reader;
  bool isWell = true;
  for (std::size_t at = 0, i = 0; at < stream.size() && isWell; ++i) {
    const std::size_t wanted = sizes.empty() ? stream.size() : 1 + std::size_t{sizes[i % sizes.size()]};
    const std::size_t count = std::min(wanted, stream.size() - at);
    reader.add({stream.data() + at, count});
    for (logd::Record r; reader.next(r);)
      all.push_back({r.source, r.isRegistration, r.topics, std::string(r.text)});
    isWell = reader.fault() == nullptr;
    at += count;
  }
  return isWell;
}

// A loop that never waits.
class Loop : public kl::ThinRunner {
 public:
  int sleepTime(unsigned int) override { return 0; }
  void pass() {
    runTimers();
    runSocks(kl::getJiffies());
  }
};

// A client whose process has written everything and ended.
class OneClient final {
 public:
  explicit OneClient(const Bytes& stream, const logd::Limits& limits = kNoLimits)
      : account_(
            std::make_shared<logd::ProcessAccount>(limits, std::make_shared<logd::UserAccount>(), kAbout)) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    require(
        ::send(ends[1], stream.data(), stream.size(), MSG_DONTWAIT) == static_cast<ssize_t>(stream.size()),
        "a socket that takes everything");
    client_ = std::make_unique<logd::Client>(loop_, book_, tally_, common::Descriptor(ends[0]),
                                             logd::Standing{kAbout, account_, true},
                                             [this](logd::Client&) { client_.reset(); });
    ::close(ends[1]);
    for (int i = 0; i < 100 && client_; ++i) loop_.pass();
    require(client_ == nullptr, "a process that has ended is let go");
  }

  std::vector<Record> lines() const {
    std::vector<Record> lines;
    for (logd::Ring::Number n = book_.ring().begin(); n < book_.ring().end(); ++n) {
      const logd::Line& line = book_.ring()[n];
      if (line.origin->source != 0)
        lines.push_back({line.origin->source, false, line.origin->topics, line.text});
    }
    return lines;
  }

  // As the remarks say it.
  std::size_t dropped() const {
    std::size_t sum = 0;
    for (logd::Ring::Number n = book_.ring().begin(); n < book_.ring().end(); ++n) {
      const logd::Line& line = book_.ring()[n];
      if (line.origin->source == 0 && line.text.ends_with(" lines dropped: they came too fast"))
        sum += std::stoul(line.text);
    }
    return sum;
  }

 private:
  inline static const logd::Limits kNoLimits{.linesPerSecond = 0, .bytesPerSecond = 0};
  inline static const logd::Origin kAbout{"p", 812, 0, {}, 0};

  Loop loop_;
  logd::LogBook book_{logd::BookRules()};
  logd::Tally tally_;
  std::shared_ptr<logd::ProcessAccount> account_;
  std::unique_ptr<logd::Client> client_;
};

std::vector<Record> expectedLines(const std::vector<Record>& records) {
  std::map<unsigned int, logd::Topics> sources;
  std::vector<Record> lines;
  for (const Record& record : records) {
    if (record.isRegistration) {
      sources[record.source] = record.topics;
      std::erase(sources[record.source], logd::Topic{kl::TOPIC_LOGD});  // the log service's own
      continue;
    }
    const auto source = sources.find(record.source);
    if (source == sources.end()) break;
    lines.push_back({record.source, false, source->second, record.text});
  }
  return lines;
}

bool isPartOf(const std::vector<Record>& some, const std::vector<Record>& all) {
  auto at = all.begin();
  for (const Record& record : some) {
    at = std::find(at, all.end(), record);
    if (at == all.end()) return false;
    ++at;
  }
  return true;
}

// A second earns one more, so a slow machine may let more lines in than a burst.
void requireItsPart(const Bytes& stream, const std::vector<Record>& all, const logd::Limits& limits,
                    std::size_t least) {
  const OneClient client(stream, limits);
  const std::vector<Record> lines = client.lines();
  require(isPartOf(lines, all), "lines that are taken are taken as they were written, in their order");
  require(lines.size() >= std::min(least, all.size()), "a burst is taken");
  require(lines.size() + client.dropped() == all.size(), "each line is taken or counted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, std::min<std::size_t>(size, 4096));
  const Bytes sizes = input.bytes(input.upTo(7));
  const Bytes stream = input.rest();
  std::vector<Record> plain;
  std::vector<Record> whole;
  std::vector<Record> split;
  const bool isWell = readPlainly(stream, plain);
  require(readInPieces(stream, {}, whole) == isWell && whole == plain, "one read brings every record");
  require(readInPieces(stream, sizes, split) == isWell && split == plain, "any splitting brings the same");
  if (stream.empty()) return 0;
  const std::vector<Record> lines = expectedLines(plain);
  require(OneClient(stream).lines() == lines, "every line, as it was written");
  const auto burst = static_cast<unsigned int>(1 + stream.size() % 7);
  requireItsPart(stream, lines, {.linesPerSecond = 1, .burst = burst, .bytesPerSecond = 0}, burst);
  requireItsPart(stream, lines, {.linesPerSecond = 0, .bytesPerSecond = 1, .bytesBurst = 64 * burst}, 1);
  return 0;
}
