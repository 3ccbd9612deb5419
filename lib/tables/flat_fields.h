#pragma once
// flat_fields.h: the fields of a message one by one, whatever their types.

#include "kl/message.h"
#include "kl/records.h"

namespace kl {

// The record of a field in a flattened message; false if there is none.
bool findRecord(const message::flat_message& bytes, unsigned int id, Record& record);

// The message of those fields that `keeps(context, record)` says yes to.
message pickRecords(const message& from, bool (*keeps)(const void* context, const Record& record),
                    const void* context);

// The same with whatever can be called.
template <class F>
message pick(const message& from, const F& keeps) {
  return pickRecords(
      from,
      [](const void* context, const Record& record) { return (*static_cast<const F*>(context))(record); },
      &keeps);
}

}  // namespace kl
