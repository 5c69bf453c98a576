#include "linear/dense/super_blocks.h"

#include "formats/grid.h"
#include "formats/super_block.h"
#include "includes/item.h"
#include "linear/one_row/row_kernel.h"
#include "utils.h"

namespace orrery {
namespace {

// Which elements of a block a work-item writes: its k-th is `element(l, k)`.
struct four_apart {  // one byte of 2-bit codes
  static constexpr int work_group = 64;
  static constexpr int element(int l, int k) { return 128 * (l / 32) + l % 32 + 32 * k; }
};
template <int WG>
struct nibble_runs {  // a run of bytes: the elements of the low nibbles, then those of the high ones
  static constexpr int work_group = WG;
  static constexpr int run = 128 / WG;
  static constexpr int element(int l, int k) {
    return 64 * (l / (WG / 4)) + run * (l % (WG / 4)) + k % run + 32 * (k / run);
  }
};
struct grid_group {
  static constexpr int work_group = 32;
  static constexpr int element(int l, int k) { return 32 * (l % 8) + 8 * (l / 8) + k; }
};

// A work-group writes a block; a whole sub-group on the host writes one stretch of it.
template <typename Format, typename Split, typename T>
struct block_values {
  static constexpr int sub_group_size = 32;
  static constexpr bool has_barriers = false;
  static constexpr int work_group = Split::work_group;

  template <typename Item>
  static void write(const Item& item, const uint8_t* block, T* dense) {
    constexpr int N = Item::lanes, per_item = 256 / work_group;
    const int l = static_cast<int>(item.local_linear());
    if constexpr (N == 1) {
      for (int k = 0; k < per_item; ++k) {
        const int e = Split::element(l, k);
        convert<T>(simd<float, 1>(Format::value(block, e))).store(dense + e);
      }
    } else {
      constexpr int stretches = per_item * N / 16;
      const int first = l * per_item / 16;
      ORRERY_UNROLL for (int h = 0; h < stretches; ++h) {
        convert<T>(Format::values(block, first + h)).store(dense + 16 * (first + h));
      }
    }
  }
};

template <typename Format, typename Split, typename T>
struct dequantize_kernel : block_values<Format, Split, T> {
  const uint8_t* weight;
  T* dense;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t block = item.group();
    this->write(item, weight + block * Format::bytes, dense + block * 256);
  }
};

// The k-th group of an index's nb_row groups takes the k-th block of the row that the index names.
template <typename Format, typename Split>
struct dequantize_rows_kernel : block_values<Format, Split, float> {
  const int64_t* index;
  uint64_t nb_row;
  const uint8_t* weight;
  float* dense;

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t group = item.group();
    const uint64_t block = group % nb_row + static_cast<uint64_t>(index[group / nb_row]) * nb_row;
    this->write(item, weight + block * Format::bytes, dense + group * 256);
  }
};

using formats::iq1_s, formats::iq2_xxs, formats::q2_k, formats::q4_k, formats::q5_k, formats::q6_k;

template <typename T>
struct qlinear_xpu_dequantize_kernel_q2_k : dequantize_kernel<q2_k, four_apart, T> {};
template <typename T>
struct qlinear_xpu_dequantize_kernel_q4_k : dequantize_kernel<q4_k, nibble_runs<32>, T> {};
template <typename T>
struct qlinear_xpu_dequantize_kernel_q5_k : dequantize_kernel<q5_k, nibble_runs<64>, T> {};
template <typename T>
struct qlinear_xpu_dequantize_kernel_q6_k : dequantize_kernel<q6_k, four_apart, T> {};
template <typename T>
struct qlinear_xpu_dequantize_kernel_iq2_xxs : dequantize_kernel<iq2_xxs, grid_group, T> {};
template <typename T>
struct qlinear_xpu_dequantize_kernel_iq1_s : dequantize_kernel<iq1_s, grid_group, T> {};

