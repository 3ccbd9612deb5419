#pragma once
// records.h: the undo records on disk.

#include <functional>
#include <map>
#include <string>

#include "kl/message.h"
#include "kl/store.h"
#include "parts.h"

namespace undo {

// The records, each under its id; a newer one has a greater id.  The records are on disk, and there again after a
// restart.  An id is not used twice: the counter is kept beside the records.
//
// Errors:    kl::Store reports in a line what the disk refuses; the record is then not there.
// Ownership: owns the files.
// Threads:   that of the process's Runner, which makes changes durable half a second later.
// Cost:      reading a record costs a read of the file; in memory there are some 100 bytes a record.
class Records {
 public:
  // The ids, the newest first, and beside each the service that made the record.
  using Makers = std::map<unsigned int, unsigned int, std::greater<>>;

  // The largest record in flattened bytes: with room for what is around it in a reply or a notification.
  static constexpr unsigned int kMostBytes = 61440;

  // Opens the records in a folder, which is made when it is missing.
  explicit Records(const std::string& folder);

  const Makers& makers() const { return makers_; }

  // The user who reported the record, and the one whom it names.
  Origin originOf(unsigned int id) const { return parts_.originOf(id); }

  // The record that goes when there are too many, and the newest is of this origin.  Needs: there is a record.
  unsigned int firstToGo(const Origin& newest) const { return parts_.firstToGo(newest); }

  // The record with its STD_ID; an empty message when there is none.
  kl::message get(unsigned int id);

  // Keeps a record under the next id and returns that; kl::BADID when it is too big or cannot be written.
  unsigned int add(kl::message record);

  // Keeps a record that is there in its new form; false, and it is gone, when that is too big or cannot be written.
  bool replace(unsigned int id, const kl::message& record);

  void remove(unsigned int id);

 private:
  void load();
  void note(unsigned int id, const kl::message& record);
  bool write(unsigned int id, const kl::message& record);
  unsigned int takeId();

  kl::Store store_;
  Makers makers_;
  Parts parts_;
  unsigned int nextId_ = 1;
};

}  // namespace undo
