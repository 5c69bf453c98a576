// The verbs of vectors in the vector types that GCC and Clang share. The x86 instruction sets build on it and override
// what compiles to poor code. portable.h defines each verb.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "compiler.h"
#include "portable.h"

namespace orrery {

namespace detail {

template <typename S, int W>
struct compiler_vector {
  typedef S type __attribute__((vector_size(W * sizeof(S))));
};
template <typename S>
struct compiler_vector<S, 1> {
  using type = S;
};

}  // namespace detail

struct compiler_vectors {
  // One lane is a scalar.
  template <typename S, int W>
  using vector = typename detail::compiler_vector<S, W>::type;

  template <typename S, int W>
  static constexpr bool permutes = sizeof(S) == 4 && W > 1;

  // ---- Lanes ----

  template <typename S, int W>
  static S get(const vector<S, W>& v, int i) {
    if constexpr (W == 1) {
      return v;
    } else {
      return v[i];
    }
  }
  template <typename S, int W>
  static void set(vector<S, W>& v, int i, S value) {
    if constexpr (W == 1) {
      v = value;
    } else {
      v[i] = value;
    }
  }
  template <typename S, int W>
  static vector<S, W> broadcast(S value) {
    return value - vector<S, W>{};  // x - 0 is x for every x, the zeros included; 0 + x is not
  }
  template <typename S, int W>
  static vector<S, W> iota() {
    if constexpr (W == 1) {
      return S(0);
    } else {
      return [&]<int... I>(std::integer_sequence<int, I...>) { return vector<S, W>{S(I)...}; }
      (std::make_integer_sequence<int, W>());
    }
  }

  // ---- Arithmetic ----

  template <int W>
  static vector<float, W> multiply_add(vector<float, W> a, vector<float, W> b, vector<float, W> c) {
    return a * b + c;
  }

  // ---- Conversions ----

  template <typename To, typename From, int W>
  static vector<To, W> convert(vector<From, W> v) {
    if constexpr (W == 1) {
      return static_cast<To>(v);
    } else {
      return __builtin_convertvector(v, vector<To, W>);
    }
  }
  template <int W>
  static vector<float, W> round_half(vector<float, W> v) {
    if constexpr (W == 1) {
      return static_cast<float>(c10::Half(v));
    } else {
      for (int i = 0; i < W; ++i) v[i] = round_half<1>(v[i]);
      return v;
    }
  }

  // ---- Memory ----

  template <typename T, int W>
  static vector<register_type<T>, W> load(const T* p) {
    if constexpr (std::is_same_v<T, c10::Half> && is_widened<T>) {
      vector<float, W> v{};
      for (int i = 0; i < W; ++i) {
        c10::Half half;
        std::memcpy(&half, reinterpret_cast<const char*>(p) + 2 * i, sizeof half);
        set<float, W>(v, i, static_cast<float>(half));
      }
      return v;
    } else {
      static_assert(!is_widened<T>, "bfloat16 is widened from integers");
      vector<register_type<T>, W> v;
      std::memcpy(&v, p, sizeof v);
      return v;
    }
  }
  template <typename T, int W>
  static void store(T* p, vector<register_type<T>, W> v) {
    if constexpr (std::is_same_v<T, c10::Half> && is_widened<T>) {
      for (int i = 0; i < W; ++i) {
        const c10::Half half(get<float, W>(v, i));
        std::memcpy(reinterpret_cast<char*>(p) + 2 * i, &half, sizeof half);
      }
    } else {
      static_assert(!is_widened<T>, "bfloat16 is narrowed to integers");
      std::memcpy(p, &v, sizeof v);
    }
  }
  template <typename T, int W>
  static void copy_from_some(T* to, const T* from, uint64_t bits) {
    portable::copy_from_some<T, W>(to, from, bits);
  }
  template <typename T, int W>
  static void copy_to_some(T* to, const T* from, uint64_t bits) {
    portable::copy_to_some<T, W>(to, from, bits);
  }
  ORRERY_INLINE static void prefetch(const void* p) { __builtin_prefetch(p); }
  // Into the second-level cache: in the first level, data for much later would evict data in use.
  ORRERY_INLINE static void prefetch_far(const void* p) { __builtin_prefetch(p, 0, 2); }
  static void transpose_words(const uint8_t* const (&row)[16], uint64_t at, uint32_t* out) {
    portable::transpose_words(row, at, out);
  }

  // ---- Masks ----

