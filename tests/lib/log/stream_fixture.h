#pragma once
// tests/lib/log/stream_fixture.h: a service that reads what streams say through the Logger of the process.

#include <string>
#include <vector>

#include "tests/lib/log/fixture.h"
#include "tests/support/hex.h"

namespace kl::test {

// A record as it came: its source, and its text or, for a registration, its topics.
struct Record {
  bool isRegistration = false;
  unsigned int source = 0;
  std::string text;
  std::vector<unsigned int> topics;
};

inline unsigned int fieldAt(const std::vector<unsigned char>& bytes, std::size_t at) {
  return static_cast<unsigned int>(bytes.at(at) << 8 | bytes.at(at + 1));
}

inline Record recordAt(const std::vector<unsigned char>& bytes, std::size_t at) {
  Record record;
  const std::size_t end = at + fieldAt(bytes, at);
  record.isRegistration = fieldAt(bytes, at + 2) == 0;
  record.source = fieldAt(bytes, at + (record.isRegistration ? 6 : 2));
  if (record.isRegistration)
    for (at += 8; at < end; at += 2) record.topics.push_back(fieldAt(bytes, at));
  else
    for (at += 4; at < end; ++at) record.text += static_cast<char>(bytes.at(at));
  return record;
}

// The process's Logger connects to the service of each test.
class StreamClient : public LogClient {
 protected:
  StreamClient() {
    Logger::getLogger()->closeConnection();  // the first call in the process has connected
    Logger::getLogger()->connectToLog();
    EXPECT_TRUE(service.acceptNewest());
    (void)output();
  }
  ~StreamClient() override { Logger::getLogger()->closeConnection(); }

  std::vector<Record> records() {
    std::vector<Record> all;
    const std::vector<unsigned char> bytes = service.receive();
    for (std::size_t at = 0; at < bytes.size(); at += fieldAt(bytes, at)) all.push_back(recordAt(bytes, at));
    return all;
  }

  // The texts of the lines that came, in brackets.
  std::string lines() {
    std::string all;
    for (const Record& record : records())
      if (!record.isRegistration) all += "[" + record.text + "]";
    return all;
  }

  // The topics that a stream registers with its first line.
  std::vector<unsigned int> topicsOf(lstream& stream) {
    stream << "x" << std::flush;
    const std::vector<Record> came = records();
    EXPECT_TRUE(!came.empty() && came[0].isRegistration);
    return came.empty() ? std::vector<unsigned int>{} : came[0].topics;
  }

  void mute(lstream& stream) {
    stream << "who am I" << std::flush;
    const std::vector<Record> came = records();
    const unsigned int source = came.back().source;
    service.send("0006" + hex({0, static_cast<unsigned char>(source)}) + "0001");
    pass();
  }

  using Topics = std::vector<unsigned int>;

  LogService service;
};

}  // namespace kl::test
