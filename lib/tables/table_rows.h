#pragma once
// table_rows.h: the objects of a table in memory, and what keeps them.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kl/store.h"
#include "kl/table.h"
#include "tables/table_commands.h"

namespace kl::detail {

class TableRows final : public TableSource {
 public:
  explicit TableRows(TableCommands& commands) : commands_(commands) {}
  TableRows(const TableRows&) = delete;
  TableRows& operator=(const TableRows&) = delete;
  virtual ~TableRows();

  unsigned int size() const { return static_cast<unsigned int>(rows_.size()); }
  std::vector<unsigned int> ids() const;
  const message* find(unsigned int id) const;
  void limitTo(unsigned int most) { most_ = most; }

  void keepIn(const std::string& path);
  void keepOverLeave();
  // False where a handler of its own does it.
  bool isKeptByItself() const { return isKept_ && !keeper_; }
  void save(message& data) const;
  void load(const message& data);

  message fillChunk(Chunk& chunk, unsigned int start) override;
  bool readRow(unsigned int id, message& object) override;
  Result<unsigned int> countRows() override { return size(); }
  unsigned int freeId() override;
  message writeRow(const message& cause, unsigned int id, const message& object, unsigned int next) override;
  message eraseRow(const message& cause, unsigned int id) override;
  message moveRow(const message& request, unsigned int id) override;

 private:
  class Keeper;

  bool isOrdered() const { return commands_.takes(ObjectRules::kMove); }
  message shown(unsigned int id, const message& object) const;
  std::size_t placeOf(unsigned int id) const;
  unsigned int nextOf(unsigned int id) const;
  void place(const message& cause, unsigned int id, unsigned int next);
  void unplace(const message& cause, unsigned int id);
  void tellPlace(const message& cause, std::size_t place);
  void keep(unsigned int id);
  void weigh(std::size_t more, std::size_t less);
  void restore(unsigned int id, message object);
  void settle();

  TableCommands& commands_;
  std::map<unsigned int, message> rows_;
  std::vector<unsigned int> order_;  // of a table with an order of its own, else empty
  unsigned int last_ = 0;            // the id that was given last
  unsigned int most_ = BADID;
  std::unique_ptr<Store> store_;
  std::unique_ptr<Handler> keeper_;
  std::size_t bytes_ = 0;  // of all objects, about
  bool isKept_ = false;    // over a leave
  bool blocksLeave_ = false;
};

}  // namespace kl::detail
