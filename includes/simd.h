// simd<T, N>: N values of T, one per work-item (or one per element in explicit-SIMD kernels).
//
// Every operation rounds to T. Half and bfloat16 values live in registers as floats that have been rounded; one float
// operation followed by one rounding is exact for half and is the definition of the operation for bfloat16. Nothing
// here contracts or reorders. simd<T, 1> behaves as the scalar, so a kernel written with these types is plain work-item
// code where the compiler makes the sub-group.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#define ORRERY_LANE_MASKS 1  // mask registers for every element size and vector length
#endif
#if defined(__AVX512F__) || defined(__F16C__)
#include <immintrin.h>
#endif

namespace orrery {

#define ORRERY_UNROLL _Pragma("GCC unroll 64")
// For the bodies of kernels, whose values are registers: a call would put them into memory. And for whatever only
// prefetches: GCC takes such a function for one without effect and drops the calls.
#define ORRERY_INLINE __attribute__((always_inline))

// The type in which values of T are held and computed.
template <typename T>
struct held {
  using type = T;
};
template <>
struct held<c10::Half> {
  using type = float;
};
template <>
struct held<c10::BFloat16> {
  using type = float;
};
template <typename T>
using held_t = typename held<T>::type;

template <typename T>
constexpr bool is_narrow_float = !std::is_same_v<held_t<T>, T>;

namespace detail {

template <typename S, int W>
struct vector_of {
  typedef S type __attribute__((vector_size(W * sizeof(S))));
};
template <typename S>
struct vector_of<S, 1> {
  using type = S;
};
template <typename S, int W>
using vector_t = typename vector_of<S, W>::type;

#if defined(__AVX512F__)
constexpr int vector_bytes = 64;
#elif defined(__AVX__)
constexpr int vector_bytes = 32;
#else
constexpr int vector_bytes = 16;
#endif

// Lanes of one machine vector: the largest power of two that divides N and fits. GCC takes wider ones apart lane by
// lane, and compiles a unit four to ten times as long.
template <typename S, int N>
constexpr int chunk_lanes() {
  int w = N & -N;
  while (w * int(sizeof(S)) > vector_bytes) w /= 2;
  return w;
}

template <typename S>
using int_like = std::conditional_t<
    sizeof(S) == 8, int64_t,
    std::conditional_t<sizeof(S) == 4, int32_t, std::conditional_t<sizeof(S) == 2, int16_t, int8_t>>>;

template <typename S, int W, size_t... I>
inline vector_t<S, W> iota_vector(std::index_sequence<I...>) {
  if constexpr (W == 1) {
    return S(0);
  } else {
    return vector_t<S, W>{S(I)...};
  }
}

template <typename S, int W>
inline vector_t<S, W> iota() {
  return iota_vector<S, W>(std::make_index_sequence<W>());
}

// The zero-masking forms of intrinsics with a full mask compile to the plain instruction; GCC's plain forms start from
// an operand that it warns about.

// Elementwise conversion. GCC 12 takes conversions that change the element's size apart lane by lane, so the ones in
// hot loops are named here.
template <typename To, typename From, int W>
inline vector_t<To, W> convert_vector(vector_t<From, W> v) {
  if constexpr (W == 1) {
    return static_cast<To>(v);
  } else {
#ifdef __AVX512F__
    constexpr bool to_32 = std::is_integral_v<To> && sizeof(To) == 4;
    if constexpr (W == 16 && to_32 && std::is_same_v<From, uint8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, int8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi8_epi32(0xFFFF, (__m128i)v);
    } else if constexpr (W == 16 && to_32 && std::is_same_v<From, uint16_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu16_epi32(0xFFFF, (__m256i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, uint32_t> && std::is_same_v<To, uint16_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_epi16(0xFFFF, (__m512i)v);
    } else if constexpr (W == 16 && std::is_same_v<From, int32_t> && std::is_same_v<To, int8_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_epi8(0xFFFF, (__m512i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, float> && std::is_same_v<To, double>) {
      return (vector_t<To, W>)_mm512_maskz_cvtps_pd(0xFF, (__m256)v);
    } else if constexpr (W == 8 && std::is_same_v<From, double> && std::is_same_v<To, float>) {
      return (vector_t<To, W>)_mm512_maskz_cvtpd_ps(0xFF, (__m512d)v);
    } else if constexpr (W == 8 && std::is_same_v<From, uint32_t> && std::is_same_v<To, int64_t>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepu32_epi64(0xFF, (__m256i)v);
    } else if constexpr (W == 8 && std::is_same_v<From, int32_t> && std::is_same_v<To, double>) {
      return (vector_t<To, W>)_mm512_maskz_cvtepi32_pd(0xFF, (__m256i)v);
    }
#endif
    constexpr bool by_word = sizeof(From) == 1 && sizeof(To) >= 4 && !(std::is_integral_v<To> && sizeof(To) == 4);
    if constexpr (by_word) {
      return convert_vector<To, int32_t, W>(convert_vector<int32_t, From, W>(v));
    } else {
      return __builtin_convertvector(v, vector_t<To, W>);
    }
  }
}

// Float to the nearest half, ties to even, and back.
template <int W>
inline vector_t<float, W> round_half(vector_t<float, W> v) {
#ifdef __AVX512F__
  if constexpr (W == 16) {
    return (vector_t<float, 16>)_mm512_maskz_cvtph_ps(
        0xFFFF, _mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT));
  }
#endif
#ifdef __F16C__
  if constexpr (W == 8) {
    return (vector_t<float, 8>)_mm256_cvtph_ps(_mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT));
  } else if constexpr (W == 4) {
    return (vector_t<float, 4>)_mm_cvtph_ps(_mm_cvtps_ph((__m128)v, _MM_FROUND_TO_NEAREST_INT));
  } else if constexpr (W == 1) {
    return _cvtsh_ss(_cvtss_sh(v, _MM_FROUND_TO_NEAREST_INT));
  }
#endif
  if constexpr (W == 1) {
    return static_cast<float>(c10::Half(v));
  } else {
    for (int i = 0; i < W; ++i) v[i] = round_half<1>(v[i]);
    return v;
  }
}

// The result of one operation on bfloat16 values to the nearest bfloat16, ties to even, and back. Such a NaN has no
// bits below the upper 16, so that it stays one without care; it takes its one pattern when it is stored. Without the
// test for it a q4_0 product takes 16% less time.
template <int W>
inline vector_t<float, W> round_to_bfloat16(vector_t<float, W> v) {
  using U = vector_t<uint32_t, W>;
  U bits;
  std::memcpy(&bits, &v, sizeof v);
  bits = (bits + (U(bits >> 16) & 1u) + 0x7FFFu) & 0xFFFF0000u;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

// The same for any float; every NaN becomes 0x7FC0.
template <int W>
inline vector_t<float, W> round_bfloat16(vector_t<float, W> v) {
  const vector_t<float, W> rounded = round_to_bfloat16<W>(v);
  const vector_t<float, W> nan = vector_t<float, W>{} + std::bit_cast<float>(0x7FC00000u);
  return v != v ? nan : rounded;
}

// A short vector of 32-bit elements in the low lanes of one of W; the lanes above are anything. Up to 16 bytes stay in
// registers: through memory the wide load waits for the narrow store, 8% of a q4_0 product of 576-element rows. For 32
// bytes, what the compiler makes of a register cast was measured 25% slower than memory.
template <int W, typename V>
inline auto low_lanes(V few) {
  using E = std::remove_cvref_t<decltype(few[0])>;
  vector_t<E, W> wide{};
#ifdef __AVX512F__
  if constexpr (W == 16 && sizeof few == 16) {
    return (vector_t<E, W>)_mm512_castps128_ps512((__m128)few);
  } else if constexpr (W == 16 && sizeof few == 8) {
    int64_t bits;
    std::memcpy(&bits, &few, sizeof bits);
    return (vector_t<E, W>)_mm512_castps128_ps512(_mm_castsi128_ps(_mm_cvtsi64_si128(bits)));
  }
#endif
  std::memcpy(&wide, &few, sizeof few);
  return wide;
}

template <int First, int W, typename V, int... I>
inline auto lanes_of_vector(V v, std::integer_sequence<int, I...>) {
  return __builtin_shufflevector(v, v, (First + I)...);
}

template <typename T, int W>
inline vector_t<held_t<T>, W> rounded(vector_t<held_t<T>, W> v) {
  if constexpr (std::is_same_v<T, c10::Half>) {
    return round_half<W>(v);
  } else if constexpr (std::is_same_v<T, c10::BFloat16>) {
    return round_bfloat16<W>(v);
  } else {
    return v;
  }
}

template <typename T, int W>
inline vector_t<held_t<T>, W> rounded_result(vector_t<held_t<T>, W> v) {
  if constexpr (std::is_same_v<T, c10::BFloat16>) {
    return round_to_bfloat16<W>(v);
  } else {
    return rounded<T, W>(v);
  }
}

template <typename T, int W>
inline vector_t<held_t<T>, W> load_vector(const T* p) {
  using S = held_t<T>;
  if constexpr (std::is_same_v<T, c10::Half>) {
#ifdef __AVX512F__
    if constexpr (W == 16) {
      return (vector_t<float, 16>)_mm512_maskz_cvtph_ps(0xFFFF,
                                                        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
    }
#endif
#ifdef __F16C__
    if constexpr (W == 8) {
      return (vector_t<float, 8>)_mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    } else if constexpr (W == 4) {
      return (vector_t<float, 4>)_mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    }
#endif
    if constexpr (W == 1) {
      c10::Half h;
      std::memcpy(&h, p, sizeof h);
#ifdef __F16C__
      return _cvtsh_ss(h.x);
#else
      return static_cast<float>(h);
#endif
    } else {
      vector_t<float, W> v;
      for (int i = 0; i < W; ++i) v[i] = load_vector<c10::Half, 1>(p + i);
      return v;
    }
  } else if constexpr (std::is_same_v<T, c10::BFloat16>) {
    vector_t<uint16_t, W> raw;
    std::memcpy(&raw, p, sizeof raw);
    vector_t<uint32_t, W> wide;
    if constexpr (W == 1) {
      wide = uint32_t(raw) << 16;
    } else {
      wide = convert_vector<uint32_t, uint16_t, W>(raw) << 16;
    }
    vector_t<float, W> v;
    std::memcpy(&v, &wide, sizeof v);
    return v;
  } else {
    vector_t<S, W> v;
    std::memcpy(&v, p, sizeof v);
    return v;
  }
}

template <typename T, int W>
inline void store_vector(T* p, vector_t<held_t<T>, W> v) {
  if constexpr (std::is_same_v<T, c10::Half>) {
#ifdef __AVX512F__
    if constexpr (W == 16) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                          _mm512_maskz_cvtps_ph(0xFFFF, (__m512)v, _MM_FROUND_TO_NEAREST_INT));
      return;
    }
#endif
#ifdef __F16C__
    if constexpr (W == 8) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT));
      return;
    }
#endif
    if constexpr (W == 1) {
      const c10::Half h(v);
      std::memcpy(p, &h, sizeof h);
    } else {
      for (int i = 0; i < W; ++i) p[i] = c10::Half(v[i]);
    }
  } else if constexpr (std::is_same_v<T, c10::BFloat16>) {
    vector_t<uint32_t, W> bits;
    std::memcpy(&bits, &v, sizeof v);
    bits = bits >> 16;
    if constexpr (W == 1) {
      if (v != v) bits = 0x7FC0;
    } else {
      const vector_t<uint32_t, W> nan = vector_t<uint32_t, W>{} + 0x7FC0u;
      bits = v != v ? nan : bits;
    }
    if constexpr (W == 1) {
      const uint16_t raw = uint16_t(bits);
      std::memcpy(p, &raw, sizeof raw);
    } else {
      const auto raw = convert_vector<uint16_t, uint32_t, W>(bits);
      std::memcpy(p, &raw, sizeof raw);
    }
  } else {
    std::memcpy(p, &v, sizeof v);
  }
}

}  // namespace detail

