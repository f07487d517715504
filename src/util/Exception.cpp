#include "corvane/Exception.hpp"

namespace corvane {

Exception::Exception(std::string name, std::string reason)
    : std::runtime_error(reason), name_(std::move(name)), reason_(std::move(reason)) {}

DecodingError::DecodingError(Kind kind, std::string key, const std::string& message)
    : std::runtime_error(message), kind_(kind), key_(std::move(key)) {}

}  // namespace corvane
