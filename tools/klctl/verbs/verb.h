#pragma once
// verb.h: from a verb of the command line to the function that performs it, and what that function works with.

#include <functional>
#include <string>
#include <vector>

#include "ask/fetch.h"
#include "verbs/command_line.h"

namespace klctl {

// The ways from a verb to the services and to the user.  main has the real ones, tests have their own.
struct Channels {
  using Objects = std::vector<kl::message::flat_message>;
  using Text = std::function<void(const std::string& text)>;

  // Over one connection, which is made for the first of them: a mistake in the words is reported without a loader.
  Exchange exchange;
  std::function<void(const kl::message& m)> send;  // a message that expects no reply

  // Reads the whole table that a request names, over a connection of its own; `path` is what the user called it.
  std::function<Objects(const kl::message& request, const std::string& path)> walk;

  // Ends the connection of exchange and send; a verb that makes one of its own calls it first.
  std::function<void()> disconnect;

  Text print;   // results, to the standard output
  Text remark;  // a sentence, to the standard error stream

  bool isTerminal = false;  // the results are for a person
};

// Performs one verb.  Nothing is sent before every word that can be judged without the loader has been read.  Throws
// Failure.
using Perform = void (*)(const CommandLine& line, const Channels& channels);

Perform performerOf(Verb verb);

// Prints a table.  A terminal gets a remark instead of an empty one: "netif: no objects".
void printTable(const Channels& channels, const std::string& table, const std::string& remark);

// Prints what could be read of a file, and fails with what is wrong with it unless `fault` is empty.
void printWithFault(const Channels& channels, const std::string& text, const std::string& fault);

}  // namespace klctl