namespace detail {

// One bit a lane from a comparison of vectors, whose lanes are 0 or -1.
template <int W, typename M>
inline uint64_t mask_bits(const M& m) {
  if constexpr (W == 1) {
    return m ? 1 : 0;
  } else {
    constexpr int size = sizeof(M) / W;
#ifdef ORRERY_LANE_MASKS
    if constexpr (sizeof(M) == 64 && size == 1) return _mm512_movepi8_mask((__m512i)m);
    if constexpr (sizeof(M) == 64 && size == 4) return _mm512_movepi32_mask((__m512i)m);
    if constexpr (sizeof(M) == 64 && size == 8) return _mm512_movepi64_mask((__m512i)m);
    if constexpr (sizeof(M) == 32 && size == 1) return static_cast<uint32_t>(_mm256_movepi8_mask((__m256i)m));
    if constexpr (sizeof(M) == 32 && size == 4) return _mm256_movepi32_mask((__m256i)m);
    if constexpr (sizeof(M) == 32 && size == 8) return _mm256_movepi64_mask((__m256i)m);
    if constexpr (sizeof(M) == 16 && size == 1) return _mm_movepi8_mask((__m128i)m);
    if constexpr (sizeof(M) == 16 && size == 4) return _mm_movepi32_mask((__m128i)m);
#endif
    (void)size;
    uint64_t bits = 0;
    for (int i = 0; i < W; ++i) bits |= uint64_t(m[i] & 1) << i;
    return bits;
  }
}

// Lanes of `yes` where a bit is set, of `no` elsewhere.
template <typename S, int W>
inline vector_t<S, W> blend(uint64_t bits, vector_t<S, W> yes, vector_t<S, W> no) {
  if constexpr (W == 1) {
    return (bits & 1) ? yes : no;
  } else {
#ifdef ORRERY_LANE_MASKS
    using V = vector_t<S, W>;
    constexpr int bytes = sizeof(V), size = sizeof(S);
    if constexpr (bytes == 64 && size == 1) return (V)_mm512_mask_blend_epi8(bits, (__m512i)no, (__m512i)yes);
    if constexpr (bytes == 64 && size == 4) return (V)_mm512_mask_blend_epi32(bits, (__m512i)no, (__m512i)yes);
    if constexpr (bytes == 64 && size == 8) return (V)_mm512_mask_blend_epi64(bits, (__m512i)no, (__m512i)yes);
    if constexpr (bytes == 32 && size == 4) return (V)_mm256_mask_blend_epi32(bits, (__m256i)no, (__m256i)yes);
    if constexpr (bytes == 16 && size == 4) return (V)_mm_mask_blend_epi32(bits, (__m128i)no, (__m128i)yes);
#endif
    for (int i = 0; i < W; ++i) {
      if ((bits >> i) & 1) no[i] = yes[i];
    }
    return no;
  }
}

// Lanes whose bit is set, from memory; the others are 0 and are not read.
template <typename T, int W>
inline vector_t<held_t<T>, W> load_some(const T* p, uint64_t bits) {
  alignas(64) char raw[W * sizeof(T)] = {};
#ifdef ORRERY_LANE_MASKS
  constexpr int bytes = W * sizeof(T), size = sizeof(T);
  const auto keep = [&](auto v) { std::memcpy(raw, &v, sizeof v); };
  if constexpr (bytes == 64 && size == 1) {
    keep(_mm512_maskz_loadu_epi8(bits, p));
  } else if constexpr (bytes == 64 && size == 4) {
    keep(_mm512_maskz_loadu_epi32(bits, p));
  } else if constexpr (bytes == 64 && size == 8) {
    keep(_mm512_maskz_loadu_epi64(bits, p));
  } else if constexpr (bytes == 32 && size == 2) {
    keep(_mm256_maskz_loadu_epi16(bits, p));
  } else if constexpr (bytes == 32 && size == 4) {
    keep(_mm256_maskz_loadu_epi32(bits, p));
  } else if constexpr (bytes == 16 && size == 1) {
    keep(_mm_maskz_loadu_epi8(bits, p));
  } else if constexpr (bytes == 16 && size == 2) {
    keep(_mm_maskz_loadu_epi16(bits, p));
  } else
#endif
  {
    for (int i = 0; i < W; ++i) {
      if ((bits >> i) & 1) std::memcpy(raw + i * sizeof(T), p + i, sizeof(T));
    }
  }
  return load_vector<T, W>(reinterpret_cast<const T*>(raw));
}

template <typename T, int W>
inline void store_some(T* p, uint64_t bits, vector_t<held_t<T>, W> v) {
  alignas(64) char raw[W * sizeof(T)];
  store_vector<T, W>(reinterpret_cast<T*>(raw), v);
#ifdef ORRERY_LANE_MASKS
  constexpr int bytes = W * sizeof(T), size = sizeof(T);
  if constexpr (bytes == 64 && size == 1) {
    _mm512_mask_storeu_epi8(p, bits, _mm512_load_si512(raw));
  } else if constexpr (bytes == 64 && size == 4) {
    _mm512_mask_storeu_epi32(p, bits, _mm512_load_si512(raw));
  } else if constexpr (bytes == 64 && size == 8) {
    _mm512_mask_storeu_epi64(p, bits, _mm512_load_si512(raw));
  } else if constexpr (bytes == 32 && size == 2) {
    _mm256_mask_storeu_epi16(p, bits, _mm256_load_si256(reinterpret_cast<const __m256i*>(raw)));
  } else if constexpr (bytes == 32 && size == 4) {
    _mm256_mask_storeu_epi32(p, bits, _mm256_load_si256(reinterpret_cast<const __m256i*>(raw)));
  } else if constexpr (bytes == 16 && size == 1) {
    _mm_mask_storeu_epi8(p, bits, _mm_load_si128(reinterpret_cast<const __m128i*>(raw)));
  } else if constexpr (bytes == 16 && size == 2) {
    _mm_mask_storeu_epi16(p, bits, _mm_load_si128(reinterpret_cast<const __m128i*>(raw)));
  } else
#endif
  {
    for (int i = 0; i < W; ++i) {
      if ((bits >> i) & 1) std::memcpy(p + i, raw + i * sizeof(T), sizeof(T));
    }
  }
}

}  // namespace detail

