// Fatal programming errors: one diagnostic line on stderr, then abort.
#pragma once

#include <cstdint>
#include <string_view>

#include "corvane/Exception.hpp"

namespace corvane::detail {

// "<typeName>: <problem> (raw value <rawValue>)" and abort. Used for values outside an
// enumeration where the caller must pass one of its members.
[[noreturn]] void fatalInvalidValue(std::string_view typeName, std::string_view problem,
                                    std::uint64_t rawValue) noexcept;

// A plain fatal message and abort.
[[noreturn]] void fatalError(std::string_view message) noexcept;

// An uncaught named exception: prints "<name>: <reason>" and aborts.
[[noreturn]] void fatalUncaughtException(const Exception& exception) noexcept;

}  // namespace corvane::detail
