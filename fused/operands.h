// What the fused kernels work on. Pointers without a type are to elements of `type`.
#pragma once

#include <c10/core/Device.h>
#include <c10/core/ScalarType.h>

#include <cstdint>

#include "linear/dispatch.h"

namespace orrery {

// One of the projections of a launch: its weight, and where its rows land. Element i of head h goes to
// out[h * head_stride + seq_offset + i].
struct projection {
  const uint8_t* weight = nullptr;
  const void* bias = nullptr;
  void* out = nullptr;
  uint32_t scale_offset = 0;
  uint64_t output_size = 0;
  uint64_t seq_offset = 0, head_stride = 0;
};

// What becomes of the products of a launch: query, key and value are turned and stored head by head.
struct projections {
  enum { query, key, value };
  projection of[3];
  uint64_t head_size = 0;
  uint32_t half_head = 0;
  const int64_t* position_ids = nullptr;
  float theta = 0;

  // A group has two rows, so behind the groups of these rows there is none. A group of no pair costs little then: with
  // grouped heads they are most.
  bool is_beyond(uint64_t p, uint64_t group) const { return 2 * group + 1 >= of[p].output_size; }
};

struct projection_operands {
  c10::ScalarType type = c10::ScalarType::Float;
  uint64_t state_size = 0;
  const void* x = nullptr;  // the input, or its q8_1 blocks where the decision says so
  bool has_bias = false;
  projections to;
  c10::Device device{c10::DeviceType::XPU};
};

// act(gate x) * (up x); SiLU for an act_type of 0, else a form of GELU.
struct gated_operands {
  c10::ScalarType type = c10::ScalarType::Float;
  uint64_t state_size = 0;
  uint64_t output_size = 0;
  const uint8_t *gate = nullptr, *up = nullptr;
  const void* x = nullptr;  // as above
  int32_t act_type = 0;
  void* result = nullptr;
  c10::Device device{c10::DeviceType::XPU};
};

// Submit the kernel of a decision.
using projection_launcher = void(const linear_decision& way, const projection_operands& on);
using gated_launcher = void(const linear_decision& way, const gated_operands& on);

// Of all kernels with an instance per type, the first of them with one for projections with a bias too.
template <template <typename, int, int, bool> typename Kernel, int SG, int WG>
projection_launcher launch_projections;
template <template <typename, int, int> typename Kernel, int SG, int WG>
projection_launcher launch_dot_projections;
template <template <typename, int...> typename Kernel, int... Shape>
gated_launcher launch_gated;

}  // namespace orrery
