// What the units of the test modules share.
#pragma once

#include <c10/core/ScalarType.h>
#include <pybind11/pybind11.h>

#include <stdexcept>
#include <string>

void bind_simd(pybind11::module_& m);
void bind_simd_verbs(pybind11::module_& m);
void bind_formats(pybind11::module_& m);
void bind_offset_calculator(pybind11::module_& m);
void bind_standard(pybind11::module_& m);
void bind_matrix_engine(pybind11::module_& m);

inline c10::ScalarType scalar_type(const std::string& name) {
  for (int code = 0; code < static_cast<int>(c10::ScalarType::NumOptions); ++code) {
    const auto type = static_cast<c10::ScalarType>(code);
    if (name == c10::toString(type)) return type;
  }
  throw std::invalid_argument("no scalar type is called " + name);
}
