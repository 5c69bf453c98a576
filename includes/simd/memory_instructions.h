// One machine vector from and to memory, whole or by a mask, and masks of its lanes.
#pragma once

#include <cstring>

#include "conversion_instructions.h"
#include "register_values.h"

namespace orrery {

namespace detail {

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

}  // namespace orrery
