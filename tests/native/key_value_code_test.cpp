// The code of one-byte key/value caches for tests/test_key_value_code.py: the rule, the decoder and the encoder.
#include "formats/key_value_code.h"

#include <pybind11/pybind11.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "native_test.h"

namespace py = pybind11;
using namespace orrery;

namespace {

template <typename F>
auto with_code(const std::string& name, F f) {
  if (name == "key") return f(formats::key_code());
  if (name == "value") return f(formats::value_code());
  throw std::invalid_argument("no such code: " + name);
}

// The widths of the kernels, which take a row at a time, and of one lane.
template <typename F>
auto with_width(int width, F f) {
  switch (width) {
    case 1:
      return f(std::integral_constant<int, 1>());
    case 16:
      return f(std::integral_constant<int, 16>());
    case 32:
      return f(std::integral_constant<int, 32>());
    case 64:
      return f(std::integral_constant<int, 64>());
    case 96:
      return f(std::integral_constant<int, 96>());
    case 128:
      return f(std::integral_constant<int, 128>());
  }
  throw std::invalid_argument("no such width: " + std::to_string(width));
}

template <typename Code, typename T, int N>
py::bytes decoded(const std::string& bytes) {
  if (bytes.size() % N != 0) throw std::invalid_argument("decode takes whole rows");
  std::vector<T> values(bytes.size());
  for (size_t i = 0; i < bytes.size(); i += N) {
    Code::template decode<T, N>(reinterpret_cast<const uint8_t*>(bytes.data()) + i).store(values.data() + i);
  }
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

py::bytes decode(const std::string& code, const std::string& type, int width, const std::string& bytes) {
  return with_code(code, [&](auto c) {
    return with_width(width, [&](auto n) {
      if (type == "float16") return decoded<decltype(c), c10::Half, n()>(bytes);
      if (type == "float32") return decoded<decltype(c), float, n()>(bytes);
      throw std::invalid_argument("no such type: " + type);
    });
  });
}

py::bytes encode(const std::string& code, int width, const std::string& halves) {
  std::string bytes(halves.size() / sizeof(c10::Half), '\0');
  if (bytes.size() % width != 0) throw std::invalid_argument("encode takes whole rows");
  std::vector<c10::Half> values(bytes.size());
  std::memcpy(static_cast<void*>(values.data()), halves.data(), halves.size());
  with_code(code, [&](auto c) {
    with_width(width, [&](auto n) {
      for (size_t i = 0; i < bytes.size(); i += n()) {
        c.encode(simd<c10::Half, n()>::load(values.data() + i), reinterpret_cast<uint8_t*>(bytes.data()) + i);
      }
    });
  });
  return bytes;
}

}  // namespace

void bind_key_value_code(py::module_& m) {
  m.def("key_value_half_bits",
        [](const std::string& code, int byte) { return with_code(code, [&](auto c) { return c.half_bits(byte); }); });
  m.def("key_value_decode", &decode);
  m.def("key_value_encode", &encode);
}
