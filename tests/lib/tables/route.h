#pragma once
// tests/lib/tables/route.h: an object as klgen makes it of a description, of few fields, for the tests of tables.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kl/table.h"
#include "tests/lib/looper/fixture.h"

namespace kl::test {

inline constexpr field<std::string> NAME{0x20000001};
inline constexpr field<unsigned int> METRIC{0x08000002};
inline constexpr field<std::vector<unsigned int>> HOPS{0x88000003};
inline constexpr field<std::vector<unsigned char>> KEY{0x30000004};
inline constexpr field<unsigned int> STATE{0x08000005};
inline constexpr field<unsigned long long> BYTES{0x10000006};
inline constexpr field<bool> UP{0x00000007};
inline constexpr field<std::string> LATER{0x20000063};  // of a newer description

inline constexpr unsigned int CMD_FLUSH = 0x60001;
inline constexpr unsigned int kStates[] = {1, 2};

// All routes have these fields.
struct RouteFields {
  std::optional<unsigned int> id{};
  std::string name{};
  std::optional<unsigned int> metric{};
  std::optional<std::vector<unsigned int>> hops{};
  message otherFields{};

  template <class R>
  static R from(const message& m) {
    R route;
    route.otherFields = m;
    if (m.has(STD_ID)) route.id = m.get(STD_ID, 0);
    route.name = m.get(NAME, "");
    if (m.has(METRIC)) route.metric = m.get(METRIC, 0);
    if (m.has(HOPS)) route.hops = m.get(HOPS, {});
    return route;
  }
  message toMessage() const {
    message m = otherFields;
    if (id) m.insert(STD_ID, *id);
    m.insert(NAME, name);
    if (metric) m.insert(METRIC, *metric);
    if (hops) m.insert(HOPS, *hops);
    return m;
  }
  static constexpr FieldRule kFields[] = {
      {STD_ID, "id", 6},
      {NAME, "name", 7, 1, 15},
      {METRIC, "metric", 6, 1, 100},
      {HOPS, "hops", 6, 0, 2},
      {KEY, "key", 6, 2, 4},
      {STATE, "state", 6, 0, ~0ULL, kStates},
      {BYTES, "bytes", 0, 1, 5},
      {UP, "up", 6},
  };
  static constexpr CommandRule kCommands[] = {{CMD_FLUSH, RIGHT_CHANGE}};
  static constexpr unsigned int kAll = 63 & ~ObjectRules::kMove;
};

// Of a table in ascending order.
struct Route : RouteFields {
  static Route fromMessage(const message& m) { return from<Route>(m); }
  static constexpr ObjectRules kRules{"route", 34, 7, kAll, kFields, kCommands};
};

// Of a table with an order of its own.
struct Step : RouteFields {
  static Step fromMessage(const message& m) { return from<Step>(m); }
  static constexpr ObjectRules kRules{"step", 34, 7, kAll | ObjectRules::kMove, kFields, {}};
};

inline message asked(unsigned int command, unsigned int id = BADID) {
  message m;
  m.insert(SYS_CMD, command);
  m.insert(SYS_FROM, {9});
  if (id != BADID) m.insert(STD_ID, id);
  return m;
}

inline message named(message m, const std::string& name) {
  m.insert(NAME, name);
  return m;
}

inline std::string textOf(const message& m) {
  std::string text;
  (void)isError(m, nullptr, &text);
  return text;
}

// "4:a 7:b": the ids and names in a reply or a notification, the dead with a cross.
inline std::string listOf(const message& m) {
  std::string text;
  for (const message object : m.get(STD_OBJS, {})) {
    text += (text.empty() ? "" : " ") + std::to_string(object.get(STD_ID, 0));
    text += object.has(STD_DEAD) ? "+" : ":" + object.get(NAME, "");
  }
  return text;
}

inline std::string listOf(Handler& table) { return listOf(table.cmdGetAll(message(), BADID, 0)); }

inline void subscribeTo(Handler& table, const Ids& from) {
  message m;
  m.insert(SYS_FROM, from);
  m.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  table.cmdSubscribe(m);
}

// A table that writes down what it is told.
template <class Object>
class NotingTable : public Table<Object> {
 public:
  void added(const Object& o) override { note("+", o); }
  void changed(const Object& before, const Object& now) override { note(before.name + ">", now); }
  void removed(const Object& o) override { note("-", o); }
  std::string take() { return std::exchange(notes_, ""); }

 private:
  void note(const std::string& what, const Object& o) {
    notes_ += (notes_.empty() ? "" : " ") + what + o.name;
  }
  std::string notes_;
};

}  // namespace kl::test
