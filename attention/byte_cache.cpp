// The kernels over caches of one byte per element. The codes are decoded to half, which also multiplies queries and
// keys, but for the causal kernel of float: its rows in local memory are floats.
#include "attention/coded_rows.h"
#include "attention/launch.h"

namespace orrery {
namespace {

template <typename T, typename M, int HD>
using split_body = sdp_body<T, c10::Half, M, coded_keys<HD>, coded_values<HD>, HD>;

template <typename T, int Group, int HD>
struct sdp_fp8_kernel : split_body<T, no_mask, HD> {};

namespace with_mask {
template <typename T, typename M, int Group, int HD>
struct sdp_fp8_kernel : split_body<T, M, HD> {};
}  // namespace with_mask

template <typename T, int Group, int HD>
struct sdp_fp8_causal_kernel : sdp_causal_body<T, coded_keys<HD>, coded_values<HD>, HD> {};

using kernels = attention_kernels<sdp_fp8_kernel, with_mask::sdp_fp8_kernel, sdp_fp8_causal_kernel>;

}  // namespace

void launch_sdp_fp8(const attention_call& c) { choose_split<kernels>(c); }
void launch_sdp_fp8_causal(const attention_call& c) { choose_causal<kernels>(c); }

}  // namespace orrery
