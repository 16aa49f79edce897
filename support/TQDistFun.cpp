#include "support/TQDistFun.h"

#include <cmath>
#include <exception>

#include <boost/math/distributions/chi_squared.hpp>
#include <boost/math/distributions/fisher_f.hpp>
#include <boost/math/distributions/normal.hpp>
#include <boost/math/distributions/students_t.hpp>
#include <boost/math/special_functions/digamma.hpp>
#include <boost/math/special_functions/gamma.hpp>
#include <boost/math/special_functions/trigamma.hpp>

#include "support/TQMV.h"

namespace {

// Every error condition is reported through the return value (NaN or an infinity), which is
// mapped to the missing value below; nothing is thrown, and doubles are not promoted so that the
// results match the plain double arithmetic of the rest of the engine.
using namespace boost::math::policies;
using QuietPolicy =
    policy<domain_error<ignore_error>, pole_error<ignore_error>, overflow_error<ignore_error>,
           underflow_error<ignore_error>, denorm_error<ignore_error>, evaluation_error<ignore_error>,
           rounding_error<ignore_error>, indeterminate_result_error<ignore_error>,
           promote_float<false>, promote_double<false>>;

using ChiSq = boost::math::chi_squared_distribution<double, QuietPolicy>;
using FisherF = boost::math::fisher_f_distribution<double, QuietPolicy>;
using StudentT = boost::math::students_t_distribution<double, QuietPolicy>;
using Normal = boost::math::normal_distribution<double, QuietPolicy>;

inline bool Bad(double x) noexcept { return TQMV::IsMissingOrInfinite(x); }

// A finite result, or missing.
inline double Checked(double r) noexcept { return std::isfinite(r) ? r : TQMV::Missing; }

// Probabilities are clipped into [0, 1]: series near the tails may overshoot by an ulp, and a
// significance computed as 1 - P must never come out negative.
inline double CheckedProb(double r) noexcept {
  if (!std::isfinite(r)) return TQMV::Missing;
  return r < 0.0 ? 0.0 : (r > 1.0 ? 1.0 : r);
}

inline bool ValidDf(double df) noexcept { return !Bad(df) && df > 0.0; }
inline bool ValidP(double p) noexcept { return !Bad(p) && p >= 0.0 && p <= 1.0; }

// Is x a pole of the gamma family (0, -1, -2, ...)?
inline bool IsGammaPole(double x) noexcept { return x <= 0.0 && std::trunc(x) == x; }

}  // namespace

namespace TQDistFun {

// The distribution functions are defined on the whole real line: below the support they are 0.
// A statistic that came out a rounding error below 0 therefore has significance 1.

double CdfChi(double x, double df) {
  if (Bad(x) || !ValidDf(df)) return TQMV::Missing;
  if (x <= 0.0) return 0.0;
  try {
    return CheckedProb(boost::math::cdf(ChiSq(df), x));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double CdfF(double x, double df1, double df2) {
  if (Bad(x) || !ValidDf(df1) || !ValidDf(df2)) return TQMV::Missing;
  if (x <= 0.0) return 0.0;
  try {
    return CheckedProb(boost::math::cdf(FisherF(df1, df2), x));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double SfChi(double x, double df) {
  if (Bad(x) || !ValidDf(df)) return TQMV::Missing;
  if (x <= 0.0) return 1.0;
  try {
    return CheckedProb(boost::math::cdf(boost::math::complement(ChiSq(df), x)));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double SfF(double x, double df1, double df2) {
  if (Bad(x) || !ValidDf(df1) || !ValidDf(df2)) return TQMV::Missing;
  if (x <= 0.0) return 1.0;
  try {
    return CheckedProb(boost::math::cdf(boost::math::complement(FisherF(df1, df2), x)));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double CdfT(double x, double df) {
  if (Bad(x) || !ValidDf(df)) return TQMV::Missing;
  try {
    return CheckedProb(boost::math::cdf(StudentT(df), x));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double CdfStdNorm(double x) {
  if (Bad(x)) return TQMV::Missing;
  // Phi(x) = erfc(-x / sqrt 2) / 2 keeps full relative precision in the lower tail.
  return CheckedProb(0.5 * std::erfc(-x * 0.70710678118654752440));
}

double IdfChi(double p, double df) {
  if (!ValidP(p) || !ValidDf(df)) return TQMV::Missing;
  if (p == 0.0) return 0.0;
  if (p == 1.0) return TQMV::Missing;  // the quantile is infinite
  try {
    return Checked(boost::math::quantile(ChiSq(df), p));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double IdfT(double p, double df) {
  if (!ValidP(p) || !ValidDf(df) || p == 0.0 || p == 1.0) return TQMV::Missing;
  try {
    return Checked(boost::math::quantile(StudentT(df), p));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double IdfNorm(double p, double mean, double sd) {
  if (Bad(mean) || Bad(sd) || !(sd > 0.0)) return TQMV::Missing;
  const double z = IdfStdNorm(p);
  if (TQMV::IsMissing(z)) return TQMV::Missing;
  return Checked(mean + sd * z);
}

double IdfStdNorm(double p) {
  if (!ValidP(p) || p == 0.0 || p == 1.0) return TQMV::Missing;
  try {
    return Checked(boost::math::quantile(Normal(0.0, 1.0), p));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double LogGamma(double x) {
  if (Bad(x) || IsGammaPole(x)) return TQMV::Missing;
  try {
    return Checked(boost::math::lgamma(x, QuietPolicy()));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

}  // namespace TQDistFun

namespace TQMathFun {

double Digamma(double x) {
  if (Bad(x) || IsGammaPole(x)) return TQMV::Missing;
  try {
    return Checked(boost::math::digamma(x, QuietPolicy()));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

double Trigamma(double x) {
  if (Bad(x) || IsGammaPole(x)) return TQMV::Missing;
  try {
    return Checked(boost::math::trigamma(x, QuietPolicy()));
  } catch (const std::exception&) {
    return TQMV::Missing;
  }
}

void FindTwoLargest(const double* values, int n, int& largest, int& second) {
  largest = -1;
  second = -1;
  if (values == nullptr) return;
  for (int i = 0; i < n; ++i) {
    const double v = values[i];
    if (std::isnan(v)) continue;  // a NaN has no order
    if (largest < 0 || v > values[largest]) {
      second = largest;
      largest = i;
    } else if (second < 0 || v > values[second]) {
      second = i;
    }
  }
}

}  // namespace TQMathFun
