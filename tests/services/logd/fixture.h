#pragma once
// fixture.h: what tests of the log service's parts share.

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "services/logd/keeping/line.h"

namespace logd::test {

// A folder that goes with the test.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/logd-XXXXXX";
    path_ = ::mkdtemp(name);
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

  // Bytes of all files in it.
  std::uintmax_t size() const {
    std::uintmax_t sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) sum += entry.file_size();
    return sum;
  }

 private:
  std::string path_;
};

inline std::string contentOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline std::shared_ptr<const Origin> originOf(const Topics& topics, const std::string& process = "p",
                                              unsigned int pid = 7, unsigned int source = 1,
                                              unsigned int uid = 0) {
  return std::make_shared<const Origin>(Origin{process, pid, source, topics, uid});
}

inline Line lineOf(const std::string& text, const Topics& topics = {}, Nanoseconds time = 1) {
  return {time, originOf(topics), text};
}

// A line of an ordinary user.
inline Line lineOfUser(unsigned int uid, const std::string& text) {
  static std::map<unsigned int, std::shared_ptr<const Origin>> origins;
  std::shared_ptr<const Origin>& origin = origins[uid];
  if (origin == nullptr) origin = originOf({}, "p", 7, 1, uid);
  return {1, origin, text};
}

using Bytes = std::vector<unsigned char>;

inline void addU16(Bytes& bytes, unsigned int v) {
  bytes.push_back(static_cast<unsigned char>(v >> 8));
  bytes.push_back(static_cast<unsigned char>(v));
}

inline Bytes registration(unsigned int source, const Topics& topics) {
  Bytes bytes;
  addU16(bytes, static_cast<unsigned int>(8 + 2 * topics.size()));
  addU16(bytes, 0);
  addU16(bytes, 0);
  addU16(bytes, source);
  for (const Topic topic : topics) addU16(bytes, topic);
  return bytes;
}

inline Bytes textRecord(unsigned int source, const std::string& text) {
  Bytes bytes;
  addU16(bytes, static_cast<unsigned int>(4 + text.size()));
  addU16(bytes, source);
  bytes.insert(bytes.end(), text.begin(), text.end());
  return bytes;
}

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace logd::test
