#include "families/GZLLogLikeFunc.h"

#include <cmath>
#include <string>

#include "families/GZLFamilyUtil.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

using GZLFamilyUtil::AddTerm;
using GZLFamilyUtil::Checked;
using TQMV::IsMissing;

namespace {

// 0.5 * log(2 pi): the normal and inverse Gaussian constant per record.
constexpr double kHalfLog2Pi = 0.9189385332046728;

inline bool AnyMissing(double a, double b, double c, double d) noexcept {
  return IsMissing(a) || IsMissing(b) || IsMissing(c) || IsMissing(d);
}

void DisplayFrame(const char* className, bool start) {
  TQDisplay_940::DisplayText(1, std::string(className) + (start ? " display start" : " display end"));
}

// The multinomial kernel, shared by the ordinal and nominal families: p is the fitted
// probability of the observed category; a probability outside (0, 1] adds nothing.
double MultinomialKernel(double& sum, double p, double f, double omega, double phi) {
  if (IsMissing(p) || IsMissing(f) || IsMissing(omega) || IsMissing(phi)) return TQMV::Missing;
  if (p > 0.0 && p <= 1.0) return AddTerm(sum, std::log(p) * f * omega / phi);
  return sum;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Base

double IGZLLogLikeFunc::GetFull() const {
  if (TQMV::IsMissingOrInfinite(fKernel) || TQMV::IsMissingOrInfinite(fNonKernel)) return TQMV::Missing;
  return Checked(fKernel + fNonKernel);
}

void IGZLLogLikeFunc::DisplayBase() const {
  using namespace TQDisplay_940;
  DisplayDF("The number of cases", fNumCases);
  DisplayDF("Parameter phi", fPhi);
  DisplayDF("Kernel loglikelihood", fKernel);
  DisplayDF("Non-kernel part of the full loglikelihood", fNonKernel);
}

// ---------------------------------------------------------------------------------------------
// Normal: phi is the variance of a record of unit scale weight.

double GZLLogLikeNormal::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (!(omega > 0.0 && fPhi > 0.0)) return fKernel;
  const double r = y - mu;
  return AddTerm(fKernel, -0.5 * f * (std::log(fPhi / omega) + r * r * omega / fPhi));
}

double GZLLogLikeNormal::AddConstant(double, double f, double, double, double) {
  if (IsMissing(f)) return TQMV::Missing;
  return AddTerm(fNonKernel, -f * kHalfLog2Pi);
}

double GZLLogLikeNormal::GetParamDeriv(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  const double r = y - mu;
  return Checked(((omega / fPhi) * r * r - 1.0) * f * 0.5);
}

double GZLLogLikeNormal::GetParamDeriv2(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  const double r = y - mu;
  return Checked(-0.5 * (omega / fPhi) * f * r * r);
}

void GZLLogLikeNormal::Display() const {
  DisplayFrame("GZLLogLikeNormal", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeNormal", false);
}

// ---------------------------------------------------------------------------------------------
// Inverse Gaussian

double GZLLogLikeInvGaussian::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (mu == 0.0 || y <= 0.0) return TQMV::Missing;
  const double s = fPhi * y / omega;
  double d = TQMV::Missing;
  if (!TQPower::Power(y / mu - 1.0, 2.0, d)) return TQMV::Missing;
  return AddTerm(fKernel, -0.5 * f * (std::log(s) + d / s + 2.0 * std::log(y)));
}

double GZLLogLikeInvGaussian::AddConstant(double, double f, double, double, double) {
  if (IsMissing(f)) return TQMV::Missing;
  return AddTerm(fNonKernel, -f * kHalfLog2Pi);
}

double GZLLogLikeInvGaussian::GetParamDeriv(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (mu == 0.0 || y <= 0.0) return TQMV::Missing;
  const double r = y / mu - 1.0;
  return Checked(((omega / fPhi) * r * r / y - 1.0) * f * 0.5);
}

double GZLLogLikeInvGaussian::GetParamDeriv2(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (mu == 0.0 || y <= 0.0) return TQMV::Missing;
  const double r = y / mu - 1.0;
  return Checked(-(omega / fPhi) * f * 0.5 * r * r / y);
}

void GZLLogLikeInvGaussian::Display() const {
  DisplayFrame("GZLLogLikeInvGaussian", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeInvGaussian", false);
}

// ---------------------------------------------------------------------------------------------
// Gamma: shape nu = omega/phi, mean mu.

double GZLLogLikeGamma::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (!(mu > 0.0 && omega > 0.0 && y > 0.0)) return TQMV::Missing;
  const double nu = omega / fPhi;
  const double x = (y / mu) * nu;
  const double lgNu = TQDistFun::LogGamma(nu);
  if (IsMissing(lgNu)) return TQMV::Missing;
  double term = -x - lgNu;
  if (x > 0.0) term += nu * std::log(x);
  return AddTerm(fKernel, f * term);
}

double GZLLogLikeGamma::AddConstant(double y, double f, double, double, double) {
  if (IsMissing(y) || IsMissing(f)) return TQMV::Missing;
  if (y > 0.0) return AddTerm(fNonKernel, -f * std::log(y));
  return fNonKernel;
}

double GZLLogLikeGamma::GetParamDeriv(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (!(mu > 0.0 && omega > 0.0 && y > 0.0)) return TQMV::Missing;
  const double nu = omega / fPhi;
  const double psi = TQMathFun::Digamma(nu);
  if (IsMissing(psi)) return TQMV::Missing;
  const double r = y / mu;
  return Checked(-(std::log(r * nu) - psi + 1.0 - r) * nu * f);
}

double GZLLogLikeGamma::GetParamDeriv2(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  if (!(mu > 0.0 && omega > 0.0 && y > 0.0)) return TQMV::Missing;
  const double nu = omega / fPhi;
  const double psi = TQMathFun::Digamma(nu);
  const double psi1 = TQMathFun::Trigamma(nu);
  if (IsMissing(psi) || IsMissing(psi1)) return TQMV::Missing;
  const double r = y / mu;
  return Checked((std::log(r * nu) - (psi1 * nu + psi) + 2.0 - r) * nu * f);
}

void GZLLogLikeGamma::Display() const {
  DisplayFrame("GZLLogLikeGamma", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeGamma", false);
}

// ---------------------------------------------------------------------------------------------
// Poisson

double GZLLogLikePoisson::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  const double c = (omega / fPhi) * f;
  if (c == 0.0) return fKernel;
  if (y == 0.0) return AddTerm(fKernel, -c * mu);
  if (mu > 0.0) return AddTerm(fKernel, c * (y * std::log(mu) - mu));
  return TQMV::Missing;
}

double GZLLogLikePoisson::AddConstant(double y, double f, double omega, double, double) {
  if (IsMissing(y) || IsMissing(f) || IsMissing(omega)) return TQMV::Missing;
  if (y > 0.0) {
    const double lg = TQDistFun::LogGamma(y + 1.0);
    if (IsMissing(lg)) {
      fNonKernel = TQMV::Missing;
      return TQMV::Missing;
    }
    return AddTerm(fNonKernel, -(omega / fPhi) * f * lg);
  }
  if (y == 0.0) return fNonKernel;
  return TQMV::Missing;
}

double GZLLogLikePoisson::GetParamDeriv(double, double, double, double) const { return TQMV::Missing; }
double GZLLogLikePoisson::GetParamDeriv2(double, double, double, double) const { return TQMV::Missing; }

void GZLLogLikePoisson::Display() const {
  DisplayFrame("GZLLogLikePoisson", true);
  DisplayBase();
  DisplayFrame("GZLLogLikePoisson", false);
}

// ---------------------------------------------------------------------------------------------
// Binomial: y is the proportion of events, omega the scale weight times the trials.

double GZLLogLikeBinomial::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega)) return TQMV::Missing;
  const double c = (omega / fPhi) * f;
  if (y == 0.0 && mu < 1.0) return AddTerm(fKernel, c * std::log(1.0 - mu));
  if (mu <= 0.0) return TQMV::Missing;
  if (y == 1.0) return AddTerm(fKernel, c * std::log(mu));
  if (mu >= 1.0) return TQMV::Missing;
  return AddTerm(fKernel, c * (y * std::log(mu) + (1.0 - y) * std::log(1.0 - mu)));
}

