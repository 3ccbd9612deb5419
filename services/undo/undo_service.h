#pragma once
// undo_service.h: the process that keeps the undo records.

#include <set>
#include <string>
#include <vector>

#include "kl/looper.h"
#include "records.h"
#include "undo_orders.h"

namespace undo {

// Service 17; kl/services.h lists its commands.
//
// Errors:    as kl::Looper.  Refused and dropped reports are logged.
// Ownership: one in a process.
// Threads:   one.
// Cost:      that of the records.
class UndoService : public kl::Looper {
 public:
  UndoService();

 private:
  void handleCmd(const kl::message& request, unsigned int command) override;
  kl::message cmdAddObj(const kl::message& request) override;
  kl::message cmdSetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdGetObj(const kl::message& request, unsigned int id) override;
  kl::message cmdGetAll(const kl::message& request, unsigned int start, unsigned int count) override;
  kl::message cmdGetCount(const kl::message& request) override;
  kl::message cmdRemoveObj(const kl::message& request, unsigned int id) override;
  void cmdDisconnected(const kl::message& m) override;
  kl::message getObject(unsigned int id) override;
  bool checkPolicy(const kl::message& request) override;
  bool shouldNotify(const kl::message& record, const kl::message& notification) override;

  bool isHidden(unsigned int id, const kl::message& request) const;
  void tell(unsigned int id, const Origin& origin, const std::vector<unsigned int>& cause = {});
  void drop(unsigned int id, const std::string& reason);
  void dropSurplus(const Origin& newest);
  void dropRecordsOf(unsigned int maker);
  void onRowOfTheGone(const kl::message& row, const kl::message& notice);
  void dropRecordsOfTheGone();
  bool readServices(std::set<unsigned int>& connected);

  std::size_t limit_;
  Records records_;
  UndoOrders orders_{*this, records_};
  std::string told_;  // the user whom the records of the next notification name
};

}  // namespace undo
