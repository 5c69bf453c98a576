// A kernel's name for the launch's record, taken from the identifier itself so that it is typed nowhere as text.
#pragma once

#include <array>
#include <string_view>

namespace orrery {

namespace detail {

template <template <typename, int...> typename Kernel>
consteval auto spelled_name() {
  constexpr std::string_view text = __PRETTY_FUNCTION__;
  constexpr auto end = text.find_first_of(";]", text.find("Kernel = "));
  constexpr auto begin = text.find_last_of(" :", end) + 1;
  std::array<char, end - begin + 1> name{};
  for (size_t i = begin; i < end; ++i) name[i - begin] = text[i];
  return name;
}
template <template <typename, int...> typename Kernel>
inline constexpr auto spelled = spelled_name<Kernel>();

}  // namespace detail

template <template <typename, int...> typename Kernel>
inline constexpr const char* kernel_name = detail::spelled<Kernel>.data();

}  // namespace orrery
