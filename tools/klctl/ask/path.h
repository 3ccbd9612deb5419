#pragma once
// path.h: the word that names the receiver of a request.
//
//     netif        the service netif
//     netif/3      handler 3 in it;  24/0  handler 0 of service 24
//     netif:2      object 2 of the service;  24/0:2  object 2 of a handler
//     log/rule:2   object 2 of the handler that the description of the service calls rule

#include <optional>
#include <string>
#include <vector>

#include "ask/fetch.h"

namespace klctl {

// A path whose service may still be a name.
struct NamedPath {
  std::string service;                 // a name or a number
  std::string objectName;              // in front of the handlers; empty: none was named
  std::vector<unsigned int> named;     // its handlers, once they were looked up
  std::vector<unsigned int> handlers;  // what follows
  std::optional<unsigned int> object;
};

// Throws Failure(kUsage) when the word is no path.
NamedPath parsePath(const std::string& word);

// The word that parsePath reads back.
std::string pathText(const NamedPath& path);

// Those of the named object and those behind it.
std::vector<unsigned int> handlersOf(const NamedPath& path);

// The name of the service that a word means: the word itself, or what the loader calls the number.  Empty when
// the number is unknown.
std::string resolveName(const std::string& word, const Exchange& exchange);

// The number of the service that a word means: the number itself, known or not, or what the loader's table has
// under the name.  Throws Failure(kRefused) for a name that no service has or that several have, and for a loader
// that does not show its table.
unsigned int resolveId(const std::string& word, const Exchange& exchange);

// The numbers of the whole path, its object left out.
std::vector<unsigned int> resolvePath(const NamedPath& path, const Exchange& exchange);

}  // namespace klctl
