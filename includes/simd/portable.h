// The verbs of vectors as loops over plain arrays: what device compilers see, and the reference for tests of the other
// instruction sets. It uses no compiler extensions, and all N values are one vector.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "register_type.h"

namespace orrery {

namespace detail {

// W values. Integers wrap around; comparisons give -1 for true.
template <typename S, int W>
struct array_vector {
  S lane[W];

  array_vector() = default;  // so that array_vector{} is all zeros
  array_vector(S value) {
    for (int i = 0; i < W; ++i) lane[i] = value;
  }

  using V = array_vector;
  friend V operator+(const V& a, const V& b) {
    return each(a, b, [](unsigned_type x, unsigned_type y) { return x + y; });
  }
  friend V operator-(const V& a, const V& b) {
    return each(a, b, [](unsigned_type x, unsigned_type y) { return x - y; });
  }
  friend V operator*(const V& a, const V& b) {
    return each(a, b, [](unsigned_type x, unsigned_type y) { return x * y; });
  }
  friend V operator/(const V& a, const V& b) {
    return each(a, b, [](S x, S y) { return x / y; });
  }
  friend V operator-(const V& a) {
    return each(a, a, [](unsigned_type x, unsigned_type) { return -x; });
  }
  friend V operator&(const V& a, const V& b) {
    return each(a, b, [](S x, S y) { return x & y; });
  }
  friend V operator|(const V& a, const V& b) {
    return each(a, b, [](S x, S y) { return x | y; });
  }
  friend V operator^(const V& a, const V& b) {
    return each(a, b, [](S x, S y) { return x ^ y; });
  }
  friend V operator>>(const V& a, const V& n) {
    return each(a, n, [](S x, S y) { return x >> y; });
  }
  friend V operator<<(const V& a, const V& n) {
    return each(a, n, [](unsigned_type x, S y) { return x << y; });
  }

  using comparison = array_vector<int_like<S>, W>;
  friend comparison operator<(const V& a, const V& b) {
    return compared(a, b, [](S x, S y) { return x < y; });
  }
  friend comparison operator==(const V& a, const V& b) {
    return compared(a, b, [](S x, S y) { return x == y; });
  }
  friend comparison operator!=(const V& a, const V& b) {
    return compared(a, b, [](S x, S y) { return x != y; });
  }

 private:
  // The type of arithmetic: one in which integers do not overflow; floats are unchanged.
  template <typename U, bool Integer>
  struct computed_in {
    using type = U;
  };
  template <typename U>
  struct computed_in<U, true> {
    using type = std::conditional_t<sizeof(U) == 8, uint64_t, uint32_t>;
  };
  using unsigned_type = typename computed_in<S, std::is_integral_v<S>>::type;

  template <typename Op>
  static array_vector each(const array_vector& a, const array_vector& b, Op op) {
    array_vector r;
    for (int i = 0; i < W; ++i) r.lane[i] = static_cast<S>(op(a.lane[i], b.lane[i]));
    return r;
  }
  template <typename Op>
  static comparison compared(const array_vector& a, const array_vector& b, Op op) {
    comparison r;
    for (int i = 0; i < W; ++i) r.lane[i] = static_cast<detail::int_like<S>>(op(a.lane[i], b.lane[i]) ? -1 : 0);
    return r;
  }
};

}  // namespace detail

struct portable {
  static constexpr const char* name = "portable";

  template <typename S, int W>
  using vector = detail::array_vector<S, W>;

  // Lanes per vector for N values.
  template <typename S, int N>
  static constexpr int lanes = N;

  // Whether run-time permutations stay in registers.
  template <typename S, int W>
  static constexpr bool permutes = false;

  // ---- Lanes ----

  template <typename S, int W>
  static S get(const vector<S, W>& v, int i) {
    return v.lane[i];
  }
  template <typename S, int W>
  static void set(vector<S, W>& v, int i, S value) {
    v.lane[i] = value;
  }
  template <typename S, int W>
  static vector<S, W> broadcast(S value) {
    return value;
  }
  template <typename S, int W>
  static vector<S, W> iota() {
    vector<S, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = static_cast<S>(i);
    return r;
  }

  // ---- Arithmetic ----

