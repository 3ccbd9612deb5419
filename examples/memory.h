#pragma once
// memory.h: the data that netif keeps while its process does not run.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kl/looper.h"

// A handler that answers no command and has data that outlive the process: the Looper asks for them when the
// process leaves and gives them back in addHandler().  (A class derived from Looper could save its own data but
// not take them back: that happens in the Looper's constructor, before the derived object is there.)
//
// Errors:    a description that finds no room is refused.
// Ownership: belongs to the service, like every handler.
// Threads:   that of the Looper.
// Cost:      at most 32 KiB of descriptions, so that everything fits into the one message that it leaves with.
class Memory : public kl::Handler {
 public:
  // Descriptions belong to names: the index of an interface is another one when the machine has started again,
  // or when an adapter was pulled out and put in.  Empty where there is none.
  std::string description(const std::string& interface) const;

  // An empty text removes the description.  False when there is no room for it.
  [[nodiscard]] bool describe(const std::string& interface, const std::string& text);

  // Forgets the descriptions of all interfaces but these.
  void forgetAllBut(const std::set<std::string>& interfaces);

  // The interfaces that subscribers know when the process leaves.
  void setKnown(const std::vector<unsigned int>& indexes) { known_ = indexes; }
  const std::vector<unsigned int>& known() const { return known_; }

  void savePermData(kl::message& data) override;
  void loadPermData(const kl::message& data) override;

 private:
  std::map<std::string, std::string> descriptions_;  // by name
  std::vector<unsigned int> known_;
};
