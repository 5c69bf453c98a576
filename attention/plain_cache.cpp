// The kernels over caches of the query's type.
#include "attention/launch.h"

namespace orrery {
namespace {

template <typename T, typename M, int HD>
using split_body = sdp_body<T, T, M, plain_rows<T, HD>, plain_rows<T, HD>, HD>;

template <typename T, int Group, int HD>
struct sdp_kernel : split_body<T, no_mask, HD> {};

namespace with_mask {
template <typename T, typename M, int Group, int HD>
struct sdp_kernel : split_body<T, M, HD> {};
}  // namespace with_mask

template <typename T, int Group, int HD>
struct sdp_causal_kernel : sdp_causal_body<T, plain_rows<T, HD>, plain_rows<T, HD>, HD> {};

using kernels = attention_kernels<sdp_kernel, with_mask::sdp_kernel, sdp_causal_kernel>;

}  // namespace

void launch_sdp(const attention_call& c) { choose_split<kernels>(c); }
void launch_sdp_causal(const attention_call& c) { choose_causal<kernels>(c); }

}  // namespace orrery
