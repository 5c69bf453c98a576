// range, id, nd_range.
#pragma once

#include <array>
#include <cstddef>

namespace sycl {

namespace detail {
template <int D>
struct index {
  static_assert(D >= 1 && D <= 3);
  std::array<size_t, D> at{};

  size_t get(int d) const { return at[d]; }
  size_t& operator[](int d) { return at[d]; }
  size_t operator[](int d) const { return at[d]; }
  bool operator==(const index&) const = default;
};
}  // namespace detail

template <int D = 1>
struct range : detail::index<D> {
  range() = default;
  template <typename... N>
  range(N... n) requires(sizeof...(N) == D) : detail::index<D>{{static_cast<size_t>(n)...}} {}
  size_t size() const {
    size_t n = 1;
    for (size_t d : this->at) n *= d;
    return n;
  }
};
range(size_t)->range<1>;
range(size_t, size_t)->range<2>;
range(size_t, size_t, size_t)->range<3>;

template <int D = 1>
struct id : detail::index<D> {
  id() = default;
  template <typename... N>
  id(N... n) requires(sizeof...(N) == D) : detail::index<D>{{static_cast<size_t>(n)...}} {}
};

template <int D = 1>
class nd_range {
 public:
  nd_range(range<D> global, range<D> local) : global_(global), local_(local) {}
  range<D> get_global_range() const { return global_; }
  range<D> get_local_range() const { return local_; }
  range<D> get_group_range() const {
    range<D> groups;
    for (int d = 0; d < D; ++d) groups[d] = local_[d] ? global_[d] / local_[d] : 0;
    return groups;
  }

 private:
  range<D> global_, local_;
};

}  // namespace sycl
