// The grid formats: a group of eight elements is an entry of a table of patterns, and 32 elements share a scale. Blocks
// are as in GGUF files. Members are as in super_block.h.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "bytes.h"
#include "grid_tables.h"
#include "includes/codes.h"
#include "includes/simd.h"
#include "q8_1.h"

namespace orrery::formats {

// Seven sign bits, with their parity in bit 7.
inline constexpr auto ksigns_iq2xs = [] {
  std::array<uint8_t, 128> signs{};
  for (unsigned i = 0; i < signs.size(); ++i) signs[i] = static_cast<uint8_t>(i | std::popcount(i) % 2 << 7);
  return signs;
}();

// Two neighbouring blocks are multiplied at once: lane 8 k + ib is sub-block ib of block k, and byte 4 (8 k + ib) + g
// is its group g. The indexes of 64 groups are looked up together, in registers. A look-up gives two bytes: the 2-bit
// codes of elements 0 to 3 and those of elements 4 to 7. On Zen 4 that takes 1.4 ns in a grid of 256 entries; gathers
// of whole entries take 18.6 ns.
namespace detail {

// Table entries as two bytes: half[0] has the codes of elements 0 to 3.
template <int Entries>
struct packed_grid {
  alignas(64) uint8_t half[2][Entries] = {};

  template <typename Code>
  constexpr packed_grid(Code code) {
    for (int i = 0; i < Entries; ++i) {
      for (int j = 0; j < 8; ++j) half[j / 4][i] = static_cast<uint8_t>(half[j / 4][i] | code(i, j) << (2 * (j % 4)));
    }
  }
};

// Magnitude of a 2-bit code of iq2_xxs; the four bits above it are ignored.
struct magnitude_table {
  alignas(64) uint8_t of[64] = {};
  constexpr magnitude_table() {
    for (int i = 0; i < 64; ++i) of[i] = i % 4 == 0 ? 8 : i % 4 == 1 ? 25 : 43;
  }
};

inline constexpr packed_grid<2048> iq1s_codes([](int i, int j) {
  return static_cast<int>(iq1s_grid[i] >> (8 * (j % 4) + 4 * (j / 4)) & 15);
});

// iq1s_grid is sorted by elements 4 to 7, which so form 81 runs; eight neighbouring entries, from a multiple of 8 on,
// belong to two runs at most. That takes five permutations instead of sixteen, 9 ns per block of the product instead of
// 12.
struct sorted_runs {
  alignas(64) uint8_t run[256] = {};      // the run of the first of eight entries
  alignas(64) uint8_t next_at[256] = {};  // the first of the eight that belongs to the next run, or 8
  alignas(64) uint8_t codes[128] = {};    // of a run
  bool exact = true;

  constexpr sorted_runs() {
    const auto& all = iq1s_codes.half[1];
    int at = 0;
    for (int i = 0; i < 2048; ++i) {
      if (i > 0 && all[i] != all[i - 1]) ++at;
      codes[at] = all[i];
      if (i % 8 == 0) {
        run[i / 8] = static_cast<uint8_t>(at);
        next_at[i / 8] = 8;
      }
      if (at > run[i / 8] && next_at[i / 8] == 8) next_at[i / 8] = static_cast<uint8_t>(i % 8);
    }
    for (int i = 0; i < 2048; ++i) exact &= codes[run[i / 8] + (i % 8 >= next_at[i / 8])] == all[i];
  }
};
inline constexpr sorted_runs iq1s_runs;
static_assert(iq1s_runs.exact);

ORRERY_INLINE inline simd<float, 16> to_float(const simd<uint32_t, 16>& words) {
  return convert<float>(bit_cast<int32_t>(words));
}

// Indexed by the upper four bits of a sub-block's word.
struct sub_block_tables {
  alignas(64) float odd[16] = {}, delta[16] = {};

  constexpr sub_block_tables() {
    for (int i = 0; i < 16; ++i) {
      odd[i] = static_cast<float>(2 * (i % 8) + 1);
      delta[i] = i / 8 ? -1.125f : -0.875f;
    }
  }
};

// The first number in the lower eight lanes, the second in the others.
ORRERY_INLINE inline simd<float, 16> halves(float low, float high) {
  return select(mask<16>{0xFF}, simd<float, 16>(low), simd<float, 16>(high));
}

// The activations of two blocks: codes[j] has element j of each group.
struct alignas(64) grid_inputs {
  int8_t codes[8][64];
  float d[16];
  float sum[16];