// N truth values, one bit per lane. N is at most 64.
template <int N>
struct mask {
  static_assert(N <= 64);
  static constexpr uint64_t all_bits = N == 64 ? ~uint64_t(0) : (uint64_t(1) << N) - 1;
  uint64_t bits = 0;

  static mask all() { return {all_bits}; }
  // Lanes below `count` (which may be negative or exceed N).
  static mask first(int64_t count) {
    if (count <= 0) return {0};
    return count >= N ? all() : mask{(uint64_t(1) << count) - 1};
  }
  bool operator[](int lane) const { return (bits >> lane) & 1; }
  bool any() const { return bits != 0; }
  bool every() const { return bits == all_bits; }
  mask operator&(mask o) const { return {bits & o.bits}; }
  mask operator|(mask o) const { return {bits | o.bits}; }
  mask operator!() const { return {~bits & all_bits}; }
};

template <typename T, int N>
struct simd {
  using element = T;
  using S = held_t<T>;
  static constexpr int lanes = N;
  static constexpr int W = detail::chunk_lanes<S, N>();  // lanes of a machine vector
  static constexpr int chunks = N / W;
  using chunk = detail::vector_t<S, W>;

  chunk v[chunks];

  simd() { ORRERY_UNROLL for (int c = 0; c < chunks; ++c) v[c] = chunk{}; }
  // The same value in every lane. The value is already one of T.
  simd(T value) {
    // x - 0 is x for every x, the zeros included; 0 + x is not.
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) v[c] = static_cast<S>(value) - chunk{};
  }

  static simd load(const T* p) {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = detail::load_vector<T, W>(p + c * W);
    return r;
  }
  // Lanes outside the mask are 0 and are not read.
  static simd load(const T* p, mask<N> m) {
    if (m.every()) return load(p);
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = detail::load_some<T, W>(p + c * W, m.bits >> (c * W));
    return r;
  }
  // From values as registers hold them, each exactly a T.
  static simd load_held(const S* p) {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) std::memcpy(&r.v[c], p + c * W, sizeof(chunk));
    return r;
  }
  void store(T* p) const { ORRERY_UNROLL for (int c = 0; c < chunks; ++c) detail::store_vector<T, W>(p + c * W, v[c]); }
  void store(T* p, mask<N> m) const {
    if (m.every()) return store(p);
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) detail::store_some<T, W>(p + c * W, m.bits >> (c * W), v[c]);
  }
  // Lane i is p[i * stride].
  static simd load_strided(const T* p, int64_t stride) {
    alignas(64) T lane[N];
    for (int i = 0; i < N; ++i) lane[i] = p[i * stride];
    return load(lane);
  }
  void store_strided(T* p, int64_t stride) const {
    alignas(64) T lane[N];
    store(lane);
    for (int i = 0; i < N; ++i) p[i * stride] = lane[i];
  }
  // Lane i is p[index[i]].
  template <typename I>
  static simd gather(const T* p, const simd<I, N>& index) {
    alignas(64) T lane[N];
    alignas(64) I at[N];
    index.store(at);
    for (int i = 0; i < N; ++i) lane[i] = p[at[i]];
    return load(lane);
  }
  // Lanes outside the mask are 0 and are not read.
  template <typename I>
  static simd gather(const T* p, const simd<I, N>& index, mask<N> m) {
    alignas(64) T lane[N] = {};
    for (int i = 0; i < N; ++i) {
      if (m[i]) lane[i] = p[index[i]];
    }
    return load(lane);
  }
  template <typename I>
  void scatter(T* p, const simd<I, N>& index) const {
    for (int i = 0; i < N; ++i) p[index[i]] = (*this)[i];
  }
  template <typename I>
  void scatter(T* p, const simd<I, N>& index, mask<N> m) const {
    for (int i = 0; i < N; ++i) {
      if (m[i]) p[index[i]] = (*this)[i];
    }
  }
  // 0, 1, 2, ...
  static simd iota() {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) {
      r.v[c] = detail::rounded<T, W>(detail::iota<S, W>() + static_cast<S>(c * W));
    }
    return r;
  }

  // The value of one lane as it is held (exactly a T).
  S held_at(int i) const {
    if constexpr (W == 1) {
      return v[i];
    } else {
      return v[i / W][i % W];
    }
  }
  T operator[](int i) const { return T(held_at(i)); }
  void set(int i, T value) {
    if constexpr (W == 1) {
      v[i] = static_cast<S>(value);
    } else {
      v[i / W][i % W] = static_cast<S>(value);
    }
  }
  // Lanes First to First + M - 1.
  template <int First, int M>
  simd<T, M> slice() const {
    static_assert(First + M <= N);
    simd<T, M> r;
    if constexpr (W == simd<T, M>::W && First % W == 0) {
      ORRERY_UNROLL for (int c = 0; c < simd<T, M>::chunks; ++c) r.v[c] = v[First / W + c];
    } else if constexpr (M == 1) {
      r.v[0] = held_at(First);
    } else if constexpr (simd<T, M>::W == M && First / W == (First + M - 1) / W) {
      r.v[0] = detail::lanes_of_vector<First % W, W>(v[First / W], std::make_integer_sequence<int, M>());
    } else {
      std::memcpy(&r.v, reinterpret_cast<const char*>(&v) + First * sizeof(S), M * sizeof(S));
    }
    return r;
  }
  template <int First, int M>
  void set_slice(const simd<T, M>& part) {
    static_assert(First + M <= N);
    if constexpr (W == simd<T, M>::W && First % W == 0) {
      ORRERY_UNROLL for (int c = 0; c < simd<T, M>::chunks; ++c) v[First / W + c] = part.v[c];
    } else {
      std::memcpy(reinterpret_cast<char*>(&v) + First * sizeof(S), &part.v, M * sizeof(S));
    }
  }

  template <typename Op>
  friend simd elementwise(const simd& a, const simd& b, Op op) {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = detail::rounded_result<T, W>(op(a.v[c], b.v[c]));
    return r;
  }
  friend simd operator+(const simd& a, const simd& b) {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x + y; });
  }
  friend simd operator-(const simd& a, const simd& b) {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x - y; });
  }
  friend simd operator*(const simd& a, const simd& b) {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x * y; });
  }
  friend simd operator/(const simd& a, const simd& b) {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x / y; });
  }
  friend simd operator-(const simd& a) {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = -a.v[c];
    return r;
  }
  friend simd operator&(const simd& a, const simd& b) requires std::is_integral_v<T> {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x & y; });
  }
  friend simd operator|(const simd& a, const simd& b) requires std::is_integral_v<T> {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x | y; });
  }
  friend simd operator^(const simd& a, const simd& b) requires std::is_integral_v<T> {
    return elementwise(a, b, [](chunk x, chunk y) -> chunk { return x ^ y; });
  }
  friend simd operator>>(const simd& a, int n) requires std::is_integral_v<T> {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = a.v[c] >> n;
    return r;
  }
  friend simd operator<<(const simd& a, int n) requires std::is_integral_v<T> {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = a.v[c] << n;
    return r;
  }
  simd& operator+=(const simd& o) { return *this = *this + o; }
  simd& operator-=(const simd& o) { return *this = *this - o; }
  simd& operator*=(const simd& o) { return *this = *this * o; }

  template <typename Op>
  friend mask<N> compare(const simd& a, const simd& b, Op op) {
    mask<N> m;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) m.bits |= detail::mask_bits<W>(op(a.v[c], b.v[c])) << (c * W);
    return m;
  }
  friend mask<N> operator<(const simd& a, const simd& b) {
    return compare(a, b, [](chunk x, chunk y) { return x < y; });
  }
  friend mask<N> operator==(const simd& a, const simd& b) {
    return compare(a, b, [](chunk x, chunk y) { return x == y; });
  }
};

