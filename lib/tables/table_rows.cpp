// The objects of a table in memory: their order, and how they outlive the process.
//
// W1  rows_ has each object without STD_NEXTID; shown() puts it in
// W2  of a table with an order, order_ has the ids of rows_, each once; of any other it is empty
// W3  bytes_ is the sum of max_length() over rows_, and leaving is blocked exactly while that is too much
//
// A change of the order concerns the objects that name another one behind it, too: the store gets and subscribers are
// told of each object whose STD_NEXTID became another.
//
// The data that a process leaves with:
//
//     0xa8000002   message[]   the objects with STD_ID, in the order of the table

#include "tables/table_rows.h"

#include <algorithm>
#include <utility>

#include "kl/new_store.h"

namespace kl::detail {
namespace {

constexpr field<std::vector<message::flat_message>> kKeptObjects{0xa8000002};

// Entries stay until they are removed.
constexpr unsigned int kLifetime = 1;

// The order of objects by the next one that each names, from its ends backwards.  One whose next is not there, or that
// another one is in front of already, is such an end.  A kill between two changes may have left several, and rings.
std::vector<unsigned int> orderOf(const std::map<unsigned int, message>& rows) {
  std::map<unsigned int, unsigned int> inFront;  // of each the one that names it
  std::vector<unsigned int> ends;
  for (const auto& [id, object] : rows) {
    const unsigned int next = object.get(STD_NEXTID, BADID);
    if (!rows.contains(next) || !inFront.emplace(next, id).second) ends.push_back(id);
  }
  std::vector<unsigned int> backwards;
  while (backwards.size() < rows.size()) {
    const unsigned int end = ends.empty() ? inFront.begin()->first : ends.back();
    if (!ends.empty()) ends.pop_back();
    unsigned int id = end;
    do {
      backwards.push_back(id);
      const auto link = inFront.extract(id);
      id = link ? link.mapped() : end;
    } while (id != end);
  }
  return {backwards.rbegin(), backwards.rend()};
}

}  // namespace

// Keeps the objects of a table that is the Looper itself: what that left with is given to handlers alone.
class TableRows::Keeper : public Handler {
 public:
  explicit Keeper(TableRows& table) : table_(table) { setSubscriptionLimit(0); }
  void savePermData(message& data) override { table_.save(data); }
  void loadPermData(const message& data) override { table_.load(data); }

