// Decodes blocks of a weight for the matrix engine: values without their scale, which multiplies the engine's sums.
#pragma once

#include <iterator>
#include <tuple>

#include "formats/bytes.h"
#include "formats/codebook.h"
#include "formats/registry.h"
#include "includes/matrix_engine.h"

namespace orrery::formats {

// Calls f(e, value) with each element e of a block, `N` rows at a time; words(run, word) loads the codes of a run.
template <typename Format, typename C, int N, typename Words, typename F>
ORRERY_INLINE inline void for_each_element(Words words, F f) {
  constexpr int run = Format::run;
  ORRERY_UNROLL for (int o = 0; o < 64; o += run) {
    simd<uint32_t, N> word[Format::words];
    words(o / run, word);
    ORRERY_UNROLL for (int k = 0; k < run; ++k) {
      f(Format::first_element(o) + Format::element(k), Format::template term<C>(word, k));
    }
  }
}

// Decodes one block of each of `N` rows, `row_blocks` blocks apart, as operand B of the block's four operations:
// elements e and e + 1 (e even) of row j are at b + e * N + 2 * j.
template <typename Format, typename C, int N>
void read_units(const uint8_t* codes, uint64_t block, uint64_t row_blocks, C* b) {
  for (int j = 0; j < N; ++j, block += row_blocks) {
    for_each_element<Format, C, 1>([&](int run, auto& word) { Format::load(codes, 0, block, run * Format::run, word); },
                                   [&](int e, const simd<C, 1>& value) { b[(e / 2 * N + j) * 2 + e % 2] = value[0]; });
  }
}

// Decodes the block `at` bytes after the start of each of 16 rows to floats: element e of row j is b[e * Columns + j].
template <typename Format, typename C, int Columns>
__attribute__((noinline)) void read_columns(const uint8_t* const (&row)[16], uint64_t at, float* b) {
  alignas(64) uint32_t all[4 * Format::quant_bytes];
  transpose_words<Format::quant_bytes / 4>(row, at, all);
  for_each_element<Format, C, 16>(
      [&](int run, auto& word) {
        ORRERY_UNROLL for (int w = 0; w < Format::words; ++w) {
          word[w] = simd<uint32_t, 16>::load(all + 16 * (run * Format::words + w));
        }
      },
      [&](int e, const simd<C, 16>& value) { convert<float>(value).store(b + e * Columns); });
}

// The scale of one row's block as a float. It applies to fp8_e5m2 too.
template <typename Format>
float read_scale(const uint8_t* scales, uint64_t block) {
  using S = std::conditional_t<Format::scale_bytes == 2, c10::Half, float>;
  static_assert(sizeof(S) == Format::scale_bytes);
  S scale;
  std::memcpy(&scale, scales + block * sizeof(S), sizeof scale);
  return static_cast<float>(scale);
}

// Calls `f` with the format's struct if the matrix engine supports the format, else does nothing.
template <typename F>
void with_engine_format(weight_format format, F f) {
  using readers = std::tuple<q4_0, q8_0, fp8_e4m3, fp8_e5m2>;  // in the order of engine_formats
  static_assert(std::tuple_size_v<readers> == std::size(engine_formats));
  for_each_constant<std::size(engine_formats)>([&](auto i) {
    if (format == engine_formats[i]) f(std::tuple_element_t<i, readers>());
  });
}

}  // namespace orrery::formats