template <typename T, int N>
inline simd<T, N> select(mask<N> m, const simd<T, N>& yes, const simd<T, N>& no) {
  using V = simd<T, N>;
  if (m.every()) return yes;
  V r;
  ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
    r.v[c] = detail::blend<typename V::S, V::W>(m.bits >> (c * V::W), yes.v[c], no.v[c]);
  }
  return r;
}

// Value conversion; to half and bfloat16 it rounds to nearest even, to integers it truncates.
template <typename To, typename From, int N>
inline simd<To, N> convert(const simd<From, N>& a) {
  using A = simd<From, N>;
  using R = simd<To, N>;
  if constexpr (std::is_same_v<To, From>) {
    return a;
  } else {
    R r;
    constexpr int W = A::W < R::W ? A::W : R::W;
    using SA = typename A::S;
    using SR = typename R::S;
    ORRERY_UNROLL for (int i = 0; i < N; i += W) {
      detail::vector_t<SA, W> x;
      std::memcpy(&x, reinterpret_cast<const char*>(&a.v) + i * sizeof(SA), sizeof x);
      detail::vector_t<SR, W> y;
      y = detail::convert_vector<SR, SA, W>(x);
      y = detail::rounded<To, W>(y);
      std::memcpy(reinterpret_cast<char*>(&r.v) + i * sizeof(SR), &y, sizeof y);
    }
    return r;
  }
}