  // a * b + c, where every product must be exact in float, as products of two halves or two bfloat16 are. So a fused
  // multiply-add gives the same result.
  template <int W>
  static vector<float, W> multiply_add(const vector<float, W>& a, const vector<float, W>& b,
                                       const vector<float, W>& c) {
    return a * b + c;
  }

  // ---- Conversions ----

  template <typename To, typename From, int W>
  static vector<To, W> convert(const vector<From, W>& v) {
    vector<To, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = static_cast<To>(v.lane[i]);
    return r;
  }
  // To the nearest half, ties to even, and back.
  template <int W>
  static vector<float, W> round_half(const vector<float, W>& v) {
    vector<float, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = static_cast<float>(c10::Half(v.lane[i]));
    return r;
  }

  // ---- Memory ----

  // W contiguous values; p may have any alignment.
  template <typename T, int W>
  static vector<register_type<T>, W> load(const T* p) {
    vector<register_type<T>, W> r;
    for (int i = 0; i < W; ++i) {
      T value;
      std::memcpy(&value, reinterpret_cast<const char*>(p) + i * sizeof(T), sizeof value);
      r.lane[i] = static_cast<register_type<T>>(value);
    }
    return r;
  }
  // Each lane must be exactly a T, or a NaN.
  template <typename T, int W>
  static void store(T* p, const vector<register_type<T>, W>& v) {
    for (int i = 0; i < W; ++i) {
      const T value = static_cast<T>(v.lane[i]);
      std::memcpy(reinterpret_cast<char*>(p) + i * sizeof(T), &value, sizeof value);
    }
  }
  // Copies the values whose bit is set and touches no others of `from` (copy_from_some) or of `to` (copy_to_some). The
  // other pointer is to W values, aligned to 64 bytes; copy_from_some sets the rest to zero.
  template <typename T, int W>
  static void copy_from_some(T* to, const T* from, uint64_t bits) {
    for (int i = 0; i < W; ++i) {
      if ((bits >> i) & 1) {
        std::memcpy(static_cast<void*>(to + i), from + i, sizeof(T));
      } else {
        std::memset(static_cast<void*>(to + i), 0, sizeof(T));
      }
    }
  }
  template <typename T, int W>
  static void copy_to_some(T* to, const T* from, uint64_t bits) {
    for (int i = 0; i < W; ++i) {
      if ((bits >> i) & 1) std::memcpy(static_cast<void*>(to + i), from + i, sizeof(T));
    }
  }
  // Prefetches a cache line, for use soon or some thousand cycles later.
  static void prefetch(const void*) {}
  static void prefetch_far(const void*) {}
  // Transposes eight words of each of 16 rows: word w of row j becomes out[16 w + j].
  static void transpose_words(const uint8_t* const (&row)[16], uint64_t at, uint32_t* out) {
    for (int w = 0; w < 8; ++w) {
      for (int j = 0; j < 16; ++j) std::memcpy(out + 16 * w + j, row[j] + at + 4 * w, 4);
    }
  }

  // ---- Masks ----

  // One bit per lane of a comparison, whose lanes are 0 or -1.
  template <typename S, int W>
  static uint64_t mask_bits(const vector<detail::int_like<S>, W>& comparison) {
    uint64_t bits = 0;
    for (int i = 0; i < W; ++i) bits |= uint64_t(comparison.lane[i] & 1) << i;
    return bits;
  }
  // Lanes of `yes` where a bit is set, of `no` elsewhere.
  template <typename S, int W>
  static vector<S, W> blend(uint64_t bits, const vector<S, W>& yes, const vector<S, W>& no) {
    vector<S, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = (bits >> i) & 1 ? yes.lane[i] : no.lane[i];
    return r;
  }
  // The same by a comparison.
  template <typename S, int W>
  static vector<S, W> choose(const vector<detail::int_like<S>, W>& comparison, const vector<S, W>& yes,
                             const vector<S, W>& no) {
    vector<S, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = comparison.lane[i] ? yes.lane[i] : no.lane[i];
    return r;
  }

  // ---- Moves ----

