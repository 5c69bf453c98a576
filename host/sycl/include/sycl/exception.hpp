// exception and its error codes.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "ext.hpp"

namespace sycl {

enum class errc { success, runtime, kernel, nd_range, invalid, feature_not_supported, memory_allocation };

ORRERY_SYCL_API const std::error_category& sycl_category() noexcept;

inline std::error_code make_error_code(errc e) noexcept { return {static_cast<int>(e), sycl_category()}; }

class ORRERY_SYCL_API exception : public std::exception {
 public:
  exception(std::error_code code, const std::string& what) : code_(code), what_(what) {}
  const std::error_code& code() const noexcept { return code_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::error_code code_;
  std::string what_;
};

}  // namespace sycl

template <>
struct std::is_error_code_enum<sycl::errc> : std::true_type {};
