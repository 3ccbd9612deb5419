#pragma once
// request.h: the verbs that send one request to a service and print its reply.

#include <string>

#include "values/field_names.h"
#include "verbs/verb.h"

namespace klctl {

void listServices(const CommandLine& line, const Channels& channels);  // the loader's table
void getObject(const CommandLine& line, const Channels& channels);     // or settings, without an object
void getTable(const CommandLine& line, const Channels& channels);
void setObject(const CommandLine& line, const Channels& channels);  // or settings, without an object
void sendCommand(const CommandLine& line, const Channels& channels);

// The request of a command line, with the path of its service as the user wrote it and the names of its fields.
struct PreparedRequest {
  std::string path;
  FieldNames names;
  kl::message request;
};

// The request has `usualCommand` unless the command line names another one.  Throws Failure.
PreparedRequest prepareRequest(const CommandLine& line, unsigned int usualCommand, const Exchange& exchange);

// A reply without its addressing, as a table or as JSON.  A table in it is shown as one.
std::string replyText(const CommandLine& line, kl::message reply, const FieldNames& names);

}  // namespace klctl
