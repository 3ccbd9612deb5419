#pragma once
// fetch.h: a request and its reply, and a service's whole table of objects, chunk by chunk.

#include <functional>
#include <string>
#include <vector>

#include "kl/message.h"
#include "values/failure.h"

namespace klctl {

// Sends a request and gives the reply, which may be an error reply.
using Exchange = std::function<kl::message(const kl::message& request)>;

// Repeats the request for as long as the replies name an id to continue from, and joins their objects.  Throws
// Failure(kRefused) for an error reply, and for a service that names the same id twice and so would never end.
// `path` is what the user called the service.
std::vector<kl::message::flat_message> fetchAll(kl::message request, const std::string& path,
                                                const Exchange& exchange);

// The reply itself.  Throws Failure(kRefused) for an error reply.
kl::message fetch(const kl::message& request, const std::string& path, const Exchange& exchange);

// An error reply as a sentence about a path.  One that refuses a command at a place without a text says how to find out
// why; the place is the path without its object.
std::string errorSentence(const std::string& path, const kl::message& reply, unsigned int command);
std::string errorSentence(const std::string& path, const kl::message& reply, const std::string& place,
                          unsigned int command);

// The user of this process, as the loader knows him.
std::string ownName();

// The reports of an error reply, and of a table that continues at one id for the second time.
Failure refused(const std::string& path, const kl::message& reply, unsigned int command);
Failure endless(const std::string& path, unsigned int id);

}  // namespace klctl