// The scalar in T's own arithmetic: through float for half and bfloat16.
template <typename T, typename From>
inline T to(From value) {
  return simd<T, 1>(T(static_cast<held_t<T>>(value)))[0];
}

template <typename To, typename From, int N>
inline simd<To, N> bit_cast(const simd<From, N>& a) {
  static_assert(sizeof(To) == sizeof(From) && !is_narrow_float<To> && !is_narrow_float<From>);
  simd<To, N> r;
  std::memcpy(&r.v, &a.v, sizeof r.v);
  return r;
}

// The halving tree down to M lanes: lanes [0, n/2) plus lanes [n/2, n), repeated. 96 lanes first become 32:
// (0..31 + 32..63) + 64..95.
template <int M, typename T, int N>
inline simd<T, M> fold_to(const simd<T, N>& a) {
  if constexpr (N == M) {
    return a;
  } else if constexpr (N == 96) {
    return fold_to<M>(a.template slice<0, 32>() + a.template slice<32, 32>() + a.template slice<64, 32>());
  } else {
    static_assert((N & (N - 1)) == 0);
    return fold_to<M>(a.template slice<0, N / 2>() + a.template slice<N / 2, N / 2>());
  }
}
template <typename T, int N>
inline T fold(const simd<T, N>& a) {
  return fold_to<1>(a)[0];
}

