#pragma once
// undo_orders.h: undoes what records report.

#include <set>
#include <string>

#include "kl/looper.h"
#include "records.h"

namespace undo {

// Carries out CMD_START: asks the loader what the sender may do at the maker of the record, sends the maker the undo
// message with those rights, and answers the request when the maker has answered, so that the asker learns the outcome.
//
//     request --> the loader: what may its sender do there? --> the maker: undo --> reply
//
// Errors:    answered with error replies; what a maker refuses is logged.
// Ownership: borrows the looper and the records.
// Threads:   that of the looper.
// Cost:      two exchanges a request, one where its sender is root.
class UndoOrders {
 public:
  UndoOrders(kl::Looper& looper, Records& records) : looper_(looper), records_(records) {}
  UndoOrders(const UndoOrders&) = delete;
  UndoOrders& operator=(const UndoOrders&) = delete;

  // Answers the request, now or later.  A record is undone once at a time.
  void start(const kl::message& request);

 private:
  void onRights(const kl::message& answer, const kl::message& request);
  void sendUndo(const kl::message& record, const kl::message& asker, const kl::message& request);
  void refuse(const kl::message& request, unsigned int code, const std::string& text = "");
  void onAnswer(const kl::message& reply, const kl::message& request);

  kl::Looper& looper_;
  Records& records_;
  std::set<unsigned int> running_;  // the records that are being undone
};

}  // namespace undo
