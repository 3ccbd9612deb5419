#include "services/loader/transport/frame_reader.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "services/loader/transport/descriptors.h"
#include "tests/support/builders.h"

namespace {

using kl::test::framed;
using loader::FrameReader;
using loader::ReadArea;
using Bytes = std::vector<unsigned char>;

Bytes bodyOf(std::size_t size, unsigned int salt) {
  Bytes body(size);
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<unsigned char>(i * 7 + salt);
  return body;
}

class FrameReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    mine_ = loader::Descriptor(ends[0]);
    its_ = loader::Descriptor(ends[1]);
  }

  // Writes all of it, reading whenever the socket is full.
  void feed(const Bytes& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = ::write(its_.get(), bytes.data() + sent, bytes.size() - sent);
      if (n > 0) sent += static_cast<std::size_t>(n);
      else readOnce();
    }
  }

  FrameReader::Outcome readOnce() {
    const FrameReader::Outcome outcome = reader_.readFrom(mine_.get());
    if (outcome != FrameReader::Outcome::kBytes) return outcome;
    for (std::span<const unsigned char> body; reader_.next(body);)
      got_.emplace_back(body.begin(), body.end());
    reader_.keepRest();
    return outcome;
  }

  void readAll() {
    while (readOnce() == FrameReader::Outcome::kBytes) {
    }
  }

  loader::Descriptor mine_;
  loader::Descriptor its_;
  std::unique_ptr<ReadArea> area_ = std::make_unique<ReadArea>();
  FrameReader reader_{*area_};
  std::vector<Bytes> got_;
};

TEST_F(FrameReaderTest, OneReadBringsManyFrames) {
  Bytes stream;
  std::vector<Bytes> bodies;
  for (unsigned int i = 0; i < 20; ++i) {
    bodies.push_back(bodyOf(i * 10, i));
    const Bytes frame = framed(bodies.back());
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  feed(stream);
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kBytes);
  EXPECT_EQ(got_, bodies);
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kNothing);
}

TEST_F(FrameReaderTest, FramesSplitAtEveryByteComeWhole) {
  const Bytes first = bodyOf(30, 1);
  const Bytes second = bodyOf(5, 2);
  Bytes stream = framed(first);
  const Bytes more = framed(second);
  stream.insert(stream.end(), more.begin(), more.end());
  for (std::size_t split = 0; split <= stream.size(); ++split) {
    got_.clear();
    feed(Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(split)));
    readAll();
    feed(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(split), stream.end()));
    readAll();
    EXPECT_EQ(got_, (std::vector<Bytes>{first, second})) << "split at " << split;
  }
}

TEST_F(FrameReaderTest, ByteByByteIsNoDifferent) {
  const Bytes body = bodyOf(300, 9);
  for (const unsigned char byte : framed(body)) {
    feed({byte});
    readAll();
  }
  EXPECT_EQ(got_, std::vector<Bytes>{body});
  EXPECT_FALSE(reader_.isInFrame());
}

TEST_F(FrameReaderTest, LargeFramesOfEverySizeComeWholeBetweenSmallOnes) {
  std::vector<Bytes> bodies;
  for (const std::size_t size : {32768, 40000, 65531, 65532, 65533, 65535}) {
    bodies.push_back(bodyOf(10, 3));
    bodies.push_back(bodyOf(size, 5));
  }
  for (const Bytes& body : bodies) feed(framed(body));
  readAll();
  EXPECT_TRUE(got_ == bodies);
}

TEST_F(FrameReaderTest, ALengthAloneIsNoFrameYet) {
  feed({5, 0, 0, 0});
  readAll();
  EXPECT_TRUE(got_.empty());
  EXPECT_TRUE(reader_.isInFrame());
}

TEST_F(FrameReaderTest, ALengthOfZeroIsAnEmptyFrame) {
  feed({0, 0, 0, 0});
  readAll();
  EXPECT_EQ(got_, std::vector<Bytes>{Bytes()});
}

TEST_F(FrameReaderTest, AnAnnouncedLengthTakesNoMemoryBeforeItsBytesCome) {
  feed({255, 255, 0, 0});
  readAll();
  EXPECT_FALSE(reader_.isBroken());
  feed(bodyOf(100, 0));
  readAll();
  EXPECT_TRUE(reader_.isInFrame());
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kNothing);
}

TEST_F(FrameReaderTest, ALengthOf65536AndMoreBreaksTheStream) {
  for (const Bytes& prefix : {Bytes{0, 0, 1, 0}, Bytes{0, 0, 0, 1}, Bytes{255, 255, 255, 255}}) {
    FrameReader reader(*area_);
    feed(framed(bodyOf(3, 1)));
    feed(prefix);
    ASSERT_EQ(reader.readFrom(mine_.get()), FrameReader::Outcome::kBytes);
    std::span<const unsigned char> body;
    EXPECT_TRUE(reader.next(body));  // what stands before it has come
    EXPECT_FALSE(reader.next(body));
    EXPECT_TRUE(reader.isBroken());
  }
}

TEST_F(FrameReaderTest, FramesAreCountedWhenTheyAreHandedOut) {
  feed(framed(bodyOf(3, 1)));
  feed(framed(bodyOf(0, 1)));
  feed({5, 0, 0, 0});
  readAll();
  EXPECT_EQ(reader_.frames(), 2u);
}

TEST_F(FrameReaderTest, TheEndOfTheStreamIsToldAfterItsLastFrame) {
  feed(framed(bodyOf(3, 1)));
  its_.close();
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kBytes);
  EXPECT_EQ(got_.size(), 1u);
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kEnd);
}

TEST_F(FrameReaderTest, AnEndWithinAFrameIsTold) {
  feed({9, 0, 0, 0, 1, 2});
  its_.close();
  readAll();
  EXPECT_EQ(readOnce(), FrameReader::Outcome::kEnd);
  EXPECT_TRUE(reader_.isInFrame());
}

TEST_F(FrameReaderTest, ReadersShareOneArea) {
  feed({200, 0, 0, 0, 1, 2});
  readAll();
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  const loader::Descriptor mine(ends[0]);
  const loader::Descriptor its(ends[1]);
  FrameReader other(*area_);
  const Bytes noise(500, 0xff);
  ASSERT_EQ(::write(its.get(), noise.data(), noise.size()), 500);
  (void)other.readFrom(mine.get());
  Bytes rest = bodyOf(200, 0);
  rest[0] = 1;
  rest[1] = 2;
  feed(Bytes(rest.begin() + 2, rest.end()));
  readAll();
  EXPECT_EQ(got_, std::vector<Bytes>{rest});
}

}  // namespace
