#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "support/TQDistFun.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

namespace {
constexpr double kPi = 3.14159265358979323846;
constexpr double kEuler = 0.57721566490153286061;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

bool IsMiss(double x) { return x == TQMV::Missing; }
}  // namespace

using namespace TQDistFun;

TEST(DistFun, KnownQuantilesAndCdfs) {
  EXPECT_NEAR(IdfChi(0.95, 1), 3.841458820694124, 1e-12);
  EXPECT_NEAR(IdfT(0.975, 10), 2.228138851986274, 1e-12);
  EXPECT_NEAR(CdfStdNorm(1.96), 0.9750021048517795, 1e-15);
  EXPECT_NEAR(CdfStdNorm(-10.0), 7.619853024160527e-24, 1e-35);
  EXPECT_DOUBLE_EQ(CdfStdNorm(0.0), 0.5);
  EXPECT_NEAR(IdfStdNorm(0.975), 1.959963984540054, 1e-13);
  EXPECT_NEAR(IdfStdNorm(0.5), 0.0, 1e-15);
  EXPECT_NEAR(IdfNorm(0.975, 10.0, 2.0), 10.0 + 2.0 * 1.959963984540054, 1e-12);

  // Closed forms: chi-square(2) is exponential with mean 2; t(1) is Cauchy; t(2) has an
  // algebraic distribution function; F(2, m) at x is 1 - (1 + 2x/m)^(-m/2).
  for (double x : {0.01, 0.5, 1.0, 3.0, 10.0, 40.0}) {
    EXPECT_NEAR(CdfChi(x, 2.0), -std::expm1(-x / 2.0), 1e-14) << x;
    EXPECT_NEAR(CdfT(x, 1.0), 0.5 + std::atan(x) / kPi, 1e-14) << x;
    EXPECT_NEAR(CdfT(-x, 2.0), 0.5 - x / (2.0 * std::sqrt(2.0 + x * x)), 1e-14) << x;
    EXPECT_NEAR(CdfF(x, 2.0, 10.0), 1.0 - std::pow(1.0 + 2.0 * x / 10.0, -5.0), 1e-14) << x;
  }
  for (double p : {0.001, 0.1, 0.5, 0.9, 0.999}) {
    EXPECT_NEAR(IdfChi(p, 2.0), -2.0 * std::log1p(-p), 1e-12 * (1.0 - 2.0 * std::log1p(-p))) << p;
    EXPECT_NEAR(IdfT(p, 1.0), std::tan(kPi * (p - 0.5)), 1e-10 * (1.0 + std::fabs(std::tan(kPi * (p - 0.5))))) << p;
    // Round trips through the quantile.
    EXPECT_NEAR(CdfChi(IdfChi(p, 3.5), 3.5), p, 1e-13) << p;
    EXPECT_NEAR(CdfT(IdfT(p, 7.0), 7.0), p, 1e-13) << p;
    EXPECT_NEAR(CdfStdNorm(IdfStdNorm(p)), p, 1e-14) << p;
  }
}

TEST(DistFun, GammaFamily) {
  EXPECT_NEAR(LogGamma(0.5), 0.5 * std::log(kPi), 1e-14);
  EXPECT_NEAR(LogGamma(10.0), std::log(362880.0), 1e-13);
  EXPECT_NEAR(LogGamma(1.0), 0.0, 1e-15);
  EXPECT_NEAR(LogGamma(-0.5), std::log(2.0 * std::sqrt(kPi)), 1e-14);  // log |Gamma(-1/2)|
  EXPECT_NEAR(TQMathFun::Digamma(1.0), -kEuler, 1e-14);
  EXPECT_NEAR(TQMathFun::Digamma(0.5), -kEuler - 2.0 * std::log(2.0), 1e-14);
  EXPECT_NEAR(TQMathFun::Digamma(11.0), -kEuler + 7381.0 / 2520.0, 1e-13);  // H_10 - gamma
  EXPECT_NEAR(TQMathFun::Trigamma(1.0), kPi * kPi / 6.0, 1e-14);
  EXPECT_NEAR(TQMathFun::Trigamma(0.5), kPi * kPi / 2.0, 1e-13);

  for (double pole : {0.0, -1.0, -3.0}) {
    EXPECT_TRUE(IsMiss(LogGamma(pole))) << pole;
    EXPECT_TRUE(IsMiss(TQMathFun::Digamma(pole))) << pole;
    EXPECT_TRUE(IsMiss(TQMathFun::Trigamma(pole))) << pole;
  }
  EXPECT_TRUE(IsMiss(LogGamma(1e308)));  // overflows
  EXPECT_TRUE(IsMiss(LogGamma(kNaN)));
  EXPECT_TRUE(IsMiss(TQMathFun::Digamma(TQMV::Missing)));
}

