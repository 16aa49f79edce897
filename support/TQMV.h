#pragma once
// The missing-value marker. Every number that cannot be computed is this marker, and every
// caller tests for it. A NaN handed in from outside counts as missing too, so that a NaN
// never enters the arithmetic: test with IsMissing, never compare with Missing directly.
#include <cfloat>
#include <cmath>

namespace TQMV {
inline constexpr double Missing = -DBL_MAX;

inline bool IsMissing(double x) noexcept { return x == Missing || std::isnan(x); }

// Missing, NaN or an infinity: a value that cannot take part in any computation.
inline bool IsMissingOrInfinite(double x) noexcept { return IsMissing(x) || std::isinf(x); }
}  // namespace TQMV
