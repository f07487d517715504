#include "corvane/Version.hpp"

namespace corvane {

const double CorvaneSecurityVersionNumber = 1.0;
const char* const CorvaneSecurityVersionString = "1.0";

}  // namespace corvane
