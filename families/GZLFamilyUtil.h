#pragma once
// Small helpers shared by the family function objects: every value they hand out is either a
// finite number or the missing value, never an infinity or a NaN.
#include "support/TQMV.h"

namespace GZLFamilyUtil {

// x itself when it is a usable number, else the missing value.
inline double Checked(double x) noexcept { return TQMV::IsMissingOrInfinite(x) ? TQMV::Missing : x; }

// Adds a record's term to a running sum and returns the new sum. A missing sum stays missing
// for the rest of the pass; a term that is not a usable number leaves the sum as it is and
// comes back as missing, as does a sum that would overflow.
inline double AddTerm(double& sum, double term) noexcept {
  if (TQMV::IsMissingOrInfinite(sum) || TQMV::IsMissingOrInfinite(term)) return TQMV::Missing;
  const double s = sum + term;
  if (TQMV::IsMissingOrInfinite(s)) return TQMV::Missing;
  sum = s;
  return sum;
}

}  // namespace GZLFamilyUtil
