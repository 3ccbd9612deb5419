#pragma once
// tests/lib/tables/fixture.h: a table in chunks, as a test answers with it.

#include <initializer_list>
#include <vector>

#include "kl/conventions.h"
#include "tests/lib/looper/fixture.h"

namespace kl::test {

inline message object(unsigned int id) {
  message m;
  m.insert(STD_ID, id);
  return m;
}

// A reply with these objects; the next chunk begins at `next`, unless it is BADID.
inline message chunk(const Ids& ids, unsigned int next = BADID) {
  message m;
  std::vector<message::flat_message> objects;
  for (const unsigned int id : ids) object(id).flatten(objects.emplace_back());
  m.insert(STD_OBJS, objects);
  if (next != BADID) m.insert(STD_GETALLID, next);
  return m;
}

// The answer of a service to a request that it received as `request`.
inline message answerTo(const message& request, message body) {
  setType(body, TYPE_REPLY);
  setRequestID(body, request.get(SYS_REQID, BADID));
  body.insert(SYS_TO, request.get(SYS_FROM, {}));
  return body;
}

}  // namespace kl::test
