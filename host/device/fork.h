// The device's state in a child of fork().
#pragma once

#include <mutex>

namespace orrery::host {

// From now on fork() holds the mutex, so it is free in every child. Call once, for a mutex that is never destroyed.
void free_after_fork(std::mutex& mutex);

// Called first by every operation of the device. OpenMP's threads do not exist in a child, and GNU's runtime would wait
// for them forever, so a child that uses the device runs on one thread.
void begin_operation();

}  // namespace orrery::host
