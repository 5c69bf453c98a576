// AVX2 with F16C conversions: vectors of 32 bytes.
#pragma once

#include <immintrin.h>

#include "compiler_vectors.h"

namespace orrery {

struct avx2 : compiler_vectors {
  static constexpr const char* name = "avx2";

  template <typename S, int N>
  static constexpr int lanes = lanes_within<S, N>(32);

#ifdef __FMA__
  template <int W>
  static vector<float, W> multiply_add(vector<float, W> a, vector<float, W> b, vector<float, W> c) {
    if constexpr (W == 8) {
      return (vector<float, W>)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
    } else if constexpr (W == 4) {
      return (vector<float, W>)_mm_fmadd_ps((__m128)a, (__m128)b, (__m128)c);
    } else {
      return a * b + c;
    }
  }
#endif

  template <int W>
  static vector<float, W> round_half(vector<float, W> v) {
    if constexpr (W == 8) {
      return (vector<float, 8>)_mm256_cvtph_ps(_mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT));
    } else if constexpr (W == 4) {
      return (vector<float, 4>)_mm_cvtph_ps(_mm_cvtps_ph((__m128)v, _MM_FROUND_TO_NEAREST_INT));
    } else if constexpr (W == 1) {
      return _cvtsh_ss(_cvtss_sh(v, _MM_FROUND_TO_NEAREST_INT));
    } else {
      for (int i = 0; i < W; ++i) v[i] = round_half<1>(v[i]);
      return v;
    }
  }

  template <typename T, int W>
  static vector<register_type<T>, W> load(const T* p) {
    if constexpr (!std::is_same_v<T, c10::Half> || !is_widened<T>) {
      return compiler_vectors::load<T, W>(p);
    } else if constexpr (W == 8) {
      return (vector<float, 8>)_mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    } else if constexpr (W == 4) {
      return (vector<float, 4>)_mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else {
      vector<float, W> v{};
      for (int i = 0; i < W; ++i) {
        uint16_t half;
        std::memcpy(&half, reinterpret_cast<const char*>(p) + 2 * i, sizeof half);
        set<float, W>(v, i, _cvtsh_ss(half));
      }
      return v;
    }
  }
  template <typename T, int W>
  static void store(T* p, vector<register_type<T>, W> v) {
    if constexpr (std::is_same_v<T, c10::Half> && is_widened<T> && W == 8) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_cvtps_ph((__m256)v, _MM_FROUND_TO_NEAREST_INT));
    } else {
      compiler_vectors::store<T, W>(p, v);
    }
  }

  template <typename S, int W, typename Comparison>
  static uint64_t mask_bits(const Comparison& comparison) {
    constexpr int bytes = W * sizeof(S);
    if constexpr (bytes == 32 && sizeof(S) == 4) {
      return static_cast<uint32_t>(_mm256_movemask_ps((__m256)comparison));
    } else if constexpr (bytes == 32 && sizeof(S) == 8) {
      return static_cast<uint32_t>(_mm256_movemask_pd((__m256d)comparison));
    } else if constexpr (bytes == 32 && sizeof(S) == 1) {
      return static_cast<uint32_t>(_mm256_movemask_epi8((__m256i)comparison));
    } else if constexpr (bytes == 16 && sizeof(S) == 4) {
      return static_cast<uint32_t>(_mm_movemask_ps((__m128)comparison));
    } else if constexpr (bytes == 16 && sizeof(S) == 1) {
      return static_cast<uint32_t>(_mm_movemask_epi8((__m128i)comparison));
    } else {
      return compiler_vectors::mask_bits<S, W>(comparison);
    }
  }
  template <typename S, int W>
  static vector<S, W> blend(uint64_t bits, vector<S, W> yes, vector<S, W> no) {
    using I = detail::int_like<S>;
    if constexpr (W > 1 && W <= 8 * int(sizeof(S))) {
      const vector<I, W> bit = broadcast<I, W>(1) << iota<I, W>();
      return ((broadcast<I, W>(static_cast<I>(bits)) & bit) != 0) ? yes : no;
    } else {
      return compiler_vectors::blend<S, W>(bits, yes, no);
    }
  }

#ifdef __clang__
  // With constant indexes GCC turns its own builtin into cheaper instructions; Clang does that with these intrinsics.
  template <typename S, int W>
  static vector<S, W> permute(vector<S, W> a, vector<detail::int_like<S>, W> index) {
    if constexpr (sizeof(S) == 4 && W == 8) {
      return (vector<S, W>)_mm256_permutevar8x32_epi32((__m256i)a, (__m256i)index);
    } else {
      return compiler_vectors::permute<S, W>(a, index);
    }
  }
  template <typename S, int W>
  static vector<S, W> permute2(vector<S, W> a, vector<S, W> b, vector<detail::int_like<S>, W> index) {
    if constexpr (sizeof(S) == 4 && W == 8) {
      return (index & 8) != 0 ? permute<S, W>(b, index) : permute<S, W>(a, index);
    } else {
      return compiler_vectors::permute2<S, W>(a, b, index);
    }
  }
#endif
};

}  // namespace orrery
