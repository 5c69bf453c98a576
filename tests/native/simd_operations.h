// Runs one operation of simd<T, N> over arrays in memory, so that a test can compare it with numpy. A unit instantiates
// the types that it registers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "includes/simd.h"

namespace simd_test {

struct call {
  const void* a = nullptr;
  const void* b = nullptr;
  const int32_t* index = nullptr;
  uint64_t mask = ~uint64_t(0);
  int64_t argument = 0;
  int64_t count = 1;  // vectors
  void* out = nullptr;
};

using operation = std::function<void(const call&)>;
using key = std::tuple<std::string, std::string, int>;  // operation, type, width
inline std::map<key, operation> operations;

template <typename T>
const char* type_name();
#define ORRERY_TYPES(X)        \
  X(c10::Half, "half")         \
  X(c10::BFloat16, "bfloat16") \
  X(float, "float")            \
  X(double, "double")          \
  X(int8_t, "int8") X(uint8_t, "uint8") X(int32_t, "int32") X(uint32_t, "uint32") X(int64_t, "int64")
#define X(T, name)                    \
  template <>                         \
  inline const char* type_name<T>() { \
    return name;                      \
  }
ORRERY_TYPES(X)
#undef X

constexpr bool is_power_of_two(int n) { return (n & (n - 1)) == 0; }

// f(vector number) for each vector; the operation's name joins the table.
template <typename T, int N, typename F>
void add(const std::string& name, F f) {
  operations[{name, type_name<T>(), N}] = [f](const call& c) {
    for (int64_t k = 0; k < c.count; ++k) f(c, k);
  };
}

template <typename T, int N>
struct vectors {
  using V = orrery::simd<T, N>;
  static V a(const call& c, int64_t k) { return V::load(static_cast<const T*>(c.a) + k * N); }
  static V b(const call& c, int64_t k) { return V::load(static_cast<const T*>(c.b) + k * N); }
  static T* out(const call& c, int64_t k) { return static_cast<T*>(c.out) + k * N; }
  static auto index(const call& c) { return orrery::simd<int32_t, N>::load(c.index); }

  template <typename Op>
  static void binary(const std::string& name, Op op) {
    add<T, N>(name, [op](const call& c, int64_t k) { op(a(c, k), b(c, k)).store(out(c, k)); });
  }
  template <typename Op>
  static void unary(const std::string& name, Op op) {
    add<T, N>(name, [op](const call& c, int64_t k) { op(a(c, k)).store(out(c, k)); });
  }
  template <typename Op>
  static void comparison(const std::string& name, Op op) {
    add<T, N>(name, [op](const call& c, int64_t k) { static_cast<uint64_t*>(c.out)[k] = op(a(c, k), b(c, k)).bits; });
  }

  static void memory() {
    unary("copy", [](V x) { return x; });
    unary("lanes", [](V x) {
      V r;
      for (int i = 0; i < N; ++i) r.set(i, x[N - 1 - i]);
      return r;
    });
    add<T, N>("broadcast", [](const call& c, int64_t k) { V(static_cast<const T*>(c.a)[k]).store(out(c, k)); });
    add<T, N>("zero", [](const call& c, int64_t k) { V().store(out(c, k)); });
    add<T, N>("iota", [](const call& c, int64_t k) { V::iota().store(out(c, k)); });
    add<T, N>("load_strided", [](const call& c, int64_t k) {
      V::load_strided(static_cast<const T*>(c.a) + k, c.argument).store(out(c, k));
    });
    add<T, N>("store_strided",
              [](const call& c, int64_t k) { a(c, k).store_strided(static_cast<T*>(c.out) + k, c.argument); });
    add<T, N>("gather",
              [](const call& c, int64_t k) { V::gather(static_cast<const T*>(c.a) + k, index(c)).store(out(c, k)); });
    add<T, N>("scatter", [](const call& c, int64_t k) { a(c, k).scatter(static_cast<T*>(c.out), index(c)); });
    if constexpr (N <= 64) {
      add<T, N>("load_masked", [](const call& c, int64_t k) {
        V::load(static_cast<const T*>(c.a) + k * N, orrery::mask<N>{c.mask}).store(out(c, k));
      });
      add<T, N>("store_masked", [](const call& c, int64_t k) { a(c, k).store(out(c, k), orrery::mask<N>{c.mask}); });
      add<T, N>("gather_masked", [](const call& c, int64_t k) {
        V::gather(static_cast<const T*>(c.a) + k, index(c), orrery::mask<N>{c.mask}).store(out(c, k));
      });
      add<T, N>("scatter_masked", [](const call& c, int64_t k) {
        a(c, k).scatter(static_cast<T*>(c.out), index(c), orrery::mask<N>{c.mask});
      });
      add<T, N>("select", [](const call& c, int64_t k) {
        orrery::select(orrery::mask<N>{c.mask}, a(c, k), b(c, k)).store(out(c, k));
      });
    }
  }

