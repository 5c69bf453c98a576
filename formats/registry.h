// The weight formats by code: sizes, layout, and where the planes of a split tensor lie.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace orrery {

// The codes by which callers name a format; find_weight_format tells a number that names none.
enum class weight_format : int32_t {
  q4_0 = 2,
  q4_1 = 3,
  q5_0 = 6,
  q5_1 = 7,
  q8_0 = 8,
  q8_1 = 9,  // quantized activations, no weight format
  nf4 = 10,
  nf3 = 11,
  fp8_e4m3 = 15,
  fp4 = 16,
  fp8_e5m2 = 19,
  iq2_xxs = 21,
  q2_k = 23,
  iq1_s = 24,
  q6_k = 26,
  q4_k = 27,
  q5_k = 28,
  fp6 = 29,
};

constexpr int32_t code_of(weight_format format) { return static_cast<int32_t>(format); }

enum class weight_layout { none, split, block_array };

struct format_row {
  weight_format format;
  const char* name;
  int32_t elements;  // of one block
  uint64_t bytes;    // of one block, all planes together
  weight_layout layout;
  int32_t quant_bytes;  // of one block in the quant plane (both quant planes of fp6); 0 for a block array
  int32_t scale_bytes;  // of one block in the scale plane
};

// clang-format off
inline constexpr format_row format_rows[] = {
    {weight_format::q4_0,     "q4_0",     64,  34,  weight_layout::split,       32, 2},
    {weight_format::q4_1,     "q4_1",     64,  36,  weight_layout::split,       32, 4},
    {weight_format::q5_0,     "q5_0",     64,  44,  weight_layout::block_array, 0,  0},
    {weight_format::q5_1,     "q5_1",     64,  44,  weight_layout::block_array, 0,  0},
    {weight_format::q8_0,     "q8_0",     64,  68,  weight_layout::split,       64, 4},
    {weight_format::q8_1,     "q8_1",     32,  36,  weight_layout::none,        0,  0},  // activations, no weights
    {weight_format::nf4,      "nf4",      64,  34,  weight_layout::split,       32, 2},
    {weight_format::nf3,      "nf3",      64,  26,  weight_layout::split,       24, 2},
    {weight_format::fp8_e4m3, "fp8_e4m3", 64,  68,  weight_layout::split,       64, 4},
    {weight_format::fp4,      "fp4",      64,  34,  weight_layout::split,       32, 2},
    {weight_format::fp8_e5m2, "fp8_e5m2", 64,  68,  weight_layout::split,       64, 4},
    {weight_format::iq2_xxs,  "iq2_xxs",  256, 66,  weight_layout::block_array, 0,  0},
    {weight_format{22},       "",         256, 74,  weight_layout::none,        0,  0},  // sizes only
    {weight_format::q2_k,     "q2_k",     256, 84,  weight_layout::block_array, 0,  0},
    {weight_format::iq1_s,    "iq1_s",    256, 50,  weight_layout::block_array, 0,  0},
    {weight_format{25},       "",         256, 56,  weight_layout::none,        0,  0},  // sizes only
    {weight_format::q6_k,     "q6_k",     256, 210, weight_layout::block_array, 0,  0},
    {weight_format::q4_k,     "q4_k",     256, 144, weight_layout::block_array, 0,  0},
    {weight_format::q5_k,     "q5_k",     256, 176, weight_layout::block_array, 0,  0},
    {weight_format::fp6,      "fp6",      64,  50,  weight_layout::split,       48, 2},
};
// clang-format on

inline constexpr int32_t format_codes = 30;

namespace detail {

template <typename Value>
constexpr std::array<Value, format_codes> by_code(Value format_row::*field) {
  std::array<Value, format_codes> table{};
  for (const format_row& row : format_rows) table[code_of(row.format)] = row.*field;
  return table;
}

}  // namespace detail

inline constexpr std::array<int32_t, format_codes> block_elems = detail::by_code(&format_row::elements);
inline constexpr std::array<uint64_t, format_codes> block_bytes = detail::by_code(&format_row::bytes);

// The row of a format in a table that has a `format` in each row, else null.
template <typename Row, size_t Rows>
constexpr const Row* find_format(const Row (&rows)[Rows], weight_format format) {
  for (const Row& row : rows) {
    if (row.format == format) return &row;
  }
  return nullptr;
}

// The row of a code that a weight may have, else null: holes of the table, and sizes without a reader, have none.
constexpr const format_row* find_weight_format(weight_format format) {
  const format_row* row = find_format(format_rows, format);
  return row == nullptr || row->layout == weight_layout::none ? nullptr : row;
}

// Remainders are dropped without notice, as the readers' addresses never depend on them.
constexpr uint64_t rows_of_weight(weight_format format, uint64_t weight_bytes, uint64_t state_size) {
  const uint64_t blocks = weight_bytes / block_bytes[code_of(format)];
  return static_cast<uint64_t>(block_elems[code_of(format)]) * blocks / state_size;
}

// Positions of planes are 32-bit: the product wraps, and a split matrix of 2^31 elements or more has no valid position.
constexpr int32_t wrapped_blocks(uint64_t output_size, uint64_t state_size) {
  return static_cast<int32_t>(static_cast<uint32_t>(output_size * state_size)) / 64;
}

// Byte position of the scale plane of a split format, behind the quants of all its blocks; 0 for a block array, which
// has none.
constexpr uint32_t offset_behind_blocks(weight_format format, uint64_t output_size, uint64_t state_size) {
  const format_row* row = find_weight_format(format);
  if (row == nullptr || row->layout != weight_layout::split) return 0;
  return static_cast<uint32_t>(wrapped_blocks(output_size, state_size) * row->quant_bytes);
}
// The same, as all but the fused projections have it: where a quant is a byte, the last block that is not whole does
// not count whatever the product's sign.
constexpr uint32_t scale_offset(weight_format format, uint64_t output_size, uint64_t state_size) {
  const format_row* row = find_weight_format(format);
  if (row != nullptr && row->quant_bytes == 64) return static_cast<uint32_t>(output_size * state_size) & ~63u;
  return offset_behind_blocks(format, output_size, state_size);
}

// fp6 keeps the two high bits of each code in a plane of their own, behind 32 bytes per block.
constexpr uint32_t fp6_second_plane(uint64_t output_size, uint64_t state_size) {
  return static_cast<uint32_t>(wrapped_blocks(output_size, state_size) * 32);
}

}  // namespace orrery
