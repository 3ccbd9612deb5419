// Sources: the lists of topics under which the process logs.
//
// The service learns a source's number and its topics with a registration, once on each connection; the lines carry
// the number alone:
//
//     unregistered --sendRegistration--> registered --connection ends, or begins anew--> unregistered
//
// The source with number n is table_[n - 1], and its topics are the key that it is kept under.

#include "kl/logger.h"

#include <alloca.h>

#include "log/log_records.h"

namespace kl {

Source* Logger::registerSource(const std::vector<unsigned short>& topics) {
  const auto [place, isNew] = sources_.try_emplace(topics);
  Source& source = place->second;
  if (!isNew) return &source;
  source = {&place->first, static_cast<unsigned int>(table_.size()) + 1, false, false};
  table_.push_back(&source);
  sendRegistration(&source);
  return &source;
}

bool Logger::sendRegistration(Source* source) {
  source->registered = false;
  const auto count = static_cast<unsigned int>(source->topics->size());
  if (count > logging::kMostTopics) return false;
  const unsigned int length = logging::registrationBytes(count);
  auto* record = static_cast<unsigned char*>(alloca(length));
  logging::putRegistration(record, source->id, *source->topics);
  const bool wentOutWhole = writeMsg(record, length, true);
  source->registered = wentOutWhole;
  return wentOutWhole;
}

}  // namespace kl