  void fill(const uint8_t* activations, int sub_blocks) {
    *this = {};
    for (int s = 0; s < sub_blocks; ++s) {
      const uint8_t* other = activations + s * q8_1::bytes;
      for (int e = 0; e < 32; ++e) codes[e % 8][4 * s + e / 8] = q8_1::codes(other)[e];
      d[s] = q8_1::d(other);
      sum[s] = q8_1::sum(other);
    }
  }
};

}  // namespace detail

struct grid_block {
  static constexpr int d_at = 0;
  static float d(const uint8_t* block) { return half_at(block + d_at); }

  // Work-items that share the dot product of a block with eight blocks of quantized activations.
  static constexpr int parts = 8;
};

// Signed magnitudes 8, 25 and 43. A sub-block of 32 is 8 bytes: four grid indexes, then a word of four 7-bit sign
// indexes and a 4-bit scale.
struct iq2_xxs : grid_block {
  static constexpr int bytes = 66;
  static constexpr int groups_at = 2;

  static float value(const uint8_t* block, int e) {
    const int ib = e / 32, g = e % 32 / 8, j = e % 8;
    const float magnitude = scale(block, ib) * static_cast<float>(magnitudes(block, ib, g) >> (8 * j) & 0xFF);
    return signs(block, ib, g) >> j & 1 ? -magnitude : magnitude;
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    const int ib = h / 2, g = 2 * (h % 2);
    const uint64_t grid[2] = {magnitudes(block, ib, g), magnitudes(block, ib, g + 1)};
    const mask<16> negative{static_cast<uint64_t>(signs(block, ib, g) | signs(block, ib, g + 1) << 8)};
    const auto bytes = simd<uint8_t, 16>::load(reinterpret_cast<const uint8_t*>(grid));
    const auto all = simd<float, 16>(scale(block, ib)) * convert<float>(convert<int32_t>(bytes));
    return select(negative, -all, all);
  }

  static uint64_t magnitudes(const uint8_t* block, int ib, int g) { return iq2xxs_grid[block[groups_at + 8 * ib + g]]; }
  static int signs(const uint8_t* block, int ib, int g) {
    return ksigns_iq2xs[signs_and_scale(block, ib) >> 7 * g & 127];
  }
  static uint32_t signs_and_scale(const uint8_t* block, int ib) {
    return read<uint32_t>(block + groups_at + 8 * ib + 4);
  }

  static float dot(const uint8_t* block, const uint8_t* activations, int ib) {
    const uint8_t* other = activations + ib * q8_1::bytes;
    int sum = 0;
    for (int g = 0; g < 4; ++g) {
      const uint64_t grid = magnitudes(block, ib, g);
      const int negative = signs(block, ib, g);
      for (int j = 0; j < 8; ++j) {
        const int product = q8_1::codes(other)[8 * g + j] * static_cast<int>(grid >> 8 * j & 0xFF);
        sum += negative >> j & 1 ? -product : product;
      }
    }
    const float small = static_cast<float>(signs_and_scale(block, ib) >> 28) + 0.5f;
    return (((small * d(block)) * q8_1::d(other)) * 0.25f) * static_cast<float>(sum);
  }

  static constexpr int blocks_at_once = 2;
  using inputs = detail::grid_inputs;

  // dot() of the parts of two blocks.
  ORRERY_INLINE static simd<float, 16> dots(const uint8_t* block, const inputs& in) {
    static constexpr detail::packed_grid<256> grid(
        [](int i, int j) { return static_cast<int>(iq2xxs_grid[i] >> 8 * j & 0xFF) / 17; });
    static constexpr detail::magnitude_table magnitude;
    alignas(64) static constexpr auto all_signs = ksigns_iq2xs;
    using F = simd<float, 16>;
    simd<uint32_t, 32> both;
    both.template set_slice<0>(simd<uint32_t, 16>::load(reinterpret_cast<const uint32_t*>(block + groups_at)));
    both.template set_slice<16>(simd<uint32_t, 16>::load(reinterpret_cast<const uint32_t*>(block + bytes + groups_at)));
    const auto [indexes, words] = split_pairs(both);
    const bytes64 index = bytes64::of(indexes);
    const bytes64 negative = lookup_128(all_signs.data(), bytes_at_steps<7>(words));
    const bytes64 magnitudes = bytes64::load(magnitude.of);
    simd<int32_t, 16> sum;
    ORRERY_UNROLL for (int h = 0; h < 2; ++h) {
      const bytes64 codes = lookup_256(grid.half[h], index);
      ORRERY_UNROLL for (int j = 0; j < 4; ++j) {
        const bytes64 values = lookup_64(magnitudes, codes >> 2 * j);
        const mask<64> minus = common_bits(negative, bytes64::all(1 << (4 * h + j)));
        sum = dot_bytes(sum, values, negate_where(minus, bytes64::load(in.codes[4 * h + j])));
      }
    }
    const F small = detail::to_float(words >> 28) + F(0.5f);
    const F scaled = ((small * detail::halves(d(block), d(block + bytes))) * F::load(in.d)) * F(0.25f);
    return scaled * convert<float>(sum);
  }