  // Lane i is lane index[i] of `a`; upper bits of an index are ignored. W must be a power of two.
  template <typename S, int W>
  static vector<S, W> permute(const vector<S, W>& a, const vector<detail::int_like<S>, W>& index) {
    vector<S, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = a.lane[index.lane[i] & (W - 1)];
    return r;
  }
  // The same for `a` followed by `b`.
  template <typename S, int W>
  static vector<S, W> permute2(const vector<S, W>& a, const vector<S, W>& b,
                               const vector<detail::int_like<S>, W>& index) {
    vector<S, W> r;
    for (int i = 0; i < W; ++i) {
      const int from = index.lane[i] & (2 * W - 1);
      r.lane[i] = from < W ? a.lane[from] : b.lane[from - W];
    }
    return r;
  }
  // M lanes from First on.
  template <typename S, int W, int First, int M>
  static vector<S, M> part(const vector<S, W>& v) {
    vector<S, M> r;
    for (int i = 0; i < M; ++i) r.lane[i] = v.lane[First + i];
    return r;
  }
  // The lanes of `a` followed by those of `b`, of 16 bytes or more each.
  template <typename S, int M>
  static vector<S, 2 * M> join(const vector<S, M>& a, const vector<S, M>& b) {
    vector<S, 2 * M> r;
    for (int i = 0; i < M; ++i) {
      r.lane[i] = a.lane[i];
      r.lane[M + i] = b.lane[i];
    }
    return r;
  }
  // A short vector in the low lanes of one of W; the other lanes are unspecified.
  template <typename S, int M, int W>
  static vector<S, W> widen(const vector<S, M>& few) {
    vector<S, W> r{};
    for (int i = 0; i < M; ++i) r.lane[i] = few.lane[i];
    return r;
  }

  // ---- Look-ups of values by codes in words ----

  // Whether lookup_upper_words is one instruction.
  template <int W>
  static constexpr bool looks_up_words = false;
  // The float whose upper half is table[code], for the code of Bits bits at bit 16 of each word. The table has 32
  // entries for codes of less than six bits, in which shorter ones repeat, and 64 for codes of six. The lower half of a
  // lane is 0.
  template <int Bits, int W>
  static vector<float, W> lookup_upper_words(const uint16_t* table, const vector<uint32_t, W>& words) {
    vector<float, W> r;
    for (int i = 0; i < W; ++i) r.lane[i] = float_of(table[words.lane[i] >> 16 & ((1 << Bits) - 1)], 0);
    return r;
  }
  // Whether lookup_bytes is a few instructions.
  template <int W>
  static constexpr bool looks_up_bytes = false;
  // The float whose upper bytes are top[code] and second[code], for the low six bits of byte k of each word. Both
  // tables have 64 entries at multiples of 64 bytes.
  template <int W>
  static vector<float, W> lookup_bytes(const uint8_t* top, const uint8_t* second, const vector<uint32_t, W>& words,
                                       int k) {
    vector<float, W> r;
    for (int i = 0; i < W; ++i) {
      const uint32_t code = words.lane[i] >> (8 * k) & 63;
      r.lane[i] = float_of(top[code] << 8 | second[code], 0);
    }
    return r;
  }
  // The float whose upper bytes are top[code] and second[code], for the low seven bits of byte k of each word, negative
  // if that byte's top bit is set. Both tables have 128 entries at multiples of 64 bytes.
  template <int W>
  static vector<float, W> lookup_signed(const uint8_t* top, const uint8_t* second, const vector<uint32_t, W>& words,
                                        int k) {
    vector<float, W> r;
    for (int i = 0; i < W; ++i) {
      const uint32_t code = words.lane[i] >> (8 * k), low = code & 127;
      r.lane[i] = float_of((top[low] | (code & 128)) << 8 | second[low], 0);
    }
    return r;
  }

  // ---- 64 bytes as one value ----

  using bytes = vector<uint8_t, 64>;

