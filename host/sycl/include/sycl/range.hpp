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
};

// What range and id have in common. Only this runtime sees the array.
template <int D>
class extent {
 public:
  static constexpr int dimensions = D;

  size_t get(int d) const { return all_.at[d]; }
  size_t& operator[](int d) { return all_.at[d]; }
  size_t operator[](int d) const { return all_.at[d]; }

  friend const std::array<size_t, D>& array_of(const extent& e) { return e.all_.at; }

 protected:
  explicit extent(const index<D>& all) : all_(all) {}
  bool is(const extent& other) const { return all_.at == other.all_.at; }

 private:
  index<D> all_;
};

}  // namespace detail

// As in the standard, a range has no default constructor.
template <int D = 1>
class range : public detail::extent<D> {
 public:
  range(size_t a) requires(D == 1) : range(detail::index<D>{{a}}) {}
  range(size_t a, size_t b) requires(D == 2) : range(detail::index<D>{{a, b}}) {}
  range(size_t a, size_t b, size_t c) requires(D == 3) : range(detail::index<D>{{a, b, c}}) {}
  explicit range(const detail::index<D>& all) : detail::extent<D>(all) {}
  size_t size() const {
    size_t n = 1;
    for (size_t d : array_of(*this)) n *= d;
    return n;
  }
  friend bool operator==(const range& a, const range& b) { return a.is(b); }
};
range(size_t)->range<1>;
range(size_t, size_t)->range<2>;
range(size_t, size_t, size_t)->range<3>;

template <int D = 1>
class id : public detail::extent<D> {
 public:
  id() : id(detail::index<D>{}) {}
  id(size_t a) requires(D == 1) : id(detail::index<D>{{a}}) {}
  id(size_t a, size_t b) requires(D == 2) : id(detail::index<D>{{a, b}}) {}
  id(size_t a, size_t b, size_t c) requires(D == 3) : id(detail::index<D>{{a, b, c}}) {}
  explicit id(const detail::index<D>& all) : detail::extent<D>(all) {}
  friend bool operator==(const id& a, const id& b) { return a.is(b); }
};

template <int D = 1>
class nd_range {
 public:
  nd_range(range<D> global, range<D> local) : global_(global), local_(local) {}
  range<D> get_global_range() const { return global_; }
  range<D> get_local_range() const { return local_; }
  range<D> get_group_range() const {
    detail::index<D> groups;
    for (int d = 0; d < D; ++d) groups.at[d] = local_[d] ? global_[d] / local_[d] : 0;
    return range<D>(groups);
  }

 private:
  range<D> global_, local_;
};

}  // namespace sycl
