// Shape preconditions that hold in every build: a failure prints the expression, file and line to standard error and
// ends the process with SIGABRT.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace orrery {
[[noreturn]] inline void assertion_failed(const char* expression, const char* file, int line, const char* function) {
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
  std::fflush(stderr);
  std::abort();
}
}  // namespace orrery

#define ORRERY_ASSERT(...) \
  (static_cast<bool>(__VA_ARGS__) ? void(0) : ::orrery::assertion_failed(#__VA_ARGS__, __FILE__, __LINE__, __func__))
