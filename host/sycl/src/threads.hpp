// The threads among which a launch is shared.
#pragma once

#include <cstddef>

namespace sycl::detail {

// Calls run(context, begin, end) for ranges that cover [0, count), each number once, on the calling thread and on at
// most `threads` - 1 workers that are awake or wake in time. Returns when all calls have returned. `run` must not
// throw. There are at most `most_ranges` of them, if that is no less than the number of threads. Several threads may
// call this at once; one of them gets the workers' help.
void share(size_t count, int threads, size_t most_ranges, void (*run)(void* context, size_t begin, size_t end),
           void* context);

}  // namespace sycl::detail