double GZLLogLikeBinomial::AddConstant(double, double f, double omega, double trials, double events) {
  if (IsMissing(f) || IsMissing(omega) || IsMissing(trials) || IsMissing(events)) return TQMV::Missing;
  const double n = trials;
  const double r = events;
  if (!(r >= 0.0 && r <= n)) return TQMV::Missing;
  if (r > 0.0 && r < n) {
    const double a = TQDistFun::LogGamma(n + 1.0);
    const double b = TQDistFun::LogGamma(r + 1.0);
    const double d = TQDistFun::LogGamma(n - r + 1.0);
    if (IsMissing(a) || IsMissing(b) || IsMissing(d)) {
      fNonKernel = TQMV::Missing;
      return TQMV::Missing;
    }
    // Exact ties of the log-gamma values are taken as cancelling outright.
    double logChoose;
    if (a == b)
      logChoose = -d;
    else if (a == d)
      logChoose = -b;
    else
      logChoose = a - (d + b);
    return AddTerm(fNonKernel, (omega / (n * fPhi)) * f * logChoose);
  }
  return fNonKernel;
}

double GZLLogLikeBinomial::GetParamDeriv(double, double, double, double) const { return TQMV::Missing; }
double GZLLogLikeBinomial::GetParamDeriv2(double, double, double, double) const { return TQMV::Missing; }

