#pragma once
// view_differences.h: a view beside the message of the same bytes.

#include <string>
#include <vector>

namespace kl::test {

// The differences between a view of the bytes and a message, in words, or nothing: whether they were read to their
// end, each field by each operation and in several orders, fields that are absent or of another type, nested messages.
std::string viewDifferences(const std::vector<unsigned char>& bytes);

}  // namespace kl::test
