// fmt's functions for another ABI: its package has them as a library of the build machine's alone.
// With FMT_HEADER_ONLY every file that formats would compile them again.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template dragonbox::decimal_fp<float> dragonbox::to_decimal(float) noexcept;
template dragonbox::decimal_fp<double> dragonbox::to_decimal(double) noexcept;
template locale_ref::locale_ref(const std::locale&);
template std::locale locale_ref::get() const;
template thousands_sep_result<char> thousands_sep_impl(locale_ref);
template char decimal_point_impl(locale_ref);

}  // namespace detail
FMT_END_NAMESPACE
