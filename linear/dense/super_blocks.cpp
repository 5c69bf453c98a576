#include "linear/dense/super_blocks.h"

#include "formats/grid.h"
#include "formats/super_block.h"
#include "includes/item.h"
#include "linear/launch.h"

namespace orrery {
namespace {

// How elements of a block are distributed: the k-th of work-item l is `element(l, k)`.
struct four_apart {  // one byte of 2-bit codes
  static constexpr int work_group = 64;
  static constexpr int element(int l, int k) { return 128 * (l / 32) + l % 32 + 32 * k; }
};
template <int WG>
struct nibble_runs {  // a run of bytes: the low nibbles, then the high ones
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

// A work-group writes a block; on the host a sub-group writes one contiguous part of it.
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
  static constexpr int dimensions = 1;

  const uint8_t* weight = nullptr;
  T* dense = nullptr;

  void bind(const linear_decision&, const linear_operands& on, sycl::handler&) {
    weight = on.weight;
    dense = static_cast<T*>(on.y);
  }

  template <typename Item>
  void operator()(const Item& item) const {
    const uint64_t block = item.group();
    this->write(item, weight + block * Format::bytes, dense + block * 256);
  }
};

// An index has nb_row work-groups; the k-th writes the k-th block of the row that the index names.
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

}  // namespace

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

template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q2_k>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q4_k>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q5_k>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_q6_k>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_iq2_xxs>;
template linear_launcher launch_kernel<qlinear_xpu_dequantize_kernel_iq1_s>;

namespace {

template <typename Kernel>
void launch_indexed(const indexed_rows& rows, const char* function) {
  const sycl::nd_range<1> range(rows.indexes * rows.nb_row * Kernel::work_group, Kernel::work_group);
  launch(rows.device, range, {"linear_xpu_kernel", function}, [&](sycl::handler&) {
    Kernel kernel;
    kernel.index = rows.index;
    kernel.nb_row = rows.nb_row;
    kernel.weight = rows.weight;
    kernel.dense = rows.dense;
    return kernel;
  });
}

struct indexed_row {
  weight_format format;
  const char* kernel;
  void (*launch)(const indexed_rows& rows, const char* function);
};

constexpr indexed_row indexed[] = {
    {weight_format::q2_k, "xpu_dequantize_rows_kernel_q2_k", launch_indexed<xpu_dequantize_rows_kernel_q2_k>},
    {weight_format::q4_k, "xpu_dequantize_rows_kernel_q4_k", launch_indexed<xpu_dequantize_rows_kernel_q4_k>},
};

}  // namespace

bool has_rows_dequantize(weight_format format) { return find_format(indexed, format) != nullptr; }

void launch_dequantize_rows(weight_format format, const indexed_rows& rows) {
  if (const indexed_row* row = find_format(indexed, format)) row->launch(rows, row->kernel);
}

}  // namespace orrery