  // table[index & 63]
  static bytes lookup_64(const bytes& table, const bytes& index) {
    bytes r;
    for (int i = 0; i < 64; ++i) r.lane[i] = table.lane[index.lane[i] & 63];
    return r;
  }
  // Entry `index & 127` of the two tables, `low` first.
  static bytes lookup_128(const bytes& low, const bytes& high, const bytes& index) {
    return lookup_128_where(~uint64_t(0), low, high, index);
  }
  // The same where a bit is set; the other lanes keep their index.
  static bytes lookup_128_where(uint64_t where, const bytes& low, const bytes& high, const bytes& index) {
    bytes r;
    for (int i = 0; i < 64; ++i) {
      const int at = index.lane[i] & 127;
      r.lane[i] = !((where >> i) & 1) ? index.lane[i] : at < 64 ? low.lane[at] : high.lane[at - 64];
    }
    return r;
  }
  // Lanes in which a & b is not 0.
  static uint64_t common_bits(const bytes& a, const bytes& b) {
    uint64_t bits = 0;
    for (int i = 0; i < 64; ++i) bits |= uint64_t((a.lane[i] & b.lane[i]) != 0) << i;
    return bits;
  }
  static uint64_t at_least(const bytes& a, const bytes& b) {
    uint64_t bits = 0;
    for (int i = 0; i < 64; ++i) bits |= uint64_t(a.lane[i] >= b.lane[i]) << i;
    return bits;
  }
  static uint64_t top_bits(const bytes& a) { return common_bits(a, broadcast<uint8_t, 64>(128)); }
  // `a`, with b added to the lanes whose bit is set, or with those lanes negated.
  static bytes add_where(uint64_t where, const bytes& a, const bytes& b) { return blend<uint8_t, 64>(where, a + b, a); }
  static bytes negate_where(uint64_t where, const bytes& a) { return blend<uint8_t, 64>(where, bytes{} - a, a); }
  // Bits of `yes` where those of `mask` are set, of `no` elsewhere.
  static bytes merge_bits(const bytes& mask, const bytes& yes, const bytes& no) {
    bytes r;
    for (int i = 0; i < 64; ++i) r.lane[i] = (mask.lane[i] & yes.lane[i]) | (~mask.lane[i] & no.lane[i]);
    return r;
  }
  // Shifts 16-bit words; bits cross between the two bytes of a word.
  static bytes shift_words_right(const bytes& a, int n) { return of_words(words_of<uint16_t>(a) >> n); }
  static bytes shift_words_left(const bytes& a, int n) { return of_words(words_of<uint16_t>(a) << n); }
  // For each lane's 32 bits, the bytes that begin at bits 0, Step, 2 Step and 3 Step.
  template <int Step>
  static bytes bytes_at_steps(const vector<uint32_t, 16>& words) {
    bytes r;
    for (int i = 0; i < 64; ++i) r.lane[i] = static_cast<uint8_t>(words.lane[i / 4] >> (i % 4 * Step));
    return r;
  }
  // Adds the four products of each lane's unsigned bytes with the signed ones.
  static vector<int32_t, 16> dot_bytes(vector<int32_t, 16> sum, const bytes& a, const bytes& b) {
    for (int i = 0; i < 64; ++i) sum.lane[i / 4] += a.lane[i] * static_cast<int8_t>(b.lane[i]);
    return sum;
  }
  // 32 bytes from each of two addresses, and eight 16-bit words from each, widened.
  static bytes load_halves(const uint8_t* first, const uint8_t* second) {
    bytes r;
    std::memcpy(r.lane, first, 32);
    std::memcpy(r.lane + 32, second, 32);
    return r;
  }
  static vector<uint32_t, 16> load_widened_halves(const uint8_t* first, const uint8_t* second) {
    vector<uint16_t, 16> r;
    std::memcpy(r.lane, first, 16);
    std::memcpy(r.lane + 8, second, 16);
    return convert<uint32_t, uint16_t, 16>(r);
  }

  // ---- Barriers to the compiler: see barriers.h ----

  template <typename V>
  static void hold_in_registers(V&) {}
  template <typename V>
  static void hold_in_memory(V&) {}

 private:
  static float float_of(uint32_t upper, uint32_t lower) {
    const uint32_t bits = upper << 16 | lower;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  template <typename S>
  static vector<S, 64 / sizeof(S)> words_of(const bytes& a) {
    vector<S, 64 / sizeof(S)> r;
    std::memcpy(r.lane, a.lane, 64);
    return r;
  }
  template <typename S>
  static bytes of_words(const S& words) {
    bytes r;
    std::memcpy(r.lane, words.lane, 64);
    return r;
  }
};

}  // namespace orrery
