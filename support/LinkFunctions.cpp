#include "support/LinkFunctions.h"

#include <cmath>

#include <boost/math/special_functions/erf.hpp>

#include "support/TQMV.h"
#include "support/TQPower.h"

namespace {

using boost::math::policies::ignore_error;
using QuietPolicy = boost::math::policies::policy<
    boost::math::policies::domain_error<ignore_error>, boost::math::policies::pole_error<ignore_error>,
    boost::math::policies::overflow_error<ignore_error>,
    boost::math::policies::evaluation_error<ignore_error>,
    boost::math::policies::promote_double<false>>;

constexpr double kPi = 3.14159265358979323846;
constexpr double kSqrt2 = 1.41421356237309504880;
constexpr double kInvSqrt2 = 0.70710678118654752440;
constexpr double kInvSqrt2Pi = 0.39894228040143267794;
// exp() of anything above this is far beyond where a doubly exponential CDF has reached 0 or 1;
// capping the argument keeps the intermediate finite.
constexpr double kExpCap = 700.0;

// ---- status helpers ------------------------------------------------------------------------

inline double Fail(int* status, int code) noexcept {
  if (status != nullptr) *status = code;
  return TQMV::Missing;
}

inline double Ok(int* status, double v) noexcept {
  if (status != nullptr) *status = kLinkOK;
  return v;
}

// v when it is a finite number, otherwise missing with an overflow status.
inline double Finite(int* status, double v) noexcept {
  return std::isfinite(v) ? Ok(status, v) : Fail(status, kLinkOverflow);
}

inline double FiniteOrMissing(double v) noexcept { return std::isfinite(v) ? v : TQMV::Missing; }

inline bool BadArg(double x) noexcept { return TQMV::IsMissingOrInfinite(x); }
inline bool InUnit(double mu) noexcept { return mu > 0.0 && mu < 1.0; }

inline double ClampProb(double p) noexcept {
  return p < kLinkProbEps ? kLinkProbEps : (p > 1.0 - kLinkProbEps ? 1.0 - kLinkProbEps : p);
}

// Guards shared by the probability links: missing input, then the open unit interval.
#define LINK_UNIT_DOMAIN(mu, status)                                   \
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);               \
  if (!InUnit(mu)) return Fail(status, kLinkOutOfDomain)

// ---- logistic ------------------------------------------------------------------------------

inline double Logistic(double x) noexcept {
  if (x >= 0.0) return 1.0 / (1.0 + std::exp(-x));
  const double e = std::exp(x);
  return e / (1.0 + e);
}
inline double LogitEta(double mu) noexcept { return std::log(mu) - std::log1p(-mu); }
inline double LogitD1(double mu) noexcept { return 1.0 / (mu * (1.0 - mu)); }
inline double LogitD2(double mu) noexcept {
  const double h = mu * (1.0 - mu);
  return (2.0 * mu - 1.0) / (h * h);
}

// ---- complementary log-log: F(x) = 1 - exp(-exp(x)) ----------------------------------------

inline double CLogLogCdf(double x) noexcept {
  return -std::expm1(-std::exp(x < kExpCap ? x : kExpCap));
}
inline double CLogLogEta(double mu) noexcept { return std::log(-std::log1p(-mu)); }
inline double CLogLogD1(double mu) noexcept {
  const double l = -std::log1p(-mu);
  return 1.0 / ((1.0 - mu) * l);
}
inline double CLogLogD2(double mu) noexcept {
  const double l = -std::log1p(-mu);
  const double c = (1.0 - mu) * l;
  return (l - 1.0) / (c * c);
}

// ---- negative log-log: F(x) = exp(-exp(-x)) ------------------------------------------------

inline double NLogLogCdf(double x) noexcept {
  return std::exp(-std::exp(-x < kExpCap ? -x : kExpCap));
}
inline double NLogLogEta(double mu) noexcept { return -std::log(-std::log(mu)); }
inline double NLogLogD1(double mu) noexcept {
  const double l = -std::log(mu);
  return 1.0 / (mu * l);
}
inline double NLogLogD2(double mu) noexcept {
  const double l = -std::log(mu);
  const double c = mu * l;
  return (1.0 - l) / (c * c);
}