  static void pieces() {
    unary("shuffle_reversed",
          [](V x) { return orrery::shuffle(x, orrery::simd<int32_t, N>(N - 1) - orrery::simd<int32_t, N>::iota()); });
    add<T, N>("shuffle", [](const call& c, int64_t k) { orrery::shuffle(a(c, k), index(c)).store(out(c, k)); });
    if constexpr (is_power_of_two(N) && N <= 32) {
      add<T, N>("shift_lanes", [](const call& c, int64_t k) {
        orrery::shift_lanes(a(c, k), static_cast<int>(c.argument)).store(out(c, k));
      });
    }
    if constexpr (N >= 4) {
      constexpr int H = N / 2, Q = N / 4;
      add<T, N>("slice", [](const call& c, int64_t k) {
        const V x = a(c, k);
        T* o = static_cast<T*>(c.out) + k * (2 * H + Q);
        x.template slice<H, H>().store(o);
        x.template slice<0, H>().store(o + H);
        x.template slice<1, Q>().store(o + 2 * H);
      });
      add<T, N>("set_slice", [](const call& c, int64_t k) {
        V x = a(c, k);
        x.template set_slice<H, H>(orrery::simd<T, H>::load(static_cast<const T*>(c.b) + k * N));
        x.template set_slice<1, Q>(orrery::simd<T, Q>::load(static_cast<const T*>(c.b) + k * N + H));
        x.store(out(c, k));
      });
      unary("split_pairs", [](V x) {
        const auto halves = orrery::split_pairs(x);
        V r;
        r.template set_slice<0, H>(halves.first);
        r.template set_slice<H, H>(halves.second);
        return r;
      });
      unary("join_pairs", [](V x) { return orrery::join_pairs(x.template slice<0, H>(), x.template slice<H, H>()); });
    }
    if constexpr (is_power_of_two(N) || N == 96) {
      add<T, N>("fold", [](const call& c, int64_t k) { static_cast<T*>(c.out)[k] = orrery::fold(a(c, k)); });
    }
    if constexpr (N <= 32 && !std::is_integral_v<T>) {
      add<T, N>("fold_each", [](const call& c, int64_t k) {
        V rows[N];
        for (int i = 0; i < N; ++i) rows[i] = a(c, k * N + i);
        orrery::fold_each(rows).store(out(c, k));
      });
      if constexpr (N <= 16) {
        add<T, N>("fold_neighbours_each", [](const call& c, int64_t k) {
          orrery::simd<T, 2 * N> rows[N];
          for (int i = 0; i < N; ++i) {
            rows[i] = orrery::simd<T, 2 * N>::load(static_cast<const T*>(c.a) + (k * N + i) * 2 * N);
          }
          orrery::fold_neighbours_each(rows).store(out(c, k));
        });
      }
      add<T, N>("load_register_values", [](const call& c, int64_t k) {
        V::load_register_values(static_cast<const typename V::S*>(c.a) + k * N).store(out(c, k));
      });
      add<T, N>("store_register_values", [](const call& c, int64_t k) {
        a(c, k).store_register_values(static_cast<typename V::S*>(c.out) + k * N);
      });
    }
  }

