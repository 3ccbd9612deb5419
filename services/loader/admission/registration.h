#pragma once
// registration.h: who gets which service id.

#include <string>

#include "admission/id_counter.h"
#include "config/configuration.h"
#include "routing/service_table.h"
#include "services/common/local_socket.h"

namespace loader {

// The process at the other end of a connection.
struct Applicant : common::Peer {
  Service* startedAs = nullptr;  // set when the loader started the process itself
};

// Decides about registrations.
//
// A configured id belongs to the process that the loader started for it, or, while there is none, to the user
// configured for it.  Another one that is free is for root and the loader's own user, to try a program by hand, unless
// it is one of those that the loader picks: nobody asks for these but with 0.
//
// Errors:    a refusal has its reason.
// Ownership: borrows everything that it is made with.
// Threads:   belongs to one thread.
// Cost:      one look at /proc for the name of a program that nobody configured.
class Registration {
 public:
  Registration(ServiceTable& table, IdCounter& ids, const Configuration& configuration)
      : table_(table), ids_(ids), configuration_(configuration) {}

  // The service that the applicant now is, with its name, user and rights; null with the reason in `refusal`.
  // Its connection and its state are the caller's to set.
  Service* admit(const Applicant& who, const Envelope& hello, std::string& refusal);

  // The user that the process of a configured service runs as.
  uid_t userOf(const Service& service) const;

  // The message that confirms it; `data` is what the service saved when it last left.
  kl::message readyMessage(const Service& service, const std::vector<unsigned char>& data = {}) const;

 private:
  std::string whyNot(const Applicant& who, unsigned int id) const;
  std::string whyNotConfigured(const Applicant& who, const Service& service) const;
  std::string whyNotUnconfigured(const Applicant& who, unsigned int id) const;
  unsigned int pickId(const Applicant& who);
  void fill(Service& service, const Applicant& who);

  ServiceTable& table_;
  IdCounter& ids_;
  const Configuration& configuration_;
};

}  // namespace loader