// ---- probit ----------------------------------------------------------------------------------

inline double NormCdf(double x) noexcept { return 0.5 * std::erfc(-x * kInvSqrt2); }
inline double NormDensity(double x) noexcept { return kInvSqrt2Pi * std::exp(-0.5 * x * x); }
// Phi^-1(mu) for mu in (0, 1).
inline double NormQuantile(double mu) noexcept {
  return -kSqrt2 * boost::math::erfc_inv(2.0 * mu, QuietPolicy());
}
inline double ProbitD1(double mu) noexcept { return 1.0 / NormDensity(NormQuantile(mu)); }
inline double ProbitD2(double mu) noexcept {
  const double z = NormQuantile(mu);
  const double f = NormDensity(z);
  return z / (f * f);
}

// ---- Cauchy ----------------------------------------------------------------------------------

inline double CauchyCdf(double x) noexcept {
  // Below the median 0.5 + atan(x)/pi cancels; atan(-1/x)/pi is the same value without loss.
  return x < 0.0 ? std::atan(-1.0 / x) / kPi : 0.5 + std::atan(x) / kPi;
}
inline double CauchyQuantile(double p) noexcept {
  // tan(pi (p - 1/2)), written through the nearer tail so that small tail probabilities keep
  // their precision.
  return p < 0.5 ? -1.0 / std::tan(kPi * p) : 1.0 / std::tan(kPi * (1.0 - p));
}
inline double CauchitD1(double mu) noexcept {
  const double x = CauchyQuantile(mu);
  return kPi * (1.0 + x * x);
}
inline double CauchitD2(double mu) noexcept {
  const double x = CauchyQuantile(mu);
  return 2.0 * kPi * kPi * x * (1.0 + x * x);
}

// ---- both tails, density and its derivative at once (cumulative links) ----------------------
// Each fills lower = F(x), upper = 1 - F(x), density = F'(x), densityDeriv = F''(x) for a finite
// x; the smaller tail is always computed directly, never as 1 minus the larger.

inline void LogisticPoint(double x, TQCumulativePoint& p) noexcept {
  const double e = std::exp(-std::fabs(x));
  const double d = 1.0 + e;
  const double small = e / d, big = 1.0 / d;
  p.lower = x >= 0.0 ? big : small;
  p.upper = x >= 0.0 ? small : big;
  p.density = small / d;
  // F'' = F' (1 - 2F) = -sign(x) F' tanh(|x|/2), the tanh without cancellation near 0.
  const double t = -std::expm1(-std::fabs(x)) / d;
  p.densityDeriv = x >= 0.0 ? -p.density * t : p.density * t;
}

inline void NormPoint(double x, TQCumulativePoint& p) noexcept {
  const double tail = 0.5 * std::erfc(std::fabs(x) * kInvSqrt2);
  p.lower = x >= 0.0 ? 1.0 - tail : tail;
  p.upper = x >= 0.0 ? tail : 1.0 - tail;
  p.density = NormDensity(x);
  p.densityDeriv = -x * p.density;
}

// F(x) = 1 - exp(-exp(x)): with e = exp(x), 1 - F = exp(-e) and F' = e (1 - F).
inline void CLogLogPoint(double x, TQCumulativePoint& p) noexcept {
  const double e = std::exp(x < kExpCap ? x : kExpCap);
  p.upper = std::exp(-e);
  p.lower = -std::expm1(-e);
  p.density = e * p.upper;
  p.densityDeriv = p.density * (1.0 - e);
}

// F(x) = exp(-exp(-x)): the mirror image of the complementary log-log.
inline void NLogLogPoint(double x, TQCumulativePoint& p) noexcept {
  const double e = std::exp(-x < kExpCap ? -x : kExpCap);
  p.lower = std::exp(-e);
  p.upper = -std::expm1(-e);
  p.density = e * p.lower;
  p.densityDeriv = p.density * (e - 1.0);
}