  // A comparison of single lanes is a bool.
  template <typename S, int W, typename Comparison>
  static uint64_t mask_bits(const Comparison& comparison) {
    if constexpr (W == 1) {
      return comparison ? 1 : 0;
    } else {
      uint64_t bits = 0;
      for (int i = 0; i < W; ++i) bits |= uint64_t(comparison[i] & 1) << i;
      return bits;
    }
  }
  template <typename S, int W>
  static vector<S, W> blend(uint64_t bits, vector<S, W> yes, vector<S, W> no) {
    if constexpr (W == 1) {
      return (bits & 1) ? yes : no;
    } else {
      for (int i = 0; i < W; ++i) {
        if ((bits >> i) & 1) no[i] = yes[i];
      }
      return no;
    }
  }
  template <typename S, int W, typename Comparison>
  static vector<S, W> choose(const Comparison& comparison, vector<S, W> yes, vector<S, W> no) {
    return comparison ? yes : no;
  }

  // ---- Moves ----

  template <typename S, int W>
  static vector<S, W> permute(vector<S, W> a, vector<detail::int_like<S>, W> index) {
#ifdef __clang__
    vector<S, W> r{};
    for (int i = 0; i < W; ++i) r[i] = a[index[i] & (W - 1)];
    return r;
#else
    return __builtin_shuffle(a, index);
#endif
  }
  template <typename S, int W>
  static vector<S, W> permute2(vector<S, W> a, vector<S, W> b, vector<detail::int_like<S>, W> index) {
#ifdef __clang__
    vector<S, W> r{};
    for (int i = 0; i < W; ++i) r[i] = index[i] & W ? b[index[i] & (W - 1)] : a[index[i] & (W - 1)];
    return r;
#else
    return __builtin_shuffle(a, b, index);
#endif
  }
  template <typename S, int W, int First, int M>
  static vector<S, M> part(const vector<S, W>& v) {
    if constexpr (M == 1) {
      return get<S, W>(v, First);
    } else {
      return [&]<int... I>(std::integer_sequence<int, I...>) { return __builtin_shufflevector(v, v, (First + I)...); }
      (std::make_integer_sequence<int, M>());
    }
  }
  // In lanes of 64 bits: with shorter ones GCC takes a permutation of two registers.
  template <typename S, int M>
  static vector<S, 2 * M> join(vector<S, M> a, vector<S, M> b) {
    constexpr int words = M * sizeof(S) / 8;
    const auto low = (vector<uint64_t, words>)a, high = (vector<uint64_t, words>)b;
    return [&]<int... I>(std::integer_sequence<int, I...>) {
      return (vector<S, 2 * M>)__builtin_shufflevector(low, high, I...);
    }
    (std::make_integer_sequence<int, 2 * words>());
  }
  template <typename S, int M, int W>
  static vector<S, W> widen(vector<S, M> few) {
    vector<S, W> wide{};
    std::memcpy(&wide, &few, sizeof few);
    return wide;
  }

  // ---- Look-ups of values by codes in words ----

  template <int W>
  static constexpr bool looks_up_words = false;
  template <int Bits, int W>
  static vector<float, W> lookup_upper_words(const uint16_t* table, vector<uint32_t, W> words) {
    return through_portable<W>(words, [&](const auto& w) { return portable::lookup_upper_words<Bits, W>(table, w); });
  }
  template <int W>
  static constexpr bool looks_up_bytes = false;
  template <int W>
  static vector<float, W> lookup_bytes(const uint8_t* top, const uint8_t* second, vector<uint32_t, W> words, int k) {
    return through_portable<W>(words, [&](const auto& w) { return portable::lookup_bytes<W>(top, second, w, k); });
  }
  template <int W>
  static vector<float, W> lookup_signed(const uint8_t* top, const uint8_t* second, vector<uint32_t, W> words, int k) {
    return through_portable<W>(words, [&](const auto& w) { return portable::lookup_signed<W>(top, second, w, k); });
  }

  // ---- Barriers to the compiler ----

  template <typename V>
  static void hold_in_registers(V&) {}
  template <typename V>
  static void hold_in_memory(V&) {}

 protected:
  // The largest power of two that divides N and fits into `bytes`. GCC compiles wider vectors lane by lane, and takes
  // four to ten times as long for a unit.
  template <typename S, int N>
  static constexpr int lanes_within(int bytes) {
    int w = N & -N;
    while (w * int(sizeof(S)) > bytes) w /= 2;
    return w;
  }

 private:
  template <int W, typename F>
  static vector<float, W> through_portable(const vector<uint32_t, W>& words, F f) {
    portable::vector<uint32_t, W> in;
    std::memcpy(in.lane, &words, sizeof words);
    const portable::vector<float, W> out = f(in);
    vector<float, W> r;
    std::memcpy(&r, out.lane, sizeof r);
    return r;
  }
};

}  // namespace orrery
