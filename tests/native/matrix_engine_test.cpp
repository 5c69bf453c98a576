// The matrix engine and its operands for tests/test_matrix_engine.py.
#include "includes/matrix_engine.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "formats/engine_operand.h"
#include "native_test.h"

namespace py = pybind11;
using namespace orrery;

namespace {

using floats = std::vector<float>;

// The products of whole blocks, each times its scales, summed by a tile of the device.
template <int R, int N>
floats sums_of_tile(const floats& a, const floats& b, const floats& scales) {
  matrix_engine::tile<R, N> sum;
  for (size_t i = 0; i < scales.size() / N; ++i) {
    matrix_engine::add_block(sum, a.data() + i * R * 64, b.data() + i * 64 * N,
                             simd<float, N>::load(scales.data() + i * N));
  }
  floats out(R * N);
  for (int r = 0; r < R; ++r) sum.row(r).store(out.data() + r * N);
  return out;
}

// The same by the host's columns.
template <int R, int N>
floats sums_of_columns(const floats& a, const floats& b, const floats& scales) {
  floats sum(R * N);
  for (size_t i = 0; i < scales.size() / N; ++i) {
    matrix_engine::add_block<R, N>(a.data() + i * R * 64, b.data() + i * 64 * N, scales.data() + i * N, sum.data());
  }
  return sum;
}

template <int R = 8>
floats product(const std::string& kind, int rows, const floats& a, const floats& b, const floats& scales) {
  if constexpr (R == 0) {
    throw std::invalid_argument("a tile has 1 to 8 rows");
  } else {
    if (rows != R) return product<R - 1>(kind, rows, a, b, scales);
    if (kind == "tile of 8") return sums_of_tile<R, 8>(a, b, scales);
    if (kind == "tile of 16") return sums_of_tile<R, 16>(a, b, scales);
    if (kind == "16 columns") return sums_of_columns<R, 16>(a, b, scales);
    if (kind == "32 columns") return sums_of_columns<R, 32>(a, b, scales);
    throw std::invalid_argument("no such kind: " + kind);
  }
}

template <typename C, int N>
floats units_of(int32_t qtype, const std::string& codes, uint64_t row_blocks) {
  std::vector<C> b(64 * N);
  formats::with_engine_format(weight_format{qtype}, [&](auto f) {
    formats::read_units<decltype(f), C, N>(reinterpret_cast<const uint8_t*>(codes.data()), 0, row_blocks, b.data());
  });
  return floats(b.begin(), b.end());
}

// Operand B from block 0 of every row, by the device's units.
floats units(int32_t qtype, const std::string& type, int columns, const std::string& codes, uint64_t row_blocks) {
  const bool wide = columns == 16;
  if (type == "float16") {
    return wide ? units_of<c10::Half, 16>(qtype, codes, row_blocks) : units_of<c10::Half, 8>(qtype, codes, row_blocks);
  }
  return wide ? units_of<c10::BFloat16, 16>(qtype, codes, row_blocks)
              : units_of<c10::BFloat16, 8>(qtype, codes, row_blocks);
}

template <typename C>
floats columns_of(int32_t qtype, const std::string& codes, uint64_t row_blocks, uint64_t block) {
  constexpr int Columns = 32;
  floats b(64 * Columns);
  formats::with_engine_format(weight_format{qtype}, [&](auto f) {
    using Format = decltype(f);
    for (int first = 0; first < Columns; first += 16) {
      const uint8_t* row[16];
      for (int j = 0; j < 16; ++j) {
        row[j] = reinterpret_cast<const uint8_t*>(codes.data()) + (first + j) * row_blocks * Format::quant_bytes;
      }
      formats::read_columns<Format, C, Columns>(row, block * Format::quant_bytes, b.data() + first);
    }
  });
  return b;
}

// The same of 32 rows and of any block, as the host's columns.
floats columns(int32_t qtype, const std::string& type, const std::string& codes, uint64_t row_blocks, uint64_t block) {
  return type == "float16" ? columns_of<c10::Half>(qtype, codes, row_blocks, block)
                           : columns_of<c10::BFloat16>(qtype, codes, row_blocks, block);
}

}  // namespace

void bind_matrix_engine(py::module_& m) {
  m.def("engine_product", &product<>);
  m.def("engine_units", &units);
  m.def("engine_columns", &columns);
}