  static void arithmetic() {
    binary("add", [](V x, V y) { return x + y; });
    binary("subtract", [](V x, V y) { return x - y; });
    binary("multiply", [](V x, V y) { return x * y; });
    binary("divide", [](V x, V y) { return x / y; });
    if constexpr (N <= 16) {
      binary("add_to", [](V x, V y) { return x += y; });
      binary("subtract_from", [](V x, V y) { return x -= y; });
      binary("multiply_by", [](V x, V y) { return x *= y; });
    }
    binary("multiply_add", [](V x, V y) { return x * y + x; });
    unary("negate", [](V x) { return -x; });
    binary("select_less", [](V x, V y) { return orrery::select_less(x, y, y, x); });
    if constexpr (N <= 64) {
      comparison("less", [](V x, V y) { return x < y; });
      comparison("equal", [](V x, V y) { return x == y; });
    }
    if constexpr (std::is_integral_v<T>) {
      binary("and", [](V x, V y) { return x & y; });
      binary("or", [](V x, V y) { return x | y; });
      binary("xor", [](V x, V y) { return x ^ y; });
      add<T, N>("shift_left", [](const call& c, int64_t k) { (a(c, k) << int(c.argument)).store(out(c, k)); });
      add<T, N>("shift_right", [](const call& c, int64_t k) { (a(c, k) >> int(c.argument)).store(out(c, k)); });
    } else {
      unary("sqrt", [](V x) { return orrery::sqrt(x); });
      if constexpr (std::is_same_v<T, double> && N == 1) unary("rsqrt", [](V x) { return V(sycl::rsqrt(x[0])); });
      add<T, N>("lookup", [](const call& c, int64_t k) {
        const auto table = orrery::simd<T, 16>::load(static_cast<const T*>(c.b));
        orrery::lookup(table, orrery::simd<uint32_t, N>::load(static_cast<const uint32_t*>(c.a) + k * N))
            .store(out(c, k));
      });
    }
  }

  template <typename To>
  static void convert_to() {
    add<T, N>(std::string("convert to ") + type_name<To>(),
              [](const call& c, int64_t k) { orrery::convert<To>(a(c, k)).store(static_cast<To*>(c.out) + k * N); });
    if constexpr (N == 1) {
      add<T, N>(std::string("to ") + type_name<To>(), [](const call& c, int64_t k) {
        static_cast<To*>(c.out)[k] = orrery::to<To>(static_cast<const T*>(c.a)[k]);
      });
    }
    constexpr bool whole = sizeof(To) == sizeof(T) || (N > 1 && sizeof(To) < sizeof(T));
    if constexpr (whole && !orrery::is_narrow_float<To> && !orrery::is_narrow_float<T>) {
      add<T, N>(std::string("bit_cast to ") + type_name<To>(), [](const call& c, int64_t k) {
        orrery::bit_cast<To>(a(c, k)).store(static_cast<To*>(c.out) + k * (N * sizeof(T) / sizeof(To)));
      });
    }
  }

  template <int Share, typename P>
  static void shared() {
    add<T, N>("load_shared " + std::to_string(Share) + " " + type_name<P>(), [](const call& c, int64_t k) {
      orrery::load_shared<T, N, Share, P>(static_cast<const char*>(c.a) + c.argument).store(out(c, k));
    });
  }

  static void every() {
    memory();
    pieces();
    arithmetic();
    if constexpr (N == 1 || N == 16 || N == 32) {
#define X(To, name) convert_to<To>();
      ORRERY_TYPES(X)
#undef X
    }
    if constexpr (!std::is_integral_v<T> && is_power_of_two(N) && N <= 32) {
      shared<1, c10::Half>();
      shared<2, c10::Half>();
      shared<4, c10::Half>();
      shared<16, c10::Half>();
      shared<32, c10::Half>();
      shared<2, float>();
      shared<8, float>();
    }
  }
};

template <typename T, int... N>
void add_widths() {
  (vectors<T, N>::every(), ...);
}

// The widths in use: wide vectors hold floating-point values.
template <typename T>
void add_type() {
  if constexpr (std::is_integral_v<T>) {
    add_widths<T, 1, 8, 16, 32, 64>();
  } else {
    add_widths<T, 1, 4, 8, 16, 32, 48, 64, 96, 128, 256>();
  }
}

void add_float_types();
void add_narrow_types();
void add_small_integers();
void add_large_integers();

}  // namespace simd_test
