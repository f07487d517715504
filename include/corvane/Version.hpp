// Version of libCorvaneSecurity.
#pragma once

#include "corvane/Export.hpp"

namespace corvane {

// The library's version number (1.0) and its version text ("1.0").
CORVANE_API extern const double CorvaneSecurityVersionNumber;
CORVANE_API extern const char* const CorvaneSecurityVersionString;

}  // namespace corvane
