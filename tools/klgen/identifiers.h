#pragma once
// identifiers.h: names of a description as names in C++.

#include <string>

namespace klgen {

// "rx_bytes" in three forms.  A name that C++ or the headers of every program have for themselves gets an underscore
// behind it, which no name of a description has.
std::string memberName(const std::string& name);    // rx_bytes, class_
std::string constantName(const std::string& name);  // RX_BYTES, EOF_
std::string typeName(const std::string& name);      // RxBytes

// The third form as a part of a longer name, whatever is taken.
std::string camelName(const std::string& name);

// A name space: "netif", "std_".
std::string spaceName(const std::string& name);

// A text as the rest of a line behind "//".
std::string commentText(const std::string& text);

}  // namespace klgen