// Cauchy: beyond |x| = 1 the density and its derivative are written in r = 1/x, so that x^2
// never overflows.
inline void CauchyPoint(double x, TQCumulativePoint& p) noexcept {
  p.lower = CauchyCdf(x);
  p.upper = CauchyCdf(-x);
  if (std::fabs(x) <= 1.0) {
    const double q = 1.0 + x * x;
    p.density = 1.0 / (kPi * q);
    p.densityDeriv = -2.0 * x / (kPi * q * q);
  } else {
    const double r = 1.0 / x;
    const double q = 1.0 + r * r;
    p.density = r * r / (kPi * q);
    p.densityDeriv = -2.0 * r * r * r / (kPi * q * q);
  }
}

// The end points of the scale: F = 0 below, 1 above, no density.
inline bool InfinitePoint(double x, TQCumulativePoint& p) noexcept {
  if (!std::isinf(x)) return false;
  p.lower = x > 0.0 ? 1.0 : 0.0;
  p.upper = 1.0 - p.lower;
  p.density = 0.0;
  p.densityDeriv = 0.0;
  return true;
}

}  // namespace

// ============================================================================================
// Probability links: the inverse is clamped, derivatives live on (0, 1).

#define DEFINE_PROB_LINK(Class, Cdf, Eta, D1, D2)                          \
  double Class::GetEta(double mu) const {                                  \
    if (BadArg(mu) || !InUnit(mu)) return TQMV::Missing;                   \
    return FiniteOrMissing(Eta(mu));                                       \
  }                                                                        \
  double Class::GetMu(double eta, int* status) const {                     \
    if (BadArg(eta)) return Fail(status, kLinkMissingArg);                 \
    return Ok(status, ClampProb(Cdf(eta)));                                \
  }                                                                        \
  double Class::GetFirstDeriv(double mu, int* status) const {              \
    LINK_UNIT_DOMAIN(mu, status);                                          \
    return Finite(status, D1(mu));                                         \
  }                                                                        \
  double Class::GetSecondDeriv(double mu, int* status) const {             \
    LINK_UNIT_DOMAIN(mu, status);                                          \
    return Finite(status, D2(mu));                                         \
  }

// The density and its derivative of a cumulative link, from its full evaluation at x.
#define DEFINE_DENSITY(Class)                                               \
  double Class::GetDensity(double x) const {                               \
    TQCumulativePoint p;                                                   \
    return (!BadArg(x) && Evaluate(x, p)) ? p.density : TQMV::Missing;     \
  }                                                                        \
  double Class::GetDensityDeriv(double x) const {                          \
    TQCumulativePoint p;                                                   \
    return (!BadArg(x) && Evaluate(x, p)) ? p.densityDeriv : TQMV::Missing; \
  }

DEFINE_PROB_LINK(TQLinkCLogLog, CLogLogCdf, CLogLogEta, CLogLogD1, CLogLogD2)
DEFINE_PROB_LINK(TQLinkLogit, Logistic, LogitEta, LogitD1, LogitD2)
DEFINE_PROB_LINK(TQLinkNLogLog, NLogLogCdf, NLogLogEta, NLogLogD1, NLogLogD2)
DEFINE_PROB_LINK(TQLinkProbit, NormCdf, NormQuantile, ProbitD1, ProbitD2)

DEFINE_PROB_LINK(TQLinkCumCauchit, CauchyCdf, CauchyQuantile, CauchitD1, CauchitD2)
DEFINE_PROB_LINK(TQLinkCumCLogLog, CLogLogCdf, CLogLogEta, CLogLogD1, CLogLogD2)
DEFINE_PROB_LINK(TQLinkCumLogit, Logistic, LogitEta, LogitD1, LogitD2)
DEFINE_PROB_LINK(TQLinkCumNLogLog, NLogLogCdf, NLogLogEta, NLogLogD1, NLogLogD2)
DEFINE_PROB_LINK(TQLinkCumProbit, NormCdf, NormQuantile, ProbitD1, ProbitD2)

#define DEFINE_POINT(Class, Point)                                          \
  bool Class::Evaluate(double x, TQCumulativePoint& point) const {         \
    if (TQMV::IsMissing(x)) return false;                                  \
    if (!InfinitePoint(x, point)) Point(x, point);                         \
    return true;                                                           \
  }

