#pragma once
// The concrete link functions behind CreateLinkFunction.
//
// Conventions shared by every link:
// - A missing (or NaN, or infinite) argument gives the missing value and status kLinkMissingArg.
// - An argument outside the link's domain gives the missing value and status kLinkOutOfDomain;
//   a result that cannot be represented gives the missing value and status kLinkOverflow.
//   Success sets the status to kLinkOK. The status pointer may be null everywhere.
// - Links whose inverse is a probability (complementary log-log, logit, negative log-log, odds
//   power, probit and all cumulative links) keep GetMu inside [kLinkProbEps, 1 - kLinkProbEps]:
//   a mean of exactly 0 or 1 would make the binomial variance vanish and the derivatives of the
//   link infinite, so a fit that drifts into the far tail stays computable instead of breaking.
// - Derivatives are of eta = g(mu) with respect to mu, for every link. For the cumulative links,
//   whose GetMu is the distribution function F of the link at its argument, GetEta is F^-1 and
//   GetFirstDeriv / GetSecondDeriv are the first and second derivatives of F^-1 at the
//   probability. Code that needs the density of F at the argument itself (the ordinal
//   likelihood) reaches it through TQCumulativeLinkFunc::GetDensity / GetDensityDeriv, which stay
//   accurate in the tails where going through the clamped probability would not.
//
// Parameter links:
// - Power (mu^a): at a = 0 the link is its limit, log mu. The power is taken where it is real:
//   mu < 0 only with an integer exponent, mu = 0 never with a negative exponent; an exponent of
//   1 therefore accepts every real mean (the identity).
// - Odds power (((mu/(1-mu))^a - 1)/a): at a = 0 the link is its limit, the logit. The inverse
//   needs 1 + a*eta > 0, else it is out of the domain.
// - Negative binomial (log(k mu / (1 + k mu))): needs k > 0 and eta < 0; SetParam changes k.
// Parameterless links report 0 from GetParam; SetParam changes only the negative binomial link.
#include <cfloat>

#include "support/ITQLinkFunc.h"

enum TQLinkStatus : int {
  kLinkOK = 0,
  kLinkMissingArg = 1,
  kLinkOutOfDomain = 2,
  kLinkOverflow = 3
};

inline constexpr double kLinkProbEps = DBL_EPSILON;

// Shared base of the links: type and parameter bookkeeping.
class TQLinkFuncBase : public ITQLinkFunc {
 public:
  explicit TQLinkFuncBase(TQConst::LinkType type, double param = 0.0) noexcept
      : fType(type), fParam(param) {}
  void SetParam(double) override {}
  TQConst::LinkType GetType() const override { return fType; }
  double GetParam() const override { return fParam; }

 protected:
  TQConst::LinkType fType;
  double fParam;
};

