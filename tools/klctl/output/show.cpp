// Messages become JSON first (values/json.cpp), and JSON becomes text.  Tables are made by libsmartcols, which knows the
// width of every character and lays out columns.

#include "output/show.h"

#include <libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <sstream>

#include "kl/conventions.h"

namespace klctl {
namespace {
constexpr int kJsonIndent = 2;
constexpr int kOneLine = -1;

std::string indented(const Json& value, int indent) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

// Text without the byte that would end it early; the library spells out the other unprintable ones itself.
std::string withoutNul(const std::string& text) {
  std::string result;
  for (const char c : text) result += c == '\0' ? "\\0" : std::string(1, c);
  return result;
}

// Text of one value.  The elements of an array stand below each other.
std::string cellText(const Json& value) {
  if (value.is_string()) return withoutNul(value.get<std::string>());
  if (!value.is_array()) return value.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string text;
  for (const Json& element : value) {
    if (!text.empty()) text += '\n';
    text += cellText(element);
  }
  return text;
}

class Table {
 public:
  Table() : table_(::scols_new_table()) {
    if (table_ == nullptr) throw std::bad_alloc();
    ::scols_table_set_termforce(table_, SCOLS_TERMFORCE_NEVER);  // cells are never cut
  }
  ~Table() { ::scols_unref_table(table_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  void addColumn(const std::string& title, int flags) {
    libscols_column* column = ::scols_table_new_column(table_, title.c_str(), 0, flags | SCOLS_FL_WRAP);
    if (column == nullptr) throw std::bad_alloc();
    ::scols_column_set_safechars(column, "\n");
    ::scols_column_set_wrapfunc(column, ::scols_wrapnl_chunksize, ::scols_wrapnl_nextchunk, nullptr);
  }

  void hideTitles() { ::scols_table_enable_noheadings(table_, 1); }

  void addLine(const std::vector<std::string>& cells) {
    libscols_line* line = ::scols_table_new_line(table_, nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (std::size_t i = 0; i < cells.size(); ++i)
      if (::scols_line_set_data(line, i, cells[i].c_str()) != 0) throw std::bad_alloc();
  }

  std::string text() const {
    char* data = nullptr;
    if (::scols_print_table_to_string(table_, &data) != 0) throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(void*)> owner(data, std::free);
    return data == nullptr || *data == '\0' ? "" : std::string(data) + "\n";
  }

 private:
  libscols_table* table_;
};

bool isNumberColumn(const std::vector<Json>& objects, const std::string& name) {
  return std::all_of(objects.begin(), objects.end(),
                     [&](const Json& object) { return !object.contains(name) || object[name].is_number(); });
}

std::string columnsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns) {
  Table table;
  for (const std::string& name : columns) {
    table.addColumn(name, isNumberColumn(objects, name) ? SCOLS_FL_RIGHT : 0);
  }
  for (const Json& object : objects) {
    std::vector<std::string> cells(columns.size());
    std::transform(columns.begin(), columns.end(), cells.begin(), [&](const std::string& name) {
      return object.contains(name) ? cellText(object[name]) : "";
    });
    table.addLine(cells);
  }
  return table.text();
}

std::string recordsText(const std::vector<Json>& objects, const std::vector<std::string>& columns) {
  std::string text;
  for (const Json& object : objects) {
    Json shown = Json::object();
    for (const std::string& name : columns)
      if (object.contains(name)) shown[name] = object[name];
    text += (text.empty() ? "" : "\n") + objectTable(shown);
  }
  return text;
}

// In characters: the bytes that continue one in UTF-8 are not counted.
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

std::string jsonText(const Json& value) { return indented(value, kJsonIndent); }
std::string jsonLine(const Json& value) { return indented(value, kOneLine); }

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
  return text.str();
}

Exchange dumping(const Exchange& exchange, std::string& text) {
  return [&](const kl::message& request) {
    kl::message reply = exchange(request);
    text += dumpText(reply);
    return reply;
  };
}

std::string objectTable(const Json& object) {
  if (object.empty()) return {};
  Table table;
  table.addColumn("", 0);
  table.addColumn("", 0);
  table.hideTitles();
  for (const auto& [name, value] : object.items()) table.addLine({name, cellText(value)});
  return table.text();
}

std::string objectsTable(const std::vector<Json>& objects, const std::vector<std::string>& columns,
                         std::size_t width) {
  if (objects.empty()) return {};
  const std::string text = columnsTable(objects, columns);
  return longestLine(text) <= width ? text : recordsText(objects, columns);
}

std::size_t lineWidth() {
  winsize size{};
  const bool isTerminal = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return isTerminal ? size.ws_col : std::numeric_limits<std::size_t>::max();
}

}  // namespace klctl
