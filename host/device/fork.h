// What a child process made by fork() finds.
#pragma once

#include <mutex>

namespace orrery::host {

// The mutex is free in every child: fork() waits for it. Call once for a mutex that is never destroyed.
void free_after_fork(std::mutex& mutex);

// Every operation of the device begins with it. OpenMP's threads are not in a child, and GNU's runtime waits for them
// forever, so a child that uses the device runs on one thread.
void begin_operation();

}  // namespace orrery::host
