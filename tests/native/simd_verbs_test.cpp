// Every verb of includes/simd/ in every instruction set that this build has, for tests/host/test_simd_verbs.py: the
// same bytes go in, the bytes that come out have to be those of the portable set.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "includes/simd.h"
#include "native_test.h"
#if defined(__AVX2__) && defined(__F16C__)
#include "includes/simd/avx2.h"
#define HAS_AVX2 1
#endif
#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#include "includes/simd/avx512.h"
#define HAS_AVX512 1
#endif
#if defined(HAS_AVX512) && defined(__AVX512VBMI__) && defined(__AVX512VNNI__)
#include "includes/simd/avx512_bytes.h"
#define HAS_AVX512_BYTES 1
#endif
#if defined(HAS_AVX512_BYTES) && defined(__AVX512FP16__)
#include "includes/simd/avx512_half.h"
#define HAS_AVX512_HALF 1
#endif

namespace py = pybind11;

namespace {

using orrery::machine;
using orrery::portable;
using orrery::register_type;
using orrery::detail::int_like;

constexpr size_t in_bytes = 4096, out_bytes = 4096;
using body = void (*)(const char* in, char* out);
std::map<std::tuple<std::string, std::string>, body> bodies;  // by verb and set

template <typename S>
constexpr const char* type_name = "?";
template <>
constexpr const char* type_name<float> = "float";
template <>
constexpr const char* type_name<double> = "double";
template <>
constexpr const char* type_name<int8_t> = "int8";
template <>
constexpr const char* type_name<uint8_t> = "uint8";
template <>
constexpr const char* type_name<uint16_t> = "uint16";
template <>
constexpr const char* type_name<int32_t> = "int32";
template <>
constexpr const char* type_name<uint32_t> = "uint32";
template <>
constexpr const char* type_name<int64_t> = "int64";
template <>
constexpr const char* type_name<uint64_t> = "uint64";
#ifdef HAS_AVX512_HALF
template <>
constexpr const char* type_name<_Float16> = "half";
#endif

// Operand k of a verb: any bits.
template <typename Set, typename S, int W>
auto operand(const char* in, int k) {
  typename Set::template vector<S, W> v;
  std::memcpy(&v, in + k * 512, sizeof v);
  return v;
}
// Numbers that are in the range of every type: 0 to 31 and an eighth.
template <typename Set, typename S, int W>
auto small_operand(const char* in, int k) {
  S numbers[W];
  for (int i = 0; i < W; ++i) {
    const uint8_t byte = static_cast<uint8_t>(in[k * 512 + i]);
    numbers[i] = std::is_integral_v<S> ? static_cast<S>(byte % 32) : static_cast<S>(byte) / S(8);
  }
  typename Set::template vector<S, W> v;
  std::memcpy(&v, numbers, sizeof v);
  return v;
}
template <typename Set, typename S, int W>
auto indexes(const char* in, int k) {
  return operand<Set, int_like<S>, W>(in, k);
}
uint64_t bits_of(const char* in) {
  uint64_t bits;
  std::memcpy(&bits, in + 3000, sizeof bits);
  return bits;
}

// Result k. All NaNs are one, since their payloads are unspecified.
template <typename S, int W, typename V>
void result(char* out, int k, const V& v) {
  static_assert(sizeof v == W * sizeof(S));
  S lane[W];
  std::memcpy(lane, &v, sizeof lane);
  if constexpr (!std::is_integral_v<S>) {
    for (S& x : lane) x = x == x ? x : static_cast<S>(std::numeric_limits<float>::quiet_NaN());
  }
  std::memcpy(out + k * 512, lane, sizeof lane);
}
void result_bits(char* out, int k, uint64_t bits) { std::memcpy(out + k * 512, &bits, sizeof bits); }

template <typename Set, typename S, int W>
constexpr bool has_vector = Set::template lanes<S, W> == W;

template <typename Set, typename F>
void add(const std::string& verb, F) {
  bodies[{verb, Set::name}] = [](const char* in, char* out) { F()(in, out); };
}

template <typename Set, typename S, int W>
void add_lanes(const std::string& suffix) {
  add<Set>("lanes" + suffix, [](const char* in, char* out) {
    const auto a = operand<Set, S, W>(in, 0);
    auto reversed = Set::template broadcast<S, W>(Set::template get<S, W>(a, 0));
    for (int i = 1; i < W; ++i) Set::template set<S, W>(reversed, W - 1 - i, Set::template get<S, W>(a, i));
    result<S, W>(out, 0, reversed);
    result<S, W>(out, 1, Set::template iota<S, W>());
  });
  add<Set>("arithmetic" + suffix, [](const char* in, char* out) {
    using V = typename Set::template vector<S, W>;
    const auto a = operand<Set, S, W>(in, 0), b = operand<Set, S, W>(in, 1);
    if constexpr (std::is_integral_v<S> && W == 1) {
      // A scalar of the host: unsigned, since it does not wrap around.
      result<S, W>(out, 0, V(a & b));
    } else {
      result<S, W>(out, 0, V(a + b));
      result<S, W>(out, 1, V(a - b));
      result<S, W>(out, 2, V(a * b));
      result<S, W>(out, 3, V(-a));
    }
    if constexpr (std::is_integral_v<S>) {
      [[maybe_unused]] const auto n =
          small_operand<Set, S, W>(in, 2) & Set::template broadcast<S, W>(S(8 * sizeof(S) - 1));
      result<S, W>(out, 4, V((a & b) ^ (a | b)));
      if constexpr (W > 1) {
        result<S, W>(out, 5, V(a >> n));
        result<S, W>(out, 6, V(a << n));
      }
    } else {
      result<S, W>(out, 4, V(a / b));
    }
  });
  add<Set>("compare" + suffix, [](const char* in, char* out) {
    const auto a = operand<Set, S, W>(in, 0), b = operand<Set, S, W>(in, 1);
    const auto c = small_operand<Set, S, W>(in, 0), d = small_operand<Set, S, W>(in, 1);
    if constexpr (W <= 64) {
      result_bits(out, 0, Set::template mask_bits<S, W>(a < b));
      result_bits(out, 1, Set::template mask_bits<S, W>(c == d));
      result_bits(out, 2, Set::template mask_bits<S, W>(a != a));
      result<S, W>(out, 3, Set::template blend<S, W>(bits_of(in), a, b));
    }
    result<S, W>(out, 4, Set::template choose<S, W>(a < b, a, b));
    result<S, W>(out, 5, Set::template choose<S, W>(c != d, a, b));
  });
}

template <typename Set, typename T, int W>
void add_memory(const std::string& suffix) {
  add<Set>("memory" + suffix, [](const char* in, char* out) {
    const T* from = reinterpret_cast<const T*>(in + 1);  // no multiple of anything
    const auto v = Set::template load<T, W>(from);
    result<register_type<T>, W>(out, 0, v);
    alignas(64) char stored[W * sizeof(T)] = {}, some[W * sizeof(T)] = {}, others[W * sizeof(T)] = {};
    Set::template store<T, W>(reinterpret_cast<T*>(stored), v);
    if constexpr (std::is_same_v<T, c10::Half> && orrery::is_widened<T>) {
      const auto whole = Set::template round_half<W>(operand<Set, float, W>(in, 2));
      result<float, W>(out, 1, whole);
      Set::template store<T, W>(reinterpret_cast<T*>(stored), whole);
      for (int i = 0; i < W; ++i) {
        uint16_t half;
        std::memcpy(&half, stored + 2 * i, 2);
        if ((half & 0x7FFF) > 0x7C00) half = 0x7E00;
        std::memcpy(stored + 2 * i, &half, 2);
      }
    }
    std::memcpy(out + 2 * 512, stored, sizeof stored);
    if constexpr (W <= 64) {
      Set::template copy_from_some<T, W>(reinterpret_cast<T*>(some), from, bits_of(in));
      alignas(64) char aligned[W * sizeof(T)];
      std::memcpy(aligned, in, sizeof aligned);
      Set::template copy_to_some<T, W>(reinterpret_cast<T*>(others), reinterpret_cast<const T*>(aligned), bits_of(in));
      std::memcpy(out + 3 * 512, some, sizeof some);
      std::memcpy(out + 4 * 512, others, sizeof others);
    }
  });
}

template <typename Set, typename S, int W>
void add_moves(const std::string& suffix) {
  if constexpr (W > 1) {
    add<Set>("permute" + suffix, [](const char* in, char* out) {
      const auto a = operand<Set, S, W>(in, 0), b = operand<Set, S, W>(in, 1);
      result<S, W>(out, 0, Set::template permute<S, W>(a, indexes<Set, S, W>(in, 2)));
      result<S, W>(out, 1, Set::template permute2<S, W>(a, b, indexes<Set, S, W>(in, 3)));
    });
    add<Set>("part" + suffix, [](const char* in, char* out) {
      const auto a = operand<Set, S, W>(in, 0);
      constexpr int H = W / 2;
      result<S, H>(out, 0, Set::template part<S, W, H, H>(a));
      result<S, 1>(out, 1, Set::template part<S, W, W - 1, 1>(a));
      const auto wide = Set::template widen<S, H, W>(Set::template part<S, W, 0, H>(a));
      result<S, H>(out, 2, Set::template part<S, W, 0, H>(wide));
    });
    if constexpr (W * sizeof(S) >= 32) {
      add<Set>("join" + suffix, [](const char* in, char* out) {
        const auto first = operand<Set, S, W / 2>(in, 0), second = operand<Set, S, W / 2>(in, 1);
        result<S, W>(out, 0, Set::template join<S, W / 2>(first, second));
      });
    }
  }
}

template <typename Set, typename From, typename To, int W>
void add_conversion(const std::string& suffix) {
  if constexpr (!std::is_same_v<From, To> && has_vector<Set, From, W> && has_vector<Set, To, W>) {
    add<Set>(std::string("convert ") + type_name<From> + " to " + type_name<To> + suffix,
             [](const char* in, char* out) {
               if constexpr (std::is_integral_v<From>) {
                 result<To, W>(out, 0, Set::template convert<To, From, W>(operand<Set, From, W>(in, 0)));
               } else if constexpr (!std::is_integral_v<To>) {
                 result<To, W>(out, 0, Set::template convert<To, From, W>(operand<Set, From, W>(in, 0)));
               }
               result<To, W>(out, 1, Set::template convert<To, From, W>(small_operand<Set, From, W>(in, 1)));
             });
  }
}

template <typename Set, int W>
void add_look_ups(const std::string& suffix) {
  add<Set>("lookup_upper_words" + suffix, [](const char* in, char* out) {
    alignas(64) uint16_t table[64];
    std::memcpy(table, in, sizeof table);
    const auto words = operand<Set, uint32_t, W>(in, 1);
    result<uint32_t, W>(out, 0, Set::template lookup_upper_words<5, W>(table, words));
    result<uint32_t, W>(out, 1, Set::template lookup_upper_words<6, W>(table, words));
    for (int i = 16; i < 32; ++i) table[i] = table[i - 16];
    result<uint32_t, W>(out, 2, Set::template lookup_upper_words<4, W>(table, words));
  });
  add<Set>("lookup_bytes" + suffix, [](const char* in, char* out) {
    alignas(64) uint8_t top[64], second[64];
    std::memcpy(top, in, sizeof top);
    std::memcpy(second, in + 64, sizeof second);
    const auto words = operand<Set, uint32_t, W>(in, 1);
    for (int k = 0; k < 4; ++k) result<uint32_t, W>(out, k, Set::template lookup_bytes<W>(top, second, words, k));
  });
  add<Set>("lookup_signed" + suffix, [](const char* in, char* out) {
    alignas(64) uint8_t top[128], second[128];
    for (int i = 0; i < 128; ++i) top[i] = static_cast<uint8_t>(in[i] & 127);
    std::memcpy(second, in + 128, sizeof second);
    const auto words = operand<Set, uint32_t, W>(in, 1);
    for (int k = 0; k < 4; ++k) result<uint32_t, W>(out, k, Set::template lookup_signed<W>(top, second, words, k));
  });
}

template <typename Set, typename S, int W>
void add_width() {
  if constexpr (has_vector<Set, S, W>) {
    const std::string suffix = std::string(" ") + type_name<S> + " x " + std::to_string(W);
    add_lanes<Set, S, W>(suffix);
    add_memory<Set, S, W>(suffix);
    add_moves<Set, S, W>(suffix);
    const std::string lanes = " x " + std::to_string(W);
    add_conversion<Set, S, float, W>(lanes);
    add_conversion<Set, S, double, W>(lanes);
    add_conversion<Set, S, int8_t, W>(lanes);
    add_conversion<Set, S, uint8_t, W>(lanes);
    add_conversion<Set, S, uint16_t, W>(lanes);
    add_conversion<Set, S, int32_t, W>(lanes);
    add_conversion<Set, S, uint32_t, W>(lanes);
    add_conversion<Set, S, int64_t, W>(lanes);
#ifdef HAS_AVX512_HALF
    add_conversion<Set, S, _Float16, W>(lanes);
#endif
    if constexpr (std::is_same_v<S, float>) add_memory<Set, c10::Half, W>(" half x " + std::to_string(W));
    if constexpr (std::is_same_v<S, uint32_t>) add_look_ups<Set, W>(suffix);
  }
}

template <typename Set, typename S>
void add_widths() {
  add_width<Set, S, 1>();
  add_width<Set, S, 4>();
  add_width<Set, S, 8>();
  add_width<Set, S, 16>();
  add_width<Set, S, 32>();
  add_width<Set, S, 64>();
}

template <typename Set>
void add_transpose() {
  add<Set>("transpose", [](const char* in, char* out) {
    const uint8_t* row[16];
    for (int j = 0; j < 16; ++j) row[j] = reinterpret_cast<const uint8_t*>(in) + 1 + 70 * j;
    alignas(64) uint32_t words[8 * 16];
    Set::transpose_words(row, 5, words);
    std::memcpy(out, words, sizeof words);
  });
}

template <typename Set, int W>
void add_multiply_add(const std::string& suffix) {
  if constexpr (has_vector<Set, float, W>) {
    add<Set>("multiply_add" + suffix, [](const char* in, char* out) {
      const auto half = [&](int k) { return Set::template round_half<W>(operand<Set, float, W>(in, k)); };
      result<float, W>(out, 0, Set::template multiply_add<W>(half(0), half(1), operand<Set, float, W>(in, 2)));
    });
  }
}

template <typename Set>
void add_set() {
  add_transpose<Set>();
  add_multiply_add<Set, 4>(" x 4");
  add_multiply_add<Set, 8>(" x 8");
  add_multiply_add<Set, 16>(" x 16");
  add_widths<Set, float>();
  add_widths<Set, double>();
  add_widths<Set, int8_t>();
  add_widths<Set, uint8_t>();
  add_widths<Set, uint16_t>();
  add_widths<Set, int32_t>();
  add_widths<Set, uint32_t>();
  add_widths<Set, int64_t>();
  add_widths<Set, uint64_t>();
}

template <typename Set>
void add_bytes() {
  [[maybe_unused]] const auto b = [](const char* in, int k) { return operand<Set, uint8_t, 64>(in, k); };
  [[maybe_unused]] const auto w = [](const char* in, int k) { return operand<Set, uint32_t, 16>(in, k); };
  using B = decltype(b);
  using W = decltype(w);
  add<Set>("bytes lookup", [](const char* in, char* out) {
    result<uint8_t, 64>(out, 0, Set::lookup_64(B()(in, 0), B()(in, 1)));
    result<uint8_t, 64>(out, 1, Set::lookup_128(B()(in, 0), B()(in, 2), B()(in, 1)));
    result<uint8_t, 64>(out, 2, Set::lookup_128_where(bits_of(in), B()(in, 0), B()(in, 2), B()(in, 1)));
  });
  add<Set>("bytes masks", [](const char* in, char* out) {
    result_bits(out, 0, Set::common_bits(B()(in, 0), B()(in, 1) & B()(in, 2)));
    result_bits(out, 1, Set::at_least(B()(in, 0), B()(in, 1)));
    result_bits(out, 2, Set::at_least(B()(in, 0), B()(in, 0)));
    result_bits(out, 3, Set::top_bits(B()(in, 0)));
  });
  add<Set>("bytes arithmetic", [](const char* in, char* out) {
    result<uint8_t, 64>(out, 0, Set::add_where(bits_of(in), B()(in, 0), B()(in, 1)));
    result<uint8_t, 64>(out, 1, Set::negate_where(bits_of(in), B()(in, 0)));
    result<uint8_t, 64>(out, 2, Set::merge_bits(B()(in, 0), B()(in, 1), B()(in, 2)));
    result<uint8_t, 64>(out, 3, Set::shift_words_right(B()(in, 0), 3));
    result<uint8_t, 64>(out, 4, Set::shift_words_left(B()(in, 0), 5));
  });
  add<Set>("bytes steps", [](const char* in, char* out) {
    result<uint8_t, 64>(out, 0, Set::template bytes_at_steps<7>(W()(in, 0)));
    result<uint8_t, 64>(out, 1, Set::template bytes_at_steps<3>(W()(in, 0)));
  });
  add<Set>("bytes dot", [](const char* in, char* out) {
    const auto sum = operand<Set, int32_t, 16>(in, 2) >> Set::template broadcast<int32_t, 16>(4);
    result<int32_t, 16>(out, 0, Set::dot_bytes(sum, B()(in, 0), B()(in, 1)));
  });
  add<Set>("bytes halves", [](const char* in, char* out) {
    const auto* p = reinterpret_cast<const uint8_t*>(in);
    result<uint8_t, 64>(out, 0, Set::load_halves(p + 3, p + 77));
    result<uint32_t, 16>(out, 1, Set::load_widened_halves(p + 3, p + 77));
  });
}

}  // namespace

