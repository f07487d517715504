#include "util/Fatal.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace corvane::detail {

void fatalInvalidValue(std::string_view typeName, std::string_view problem,
                       std::uint64_t rawValue) noexcept {
  std::fprintf(stderr, "Fatal error: %.*s: %.*s (raw value %" PRIu64 ")\n",
               static_cast<int>(typeName.size()), typeName.data(), static_cast<int>(problem.size()),
               problem.data(), rawValue);
  std::fflush(stderr);
  std::abort();
}

void fatalError(std::string_view message) noexcept {
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

void fatalUncaughtException(const Exception& exception) noexcept {
  std::fprintf(stderr, "Terminating due to uncaught exception '%s', reason: '%s'\n",
               exception.name().c_str(), exception.reason().c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace corvane::detail
