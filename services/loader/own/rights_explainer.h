#pragma once
// rights_explainer.h: which line of the configuration decides about a request, as service 1 tells it.

#include <optional>
#include <string>

#include "config/configuration.h"
#include "config/decision.h"
#include "kl/message.h"
#include "routing/service_table.h"

namespace loader {

// Answers CMD_EXPLAIN_RIGHTS and CMD_LIST_RIGHTS (kl/rights.h).  Its answers are what the router does: both ask the
// same functions.  Everybody may ask about his own requests; the rights of others and the list are for who may control
// the loader.
//
// Errors:    answered with error replies.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      a walk over the entries of the configuration; nobody is looked up in the system's lists.
class RightsExplainer {
 public:
  RightsExplainer(const Configuration& configuration, const ServiceTable& table)
      : configuration_(configuration), table_(table) {}

  // `request` is as any service would get it.
  kl::message explain(const Service& caller, const kl::message& request) const;
  kl::message list(const kl::message& request) const;

 private:
  // The user whose requests are explained, and the process as which they come.
  struct Subject {
    std::string user;
    Sender sender;
    // Somebody else says that a request is this user's, and what it carries.
    bool isSpokenFor = false;
  };

  std::optional<Subject> subjectOf(const Service& caller, const kl::message& request) const;
  kl::message answer(const Subject& subject, const kl::message& request) const;

  const Configuration& configuration_;
  const ServiceTable& table_;
};

}  // namespace loader
