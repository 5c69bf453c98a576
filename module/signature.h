// Binds plain functions with fixed type names in their signatures, whatever names the installed binding library uses.
#pragma once

#include <torch/csrc/utils/pybind.h>

#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace orrery {

template <typename T>
struct signature_text;  // defined for the types with a fixed name

template <>
struct signature_text<int32_t> {
  static constexpr auto name = pybind11::detail::const_name("int");
};
template <>
struct signature_text<int64_t> : signature_text<int32_t> {};
template <>
struct signature_text<float> {
  static constexpr auto name = pybind11::detail::const_name("float");
};
template <>
struct signature_text<double> : signature_text<float> {};
template <>
struct signature_text<std::optional<at::Tensor>> {
  static constexpr auto name = pybind11::detail::const_name("Optional[torch.Tensor]");
};
template <>
struct signature_text<std::vector<at::Tensor>> {
  static constexpr auto name = pybind11::detail::const_name("List[torch.Tensor]");
};
template <>
struct signature_text<std::vector<std::vector<std::vector<int>>>> {
  static constexpr auto name = pybind11::detail::const_name("List[List[List[int]]]");
};

// A value whose type has a fixed name in a signature.
template <typename T>
struct named {
  T value;
};

template <typename T>
T& unwrap(T& value) {
  return value;
}

template <typename T>
T& unwrap(named<T>& argument) {
  return argument.value;
}

template <typename T, typename = void>
struct bound_type {
  using type = T;
};

template <typename T>
struct bound_type<T, std::void_t<decltype(signature_text<std::decay_t<T>>::name)>> {
  using type = named<std::decay_t<T>>;
};

template <typename T>
using bound_t = typename bound_type<T>::type;

// Registers one function; `extra` is its docstring and, if there are any, the arguments' names.
template <typename Result, typename... Arguments, typename... Extra>
void bind_operation(pybind11::module_& m, const char* name, Result (*function)(Arguments...), const Extra&... extra) {
  m.def(
      name,
      [function](bound_t<Arguments>... arguments) -> bound_t<Result> {
        if constexpr (std::is_same_v<bound_t<Result>, Result>) {
          return function(unwrap(arguments)...);
        } else {
          return {function(unwrap(arguments)...)};
        }
      },
      extra...);
}

}  // namespace orrery

namespace pybind11::detail {

template <typename T>
struct type_caster<orrery::named<T>> {
  static constexpr auto name = orrery::signature_text<T>::name;
  template <typename>
  using cast_op_type = orrery::named<T>;

  bool load(handle source, bool convert) { return inner_.load(source, convert); }
  operator orrery::named<T>() { return {cast_op<T>(std::move(inner_))}; }

  static handle cast(orrery::named<T>&& source, return_value_policy policy, handle parent) {
    return make_caster<T>::cast(std::move(source.value), policy, parent);
  }

 private:
  make_caster<T> inner_;
};

}  // namespace pybind11::detail
