// The split weight formats for tests/test_formats.py: the value rule, the readers, and where codes lie.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "formats/codebook.h"
#include "native_test.h"

namespace py = pybind11;
using namespace orrery;

namespace {

template <typename F>
auto with_format(const std::string& name, F f) {
  if (name == "q4_0") return f(formats::q4_0());
  if (name == "q4_1") return f(formats::q4_1());
  if (name == "q8_0") return f(formats::q8_0());
  if (name == "nf4") return f(formats::nf4());
  if (name == "nf3") return f(formats::nf3());
  if (name == "fp4") return f(formats::fp4());
  if (name == "fp6") return f(formats::fp6());
  if (name == "fp8_e4m3") return f(formats::fp8_e4m3());
  if (name == "fp8_e5m2") return f(formats::fp8_e5m2());
  if (name == "fp8_e5m2_scaled") return f(formats::fp8_e5m2_scaled());
  throw std::invalid_argument("no such format: " + name);
}

template <typename F>
auto with_type(const std::string& name, F f) {
  if (name == "float16") return f(c10::Half());
  if (name == "bfloat16") return f(c10::BFloat16());
  if (name == "float32") return f(float());
  if (name == "float64") return f(double());
  throw std::invalid_argument("no such type: " + name);
}

template <typename Format>
constexpr bool has_no_scale = std::is_same_v<Format, formats::fp8_e5m2>;

double rule(const std::string& format, const std::string& type, int code, float d, float m) {
  return with_format(format, [&](auto f) {
    return with_type(type, [&](auto t) -> double {
      using F = decltype(f);
      using T = decltype(t);
      if constexpr (F::has_offset) {
        return F::template value<T>(code, d, m);
      } else if constexpr (has_no_scale<F>) {
        return F::template value<T>(code);
      } else {
        return F::template value<T>(code, d);
      }
    });
  });
}

template <typename Format, typename T, int N>
std::vector<double> read(const std::vector<uint32_t>& codes, const uint8_t* scales) {
  std::vector<double> values;
  for (size_t i = 0; i < codes.size(); i += N) {
    using Lane = formats::code_lane<std::conditional_t<Format::rounds_last, float, T>, N>;
    const auto lanes = convert<Lane>(simd<uint32_t, N>::load(codes.data() + i));
    const auto some = formats::dequantized<Format, T, 4>(lanes, scales);
    for (int lane = 0; lane < N; ++lane) values.push_back(some[lane]);
  }
  return values;
}

// Neighbouring lanes share a block by fours; every block has the same scale.
std::vector<double> reader(const std::string& format, const std::string& type, int width,
                           const std::vector<uint32_t>& codes, const std::string& scales) {
  const auto* p = reinterpret_cast<const uint8_t*>(scales.data());
  return with_format(format, [&](auto f) {
    return with_type(type, [&](auto t) {
      using F = decltype(f);
      using T = decltype(t);
      return width == 1 ? read<F, T, 1>(codes, p) : width == 16 ? read<F, T, 16>(codes, p) : read<F, T, 32>(codes, p);
    });
  });
}

// Codes of a block's 64 elements, from its bytes (in both planes): one by one, and many at once.
std::vector<int> codes_one_by_one(const std::string& format, const std::string& block) {
  const auto* p = reinterpret_cast<const uint8_t*>(block.data());
  return with_format(format, [&](auto f) {
    using F = decltype(f);
    std::vector<int> codes(64);
    if constexpr (requires { F::codes_per_byte; }) {
      for (int j = 0; j < F::quant_bytes; ++j) {
        for (int k = 0; k < F::codes_per_byte; ++k) {
          const uint32_t code = F::byte_code(simd<uint32_t, 1>(uint32_t(p[j])), k)[0];
          codes[F::byte_element(j, k)] = F::codes_per_byte == 2 ? code & 15 : code;
        }
      }
    } else if constexpr (std::is_same_v<F, formats::nf3>) {
      for (int e = 0; e < 64; ++e) codes[e] = F::code_of(p, e);
    } else {
      for (int e = 0; e < 64; ++e) codes[e] = F::code_of(p, p + F::low_bytes, e);
    }
    return codes;
  });
}

std::vector<int> codes_at_once(const std::string& format, const std::string& block) {
  const auto* p = reinterpret_cast<const uint8_t*>(block.data());
  std::vector<int> codes;
  if (format == "fp6") {
    const auto all = formats::fp6::codes_of_block(p, p + formats::fp6::low_bytes);
    for (int e = 0; e < 64; ++e) codes.push_back(all[e]);
  } else {
    for (int e = 0; e < 64; e += 16) {
      const auto some = formats::nf3::codes_of_16(p, e);
      for (int i = 0; i < 16; ++i) codes.push_back(some[i] & 7);
    }
  }
  return codes;
}

}  // namespace

void bind_formats(py::module_& m) {
  m.def("format_rule", &rule);
  m.def("format_reader", &reader);
  m.def("format_codes", &codes_one_by_one);
  m.def("format_codes_at_once", &codes_at_once);
  m.def("format_half_bits_e5m2", [](int code) { return formats::fp8_e5m2::half_bits(code); });
}