class TQLinkCLogLog final : public TQLinkFuncBase {
 public:
  TQLinkCLogLog() noexcept : TQLinkFuncBase(TQConst::LinkCLogLog) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkIdentity final : public TQLinkFuncBase {
 public:
  TQLinkIdentity() noexcept : TQLinkFuncBase(TQConst::LinkIdentity) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkLog final : public TQLinkFuncBase {
 public:
  TQLinkLog() noexcept : TQLinkFuncBase(TQConst::LinkLog) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkLogC final : public TQLinkFuncBase {
 public:
  TQLinkLogC() noexcept : TQLinkFuncBase(TQConst::LinkLogC) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkLogit final : public TQLinkFuncBase {
 public:
  TQLinkLogit() noexcept : TQLinkFuncBase(TQConst::LinkLogit) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkNegBinomial final : public TQLinkFuncBase {
 public:
  explicit TQLinkNegBinomial(double k) noexcept : TQLinkFuncBase(TQConst::LinkNegBinomial, k) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  void SetParam(double k) override { fParam = k; }
};

class TQLinkNLogLog final : public TQLinkFuncBase {
 public:
  TQLinkNLogLog() noexcept : TQLinkFuncBase(TQConst::LinkNLogLog) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkOddsPower final : public TQLinkFuncBase {
 public:
  explicit TQLinkOddsPower(double a) noexcept : TQLinkFuncBase(TQConst::LinkOddsPower, a) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

class TQLinkPower final : public TQLinkFuncBase {
 public:
  explicit TQLinkPower(double a) noexcept;
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;

 private:
  // Exponents of the inverse and the derivatives, fixed at creation.
  double fInv;     // 1/a
  double fAm1;     // a - 1
  double fAm2;     // a - 2
  double fAAm1;    // a (a - 1)
  bool fbValid;    // a is a finite number
};

class TQLinkProbit final : public TQLinkFuncBase {
 public:
  TQLinkProbit() noexcept : TQLinkFuncBase(TQConst::LinkProbit) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
};

// What the ordinal likelihood needs of a cumulative link at one argument x: F(x), 1 - F(x),
// the density F'(x) and its derivative F''(x). The two tails are computed each on its own (1 - F
// is never formed by subtraction), so that both keep their relative precision however far out x
// lies; nothing is clamped. An infinite x stands for the end of the scale: F = 0 or 1, density 0.
struct TQCumulativePoint {
  double lower = 0.0;
  double upper = 1.0;
  double density = 0.0;
  double densityDeriv = 0.0;
};

// Cumulative links: GetMu(x) = F(x) for the argument x = threshold - linear predictor.
class TQCumulativeLinkFunc : public TQLinkFuncBase {
 public:
  using TQLinkFuncBase::TQLinkFuncBase;
  // dF/dx and d2F/dx2 at the argument x (not clamped; 0 far in the tails). Missing for a
  // missing argument.
  virtual double GetDensity(double x) const = 0;
  virtual double GetDensityDeriv(double x) const = 0;
  // F, 1 - F, F' and F'' at x; false (point untouched) for a missing or NaN argument.
  virtual bool Evaluate(double x, TQCumulativePoint& point) const = 0;

  // F(hi) - F(lo) for lo <= hi, taken in the tail where it does not cancel: the difference of
  // the upper tails when both points lie above the median.
  static double IntervalProb(const TQCumulativePoint& lo, const TQCumulativePoint& hi) noexcept {
    return lo.lower >= 0.5 ? lo.upper - hi.upper : hi.lower - lo.lower;
  }
};

class TQLinkCumCauchit final : public TQCumulativeLinkFunc {
 public:
  TQLinkCumCauchit() noexcept : TQCumulativeLinkFunc(TQConst::LinkCumCauchit) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  double GetDensity(double x) const override;
  double GetDensityDeriv(double x) const override;
  bool Evaluate(double x, TQCumulativePoint& point) const override;
};

class TQLinkCumCLogLog final : public TQCumulativeLinkFunc {
 public:
  TQLinkCumCLogLog() noexcept : TQCumulativeLinkFunc(TQConst::LinkCumCLogLog) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  double GetDensity(double x) const override;
  double GetDensityDeriv(double x) const override;
  bool Evaluate(double x, TQCumulativePoint& point) const override;
};

class TQLinkCumLogit final : public TQCumulativeLinkFunc {
 public:
  TQLinkCumLogit() noexcept : TQCumulativeLinkFunc(TQConst::LinkCumLogit) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  double GetDensity(double x) const override;
  double GetDensityDeriv(double x) const override;
  bool Evaluate(double x, TQCumulativePoint& point) const override;
};

class TQLinkCumNLogLog final : public TQCumulativeLinkFunc {
 public:
  TQLinkCumNLogLog() noexcept : TQCumulativeLinkFunc(TQConst::LinkCumNLogLog) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  double GetDensity(double x) const override;
  double GetDensityDeriv(double x) const override;
  bool Evaluate(double x, TQCumulativePoint& point) const override;
};

class TQLinkCumProbit final : public TQCumulativeLinkFunc {
 public:
  TQLinkCumProbit() noexcept : TQCumulativeLinkFunc(TQConst::LinkCumProbit) {}
  double GetEta(double mu) const override;
  double GetMu(double eta, int* status) const override;
  double GetFirstDeriv(double mu, int* status) const override;
  double GetSecondDeriv(double mu, int* status) const override;
  double GetDensity(double x) const override;
  double GetDensityDeriv(double x) const override;
  bool Evaluate(double x, TQCumulativePoint& point) const override;
};
