#pragma once
// free_slots.h: a store with many free slots.

#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "bench/store/files.h"
#include "kl/store.h"

namespace bench {

// Free slots that are too small for its messages, and behind them some that are large enough: whatever is set passes by
// all of the former.
class StoreWithFreeSlots {
 public:
  StoreWithFreeSlots(const std::string& path, unsigned int tooSmall, unsigned int large, unsigned int bytes)
      : path_(path), message_(messageOf(bytes)), large_(large) {
    const auto largeBytes = static_cast<unsigned int>(message_.flattened().size() + 2);
    std::ofstream index(path_ + ".idx", std::ios::binary);
    writeSlots(index, tooSmall, kSmallBytes);
    writeSlots(index, large, largeBytes);
    std::ofstream(path_ + ".dat");
    std::filesystem::resize_file(path_ + ".dat",
                                 std::uintmax_t{tooSmall} * kSmallBytes + std::uintmax_t{large} * largeBytes);
    index.close();
    store_.emplace(path_, 3);
  }

  void setNew() { store_->set(next_++, message_); }
  // Frees everything again when it may be too little for as many.  A removed slot would be the first one that is looked
  // at; opened anew, the store has them in the order of its index.
  void freeAgain(unsigned int times) {
    if (next_ + times <= large_) return;
    while (next_ > 0) store_->remove(--next_);
    store_.emplace(path_, 3);
  }
  void reopen() const { (void)kl::Store(path_, 3).get(0); }

 private:
  static void writeSlots(std::ofstream& index, unsigned int count, unsigned int bytes) {
    const std::array<unsigned char, 12> free = {
        0xff, 0xff, 0xff, 0xff, static_cast<unsigned char>(bytes), static_cast<unsigned char>(bytes >> 8),
        0,    0,    3};
    for (unsigned int i = 0; i < count; ++i)
      index.write(reinterpret_cast<const char*>(free.data()), free.size());
  }

  static constexpr unsigned int kSmallBytes = 100;

  std::string path_;
  kl::message message_;
  std::optional<kl::Store> store_;
  unsigned int large_;
  unsigned int next_ = 0;  // id; those before it are set
};

}  // namespace bench
