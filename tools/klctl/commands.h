#pragma once
// commands.h: what klctl's subcommands do.

#include <functional>
#include <string>

#include "command_line.h"
#include "path.h"

namespace klctl {

// Sends a message that expects no reply.
using Send = std::function<void(const kl::message& m)>;

// Does what the command line says and returns the text for the standard output.  Nothing is sent before every
// word that can be judged without the loader has been read.  Throws Failure.
std::string run(const CommandLine& line, const Exchange& exchange, const Send& send);

// What `dump` found: the text, and why it is not all of the file, empty when it is.
struct Dumped {
  std::string text;
  std::string fault;
};
Dumped dumpFile(const CommandLine& line);

}  // namespace klctl
