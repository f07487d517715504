// Byte buffers shared by every part of the library.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace corvane {

// An owned sequence of bytes.
using Bytes = std::vector<std::uint8_t>;

// A buffer handed to asynchronous work. Null means "no buffer". Queued tasks keep their own
// reference, so the caller may drop its reference at once; the bytes must not change until the
// task that reads them has signalled completion.
using SharedBytes = std::shared_ptr<const Bytes>;

}  // namespace corvane