 private:
  TableRows& table_;
};

TableRows::~TableRows() {
  if (blocksLeave_ && getLooper() != nullptr) getLooper()->unblockLeave();
}

std::vector<unsigned int> TableRows::ids() const {
  if (isOrdered()) return order_;
  std::vector<unsigned int> result;
  result.reserve(rows_.size());
  for (const auto& [id, object] : rows_) result.push_back(id);
  return result;
}

void TableRows::keepIn(const std::string& path) {
  store_ = std::make_unique<Store>(newStore(path), kLifetime);
  for (const auto& [id, entry] : store_->entries()) restore(id, store_->get(id));
  settle();
}

void TableRows::keepOverLeave() {
  isKept_ = true;
  Looper* const looper = getLooper();
  if (looper != &commands_.handler()) return;
  keeper_ = std::make_unique<Keeper>(*this);
  looper->addHandler(HANDLER_KEEPER, keeper_.get());
}

const message* TableRows::find(unsigned int id) const {
  const auto row = rows_.find(id);
  return row == rows_.end() ? nullptr : &row->second;
}

void TableRows::save(message& data) const {
  std::vector<message::flat_message> objects;
  for (const unsigned int id : ids()) objects.push_back(find(id)->flattened());
  if (!objects.empty()) data.insert(kKeptObjects, objects);
}

void TableRows::load(const message& data) {
  for (const message object : data.get(kKeptObjects, {})) {
    const unsigned int id = object.get(STD_ID, BADID);
    if (rows_.contains(id)) continue;
    restore(id, object);
    if (isOrdered()) order_.push_back(id);
  }
  settle();
}

// --- What the commands ask for.

message TableRows::fillChunk(Chunk& chunk, unsigned int start) {
  if (isOrdered()) {
    std::size_t at = start == BADID ? 0 : placeOf(start);
    if (start != BADID && at == order_.size()) return errorMsg(ERROR_UNKNOWNID, "");
    while (at < order_.size() && chunk.add(order_[at], shown(order_[at], *find(order_[at])))) ++at;
    return {};
  }
  for (auto row = start == BADID ? rows_.begin() : rows_.lower_bound(start); row != rows_.end(); ++row)
    if (!chunk.add(row->first, row->second)) break;
  return {};
}

bool TableRows::readRow(unsigned int id, message& object) {
  const message* const row = find(id);
  object = row != nullptr ? shown(id, *row) : errorMsg(ERROR_UNKNOWNID, "");
  return row != nullptr;
}

unsigned int TableRows::freeId() {
  unsigned int id = last_;
  do id = id >= BADID - 1 ? 1 : id + 1;
  while (rows_.contains(id));
  return id;
}

message TableRows::writeRow(const message& cause, unsigned int id, const message& object, unsigned int next) {
  const bool isNew = !rows_.contains(id);
  if (isNew && rows_.size() >= most_)
    return errorMsg(ERROR_FAILED, "no room for more than " + std::to_string(most_));
  if (isNew && id == freeId()) last_ = id;
  message& row = rows_[id];
  const std::size_t before = isNew ? 0 : row.max_length();
  row = object;
  row.remove(STD_NEXTID);
  weigh(row.max_length(), before);
  if (isNew && isOrdered()) place(cause, id, next);
  keep(id);
  return {};
}

message TableRows::eraseRow(const message& cause, unsigned int id) {
  const auto row = rows_.find(id);
  weigh(0, row->second.max_length());
  rows_.erase(row);
  if (isOrdered()) unplace(cause, id);
  if (store_) store_->remove(id);
  return {};
}

message TableRows::moveRow(const message& request, unsigned int id) {
  const message* const row = find(id);
  if (row == nullptr) return errorMsg(ERROR_UNKNOWNID, "");
  const unsigned int next = request.get(STD_NEXTID, BADID);
  if (next != BADID && !rows_.contains(next)) return errorMsg(ERROR_UNKNOWNNEXTID, "");
  const unsigned int nextBefore = nextOf(id);
  if (next == nextBefore || next == id) return {};
  const message before = shown(id, *row);
  unplace(request, id);
  place(request, id, next);
  const message now = shown(id, *row);
  keep(id);
  commands_.handler().notifyChange(id, request);
  message undo;
  if (nextBefore != BADID) undo.insert(STD_NEXTID, nextBefore);
  commands_.reportUndo(request, undo, CMD_MOVEOBJ, CMD_MOVEOBJ, now);
  commands_.tell(&before, &now);
  return {};
}

// --- The order (W2).

message TableRows::shown(unsigned int id, const message& object) const {
  message m = object;
  const unsigned int next = nextOf(id);
  if (next != BADID) m.insert(STD_NEXTID, next);
  return m;
}

std::size_t TableRows::placeOf(unsigned int id) const {
  return static_cast<std::size_t>(std::find(order_.begin(), order_.end(), id) - order_.begin());
}

unsigned int TableRows::nextOf(unsigned int id) const {
  const std::size_t place = placeOf(id);
  return place + 1 < order_.size() ? order_[place + 1] : BADID;
}

void TableRows::place(const message& cause, unsigned int id, unsigned int next) {
  const std::size_t at = placeOf(next);
  order_.insert(order_.begin() + static_cast<std::ptrdiff_t>(at), id);
  if (at > 0) tellPlace(cause, at - 1);
}

void TableRows::unplace(const message& cause, unsigned int id) {
  const std::size_t at = placeOf(id);
  order_.erase(order_.begin() + static_cast<std::ptrdiff_t>(at));
  if (at > 0) tellPlace(cause, at - 1);
}

// The object there names another one behind it.
void TableRows::tellPlace(const message& cause, std::size_t place) {
  const unsigned int id = order_[place];
  keep(id);
  commands_.handler().notifyChange(id, cause);
}

// --- Outliving the process (W3).

void TableRows::keep(unsigned int id) {
  if (store_) store_->set(id, shown(id, *find(id)));
}

void TableRows::weigh(std::size_t more, std::size_t less) {
  bytes_ += more - less;
  const bool isTooMuch = isKept_ && bytes_ > TableMemory::kMostKeptBytes;
  if (isTooMuch == blocksLeave_) return;
  blocksLeave_ = isTooMuch;
  if (isTooMuch) getLooper()->blockLeave();
  else getLooper()->unblockLeave();
}

void TableRows::restore(unsigned int id, message object) {
  object.insert(STD_ID, id);
  weigh(object.max_length(), 0);
  rows_[id].swap(object);
  last_ = std::max(last_, id);
}

void TableRows::settle() {
  if (isOrdered() && order_.empty()) order_ = orderOf(rows_);
  for (auto& [id, object] : rows_) object.remove(STD_NEXTID);
  for (const unsigned int id : ids())
    if (const message* object = find(id)) commands_.tell(nullptr, object);
}

}  // namespace kl::detail