void GZLLogLikeBinomial::Display() const {
  DisplayFrame("GZLLogLikeBinomial", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeBinomial", false);
}

// ---------------------------------------------------------------------------------------------
// Negative binomial with variance mu + k mu^2.

double GZLLogLikeNegBinomial::AddKernel(double y, double mu, double f, double omega) {
  if (AnyMissing(y, mu, f, omega) || IsMissing(fK)) return TQMV::Missing;
  if (!(fK > 0.0 && mu > 0.0)) return TQMV::Missing;
  if (TQMV::IsMissingOrInfinite(fKernel)) return TQMV::Missing;
  const double invK = 1.0 / fK;
  const double lgA = TQDistFun::LogGamma(y + invK);
  const double lgB = TQDistFun::LogGamma(invK);
  if (IsMissing(lgA) || IsMissing(lgB)) return TQMV::Missing;
  const double c = f * omega / fPhi;
  const double km = fK * mu;
  return AddTerm(fKernel, c * (y * std::log(km) - (y + invK) * std::log1p(km) + lgA - lgB));
}

double GZLLogLikeNegBinomial::AddConstant(double y, double f, double omega, double, double) {
  if (IsMissing(y) || IsMissing(f) || IsMissing(omega)) return TQMV::Missing;
  const double lg = TQDistFun::LogGamma(y + 1.0);
  if (IsMissing(lg)) return fNonKernel;
  return AddTerm(fNonKernel, -(omega / fPhi) * f * lg);
}

double GZLLogLikeNegBinomial::GetParamDeriv(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega) || IsMissing(fK)) return TQMV::Missing;
  if (!(fPhi > 0.0 && fK > 0.0)) return TQMV::Missing;
  const double invK = 1.0 / fK;
  const double psiA = TQMathFun::Digamma(y + invK);
  const double psiB = TQMathFun::Digamma(invK);
  if (IsMissing(psiA) || IsMissing(psiB)) return TQMV::Missing;
  const double km = fK * mu;
  const double d = std::log1p(km) - psiA + psiB;
  const double c = f * omega / fPhi;
  if (fbNegBinLink) return Checked(c * d / fK);
  // With any other link mu stays put while k moves, which adds the (y - mu) term.
  return Checked((d + (y - mu) * fK / (km + 1.0)) * c / fK);
}