struct xpu_dequantize_rows_kernel_q2_k : dequantize_rows_kernel<q2_k, four_apart> {};
struct xpu_dequantize_rows_kernel_q4_k : dequantize_rows_kernel<q4_k, nibble_runs<32>> {};

template <typename Kernel>
void launch_groups(uint64_t groups, const Kernel& kernel, c10::Device device, const char* function, bool wait) {
  launch(
      device, sycl::nd_range<1>(groups * Kernel::work_group, Kernel::work_group), {"linear_xpu_kernel", function},
      [&](sycl::handler&) { return kernel; }, default_record, wait);
}

struct blocks_launch {
  uint64_t blocks;
  const uint8_t* weight;
  void* dense;
  c10::Device device;
  bool wait;
};

template <template <typename> typename Kernel>
void launch_blocks(c10::ScalarType type, const blocks_launch& a, const char* function) {
  with_value_type(type, [&](auto t) {
    using T = decltype(t);
    Kernel<T> kernel;
    kernel.weight = a.weight;
    kernel.dense = static_cast<T*>(a.dense);
    launch_groups(a.blocks, kernel, a.device, function, a.wait);
  });
}

struct row {
  weight_format format;
  void (*launch)(c10::ScalarType, const blocks_launch&, const char*);
  const char* name;
};

constexpr row rows[] = {
    {weight_format::iq2_xxs, launch_blocks<qlinear_xpu_dequantize_kernel_iq2_xxs>,
     "qlinear_xpu_dequantize_kernel_iq2_xxs"},
    {weight_format::q2_k, launch_blocks<qlinear_xpu_dequantize_kernel_q2_k>, "qlinear_xpu_dequantize_kernel_q2_k"},
    {weight_format::iq1_s, launch_blocks<qlinear_xpu_dequantize_kernel_iq1_s>, "qlinear_xpu_dequantize_kernel_iq1_s"},
    {weight_format::q6_k, launch_blocks<qlinear_xpu_dequantize_kernel_q6_k>, "qlinear_xpu_dequantize_kernel_q6_k"},
    {weight_format::q4_k, launch_blocks<qlinear_xpu_dequantize_kernel_q4_k>, "qlinear_xpu_dequantize_kernel_q4_k"},
    {weight_format::q5_k, launch_blocks<qlinear_xpu_dequantize_kernel_q5_k>, "qlinear_xpu_dequantize_kernel_q5_k"},
};

template <typename Kernel>
void launch_indexed(const int64_t* index, uint64_t indexes, uint64_t nb_row, const void* weight, float* dense,
                    c10::Device device, const char* function) {
  Kernel kernel;
  kernel.index = index;
  kernel.nb_row = nb_row;
  kernel.weight = static_cast<const uint8_t*>(weight);
  kernel.dense = dense;
  launch_groups(indexes * nb_row, kernel, device, function, false);
}

}  // namespace

void launch_dequantize_blocks(weight_format format, c10::ScalarType type, uint64_t output_size, uint64_t state_size,
                              const void* weight, void* dense, c10::Device device, bool wait) {
  const blocks_launch a{output_size * state_size >> 8, static_cast<const uint8_t*>(weight), dense, device, wait};
  for (const row& r : rows) {
    if (r.format == format) return r.launch(type, a, r.name);
  }
}

bool has_rows_dequantize(weight_format format) {
  return format == weight_format::q2_k || format == weight_format::q4_k;
}

void launch_dequantize_rows(weight_format format, const int64_t* index, uint64_t indexes, uint64_t nb_row,
                            const void* weight, float* dense, c10::Device device) {
  if (format == weight_format::q2_k) {
    launch_indexed<xpu_dequantize_rows_kernel_q2_k>(index, indexes, nb_row, weight, dense, device,
                                                    "xpu_dequantize_rows_kernel_q2_k");
  } else if (format == weight_format::q4_k) {
    launch_indexed<xpu_dequantize_rows_kernel_q4_k>(index, indexes, nb_row, weight, dense, device,
                                                    "xpu_dequantize_rows_kernel_q4_k");
  }
}

}  // namespace orrery
