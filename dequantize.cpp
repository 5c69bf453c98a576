// Dense weights of half and float by explicit-SIMD kernels, a few whole blocks per work-item. The sizes come from the
// dense tensor.
#include "linear/dense/dequantize.h"

#include <stdexcept>

#include "formats/registry.h"
#include "includes/assertion.h"
#include "linear/dense/dense_kernel.h"

namespace orrery {

template <typename T, int SBS>
struct dequantize_q4_0_kernel : dense_blocks_kernel<formats::byte_reader<formats::q4_0>, T, SBS> {};
template <typename T, int SBS>
struct dequantize_q4_1_kernel : dense_blocks_kernel<formats::byte_reader<formats::q4_1>, T, SBS> {};
template <typename T, int SBS>
struct dequantize_q8_0_kernel : dense_blocks_kernel<formats::byte_reader<formats::q8_0>, T, SBS> {};
template <typename T, int SBS>
struct dequantize_fp4_kernel : dense_blocks_kernel<formats::byte_reader<formats::fp4>, T, SBS> {};
template <typename T, int SBS>
struct dequantize_fp6_kernel : dense_blocks_kernel<formats::fp6_reader, T, SBS> {};
template <typename T, int SBS>
struct dequantize_fp8_e5m2_kernel : dense_blocks_kernel<formats::byte_reader<formats::fp8_e5m2>, T, SBS> {};

namespace {

struct frame {
  weight_format format;
  const char* function;
  const char* record;
  bool waits = false;
};

template <typename Kernel, typename T>
void submit_blocks(const frame& f, const formats::block_planes& planes, const at::Tensor& dense, uint64_t groups) {
  launch(
      dense.device(), sycl::nd_range<1>(groups, 1), {"dequantize", f.function},
      [&](sycl::handler&) {
        return Kernel{{planes, static_cast<T*>(dense.data_ptr())}};
      },
      f.record, f.waits);
}

template <template <typename, int> typename Kernel, int SBS>
at::Tensor fill(const frame& f, const at::Tensor& weight, const at::Tensor& dense) {
  const uint64_t rows = dense.size(0), columns = dense.size(1);
  const uint64_t nb = rows * columns >> 6;
  const auto* bytes = static_cast<const uint8_t*>(weight.data_ptr());
  const formats::block_planes planes{bytes, bytes + scale_offset(f.format, rows, columns),
                                     bytes + fp6_second_plane(rows, columns)};
  const auto type = dense.scalar_type();
  if (type != at::kFloat && type != at::kHalf) {
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
  ORRERY_ASSERT(nb % SBS == 0);
  if (type == at::kFloat) {
    submit_blocks<Kernel<float, SBS>, float>(f, planes, dense, nb / SBS);
  } else {
    submit_blocks<Kernel<c10::Half, SBS>, c10::Half>(f, planes, dense, nb / SBS);
  }
  return dense;
}

}  // namespace

at::Tensor dequantize_q4_0(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_q4_0_kernel, 8>({weight_format::q4_0, "dequantize_q4_0", "dequantize q4_0"}, weight, dense);
}

// The record has the other format's name.
at::Tensor dequantize_q4_1(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_q4_1_kernel, 8>({weight_format::q4_1, "dequantize_q4_1", "dequantize q4_0"}, weight, dense);
}

at::Tensor dequantize_q8_0(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_q8_0_kernel, 4>({weight_format::q8_0, "dequantize_q8_0", "dequantize q8_0"}, weight, dense);
}

at::Tensor dequantize_fp4(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_fp4_kernel, 8>({weight_format::fp4, "dequantize_fp4", "dequantize fp4"}, weight, dense);
}

at::Tensor dequantize_fp6(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_fp6_kernel, 8>({weight_format::fp6, "dequantize_fp6", "dequantize fp6", true}, weight, dense);
}

at::Tensor dequantize_fp8_e5m2(const at::Tensor& weight, const at::Tensor& dense) {
  return fill<dequantize_fp8_e5m2_kernel, 4>({weight_format::fp8_e5m2, "dequantize_fp8_e5m2", "dequantize fp8 e5m2"},
                                             weight, dense);
}

at::Tensor dequantize(weight_format format, const at::Tensor& weight, const at::Tensor& dense) {
  switch (format) {
    case weight_format::q4_0:
      return dequantize_q4_0(weight, dense);
    case weight_format::q4_1:
      return dequantize_q4_1(weight, dense);
    case weight_format::q8_0:
      return dequantize_q8_0(weight, dense);
    case weight_format::fp4:
      return dequantize_fp4(weight, dense);
    case weight_format::fp8_e5m2:
      return dequantize_fp8_e5m2(weight, dense);
    case weight_format::fp6:
      return dequantize_fp6(weight, dense);
    default:
      throw std::runtime_error("unsupported qtype: " + std::to_string(code_of(format)));
  }
}

}  // namespace orrery
