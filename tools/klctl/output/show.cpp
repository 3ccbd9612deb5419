// Messages become JSON first (values/json.cpp), and JSON becomes text.  Tables are made by libsmartcols, which knows the
// width of every character and lays out columns.  Every text that leaves this file is safe for a terminal: strings, names
// and dumps go through common::printable(), JSON has \u escapes.

#include "output/show.h"

#include <libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <set>
#include <sstream>

#include "kl/conventions.h"
#include "kl/records.h"
#include "services/common/text.h"
#include "values/field_id.h"
#include "values/units.h"

namespace klctl {
namespace {
constexpr int kJsonIndent = 2;
constexpr int kOneLine = -1;
constexpr int kMaxDepth = 64;  // of messages in messages
constexpr unsigned int kWholeId = 0xffffffff;

// The length of a character in UTF-8, by its first byte.
std::size_t bytesOfCharacter(char first) {
  const auto lead = static_cast<unsigned char>(first);
  return lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

// True for a character that printable() leaves alone, and for the newlines and backslashes of the JSON text itself.
bool isSafe(const std::string& character) {
  return character == "\n" || character == "\\" || common::printable(character) == character;
}

// All characters that are not safe have at most 16 bits.
std::string escape(const std::string& character) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
  unsigned int code = byte(0);
  if (character.size() == 2) code = (byte(0) & 0x1fu) << 6 | (byte(1) & 0x3fu);
  if (character.size() == 3) code = (byte(0) & 0xfu) << 12 | (byte(1) & 0x3fu) << 6 | (byte(2) & 0x3fu);
  char text[8];
  (void)std::snprintf(text, sizeof text, "\\u%04x", code & 0xffff);
  return text;
}

// JSON escapes the control characters below 0x20 itself.  The other characters that a terminal might obey stand in
// strings, too, and become \u escapes, which every reader of JSON takes back.
std::string withEscapes(const std::string& json) {
  std::string result;
  for (std::size_t at = 0; at < json.size();) {
    const std::size_t bytes = bytesOfCharacter(json[at]);
    const std::string character = json.substr(at, bytes);
    result += isSafe(character) ? character : escape(character);
    at += bytes;
  }
  return result;
}

std::string dumped(const Json& value, int indent) {
  return withEscapes(value.dump(indent, ' ', false, Json::error_handler_t::replace));
}

// Text of one value.  The elements of an array stand below each other.
std::string cellText(const Json& value, const std::string& unit = "") {
  if (value.is_string()) return common::printable(value.get<std::string>());
  if (value.is_number()) return common::printable(withUnit(dumped(value, kOneLine), unit));
  if (!value.is_array()) return dumped(value, kOneLine);
  std::string text;
  for (const Json& element : value) {
    if (!text.empty()) text += '\n';
    text += cellText(element, unit);
  }
  return text;
}

// The unit of a field; empty where its name says it.
std::string unitBeside(const std::string& name, const FieldNames& names) {
  const std::string unit = names.unitOf(names.find(name).value_or(kl::BADID));
  return saysUnit(name, unit) ? "" : unit;
}

std::string columnTitle(const std::string& name, const FieldNames& names) {
  const std::string unit = unitBeside(name, names);
  return common::printable(unit.empty() ? name : name + " " + unit);
}

// The fields of a message.
std::set<unsigned int> fieldsOf(const kl::message& m) {
  const std::vector<unsigned char> bytes = m.flattened();
  std::set<unsigned int> ids;
  kl::RecordWalk walk(bytes);
  for (kl::Record record; walk.next(record);) ids.insert(record.id());
  return ids;
}

using Lines = std::vector<std::vector<std::string>>;  // of cells, titles included

// libsmartcols would escape a backslash before an x once more, and counts no column for a character that it has to
// leave alone.  So while it lays out the columns, a character that no cell has stands for the backslash.
class StandIn {
 public:
  explicit StandIn(const Lines& lines) {
    std::string all;
    for (const auto& cells : lines)
      for (const std::string& cell : cells) all += cell;
    for (const char c : std::string("~^`|@#$%&*+=<>?!"))
      if (character_ == '\\' && all.find(c) == std::string::npos) character_ = c;
  }

  std::string put(std::string text) const { return replaced(std::move(text), '\\', character_); }
  std::string takeBack(std::string text) const { return replaced(std::move(text), character_, '\\'); }

 private:
  static std::string replaced(std::string text, char from, char to) {
    std::replace(text.begin(), text.end(), from, to);
    return text;
  }

