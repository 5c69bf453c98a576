// simd<T, N>: the class, its loads and stores, its arithmetic.
//
// `v`, `W`, `S` and `chunk` are for the headers of this folder only; kernels and formats use the operations.
#pragma once

#include <cstdint>
#include <type_traits>

#include "mask.h"
#include "rounding.h"

namespace orrery {

template <typename T, int N>
struct simd {
  using element = T;
  using S = register_type<T>;
  static constexpr int lanes = N;
  static constexpr int W = machine::lanes<S, N>;  // lanes of a machine vector
  static constexpr int chunks = N / W;
  using chunk = machine::vector<S, W>;

  chunk v[chunks];

  simd() { ORRERY_UNROLL for (int c = 0; c < chunks; ++c) v[c] = chunk{}; }
  // The same value in every lane.
  simd(T value) {
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) v[c] = machine::broadcast<S, W>(static_cast<S>(value));
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
  // Loads and stores values as registers keep them, each exactly a T.
  static simd load_register_values(const S* p) {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = machine::load<S, W>(p + c * W);
    return r;
  }
  void store_register_values(S* p) const {
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) machine::store<S, W>(p + c * W, v[c]);
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
      r.v[c] = detail::rounded<T, W>(machine::iota<S, W>() + static_cast<S>(c * W));
    }
    return r;
  }

  // The value of one lane as registers keep it.
  S register_value(int i) const { return machine::get<S, W>(v[i / W], i % W); }
  T operator[](int i) const { return T(register_value(i)); }
  void set(int i, T value) { machine::set<S, W>(v[i / W], i % W, static_cast<S>(value)); }
  // Lanes First to First + M - 1.
  template <int First, int M>
  simd<T, M> slice() const {
    static_assert(First + M <= N);
    simd<T, M> r;
    if constexpr (W == simd<T, M>::W && First % W == 0) {
      ORRERY_UNROLL for (int c = 0; c < simd<T, M>::chunks; ++c) r.v[c] = v[First / W + c];
    } else if constexpr (M == 1) {
      r.v[0] = register_value(First);
    } else if constexpr (simd<T, M>::W == M && First / W == (First + M - 1) / W) {
      r.v[0] = machine::part<S, W, First % W, M>(v[First / W]);
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
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = a.v[c] >> S(n);
    return r;
  }
  friend simd operator<<(const simd& a, int n) requires std::is_integral_v<T> {
    simd r;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) r.v[c] = a.v[c] << S(n);
    return r;
  }
  simd& operator+=(const simd& o) { return *this = *this + o; }
  simd& operator-=(const simd& o) { return *this = *this - o; }
  simd& operator*=(const simd& o) { return *this = *this * o; }

  template <typename Op>
  friend mask<N> compare(const simd& a, const simd& b, Op op) {
    mask<N> m;
    ORRERY_UNROLL for (int c = 0; c < chunks; ++c) m.bits |= machine::mask_bits<S, W>(op(a.v[c], b.v[c])) << (c * W);
    return m;
  }
  friend mask<N> operator<(const simd& a, const simd& b) {
    return compare(a, b, [](chunk x, chunk y) { return x < y; });
  }
  friend mask<N> operator==(const simd& a, const simd& b) {
    return compare(a, b, [](chunk x, chunk y) { return x == y; });
  }
};

// One value in every lane. It stays a register's value: through a T the compiler would narrow and widen it once more.
template <int N, typename T>
inline simd<T, N> broadcast(const simd<T, 1>& a) {
  simd<T, N> r;
  ORRERY_UNROLL for (int c = 0; c < r.chunks; ++c) {
    r.v[c] = machine::broadcast<typename simd<T, N>::S, simd<T, N>::W>(a.register_value(0));
  }
  return r;
}

// Lane i shifted right by shift[i].
template <int N>
inline simd<uint32_t, N> operator>>(const simd<uint32_t, N>& a, const simd<uint32_t, N>& shift) {
  simd<uint32_t, N> r;
  ORRERY_UNROLL for (int c = 0; c < simd<uint32_t, N>::chunks; ++c) r.v[c] = a.v[c] >> shift.v[c];
  return r;
}

}  // namespace orrery
