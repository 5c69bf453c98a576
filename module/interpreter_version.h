// The check of the interpreter's version, which comes first in the module's entry point.
#pragma once

#include <Python.h>

#include <cstring>

namespace orrery {

// Sets ImportError and returns false for another interpreter, whose object layouts differ.
inline bool interpreter_fits(const char* version) {
  constexpr const char* compiled = "3.10";
  const size_t length = std::strlen(compiled);
  const bool fits = std::strncmp(version, compiled, length) == 0 && !(version[length] >= '0' && version[length] <= '9');
  if (!fits) {
    PyErr_Format(PyExc_ImportError,
                 "Python version mismatch: module was compiled for Python %s, but the interpreter version is "
                 "incompatible: %s.",
                 compiled, version);
  }
  return fits;
}

}  // namespace orrery