 private:
  static float scale(const uint8_t* block, int ib) {
    return ((static_cast<float>(signs_and_scale(block, ib) >> 28) + 0.5f) * d(block)) * 0.25f;
  }
};

// Values 0, 1 and 2 plus one of two deltas per sub-block. A sub-block of 32 is the low bytes of four 11-bit indexes,
// and a word of their high bits, a 3-bit scale and the choice of the delta.
struct iq1_s : grid_block {
  static constexpr int bytes = 50;
  static constexpr int low_at = 2, high_at = 34;

  static float value(const uint8_t* block, int e) {
    const int ib = e / 32, g = e % 32 / 8, j = e % 8;
    const uint32_t codes = grid(block, ib, g) >> (4 * (j / 4)) & 0x0F0F0F0F;
    return scale(block, ib) * (delta(block, ib) + static_cast<float>(codes >> (8 * (j % 4)) & 0xFF));
  }

  static simd<float, 16> values(const uint8_t* block, int h) {
    const int ib = h / 2, g = 2 * (h % 2);
    const uint32_t a = grid(block, ib, g), b = grid(block, ib, g + 1);
    constexpr uint32_t low = 0x0F0F0F0F;
    const uint32_t codes[4] = {a & low, a >> 4 & low, b & low, b >> 4 & low};
    const auto v = convert<float>(convert<int32_t>(simd<uint8_t, 16>::load(reinterpret_cast<const uint8_t*>(codes))));
    return simd<float, 16>(scale(block, ib)) * (simd<float, 16>(delta(block, ib)) + v);
  }

  static uint32_t grid(const uint8_t* block, int ib, int g) {
    return iq1s_grid[block[low_at + 4 * ib + g] | (high(block, ib) >> 3 * g & 7) << 8];
  }
  static float scale(const uint8_t* block, int ib) {
    return d(block) * static_cast<float>(2 * (high(block, ib) >> 12 & 7) + 1);
  }
  static float delta(const uint8_t* block, int ib) { return high(block, ib) & 0x8000 ? -1.125f : -0.875f; }
  static uint32_t high(const uint8_t* block, int ib) { return read<uint16_t>(block + high_at + 2 * ib); }

  static float dot(const uint8_t* block, const uint8_t* activations, int ib) {
    const uint8_t* other = activations + ib * q8_1::bytes;
    int sum = 0;
    for (int g = 0; g < 4; ++g) {
      const uint32_t codes = grid(block, ib, g);
      for (int j = 0; j < 8; ++j) {
        sum += q8_1::codes(other)[8 * g + j] * static_cast<int>(codes >> (8 * (j % 4) + 4 * (j / 4)) & 15);
      }
    }
    const float dl = scale(block, ib);
    return (dl * q8_1::d(other)) * static_cast<float>(sum) + (dl * q8_1::sum(other)) * delta(block, ib);
  }

  static constexpr int blocks_at_once = 4;
  struct inputs {
    detail::grid_inputs pair[2];
    void fill(const uint8_t* activations, int sub_blocks) {
      pair[0].fill(activations, sub_blocks < 16 ? sub_blocks : 16);
      pair[1].fill(activations + 16 * q8_1::bytes, sub_blocks > 16 ? sub_blocks - 16 : 0);
    }
  };

  // dot() of the parts of four blocks, as two pairs, so that the tables are read once for both.
  ORRERY_INLINE static simd<float, 32> dots(const uint8_t* block, const inputs& in) {
    const two_blocks a(block), b(block + 2 * bytes);
    // The products of the first codes overlap with the look-ups of the last ones; the opposite order takes 8% longer.
    const bytes64_pair first = first_four(a, b), last = last_four(a, b);
    simd<int32_t, 16> sum[2][2];
    add_products(sum[0], first.a, in.pair[0].codes);
    add_products(sum[1], first.b, in.pair[1].codes);
    add_products(sum[0], last.a, in.pair[0].codes + 4);
    add_products(sum[1], last.b, in.pair[1].codes + 4);
    float scales[4];
    for (int i = 0; i < 4; ++i) scales[i] = d(block + i * bytes);
    hold_in_memory(scales);
    simd<float, 32> r;
    r.template set_slice<0>(a.scaled(scales, sum[0], in.pair[0]));
    r.template set_slice<16>(b.scaled(scales + 2, sum[1], in.pair[1]));
    return r;
  }