void bind_simd_verbs(py::module_& m) {
  add_set<portable>();
  add_bytes<portable>();
#ifdef HAS_AVX2
  add_set<orrery::avx2>();
#endif
#ifdef HAS_AVX512
  add_set<orrery::avx512>();
#endif
#ifdef HAS_AVX512_BYTES
  add_set<orrery::avx512_bytes>();
  add_bytes<orrery::avx512_bytes>();
#endif
#ifdef HAS_AVX512_HALF
  add_set<orrery::avx512_half>();
  add_bytes<orrery::avx512_half>();
  add_widths<orrery::avx512_half, _Float16>();
  add_widths<portable, _Float16>();
#endif
  m.def("verbs", [] {
    std::map<std::string, std::vector<std::string>> sets;
    for (const auto& [key, run] : bodies) sets[std::get<0>(key)].push_back(std::get<1>(key));
    return sets;
  });
  m.attr("verbs_machine") = machine::name;
  m.attr("register_type_of_half") = orrery::is_widened<c10::Half> ? "float32" : "float16";
  m.def("verbs_run", [](const std::string& verb, const std::string& set, const py::bytes& in) {
    const auto found = bodies.find({verb, set});
    if (found == bodies.end()) throw std::invalid_argument("no such verb: " + verb);
    const std::string bytes = in;
    if (bytes.size() != in_bytes) throw std::invalid_argument("a verb takes 4096 bytes");
    std::string out(out_bytes, '\0');
    alignas(64) char aligned[in_bytes];
    std::memcpy(aligned, bytes.data(), in_bytes);
    found->second(aligned, out.data());
    return py::bytes(out);
  });
}
