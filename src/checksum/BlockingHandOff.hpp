// Driving a streaming generator from a caller that wants to wait: hand over one chunk (or the
// finalization) and block until the generator has taken it. The waiting thread runs the
// generator's queued work itself, so no worker thread is woken for it.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "dispatch/Group.hpp"

namespace corvane::detail {

// addDataToChecksum(data) and wait for its update callback; `onAbsorbed` (may be empty) runs
// inside that callback.
void addAndWait(CorvaneChecksumGenerator& generator, dispatch::Group& group,
                const SharedBytes& data, const std::function<void()>& onAbsorbed = {});

// finalizeChecksumWithCompletionBlock and wait for the text it delivers.
std::optional<std::string> finalizeAndWait(CorvaneChecksumGenerator& generator,
                                           dispatch::Group& group);

}  // namespace corvane::detail