// Lane r of the result is fold(row[r]). The rows go down the tree together, two in a vector, then four, ...
template <typename T, int N>
inline simd<T, N> fold_each(const simd<T, N> (&row)[N]) {
  using V = simd<T, N>;
  simd<T, N> r;
  if constexpr (V::W == N && N > 1) {
    using I = detail::int_like<typename V::S>;
    typename V::chunk v[N];
    ORRERY_UNROLL for (int i = 0; i < N; ++i) v[i] = row[i].v[0];
    const auto lane = detail::iota<I, N>();
    ORRERY_UNROLL for (int h = N / 2; h >= 1; h /= 2) {
      const auto low = lane / I(h) * I(2 * h) + lane % I(h);
      ORRERY_UNROLL for (int i = 0; i < h; ++i) {
        const auto a = v[2 * i], b = v[2 * i + 1];
        v[i] = detail::rounded<T, N>(__builtin_shuffle(a, b, low) + __builtin_shuffle(a, b, low + I(h)));
      }
    }
    r.v[0] = v[0];
  } else {
    for (int i = 0; i < N; ++i) r.set(i, fold(row[i]));
  }
  return r;
}

// Lane i of the result is lane index[i] of `a`; indexes are below N.
template <typename T, int N>
inline simd<T, N> shuffle(const simd<T, N>& a, const simd<int32_t, N>& index) {
  using V = simd<T, N>;
  constexpr bool one_word = sizeof(typename V::S) == 4 && V::W > 1;
  simd<T, N> r;
  if constexpr (one_word && V::chunks == 1) {
    r.v[0] = __builtin_shuffle(a.v[0], index.v[0]);
  } else if constexpr (one_word && V::chunks == 2) {
    ORRERY_UNROLL for (int c = 0; c < 2; ++c) r.v[c] = __builtin_shuffle(a.v[0], a.v[1], index.v[c]);
  } else {
    typename V::S from[N], to[N];
    std::memcpy(from, &a.v, sizeof from);
    for (int i = 0; i < N; ++i) to[i] = from[index[i]];
    std::memcpy(&r.v, to, sizeof to);
  }
  return r;
}

