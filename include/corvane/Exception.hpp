// Error types of the library.
//
// `Exception` carries a programming error of the object layer as a (name, reason) pair, such as
// ("NSInternalInconsistencyException", "You may not finialize ..."). An Exception that leaves a
// task running on one of the library's queues ends the process after printing both texts.
//
// `DecodingError` is thrown when a serialised record cannot be decoded.
#pragma once

#include <stdexcept>
#include <string>

#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API Exception : public std::runtime_error {
 public:
  Exception(std::string name, std::string reason);

  // The exception's kind, for example "ArithmeticException".
  const std::string& name() const noexcept { return name_; }
  // The human-readable reason; what() returns the same text.
  const std::string& reason() const noexcept { return reason_; }

 private:
  std::string name_;
  std::string reason_;
};

class CORVANE_API DecodingError : public std::runtime_error {
 public:
  enum class Kind { keyNotFound, typeMismatch, dataCorrupted };

  DecodingError(Kind kind, std::string key, const std::string& message);

  Kind kind() const noexcept { return kind_; }
  // The key that was missing or malformed; empty when the error concerns the whole value.
  const std::string& key() const noexcept { return key_; }

 private:
  Kind kind_;
  std::string key_;
};

}  // namespace corvane
