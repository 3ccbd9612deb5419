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

// The service of the command line: its path as the user wrote it, the names of its fields, and the request to it.
struct Subject {
  std::string path;
  FieldNames names;
  kl::message request;
};

// The request has `usualCommand` unless the command line names another one.  Throws Failure.
Subject subjectOf(const CommandLine& line, unsigned int usualCommand, const Exchange& exchange);

// A reply without its addressing, as a table or as JSON.  A table in it is shown as one.
std::string replyText(const CommandLine& line, kl::message reply, const FieldNames& names);

}  // namespace klctl