 private:
  // Indexes of the 64 groups of two blocks: eight low bits and three high ones.
  struct two_blocks {
    bytes64 low, high;
    simd<uint32_t, 16> words;

    ORRERY_INLINE explicit two_blocks(const uint8_t* block)
        : low(bytes64::load_halves(block + low_at, block + bytes + low_at)),
          words(load_widened_halves(block + high_at, block + bytes + high_at)) {
      high = bytes_at_steps<3>(words);
    }

    // For each group, the one of eight values that its high bits select.
    ORRERY_INLINE bytes64 by_high_bits(const bytes64 (&of)[8]) const {
      const auto bit = [&](int i) ORRERY_INLINE { return common_bits(high, bytes64::all(1 << i)); };
      const mask<64> one = bit(0), two = bit(1), four = bit(2);
      bytes64 pair[4];
      ORRERY_UNROLL for (int i = 0; i < 4; ++i) pair[i] = select(one, of[2 * i + 1], of[2 * i]);
      return select(four, select(two, pair[3], pair[2]), select(two, pair[1], pair[0]));
    }

    // The indexes without their three lowest bits: five bits of `low`, then three of `high`.
    ORRERY_INLINE bytes64 eights() const { return merge_bits(bytes64::all(0x1F), low >> 3, high << 5); }
    ORRERY_INLINE bytes64 next_run(const bytes64& run, const bytes64& next_at) const {
      return add_where(at_least(low & bytes64::all(7), next_at), run, bytes64::all(1));
    }

    ORRERY_INLINE simd<float, 16> scaled(const float* d, const simd<int32_t, 16> (&sum)[2],
                                         const detail::grid_inputs& in) const {
      using F = simd<float, 16>;
      static constexpr detail::sub_block_tables tables;
      const auto total = convert<float>(sum[0] + (sum[1] >> 2));
      const auto top = words >> 12;
      const F dl = detail::halves(d[0], d[1]) * lookup(F::load(tables.odd), top);
      return (dl * F::load(in.d)) * total + (dl * F::load(in.sum)) * lookup(F::load(tables.delta), top);
    }
  };

  // Codes of elements 0 to 3 of each group, from eight tables of 256 entries.
  ORRERY_INLINE static bytes64_pair first_four(const two_blocks& a, const two_blocks& b) {
    const bytes64_pair low{a.low, b.low};
    const table_halves halves(low);
    const uint8_t* table = hide_address(detail::iq1s_codes).half[0];
    bytes64 of_a[8], of_b[8];
    ORRERY_UNROLL for (int i = 0; i < 8; ++i) {
      const auto r = lookup_256(table + 256 * i, low, halves);
      of_a[i] = r.a;
      of_b[i] = r.b;
    }
    return {a.by_high_bits(of_a), b.by_high_bits(of_b)};
  }

  // Codes of elements 4 to 7 of each group.
  ORRERY_INLINE static bytes64_pair last_four(const two_blocks& a, const two_blocks& b) {
    const auto& runs = hide_address(detail::iq1s_runs);
    const bytes64_pair eights{a.eights(), b.eights()};
    const table_halves halves(eights);
    const auto next_at = lookup_256(runs.next_at, eights, halves);
    const auto first = lookup_256(runs.run, eights, halves);
    return lookup_128(runs.codes, {a.next_run(first.a, next_at.a), b.next_run(first.b, next_at.b)},
                      {mask<64>::all(), mask<64>::all()});
  }

  // Codes are multiplied without being shifted down. Those at odd places in a byte have a sum of their own, a multiple
  // of 4, which is shifted at the end.
  ORRERY_INLINE static void add_products(simd<int32_t, 16> (&sum)[2], const bytes64& codes, const int8_t (*x)[64]) {
    const bytes64 upper = codes >> 4;
    ORRERY_UNROLL for (int j = 0; j < 4; ++j) {
      const bytes64 some = (j < 2 ? codes : upper) & bytes64::all(3 << 2 * (j % 2));
      sum[j % 2] = dot_bytes(sum[j % 2], some, bytes64::load(x[j]));
    }
  }
};

}  // namespace orrery::formats
