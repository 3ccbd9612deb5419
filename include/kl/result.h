#pragma once
// kl/result.h: the outcome of an operation that may fail: a value or an error.

#include <optional>
#include <string>
#include <utility>

#include "kl/conventions.h"
#include "kl/message.h"

namespace kl {

// An error of the conventions; one that is made of nothing is none.
//
// Errors:    none; it is one.
// Ownership: a value.
// Threads:   as any value.
// Cost:      a number and a text.
struct Error {
  unsigned int code = ERROR_OK;  // ERROR_...
  std::string text{};            // for people, empty where the code says it all

  // Is it one?
  explicit operator bool() const { return code != ERROR_OK; }

  // "ok", "std failure: timeout (13)", "host: missing (5)".
  std::string describe() const { return *this ? getErrorDescr(code, text) : "ok"; }

  // The reply that it is, or an empty one.
  message reply() const { return *this ? errorMsg(code, text) : message(); }
  static Error of(const message& reply) {
    Error error;
    (void)isError(reply, &error.code, &error.text);
    return error;
  }
};

// A T, or the error for which there is none:
//
//     kl::Result<Lease> find(unsigned int id) {
//       if (!isThere(id)) return kl::Error{kl::ERROR_UNKNOWNID};
//       return leases_[id];
//     }
//
//     if (const auto lease = find(4)) use(*lease);
//     else complain(lease.error().describe());
//
// Errors:    to ask for a value that is not there is a bug of the caller.
// Ownership: a value that owns its T.
// Threads:   as T.
// Cost:      a T and an Error.
template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  // Needs: an error that is one.
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const { return value_.has_value(); }

  // Needs: there is a value.
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }

  // ERROR_OK where there is a value.
  const Error& error() const { return error_; }

 private:
  std::optional<T> value_;
  Error error_;
};

}  // namespace kl
