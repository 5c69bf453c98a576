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

template <typename T, typename M, int HD>
struct split : std::type_identity<with_mask::sdp_kernel<T, M, sdp_group, HD>> {};
template <typename T, int HD>
struct split<T, no_mask, HD> : std::type_identity<sdp_kernel<T, sdp_group, HD>> {};

struct kernels {
  template <typename T, typename M, int HD>
  using sdp = typename split<T, M, HD>::type;
  template <typename T, int HD>
  using causal = sdp_causal_kernel<T, causal_group, HD>;
};

}  // namespace

void launch_sdp(const attention_call& c) { choose_split<kernels>(c); }
void launch_sdp_causal(const attention_call& c) { choose_causal<kernels>(c); }

}  // namespace orrery