DEFINE_POINT(TQLinkCumCauchit, CauchyPoint)
DEFINE_POINT(TQLinkCumCLogLog, CLogLogPoint)
DEFINE_POINT(TQLinkCumLogit, LogisticPoint)
DEFINE_POINT(TQLinkCumNLogLog, NLogLogPoint)
DEFINE_POINT(TQLinkCumProbit, NormPoint)

DEFINE_DENSITY(TQLinkCumCauchit)
DEFINE_DENSITY(TQLinkCumCLogLog)
DEFINE_DENSITY(TQLinkCumLogit)
DEFINE_DENSITY(TQLinkCumNLogLog)
DEFINE_DENSITY(TQLinkCumProbit)

#undef DEFINE_PROB_LINK
#undef DEFINE_DENSITY
#undef DEFINE_POINT

// ============================================================================================
// Identity: eta = mu on the whole real line.

double TQLinkIdentity::GetEta(double mu) const { return BadArg(mu) ? TQMV::Missing : mu; }
double TQLinkIdentity::GetMu(double eta, int* status) const {
  return BadArg(eta) ? Fail(status, kLinkMissingArg) : Ok(status, eta);
}
double TQLinkIdentity::GetFirstDeriv(double mu, int* status) const {
  return BadArg(mu) ? Fail(status, kLinkMissingArg) : Ok(status, 1.0);
}
double TQLinkIdentity::GetSecondDeriv(double mu, int* status) const {
  return BadArg(mu) ? Fail(status, kLinkMissingArg) : Ok(status, 0.0);
}

// ============================================================================================
// Log: eta = log mu, mu > 0. The inverse is formed only where exp() gives a finite, normal
// result; beyond it the mean (or its reciprocal in the derivatives) is not representable.

namespace {
inline double LogLinkMu(double eta, int* status) noexcept {
  if (BadArg(eta)) return Fail(status, kLinkMissingArg);
  if (eta > TQPower::gMachineMaxExp || eta < TQPower::gMachineMinExp) return Fail(status, kLinkOverflow);
  return Ok(status, std::exp(eta));
}
inline double LogLinkD1(double mu, int* status) noexcept {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!(mu > 0.0)) return Fail(status, kLinkOutOfDomain);
  return Finite(status, 1.0 / mu);
}
inline double LogLinkD2(double mu, int* status) noexcept {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!(mu > 0.0)) return Fail(status, kLinkOutOfDomain);
  return Finite(status, -1.0 / (mu * mu));
}
inline double LogLinkEta(double mu) noexcept {
  return (BadArg(mu) || !(mu > 0.0)) ? TQMV::Missing : std::log(mu);
}
}  // namespace

double TQLinkLog::GetEta(double mu) const { return LogLinkEta(mu); }
double TQLinkLog::GetMu(double eta, int* status) const { return LogLinkMu(eta, status); }
double TQLinkLog::GetFirstDeriv(double mu, int* status) const { return LogLinkD1(mu, status); }
double TQLinkLog::GetSecondDeriv(double mu, int* status) const { return LogLinkD2(mu, status); }

// ============================================================================================
// Log-complement: eta = log(1 - mu), mu < 1. The mean approaches 1 as eta goes to -infinity;
// it is kept at most 1 - eps so that 1/(1 - mu) stays finite.

double TQLinkLogC::GetEta(double mu) const {
  return (BadArg(mu) || !(mu < 1.0)) ? TQMV::Missing : FiniteOrMissing(std::log1p(-mu));
}
double TQLinkLogC::GetMu(double eta, int* status) const {
  if (BadArg(eta)) return Fail(status, kLinkMissingArg);
  if (eta > TQPower::gMachineMaxExp) return Fail(status, kLinkOverflow);
  const double mu = -std::expm1(eta);
  return Ok(status, mu > 1.0 - kLinkProbEps ? 1.0 - kLinkProbEps : mu);
}
double TQLinkLogC::GetFirstDeriv(double mu, int* status) const {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!(mu < 1.0)) return Fail(status, kLinkOutOfDomain);
  return Finite(status, -1.0 / (1.0 - mu));
}
double TQLinkLogC::GetSecondDeriv(double mu, int* status) const {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!(mu < 1.0)) return Fail(status, kLinkOutOfDomain);
  const double c = 1.0 - mu;
  return Finite(status, -1.0 / (c * c));
}

