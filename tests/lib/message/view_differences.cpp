// Every operation that a view shares with a message, carried out on both.

#include "tests/lib/message/view_differences.h"

#include <algorithm>
#include <set>

#include "kl/message_view.h"

namespace kl::test {
namespace {

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

constexpr unsigned int kMostNesting = 4;
// Type bits of everything that a message may hold, and of something that it may not.
constexpr unsigned int kTypes[] = {0x00000000, 0x08000000, 0x10000000, 0x18000000, 0x20000000,
                                   0x28000000, 0x30000000, 0x80000000, 0x88000000, 0x90000000,
                                   0x98000000, 0xA0000000, 0xA8000000, 0xB0000000, 0x38000000};

class Comparison {
 public:
  Comparison(const Bytes& bytes, unsigned int nesting) : bytes_(bytes), view_(bytes_), nesting_(nesting) {
    wasRead_ = message_.unflatten(bytes_.data(), static_cast<unsigned int>(bytes_.size()), message::normal);
  }

  std::string differences() {
    if (bytes_.size() >= 2 && bytes_[1] == 0) {
      expect(view_.empty() && !view_.ok() && view_.begin() == view_.end(), "the older format is no view's");
    } else {
      expect(view_.ok() == wasRead_, "ok()");
      compareFields();
    }
    expect(view_.to_message() == message_, "to_message()");
    return differences_;
  }

 private:
  void expect(bool holds, const std::string& what) {
    if (!holds && differences_.empty()) differences_ = what;
  }
  void expectOf(unsigned int id, bool holds, const char* what) {
    if (!holds) expect(false, std::string(what) + " of " + std::to_string(id));
  }

  void compareFields();
  void compareIteration(const std::vector<unsigned int>& stored);
  void compareSingle(unsigned int id);
  void compareBytes(unsigned int id);
  void compareArrays(unsigned int id);
  void compareLongArrays(unsigned int id);
  std::vector<unsigned int> storedIds() const;

  const Bytes bytes_;
  const message_view view_;
  unsigned int nesting_;
  message message_;
  bool wasRead_ = false;
  std::string differences_;
};

// In the order in which the message writes them.
std::vector<unsigned int> Comparison::storedIds() const {
  const Flat written = message_.flattened();
  std::vector<unsigned int> ids;
  RecordWalk walk(written);
  for (Record record; walk.next(record);) ids.push_back(record.id());
  return ids;
}

void Comparison::compareFields() {
  std::vector<unsigned int> ids = storedIds();
  compareIteration(ids);
  const auto compareEach = [&] {
    for (const unsigned int id : ids) {
      compareSingle(id);
      compareBytes(id);
      compareArrays(id);
      compareLongArrays(id);
    }
  };
  compareEach();
  std::reverse(ids.begin(), ids.end());
  compareEach();
  // Neither neighbours nor all there.
  std::sort(ids.begin(), ids.end(),
            [](unsigned int a, unsigned int b) { return a * 0x9E3779B1U < b * 0x9E3779B1U; });
  if (ids.size() > 300) ids.resize(300);
  for (std::size_t i = ids.size(); i > 0; --i)
    ids.insert(ids.begin() + static_cast<std::ptrdiff_t>(i), ids[i - 1] ^ 0x400);
  for (const unsigned int type : kTypes) ids.push_back(type | 1);
  for (const unsigned int id : {0xFFFFFFFFU, 0xFFFFFFFEU, 0x09000005U}) ids.push_back(id);
  compareEach();
}

void Comparison::compareIteration(const std::vector<unsigned int>& stored) {
  std::set<unsigned int> met;
  unsigned int records = 0;
  for (const Record& record : view_) {
    met.insert(record.id());
    ++records;
  }
  expect(records == view_.size() && view_.empty() == (records == 0), "size()");
  expect(met == std::set<unsigned int>(stored.begin(), stored.end()), "the fields met");
}

void Comparison::compareSingle(unsigned int id) {
  const IPAddr6 other{{1, 2, 3}};
  const bool isThere =
      message_.size_bool(id) + message_.size_u32(id) + message_.size_field(id) != 0 || message_.has_array(id);
  expectOf(id, view_.has(id) == isThere, "has");
  for (const bool def : {false, true})
    expectOf(id, view_.get_bool(id, def) == message_.get_bool(id, def), "get_bool");
  for (const unsigned int def : {0U, 0x01020304U}) {
    expectOf(id, view_.get_u32(id, def) == message_.get_u32(id, def), "get_u32");
    expectOf(id, view_.get_be32(id, def) == message_.get_be32(id, def), "get_be32");
    expectOf(id, view_.get_u64(id, def) == message_.get_u64(id, def), "get_u64");
  }
  expectOf(id, view_.get_addr6(id) == message_.get_addr6(id), "get_addr6");
  expectOf(id, view_.get_addr6(id, other) == message_.get_addr6(id, other), "get_addr6");
}

Bytes copied(std::span<const unsigned char> bytes) { return {bytes.begin(), bytes.end()}; }

void Comparison::compareBytes(unsigned int id) {
  const Bytes none{'?'};
  expectOf(id, view_.get_string(id, "?") == message_.get_string(id, "?"), "get_string");
  expectOf(id, copied(view_.get_raw(id, none)) == message_.get_raw(id, none), "get_raw");
  const Flat nested = message_.get_message(id, {});
  expectOf(id, copied(view_.get_message_bytes(id)) == nested, "get_message_bytes");
  expectOf(id, view_.get_message(id).to_message() == message(nested), "get_message");
  if (nesting_ == kMostNesting || nested.empty()) return;
  const std::string inside = Comparison(nested, nesting_ + 1).differences();
  expectOf(id, inside.empty(), inside.c_str());
}

void Comparison::compareArrays(unsigned int id) {
  expectOf(id, view_.get_bool_array(id).values() == message_.get_bool_array(id), "get_bool_array");
  expectOf(id, view_.get_u32_array(id).values() == message_.get_u32_array(id), "get_u32_array");
  expectOf(id, view_.get_u64_array(id).values() == message_.get_u64_array(id), "get_u64_array");
  expectOf(id, view_.get_addr6_array(id).values() == message_.get_addr6_array(id), "get_addr6_array");
}

void Comparison::compareLongArrays(unsigned int id) {
  expectOf(id, view_.get_string_array(id).values() == message_.get_string_array(id), "get_string_array");
  expectOf(id, view_.get_raw_array(id).values() == message_.get_raw_array(id), "get_raw_array");
  const std::vector<Flat> nested = message_.get_message_array(id);
  expectOf(id, view_.get_message_array(id).values() == nested, "get_message_array");
  auto element = nested.begin();
  for (const message_view object : view_.get_message_array(id)) {
    const bool isSame = element != nested.end() && object.to_message() == message(*element);
    expectOf(id, isSame, "an element of get_message_array");
    if (isSame) ++element;
  }
}

}  // namespace

std::string viewDifferences(const std::vector<unsigned char>& bytes) {
  return Comparison(bytes, 0).differences();
}

}  // namespace kl::test