TEST(DistFun, TailsAndDomain) {
  // Far upper tail: the probability is exactly 1, so a significance 1 - P is 0, never negative.
  for (double df : {1.0, 3.0, 50.0}) {
    EXPECT_EQ(CdfChi(1e6, df), 1.0) << df;
    EXPECT_GE(1.0 - CdfChi(1e300, df), 0.0) << df;
    EXPECT_GE(1.0 - CdfF(1e300, df, 5.0), 0.0) << df;
    EXPECT_GE(CdfT(-1e300, df), 0.0) << df;
    EXPECT_LE(CdfT(1e300, df), 1.0) << df;
  }
  EXPECT_EQ(CdfChi(0.0, 2.0), 0.0);
  EXPECT_EQ(CdfChi(-1e-12, 2.0), 0.0);  // below the support
  EXPECT_EQ(CdfF(-1.0, 2.0, 3.0), 0.0);
  EXPECT_GE(CdfStdNorm(-40.0), 0.0);
  EXPECT_EQ(CdfStdNorm(40.0), 1.0);
  EXPECT_EQ(IdfChi(0.0, 4.0), 0.0);

  // Degrees of freedom, probabilities and arguments outside their domain, missing, NaN, inf.
  for (double bad : {0.0, -1.0, kNaN, kInf, TQMV::Missing}) {
    EXPECT_TRUE(IsMiss(CdfChi(1.0, bad))) << bad;
    EXPECT_TRUE(IsMiss(CdfF(1.0, bad, 2.0))) << bad;
    EXPECT_TRUE(IsMiss(CdfF(1.0, 2.0, bad))) << bad;
    EXPECT_TRUE(IsMiss(CdfT(1.0, bad))) << bad;
    EXPECT_TRUE(IsMiss(IdfChi(0.5, bad))) << bad;
    EXPECT_TRUE(IsMiss(IdfT(0.5, bad))) << bad;
    EXPECT_TRUE(IsMiss(IdfNorm(0.5, 0.0, bad))) << bad;
  }
  for (double bad : {kNaN, kInf, -kInf, TQMV::Missing}) {
    EXPECT_TRUE(IsMiss(CdfChi(bad, 1.0))) << bad;
    EXPECT_TRUE(IsMiss(CdfF(bad, 1.0, 1.0))) << bad;
    EXPECT_TRUE(IsMiss(CdfT(bad, 1.0))) << bad;
    EXPECT_TRUE(IsMiss(CdfStdNorm(bad))) << bad;
    EXPECT_TRUE(IsMiss(IdfNorm(0.5, bad, 1.0))) << bad;
  }
  for (double p : {-0.1, 1.5, kNaN, TQMV::Missing}) {
    EXPECT_TRUE(IsMiss(IdfChi(p, 1.0))) << p;
    EXPECT_TRUE(IsMiss(IdfT(p, 1.0))) << p;
    EXPECT_TRUE(IsMiss(IdfStdNorm(p))) << p;
  }
  // Infinite quantiles.
  EXPECT_TRUE(IsMiss(IdfChi(1.0, 1.0)));
  EXPECT_TRUE(IsMiss(IdfT(0.0, 5.0)));
  EXPECT_TRUE(IsMiss(IdfT(1.0, 5.0)));
  EXPECT_TRUE(IsMiss(IdfStdNorm(0.0)));
  EXPECT_TRUE(IsMiss(IdfStdNorm(1.0)));
}

TEST(DistFun, FindTwoLargest) {
  int a = 0, b = 0;
  const double v[] = {1.0, 5.0, 3.0, 5.0, 4.0};
  TQMathFun::FindTwoLargest(v, 5, a, b);
  EXPECT_EQ(a, 1);  // first occurrence of the tie wins
  EXPECT_EQ(b, 3);
  const double w[] = {9.0, 2.0, 7.0};
  TQMathFun::FindTwoLargest(w, 3, a, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 2);
  const double withNaN[] = {std::numeric_limits<double>::quiet_NaN(), 2.0, 7.0};
  TQMathFun::FindTwoLargest(withNaN, 3, a, b);
  EXPECT_EQ(a, 2);
  EXPECT_EQ(b, 1);
  TQMathFun::FindTwoLargest(w, 1, a, b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, -1);
  TQMathFun::FindTwoLargest(w, 0, a, b);
  EXPECT_EQ(a, -1);
  EXPECT_EQ(b, -1);
  TQMathFun::FindTwoLargest(nullptr, 4, a, b);
  EXPECT_EQ(a, -1);
  EXPECT_EQ(b, -1);
}