// Even lanes, then odd lanes, of a vector.
template <typename T, int N>
inline std::pair<simd<T, N / 2>, simd<T, N / 2>> split_pairs(const simd<T, N>& a) {
  using V = simd<T, N>;
  using H = simd<T, N / 2>;
  std::pair<H, H> r;
  if constexpr (V::W == H::W && V::W > 1) {
    const auto even = detail::iota<detail::int_like<typename V::S>, V::W>() * 2;
    ORRERY_UNROLL for (int c = 0; c < H::chunks; ++c) {
      r.first.v[c] = __builtin_shuffle(a.v[2 * c], a.v[2 * c + 1], even);
      r.second.v[c] = __builtin_shuffle(a.v[2 * c], a.v[2 * c + 1], even + 1);
    }
  } else {
    for (int i = 0; i < N / 2; ++i) {
      r.first.set(i, a[2 * i]);
      r.second.set(i, a[2 * i + 1]);
    }
  }
  return r;
}

template <typename T, int N>
inline simd<T, 2 * N> join_pairs(const simd<T, N>& even, const simd<T, N>& odd) {
  using V = simd<T, N>;
  simd<T, 2 * N> r;
  if constexpr (V::W == simd<T, 2 * N>::W && V::W > 1) {
    constexpr int W = V::W;
    const auto i = detail::iota<detail::int_like<typename V::S>, W>();
    const auto low = i / 2 + (i & 1) * W;
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      r.v[2 * c] = __builtin_shuffle(even.v[c], odd.v[c], low);
      r.v[2 * c + 1] = __builtin_shuffle(even.v[c], odd.v[c], low + W / 2);
    }
  } else {
    for (int i = 0; i < N; ++i) {
      r.set(2 * i, even[i]);
      r.set(2 * i + 1, odd[i]);
    }
  }
  return r;
}