double GZLLogLikeNegBinomial::GetParamDeriv2(double mu, double y, double f, double omega) const {
  if (AnyMissing(y, mu, f, omega) || IsMissing(fK)) return TQMV::Missing;
  if (!(fPhi > 0.0 && fK > 0.0)) return TQMV::Missing;
  const double invK = 1.0 / fK;
  const double psiA = TQMathFun::Digamma(invK + y);
  const double psiB = TQMathFun::Digamma(invK);
  const double triA = TQMathFun::Trigamma(invK + y);
  const double triB = TQMathFun::Trigamma(invK);
  if (IsMissing(psiA) || IsMissing(psiB) || IsMissing(triA) || IsMissing(triB)) return TQMV::Missing;
  const double km = fK * mu;
  const double e = -std::log1p(km) / fK + (psiA - psiB) / fK + (triA - triB) / (fK * fK);
  const double c = f * omega / fPhi;
  if (fbNegBinLink) return Checked(c * e);
  const double onePlus = 1.0 + km;
  return Checked(c * (e + (mu - km * y + 2.0 * km * mu) / (onePlus * onePlus)));
}

void GZLLogLikeNegBinomial::Display() const {
  DisplayFrame("GZLLogLikeNegBinomial", true);
  DisplayBase();
  TQDisplay_940::DisplayDF("Parameter k of the negative binomial distribution", fK);
  TQDisplay_940::DisplayB("Negative binomial link indicator", fbNegBinLink);
  DisplayFrame("GZLLogLikeNegBinomial", false);
}

// ---------------------------------------------------------------------------------------------
// Ordinal and nominal multinomial

double GZLLogLikeOrdinal::AddKernel(double, double p, double f, double omega) {
  return MultinomialKernel(fKernel, p, f, omega, fPhi);
}
double GZLLogLikeOrdinal::AddConstant(double, double, double, double, double) { return fNonKernel; }
double GZLLogLikeOrdinal::GetParamDeriv(double, double, double, double) const { return TQMV::Missing; }
double GZLLogLikeOrdinal::GetParamDeriv2(double, double, double, double) const { return TQMV::Missing; }
void GZLLogLikeOrdinal::Display() const {
  DisplayFrame("GZLLogLikeOrdinal", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeOrdinal", false);
}

double GZLLogLikeNominal::AddKernel(double, double p, double f, double omega) {
  return MultinomialKernel(fKernel, p, f, omega, fPhi);
}
double GZLLogLikeNominal::AddConstant(double, double, double, double, double) { return fNonKernel; }
double GZLLogLikeNominal::GetParamDeriv(double, double, double, double) const { return TQMV::Missing; }
double GZLLogLikeNominal::GetParamDeriv2(double, double, double, double) const { return TQMV::Missing; }
void GZLLogLikeNominal::Display() const {
  DisplayFrame("GZLLogLikeNominal", true);
  DisplayBase();
  DisplayFrame("GZLLogLikeNominal", false);
}

// ---------------------------------------------------------------------------------------------

IGZLLogLikeFunc* CreateLogLikeFunction(TQConst::DistType dist, double nCases, double distParam,
                                       TQConst::LinkType link) {
  switch (dist) {
    case TQConst::DistNormal: return new GZLLogLikeNormal(nCases);
    case TQConst::DistBinomial: return new GZLLogLikeBinomial();
    case TQConst::DistGamma: return new GZLLogLikeGamma();
    case TQConst::DistInvGaussian: return new GZLLogLikeInvGaussian(nCases);
    case TQConst::DistNegBinomial:
      return new GZLLogLikeNegBinomial(distParam, link == TQConst::LinkNegBinomial);
    case TQConst::DistPoisson: return new GZLLogLikePoisson();
    case TQConst::DistOrdinalMultinomial: return new GZLLogLikeOrdinal();
    case TQConst::DistTweedie: return new GZLLogLikeTweedie(distParam);
    case TQConst::DistNominalMultinomial: return new GZLLogLikeNominal();
    default: return nullptr;
  }
}
