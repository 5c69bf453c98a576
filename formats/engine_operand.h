// Blocks of a weight as the matrix engine takes them: values without their scale, which multiplies the engine's sums.
#pragma once

#include "formats/bytes.h"
#include "formats/codebook.h"
#include "formats/registry.h"
#include "includes/matrix_engine.h"

namespace orrery::formats {

// The value of code p of each byte.
template <typename Format, typename C, int N>
simd<C, N> values_of_bytes(const simd<uint8_t, N>& bytes, int p) {
  if constexpr (Format::has_signed_bytes) {
    return Format::template signed_bytes<C>(bytes);
  } else {
    return Format::template unscaled<C>(Format::byte_code(convert<uint32_t>(bytes), p));
  }
}

// One block of N neighbouring rows, whose codes lie `row_bytes` apart, as operand B of its four operations: elements e
// and e + 1 (e even) of column j are the unit j behind b + e * N.
template <typename Format, typename C, int N>
__attribute__((noinline)) void read_operands(const uint8_t* codes, uint64_t row_bytes,
                                             matrix_engine::operand_element<C>* b) {
  alignas(64) uint8_t pairs[64 * N];
  interleave_pairs<N, Format::quant_bytes>(codes, row_bytes, pairs);
  ORRERY_UNROLL for (int j = 0; j < Format::quant_bytes; j += 2) {
    const auto bytes = simd<uint8_t, 2 * N>::load(pairs + interleaved_at<N>(j / 2));
    ORRERY_UNROLL for (int p = 0; p < Format::codes_per_byte; ++p) {
      const auto values = values_of_bytes<Format, C>(bytes, p);
      convert<matrix_engine::operand_element<C>>(values).store(b + Format::byte_element(j, p) * N);
    }
  }
}

// The scales of one block of N rows, `row_blocks` apart, as floats. Here fp8_e5m2 has one too.
template <typename Format, int N>
simd<float, N> read_scales(const uint8_t* scales, uint64_t block, uint64_t row_blocks) {
  using S = std::conditional_t<Format::scale_bytes == 2, c10::Half, float>;
  static_assert(sizeof(S) == Format::scale_bytes);
  alignas(64) S column[N];
  ORRERY_UNROLL for (int j = 0; j < N; ++j) {
    std::memcpy(&column[j], scales + (block + j * row_blocks) * sizeof(S), sizeof(S));
  }
  return convert<float>(simd<S, N>::load(column));
}

// Calls `f` with the format, one of those that the matrix engine reads; with any other it does nothing.
template <typename F>
void with_engine_format(weight_format format, F f) {
  switch (format) {
    case weight_format::q4_0:
      return f(q4_0());
    case weight_format::q8_0:
      return f(q8_0());
    case weight_format::fp8_e4m3:
      return f(fp8_e4m3());
    case weight_format::fp8_e5m2:
      return f(fp8_e5m2());
    default:
      return;
  }
}

}  // namespace orrery::formats
