// Fields are told apart where they lie in the flattened message, so that no operation has to know their types.

#include "tables/flat_fields.h"

#include <vector>

namespace kl {

bool findRecord(const message::flat_message& bytes, unsigned int id, Record& record) {
  RecordWalk walk(bytes);
  while (walk.next(record))
    if (record.id() == id) return true;
  return false;
}

message pickRecords(const message& from, bool (*keeps)(const void* context, const Record& record),
                    const void* context) {
  const message::flat_message bytes = from.flattened();
  std::vector<unsigned char> kept;
  RecordWalk walk(bytes);
  for (Record record; walk.next(record);)
    if (keeps(context, record)) kept.insert(kept.end(), record.bytes().begin(), record.bytes().end());
  message result;
  (void)result.unflatten(kept.data(), static_cast<unsigned int>(kept.size()), message::bare);
  return result;
}

}  // namespace kl