template <typename T, int N>
inline simd<T, N> sqrt(const simd<T, N>& a) {
  simd<T, N> r;
  ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, T(std::sqrt(a.held_at(i))));
  return r;
}

// table[code & 15], table of 16 values of T. Upper bits of a code are ignored: the register permutation ignores them
// too, so no mask is spent on them.
template <typename T, int N>
inline simd<T, N> lookup16(const simd<T, 16>& table, const simd<uint32_t, N>& code) {
  simd<T, N> r;
  if constexpr (simd<T, 16>::W == 16 && simd<T, N>::W == 16) {
    ORRERY_UNROLL for (int c = 0; c < simd<T, N>::chunks; ++c) r.v[c] = __builtin_shuffle(table.v[0], code.v[c]);
  } else if constexpr (simd<T, 16>::W == 8 && simd<T, N>::W == 8) {
    const auto at = convert<detail::int_like<held_t<T>>>(code);
    ORRERY_UNROLL for (int c = 0; c < simd<T, N>::chunks; ++c) {
      r.v[c] = __builtin_shuffle(table.v[0], table.v[1], at.v[c]);
    }
  } else {
    ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, table[code[i] & 15]);
  }
  return r;
}

// Floats that each are exactly a T, so that nothing is rounded.
template <typename T, int N>
inline simd<T, N> exactly(const simd<float, N>& a) {
  if constexpr (is_narrow_float<T>) {
    simd<T, N> r;
    std::memcpy(&r.v, &a.v, sizeof r.v);
    return r;
  } else {
    return convert<T>(a);
  }
}

// Lane i shifted right by shift[i].
template <int N>
inline simd<uint32_t, N> operator>>(const simd<uint32_t, N>& a, const simd<uint32_t, N>& shift) {
  simd<uint32_t, N> r;
  ORRERY_UNROLL for (int c = 0; c < simd<uint32_t, N>::chunks; ++c) r.v[c] = a.v[c] >> shift.v[c];
  return r;
}

// K words of each lane's own run: lane i's word k is at p + 4 (K i + k), little-endian, any alignment.
template <int K, int N>
inline void load_words(const uint8_t* p, simd<uint32_t, N> (&word)[K]) {
  using V = simd<uint32_t, N>;
  if constexpr (K == 1 || N == 1) {
    if constexpr (N == 1) {
      ORRERY_UNROLL for (int k = 0; k < K; ++k) std::memcpy(&word[k].v[0], p + 4 * k, 4);
    } else {
      word[0] = V::load(reinterpret_cast<const uint32_t*>(p));
    }
  } else {
    static_assert(K == 2);
    constexpr int W = V::W;
    using C = typename V::chunk;
    const C even = detail::iota<uint32_t, W>() * 2u, odd = even + 1u;
    ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
      C a, b;
      std::memcpy(&a, p + c * 8 * W, sizeof a);
      std::memcpy(&b, p + c * 8 * W + 4 * W, sizeof b);
      word[0].v[c] = __builtin_shuffle(a, b, even);
      word[1].v[c] = __builtin_shuffle(a, b, odd);
    }
  }
}

// Asks for `Bytes` bytes that will be read soon; the address may lie anywhere.
template <int Bytes>
ORRERY_INLINE inline void prefetch(const void* p) {
  ORRERY_UNROLL for (int i = 0; i < Bytes; i += 64) __builtin_prefetch(static_cast<const char*>(p) + i);
}

// Values that neighbouring lanes share: lane i is p[i / Share] rounded to T. p may have any alignment.
template <typename T, int N, int Share, typename P>
inline simd<T, N> load_shared(const void* p) {
  if constexpr (N <= Share) {
    // As it is held: by way of a P the compiler narrows and widens it once more.
    return convert<T>(exactly<P>(simd<float, N>(simd<P, 1>::load(static_cast<const P*>(p)).held_at(0))));
  } else {
    constexpr int M = N / Share;
    const auto few = convert<T>(simd<P, M>::load(static_cast<const P*>(p)));
    using V = simd<T, N>;
    simd<T, N> r;
    if constexpr (M <= V::W && V::W > 1 && sizeof(typename V::S) == 4) {
      const auto wide = detail::low_lanes<V::W>(few.v[0]);
      ORRERY_UNROLL for (int c = 0; c < V::chunks; ++c) {
        const auto index = (detail::iota<int32_t, V::W>() + c * V::W) / Share;
        r.v[c] = __builtin_shuffle(wide, index);
      }
    } else {
      ORRERY_UNROLL for (int i = 0; i < N; ++i) r.set(i, few[i / Share]);
    }
    return r;
  }
}

}  // namespace orrery

#include "native.h"
