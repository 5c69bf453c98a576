// The vectors' operations for tests/host/test_simd.py.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>

#include "native_test.h"
#include "simd_operations.h"

namespace py = pybind11;

namespace {

using simd_test::call;

void run(const std::string& operation, const std::string& type, int width, py::buffer out, py::object a, py::object b,
         py::object index, uint64_t mask, int64_t argument, int64_t count) {
  const auto found = simd_test::operations.find({operation, type, width});
  if (found == simd_test::operations.end()) throw std::invalid_argument("no such operation: " + operation);
  call c;
  const auto address = [](const py::object& array) -> const void* {
    return array.is_none() ? nullptr : py::cast<py::buffer>(array).request().ptr;
  };
  c.a = address(a);
  c.b = address(b);
  c.index = static_cast<const int32_t*>(address(index));
  c.mask = mask;
  c.argument = argument;
  c.count = count;
  c.out = out.request(true).ptr;
  found->second(c);
}

template <int N>
std::vector<uint64_t> masks_of(int64_t count, uint64_t a, uint64_t b) {
  using M = orrery::mask<N>;
  const M x{a}, y{b};
  uint64_t lanes = 0;
  for (int i = 0; i < N; ++i) lanes |= uint64_t(x[i]) << i;
  return {M::all().bits, M::first(count).bits, (x & y).bits, (x | y).bits, (!x).bits, lanes, x.any(), x.every()};
}

std::vector<uint64_t> masks(int width, int64_t count, uint64_t a, uint64_t b) {
  switch (width) {
    case 1:
      return masks_of<1>(count, a, b);
    case 8:
      return masks_of<8>(count, a, b);
    case 48:
      return masks_of<48>(count, a, b);
    case 64:
      return masks_of<64>(count, a, b);
  }
  throw std::invalid_argument("no such width");
}

// K words per lane from a byte address of any alignment; one row per word.
template <int K, int N>
void load_words_of(const uint8_t* p, uint32_t* out) {
  orrery::simd<uint32_t, N> word[K];
  orrery::load_words<K>(p, word);
  for (int k = 0; k < K; ++k) word[k].store(out + k * N);
}

// Four lanes share six words; their own ones are 2, 3, 4 and 5 (k = 3) or 0, 0, 1 and 1 (k = 4).
template <int N>
void load_grouped_words_of(int k, const uint8_t* p, uint32_t* out) {
  const auto own = orrery::load_grouped_words<4, 6, N>(p, [](int i) { return 2 + i; });
  const auto shared = orrery::load_grouped_words<4, 6, N>(p, [](int i) { return i / 2; });
  (k == 3 ? own : shared).store(out);
}

void load_words(int k, int width, py::buffer bytes, size_t offset, py::buffer out_buffer) {
  const uint8_t* p = static_cast<const uint8_t*>(bytes.request().ptr) + offset;
  auto* out = static_cast<uint32_t*>(out_buffer.request(true).ptr);
  switch (k * 1000 + width) {
    case 1001:
      return load_words_of<1, 1>(p, out);
    case 1008:
      return load_words_of<1, 8>(p, out);
    case 1016:
      return load_words_of<1, 16>(p, out);
    case 1032:
      return load_words_of<1, 32>(p, out);
    case 2001:
      return load_words_of<2, 1>(p, out);
    case 2008:
      return load_words_of<2, 8>(p, out);
    case 2016:
      return load_words_of<2, 16>(p, out);
    case 2032:
      return load_words_of<2, 32>(p, out);
    case 3016:
    case 4016:
      return load_grouped_words_of<16>(k, p, out);
    case 3032:
    case 4032:
      return load_grouped_words_of<32>(k, p, out);
  }
  throw std::invalid_argument("no such words");
}

template <int N>
void native_of(const std::string& name, const float* in, float* out, size_t count) {
  using V = orrery::simd<float, N>;
  for (size_t i = 0; i + N <= count; i += N) {
    const V x = V::load(in + i);
    if (name == "exp2") orrery::native::exp2(x).store(out + i);
    if (name == "sin") orrery::native::sin(x).store(out + i);
    if (name == "cos") orrery::native::cos(x).store(out + i);
    if (name == "exp") orrery::native::exp(x).store(out + i);
    if (name == "tanh") orrery::native::tanh(x).store(out + i);
    if (name == "cube") orrery::native::pow(x, 3.0f).store(out + i);
    if (name == "pow_2.5") orrery::native::pow(x, 2.5f).store(out + i);
    if (name == "pown_31") orrery::native::pown(x, 31).store(out + i);
    if (name == "pown_-2") orrery::native::pown(x, -2).store(out + i);
  }
}

void native_function(const std::string& name, int width, py::buffer in_buffer, py::buffer out_buffer) {
  const auto info = in_buffer.request();
  const auto* in = static_cast<const float*>(info.ptr);
  auto* out = static_cast<float*>(out_buffer.request(true).ptr);
  switch (width) {
    case 0:  // the scalar functions
      for (py::ssize_t i = 0; i < info.size; ++i) {
        if (name == "exp2") out[i] = orrery::native::exp2(in[i]);
        if (name == "sqrt") out[i] = orrery::native::sqrt(in[i]);
        if (name == "rsqrt") out[i] = orrery::native::rsqrt(in[i]);
      }
      return;
    case 1:
      return native_of<1>(name, in, out, info.size);
    case 2:
      return native_of<2>(name, in, out, info.size);
    case 8:
      return native_of<8>(name, in, out, info.size);
    case 16:
      return native_of<16>(name, in, out, info.size);
    case 32:
      return native_of<32>(name, in, out, info.size);
    case 128:
      return native_of<128>(name, in, out, info.size);
  }
  throw std::invalid_argument("no such width");
}

}  // namespace

void bind_simd(py::module_& m) {
  simd_test::add_narrow_types();
  simd_test::add_float_types();
  simd_test::add_small_integers();
  simd_test::add_large_integers();
  m.def("simd_run", &run, py::arg("operation"), py::arg("type"), py::arg("width"), py::arg("out"),
        py::arg("a") = py::none(), py::arg("b") = py::none(), py::arg("index") = py::none(),
        py::arg("mask") = ~uint64_t(0), py::arg("argument") = 0, py::arg("count") = 1);
  m.def("simd_masks", &masks);
  m.def("simd_load_words", &load_words);
  m.def("simd_native", &native_function);
}
