#pragma once
// commands.h: what klctl's subcommands do.

#include <functional>
#include <string>
#include <vector>

#include "ask/path.h"
#include "values/field_names.h"
#include "verbs/command_line.h"

namespace klctl {

// Sends a message that expects no reply.
using Send = std::function<void(const kl::message& m)>;

// Reads the whole table that a request names; `path` is what the user called the service.
using Walk = std::function<std::vector<kl::message::flat_message>(const kl::message& request,
                                                                  const std::string& path)>;

// Whom the command line is about, how that one's fields are called, and what to ask for.
struct Subject {
  std::string path;
  FieldNames names;
  kl::message request;
};
Subject subjectOf(const CommandLine& line, const Exchange& exchange);

// Does what the command line says and returns the text for the standard output.  Nothing is sent before every
// word that can be judged without the loader has been read.  Throws Failure.
std::string run(const CommandLine& line, const Exchange& exchange, const Send& send, const Walk& walk);

// What a look at files found: the text, and what is wrong with them, empty when nothing is.
struct Dumped {
  std::string text;
  std::string fault;
};
Dumped dumpFile(const CommandLine& line);

}  // namespace klctl