TEST(Power, OverflowGivesMissing) {
  using namespace TQPower;
  double r = 0.0;
  EXPECT_TRUE(Power(2.0, 10.0, r));
  EXPECT_EQ(r, 1024.0);
  EXPECT_TRUE(Power(-2.0, 3.0, r));
  EXPECT_EQ(r, -8.0);
  EXPECT_TRUE(Power(0.0, 2.5, r));
  EXPECT_EQ(r, 0.0);
  EXPECT_TRUE(Power(1e-200, 2.0, r));  // underflow is a legitimate 0
  EXPECT_EQ(r, 0.0);
  for (auto [x, y] : {std::pair{-8.0, 1.0 / 3.0}, std::pair{0.0, -1.0}, std::pair{10.0, 400.0},
                      std::pair{1e-200, -2.0}, std::pair{TQMV::Missing, 2.0},
                      std::pair{2.0, std::numeric_limits<double>::quiet_NaN()}}) {
    r = 0.0;
    EXPECT_FALSE(Power(x, y, r)) << x << "^" << y;
    EXPECT_TRUE(IsMiss(r)) << x << "^" << y;
  }

  // The exponent bounds give finite, normal results, and a step beyond overflows/denormalizes.
  EXPECT_TRUE(std::isfinite(std::exp(gMachineMaxExp)));
  EXPECT_GE(std::exp(gMachineMinExp), DBL_MIN);
  EXPECT_FALSE(std::isfinite(std::exp(gMachineMaxExp + 1e-3)));
  EXPECT_LT(std::exp(gMachineMinExp - 1e-3), DBL_MIN);
  EXPECT_FALSE(IsMiss(Exponent(gMachineMaxExp)));
  EXPECT_TRUE(IsMiss(Exponent(800.0)));
  EXPECT_TRUE(IsMiss(Exponent(TQMV::Missing)));
  EXPECT_EQ(Exponent(-800.0), 0.0);
  EXPECT_DOUBLE_EQ(Exponent(1.0), std::exp(1.0));

  EXPECT_EQ(Multiply(3.0, -4.0), -12.0);
  EXPECT_TRUE(IsMiss(Multiply(1e200, 1e200)));
  EXPECT_TRUE(IsMiss(Multiply(-1e200, 1e200)));
  EXPECT_TRUE(IsMiss(Multiply(TQMV::Missing, 0.0)));
  EXPECT_TRUE(IsMiss(Multiply(2.0, std::numeric_limits<double>::infinity())));
}

TEST(Power, AlmostEqual) {
  using TQPower::AlmostEqual;
  EXPECT_TRUE(AlmostEqual(1.0, 1.0, 0.0));
  EXPECT_TRUE(AlmostEqual(1.0, 1.0 + DBL_EPSILON, 1.0));
  EXPECT_FALSE(AlmostEqual(1.0, 1.0 + 4.0 * DBL_EPSILON, 2.0));
  EXPECT_TRUE(AlmostEqual(1.0, 1.0 + 4.0 * DBL_EPSILON, 4.0));
  EXPECT_TRUE(AlmostEqual(-1e300, -1e300 * (1.0 + DBL_EPSILON), 2.0));
  EXPECT_FALSE(AlmostEqual(1.0, -1.0, 1e6));
  EXPECT_TRUE(AlmostEqual(0.0, -0.0, 0.0));
  EXPECT_TRUE(AlmostEqual(0.0, 1e-310, 1.0));  // below the smallest normal counts as zero
  EXPECT_FALSE(AlmostEqual(0.0, 1e-300, 1.0));
  EXPECT_FALSE(AlmostEqual(1e-300, 2e-300, 4.0));
  EXPECT_FALSE(AlmostEqual(1.0, std::numeric_limits<double>::quiet_NaN(), 1e9));
  EXPECT_TRUE(AlmostEqual(DBL_MAX, std::nextafter(DBL_MAX, 0.0), 1.0));
  EXPECT_FALSE(AlmostEqual(DBL_MAX, -DBL_MAX, 1e9));
}
