// The program that printers_test.py looks at with gdb: values of each kind at one place.

#include <string>
#include <vector>

#include "kl/field.h"
#include "kl/message.h"
#include "kl/message_view.h"
#include "kl/records.h"
#include "kl/runner.h"
#include "routing/open_requests.h"
#include "routing/service.h"

namespace {

constexpr kl::field<unsigned int> kNumber{0x08000005};

// Has its bytes where a freed message may have left them.
union Garbage {
  Garbage() : bytes{} {
    for (unsigned char& byte : bytes) byte = 0xa5;
  }
  ~Garbage() {}
  unsigned char bytes[sizeof(kl::message)];
  kl::message message;
};

void onTimeout(void*) {}

// A path lies in the bytes of a message.
loader::KeptPath keptOf(const std::vector<unsigned int>& ids) {
  kl::message m;
  m.insert_u32_array(0x88000001, ids);
  const kl::message::flat_message bytes = m.flattened();
  kl::RecordWalk walk(bytes);
  kl::Record record;
  loader::KeptPath kept;
  if (walk.next(record)) kept.assign(loader::Path(record));
  return kept;
}

}  // namespace

// gdb stops here and goes up.
extern "C" __attribute__((noinline)) void everythingIsMade() { asm volatile(""); }

int main() {
  kl::message empty;
  kl::message full;
  full.insert_bool(0x00000001, true);
  full.insert_u32(kNumber, 7);
  full.insert_u64(0x10000002, 1ull << 40);
  full.insert_string(0x20000003, "hi \x1b[2J\"");
  full.insert_string(0x20000004, std::string(100000, 'x'));
  full.insert_raw(0x30000005, {2, 252, 0});
  full.insert_u32_array(0x88000006, {1, 2, 3});
  full.insert_string_array(0xa0000007, {"a", "bc"});
  full.insert_u32(0x08ff0001, 9);
  Garbage garbage;
  loader::Service asker(28);
  loader::Service asked(300);
  loader::OpenRequest request;
  request.caller = &asker;
  request.callee = &asked;
  request.id = 17;
  request.command = 0x60001;
  request.returnPath = keptOf({7});
  request.path = keptOf({2, 4});
  const loader::KeptPath longPath = keptOf({1, 2, 3, 4, 5, 6});
  kl::message routed;
  routed.insert_u32_array(0x88000001, {2, 4});
  const kl::message::flat_message frame = routed.flattened();
  kl::RecordWalk walk(frame);
  kl::Record record;
  (void)walk.next(record);
  const loader::Path framePath(record);
  kl::ThinRunner runner;
  const kl::ThinRunner::TimerPtr none;
  const kl::ThinRunner::TimerPtr timer = runner.addTimer(nullptr, onTimeout, 30000);
  everythingIsMade();
  return longPath.ids().size() + framePath.size() == 8 && timer && !none && full.has(kNumber) ? 0 : 1;
}
