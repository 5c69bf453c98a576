// A kernel's name for the launch's record, taken from the identifier itself so that it is typed nowhere as text.
#pragma once

#include <array>
#include <string_view>

namespace orrery {

namespace detail {

// `text` is a function's own, with "Kernel = " before the identifier.
struct name_in_text {
  size_t begin, end;
  consteval explicit name_in_text(std::string_view text) : end(text.find_first_of(";]<", text.find("Kernel = "))) {
    begin = text.find_last_of(" :", end) + 1;
  }
};
template <size_t Size>
consteval auto cut_out(std::string_view text, size_t begin) {
  std::array<char, Size + 1> name{};
  for (size_t i = 0; i < Size; ++i) name[i] = text[begin + i];
  return name;
}

template <template <typename, int...> typename Kernel>
consteval auto spelled_name() {
  constexpr std::string_view text = __PRETTY_FUNCTION__;
  constexpr name_in_text name(text);
  return cut_out<name.end - name.begin>(text, name.begin);
}
template <typename Kernel>
consteval auto spelled_name() {
  constexpr std::string_view text = __PRETTY_FUNCTION__;
  constexpr name_in_text name(text);
  return cut_out<name.end - name.begin>(text, name.begin);
}
template <template <typename, int...> typename Kernel>
inline constexpr auto spelled = spelled_name<Kernel>();
template <typename Instance>
inline constexpr auto spelled_of = spelled_name<Instance>();

}  // namespace detail

template <template <typename, int...> typename Kernel>
inline constexpr const char* kernel_name = detail::spelled<Kernel>.data();

// Of one instance, for kernels whose arguments are not all integers.
template <typename Instance>
inline constexpr const char* kernel_name_of = detail::spelled_of<Instance>.data();

}  // namespace orrery
