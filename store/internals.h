#pragma once
// internals.h: what a store holds beside what kl/store.h shows.

#include <string>

#include "kl/store.h"
#include "store/file_lock.h"
#include "store/free_slots.h"

namespace kl {

struct __attribute__((visibility("hidden"))) Store::Internals {
  explicit Internals(const std::string& path) : lock(path) {}

  FreeSlots freeSlots;
  FileLock lock;
  Runner* timerRunner = nullptr;  // that the two timers belong to; only compared
};

}  // namespace kl