  char character_ = '\\';  // itself, where all of these are in use
};

class Table {
 public:
  explicit Table(const Lines& lines) : table_(::scols_new_table()), standIn_(lines) {
    if (table_ == nullptr) throw std::bad_alloc();
    ::scols_table_set_termforce(table_, SCOLS_TERMFORCE_NEVER);  // cells are never cut
  }
  ~Table() { ::scols_unref_table(table_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  void addColumn(const std::string& title, int flags) {
    libscols_column* column =
        ::scols_table_new_column(table_, standIn_.put(title).c_str(), 0, flags | SCOLS_FL_WRAP);
    if (column == nullptr) throw std::bad_alloc();
    ::scols_column_set_safechars(column, "\n");
    ::scols_column_set_wrapfunc(column, ::scols_wrapnl_chunksize, ::scols_wrapnl_nextchunk, nullptr);
  }

  void hideTitles() { ::scols_table_enable_noheadings(table_, 1); }

  void addLine(const std::vector<std::string>& cells) {
    libscols_line* line = ::scols_table_new_line(table_, nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (std::size_t i = 0; i < cells.size(); ++i)
      if (::scols_line_set_data(line, i, standIn_.put(cells[i]).c_str()) != 0) throw std::bad_alloc();
  }

  std::string text() const {
    char* data = nullptr;
    if (::scols_print_table_to_string(table_, &data) != 0) throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(void*)> owner(data, std::free);
    return data == nullptr || *data == '\0' ? "" : standIn_.takeBack(data) + "\n";
  }

 private:
  libscols_table* table_;
  StandIn standIn_;
};

bool isNumberColumn(const std::vector<Json>& objects, const std::string& name) {
  return std::all_of(objects.begin(), objects.end(),
                     [&](const Json& object) { return !object.contains(name) || object[name].is_number(); });
}

kl::message withoutSecrets(const kl::message& m, const FieldNames& names, int depth) {
  const auto inside = [&](const kl::message::flat_message& flat) {
    return withoutSecrets(kl::message(flat), names, depth + 1).flattened();
  };
  kl::message rest(m);
  for (const unsigned int id : fieldsOf(m)) {
    const bool holdsMessages = elementType(id) == kMessage;
    if (names.isHidden(id) || (holdsMessages && depth == kMaxDepth)) {
      rest.removeIdMask(id, kWholeId);
    } else if (holdsMessages && isArray(id)) {
      std::vector<kl::message::flat_message> all = m.get_message_array(id);
      std::transform(all.begin(), all.end(), all.begin(), inside);
      rest.insert_message_array(id, all);
    } else if (holdsMessages) {
      rest.insert_message(id, inside(m.get_message(id, {})));
    }
  }
  return rest;
}

std::string columnsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                         const FieldNames& names) {
  Lines lines(1 + objects.size(), std::vector<std::string>(columns.size()));
  std::transform(columns.begin(), columns.end(), lines[0].begin(),
                 [&](const std::string& name) { return columnTitle(name, names); });
  for (std::size_t i = 0; i < objects.size(); ++i)
    std::transform(columns.begin(), columns.end(), lines[i + 1].begin(), [&](const std::string& name) {
      return objects[i].contains(name) ? cellText(objects[i][name]) : "";
    });
  Table table(lines);
  for (std::size_t i = 0; i < columns.size(); ++i)
    table.addColumn(lines[0][i], isNumberColumn(objects, columns[i]) ? SCOLS_FL_RIGHT : 0);
  for (std::size_t i = 1; i < lines.size(); ++i) table.addLine(lines[i]);
  return table.text();
}

std::string recordsText(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                        const FieldNames& names) {
  std::string text;
  for (const Json& object : objects) {
    Json shown = Json::object();
    for (const std::string& name : columns)
      if (object.contains(name)) shown[name] = object[name];
    text += (text.empty() ? "" : "\n") + objectTable(shown, names);
  }
  return text;
}

// The length in characters: the bytes that continue one in UTF-8 are not counted.
std::size_t longestLine(const std::string& text) {
  std::size_t longest = 0;
  std::size_t length = 0;
  for (const char c : text) {
    if (c == '\n') length = 0;
    else if ((static_cast<unsigned char>(c) & 0xc0) != 0x80) longest = std::max(longest, ++length);
  }
  return longest;
}

}  // namespace

std::string jsonText(const Json& value) { return dumped(value, kJsonIndent) + "\n"; }
std::string jsonLine(const Json& value) { return dumped(value, kOneLine) + "\n"; }

std::vector<std::string> columnsOf(const std::vector<Json>& objects, const FieldNames& names) {
  std::vector<unsigned int> ids;
  for (const Json& object : objects)
    for (const auto& [name, value] : object.items()) ids.push_back(names.find(name).value_or(kl::BADID));
  names.sort(ids);
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  std::vector<std::string> columns(ids.size());
  std::transform(ids.begin(), ids.end(), columns.begin(), [&](unsigned int id) { return names.nameOf(id); });
  return columns;
}

std::vector<Json> toJson(const std::vector<kl::message::flat_message>& objects, const FieldNames& names) {
  std::vector<Json> result(objects.size());
  std::transform(objects.begin(), objects.end(), result.begin(),
                 [&](const auto& object) { return klctl::toJson(kl::message(object), names); });
  return result;
}

std::string dumpText(const kl::message& m) {
  std::ostringstream text;
  m.dump2(text, "", 0);
  return common::printable(text.str(), common::Newline::kKept);
}

std::string dumpText(const kl::message& m, const FieldNames& names) {
  return dumpText(withoutSecrets(m, names));
}

Exchange dumping(const Exchange& exchange, std::string& text, const FieldNames& names) {
  return [&](const kl::message& request) {
    kl::message reply = exchange(request);
    text += dumpText(reply, names);
    return reply;
  };
}

kl::message withoutSecrets(const kl::message& m, const FieldNames& names) {
  return names.hidesSomething() ? withoutSecrets(m, names, 0) : m;
}

std::string objectTable(const Json& object, const FieldNames& names) {
  if (object.empty()) return {};
  Lines lines;
  for (const auto& [name, value] : object.items())
    lines.push_back({common::printable(name), cellText(value, unitBeside(name, names))});
  Table table(lines);
  table.addColumn("", 0);
  table.addColumn("", 0);
  table.hideTitles();
  for (const auto& cells : lines) table.addLine(cells);
  return table.text();
}

std::string objectsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                         std::size_t width, const FieldNames& names) {
  if (objects.empty()) return {};
  const std::string text = columnsTable(objects, columns, names);
  return longestLine(text) <= width ? text : recordsText(objects, columns, names);
}

std::size_t lineWidth() {
  winsize size{};
  const bool isTerminal = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return isTerminal ? size.ws_col : std::numeric_limits<std::size_t>::max();
}

}  // namespace klctl
