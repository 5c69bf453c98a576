// bmm: a plain batched matrix product of floats, one work-item per element of the result.
#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

#include <cstdint>

#include "module/operations.h"
#include "utils.h"

namespace orrery {
namespace {

struct MatrixMultiplication {
  uint64_t K;
  const float* a;
  uint64_t a_batch;
  const float* b;
  uint64_t b_batch;
  uint64_t N;
  float* c;
  uint64_t c_batch;

  void operator()(const sycl::item<3>& item) const {
    const uint64_t batch = item.get_id(0), i = item.get_id(1), j = item.get_id(2);
    const uint64_t row = batch * a_batch + i * K, column = batch * b_batch + j;
    float sum = 0.0f;
    for (uint32_t l = 0; l < K; ++l) sum = sum + a[row + l] * b[column + l * N];
    c[batch * c_batch + i * N + j] = sum;
  }
};

void check(bool holds, uint32_t line, const char* text) {
  if (!holds) c10::detail::torchCheckFail("bmm_xpu", "bmm_xpu_kernel", line, text);
}

}  // namespace

at::Tensor bmm_xpu(const at::Tensor& A, const at::Tensor& B, const at::Tensor& C) {
  check(A.dim() == 3 && B.dim() == 3, 10, "Input tensors must have 3 dimensions");
  check(A.size(0) == B.size(0) && A.size(2) == B.size(1), 11,
        "Input tensors dimensions do not match for batch multiplication");
  const uint64_t batch = A.size(0), M = A.size(1), K = A.size(2), N = B.size(2);
  const float* a = A.data_ptr<float>();
  const float* b = B.data_ptr<float>();
  float* c = C.data_ptr<float>();
  submit(c10::Device(c10::DeviceType::XPU, -1), {"bmm_xpu_kernel", "bmm_xpu", 48, 5}, [&](sycl::handler& h) {
    const sycl::stream out(8192, 1024, h);  // part of the launch, but nothing is written to it
    h.parallel_for(sycl::range<3>(batch, M, N), MatrixMultiplication{K, a, M * K, b, K * N, N, c, M * N});
  });
  return C;
}

}  // namespace orrery