// ============================================================================================
// Negative binomial: eta = log(k mu / (1 + k mu)) = -log1p(1 / (k mu)); mu > 0, k > 0, eta < 0.

double TQLinkNegBinomial::GetEta(double mu) const {
  const double k = fParam;
  if (BadArg(mu) || BadArg(k) || !(mu > 0.0) || !(k > 0.0)) return TQMV::Missing;
  return FiniteOrMissing(-std::log1p(1.0 / (k * mu)));
}
double TQLinkNegBinomial::GetMu(double eta, int* status) const {
  const double k = fParam;
  if (BadArg(eta)) return Fail(status, kLinkMissingArg);
  if (BadArg(k) || !(k > 0.0) || !(eta < 0.0)) return Fail(status, kLinkOutOfDomain);
  if (-eta > TQPower::gMachineMaxExp) return Fail(status, kLinkOverflow);  // mean underflows
  const double mu = 1.0 / (k * std::expm1(-eta));
  return (std::isfinite(mu) && mu > 0.0) ? Ok(status, mu) : Fail(status, kLinkOverflow);
}
double TQLinkNegBinomial::GetFirstDeriv(double mu, int* status) const {
  const double k = fParam;
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (BadArg(k) || !(k > 0.0) || !(mu > 0.0)) return Fail(status, kLinkOutOfDomain);
  return Finite(status, 1.0 / (mu * (1.0 + k * mu)));
}
double TQLinkNegBinomial::GetSecondDeriv(double mu, int* status) const {
  const double k = fParam;
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (BadArg(k) || !(k > 0.0) || !(mu > 0.0)) return Fail(status, kLinkOutOfDomain);
  const double c = mu * (1.0 + k * mu);
  return Finite(status, -(1.0 + 2.0 * k * mu) / (c * c));
}

// ============================================================================================
// Odds power: eta = ((mu/(1-mu))^a - 1)/a, the logit at a = 0. With L = log(mu/(1-mu)) the
// link is expm1(a L)/a, exact for small a; the inverse takes L = log1p(a eta)/a.

double TQLinkOddsPower::GetEta(double mu) const {
  const double a = fParam;
  if (BadArg(mu) || BadArg(a) || !InUnit(mu)) return TQMV::Missing;
  const double l = LogitEta(mu);
  if (a == 0.0) return l;
  const double al = a * l;
  if (al > TQPower::gMachineMaxExp) return TQMV::Missing;
  return FiniteOrMissing(std::expm1(al) / a);
}
double TQLinkOddsPower::GetMu(double eta, int* status) const {
  const double a = fParam;
  if (BadArg(eta)) return Fail(status, kLinkMissingArg);
  if (BadArg(a)) return Fail(status, kLinkOutOfDomain);
  if (a == 0.0) return Ok(status, ClampProb(Logistic(eta)));
  const double ae = a * eta;
  if (!(ae > -1.0)) return Fail(status, kLinkOutOfDomain);  // odds would be 0 or undefined
  return Ok(status, ClampProb(Logistic(std::log1p(ae) / a)));
}
double TQLinkOddsPower::GetFirstDeriv(double mu, int* status) const {
  const double a = fParam;
  LINK_UNIT_DOMAIN(mu, status);
  if (BadArg(a)) return Fail(status, kLinkOutOfDomain);
  // g' = r^a / (mu (1 - mu)), r the odds
  const double ra = TQPower::Exponent(a * LogitEta(mu));
  if (TQMV::IsMissing(ra)) return Fail(status, kLinkOverflow);
  return Finite(status, ra / (mu * (1.0 - mu)));
}
double TQLinkOddsPower::GetSecondDeriv(double mu, int* status) const {
  const double a = fParam;
  LINK_UNIT_DOMAIN(mu, status);
  if (BadArg(a)) return Fail(status, kLinkOutOfDomain);
  // g'' = r^a (a - 1 + 2 mu) / (mu (1 - mu))^2
  const double ra = TQPower::Exponent(a * LogitEta(mu));
  if (TQMV::IsMissing(ra)) return Fail(status, kLinkOverflow);
  const double h = mu * (1.0 - mu);
  return Finite(status, ra * (a - 1.0 + 2.0 * mu) / (h * h));
}

