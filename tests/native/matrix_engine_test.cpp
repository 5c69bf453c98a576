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

// Adds up whole blocks, each with its scales, by operations of a kind of tile.
template <typename Tile, int R, int N>
floats sums_of(const floats& a, const floats& b, const floats& scales) {
  Tile sum;
  for (size_t i = 0; i < scales.size() / N; ++i) {
    Tile acc;
    for (int q = 0; q < matrix_engine::operations; ++q) {
      acc.multiply_add(a.data() + i * R * 64 + q * 16, b.data() + i * 64 * N + q * 16 * N);
    }
    sum.add_scaled(acc, simd<float, N>::load(scales.data() + i * N));
  }
  floats out(R * N);
  for (int r = 0; r < R; ++r) sum.row(r).store(out.data() + r * N);
  return out;
}

template <int N, int R = 8>
floats product_of(const std::string& kind, int rows, const floats& a, const floats& b, const floats& scales) {
  if constexpr (R == 0) {
    throw std::invalid_argument("a tile has 1 to 8 rows");
  } else {
    if (rows != R) return product_of<N, R - 1>(kind, rows, a, b, scales);
    if (kind == "plain") return sums_of<matrix_engine::plain_tile<R, N>, R, N>(a, b, scales);
    return sums_of<detail::vector_tile<R, N, matrix_engine::steps, matrix_engine::block>, R, N>(a, b, scales);
  }
}

floats product(const std::string& kind, int rows, int columns, const floats& a, const floats& b, const floats& scales) {
  return columns == 16 ? product_of<16>(kind, rows, a, b, scales) : product_of<8>(kind, rows, a, b, scales);
}

template <typename C, int N>
floats operand_of(int32_t qtype, const std::string& codes, uint64_t row_bytes) {
  std::vector<matrix_engine::operand_element<C>> b(64 * N);
  formats::with_engine_format(weight_format{qtype}, [&](auto f) {
    formats::read_operands<decltype(f), C, N>(reinterpret_cast<const uint8_t*>(codes.data()), row_bytes, b.data());
  });
  return floats(b.begin(), b.end());
}

// Operand B of one block, from the codes of its rows.
floats operand(int32_t qtype, const std::string& type, int columns, const std::string& codes, uint64_t row_bytes) {
  const bool wide = columns == 16;
  if (type == "float16") {
    return wide ? operand_of<c10::Half, 16>(qtype, codes, row_bytes)
                : operand_of<c10::Half, 8>(qtype, codes, row_bytes);
  }
  return wide ? operand_of<c10::BFloat16, 16>(qtype, codes, row_bytes)
              : operand_of<c10::BFloat16, 8>(qtype, codes, row_bytes);
}

}  // namespace

void bind_matrix_engine(py::module_& m) {
  m.def("engine_product", &product);
  m.def("engine_operand", &operand);
}
