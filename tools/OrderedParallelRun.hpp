// Runs independent pieces of work on several threads and hands their results back in order.
//
// work(i) runs for every i in [0, count) on up to `jobs` threads (the calling thread waits);
// deliver(i) runs on the calling thread, in increasing i, as soon as work(i) and every work
// before it have finished. So output written by deliver() is the same as in a serial run, while
// the work overlaps. With jobs == 1 everything runs on the calling thread.
#pragma once

#include <cstddef>
#include <functional>

namespace corvane::tool {

void runOrderedInParallel(std::size_t count, unsigned jobs,
                          const std::function<void(std::size_t)>& work,
                          const std::function<void(std::size_t)>& deliver);

// The default of -j: the number of processors (at least 1).
unsigned defaultJobCount();

}  // namespace corvane::tool