// ============================================================================================
// Power: eta = mu^a, the log link at a = 0.

TQLinkPower::TQLinkPower(double a) noexcept
    : TQLinkFuncBase(TQConst::LinkPower, a),
      fInv(a != 0.0 ? 1.0 / a : 0.0),
      fAm1(a - 1.0),
      fAm2(a - 2.0),
      fAAm1(a * (a - 1.0)),
      fbValid(!BadArg(a)) {}

double TQLinkPower::GetEta(double mu) const {
  if (!fbValid) return TQMV::Missing;
  if (fParam == 0.0) return LogLinkEta(mu);
  double r;
  TQPower::Power(mu, fParam, r);  // missing for a missing mu, no real power, or overflow
  return r;
}
double TQLinkPower::GetMu(double eta, int* status) const {
  if (BadArg(eta)) return Fail(status, kLinkMissingArg);
  if (!fbValid) return Fail(status, kLinkOutOfDomain);
  if (fParam == 0.0) return LogLinkMu(eta, status);
  double r;
  if (TQPower::Power(eta, fInv, r)) return Ok(status, r);
  return Fail(status, (eta < 0.0 || eta == 0.0) ? kLinkOutOfDomain : kLinkOverflow);
}
double TQLinkPower::GetFirstDeriv(double mu, int* status) const {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!fbValid) return Fail(status, kLinkOutOfDomain);
  if (fParam == 0.0) return LogLinkD1(mu, status);
  double r;
  if (!TQPower::Power(mu, fAm1, r)) return Fail(status, mu > 0.0 ? kLinkOverflow : kLinkOutOfDomain);
  return Finite(status, fParam * r);
}
double TQLinkPower::GetSecondDeriv(double mu, int* status) const {
  if (BadArg(mu)) return Fail(status, kLinkMissingArg);
  if (!fbValid) return Fail(status, kLinkOutOfDomain);
  if (fParam == 0.0) return LogLinkD2(mu, status);
  if (fAAm1 == 0.0) {
    // a = 1: the identity, whose second derivative is 0 wherever the link is defined.
    return Ok(status, 0.0);
  }
  double r;
  if (!TQPower::Power(mu, fAm2, r)) return Fail(status, mu > 0.0 ? kLinkOverflow : kLinkOutOfDomain);
  return Finite(status, fAAm1 * r);
}

// ============================================================================================

ITQLinkFunc* CreateLinkFunction(TQConst::LinkType type, double param) {
  switch (type) {
    case TQConst::LinkCLogLog: return new TQLinkCLogLog();
    case TQConst::LinkIdentity: return new TQLinkIdentity();
    case TQConst::LinkLog: return new TQLinkLog();
    case TQConst::LinkLogC: return new TQLinkLogC();
    case TQConst::LinkLogit: return new TQLinkLogit();
    case TQConst::LinkNegBinomial: return new TQLinkNegBinomial(param);
    case TQConst::LinkNLogLog: return new TQLinkNLogLog();
    case TQConst::LinkOddsPower: return new TQLinkOddsPower(param);
    case TQConst::LinkPower: return new TQLinkPower(param);
    case TQConst::LinkProbit: return new TQLinkProbit();
    case TQConst::LinkCumCauchit: return new TQLinkCumCauchit();
    case TQConst::LinkCumCLogLog: return new TQLinkCumCLogLog();
    case TQConst::LinkCumLogit: return new TQLinkCumLogit();
    case TQConst::LinkCumNLogLog: return new TQLinkCumNLogLog();
    case TQConst::LinkCumProbit: return new TQLinkCumProbit();
    default: return nullptr;
  }
}
