#include "checksum/BlockingHandOff.hpp"

#include "dispatch/SerialQueue.hpp"

namespace corvane::detail {

void addAndWait(CorvaneChecksumGenerator& generator, dispatch::Group& group,
                const SharedBytes& data, const std::function<void()>& onAbsorbed) {
  const auto queue = generator.checksummingQueue();
  {
    dispatch::CallerDrainsScope drainedHere(queue);
    group.enter();
    generator.addDataToChecksum(data, [&group, &onAbsorbed] {
      if (onAbsorbed) onAbsorbed();
      group.leave();
    });
  }
  group.wait(queue);
}

std::optional<std::string> finalizeAndWait(CorvaneChecksumGenerator& generator,
                                           dispatch::Group& group) {
  std::optional<std::string> result;
  const auto queue = generator.checksummingQueue();
  {
    dispatch::CallerDrainsScope drainedHere(queue);
    group.enter();
    generator.finalizeChecksumWithCompletionBlock(
        [&result, &group](const std::optional<std::string>& text) {
          result = text;
          group.leave();
        });
  }
  group.wait(queue);
  return result;
}

}  // namespace corvane::detail
