// What the units of the test module share.
#pragma once

#include <pybind11/pybind11.h>

void bind_simd(pybind11::module_& m);
void bind_formats(pybind11::module_& m);
