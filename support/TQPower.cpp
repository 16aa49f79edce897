#include "support/TQPower.h"

#include <cfloat>
#include <cmath>

#include "support/TQMV.h"

namespace TQPower {

// log(DBL_MAX) and log(DBL_MIN), rounded toward the inside of the range so that exp() of either
// bound is still a finite, normal double.
const double gMachineMaxExp = 709.782712893383973;
const double gMachineMinExp = -708.396418532264079;

namespace {

inline bool IsIntegral(double y) noexcept { return std::trunc(y) == y; }

}  // namespace

bool Power(double x, double y, double& result) {
  result = TQMV::Missing;
  if (TQMV::IsMissingOrInfinite(x) || TQMV::IsMissingOrInfinite(y)) return false;
  if (x < 0.0 && !IsIntegral(y)) return false;  // no real root
  if (x == 0.0 && y < 0.0) return false;        // pole
  // Exponents 1 and 0 need no call of pow: x and 1 are exactly what it returns for them. (Not
  // so for 2: pow's square differs from the correctly rounded x*x in the last place for about
  // one argument in a thousand, and results must not move.)
  if (y == 1.0) {
    result = x;
    return true;
  }
  if (y == 0.0) {
    result = 1.0;
    return true;
  }
  const double r = std::pow(x, y);
  if (!std::isfinite(r)) return false;          // overflow
  result = r;
  return true;
}

double Exponent(double x) {
  if (TQMV::IsMissing(x) || x > gMachineMaxExp) return TQMV::Missing;
  if (x < gMachineMinExp) return 0.0;
  return std::exp(x);
}

double Multiply(double a, double b) {
  if (TQMV::IsMissingOrInfinite(a) || TQMV::IsMissingOrInfinite(b)) return TQMV::Missing;
  const double r = a * b;
  return std::isfinite(r) ? r : TQMV::Missing;
}

bool AlmostEqual(double a, double b, double ulps) {
  if (a == b) return true;  // also covers +0 / -0
  if (std::isnan(a) || std::isnan(b) || std::isinf(a) || std::isinf(b)) return false;
  const double aa = std::fabs(a);
  const double ab = std::fabs(b);
  // Values below the smallest normal carry no reliable relative precision: treat them as zero.
  if (aa < DBL_MIN && ab < DBL_MIN) return true;
  const double m = aa > ab ? aa : ab;
  // Spacing of doubles at the larger magnitude (one unit in the last place).
  const double ulp = (m == DBL_MAX) ? m - std::nextafter(m, 0.0) : std::nextafter(m, DBL_MAX) - m;
  return std::fabs(a - b) <= ulps * ulp;
}

}  // namespace TQPower
