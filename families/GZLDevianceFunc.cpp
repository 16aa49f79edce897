#include "families/GZLDevianceFunc.h"

#include <cmath>
#include <string>

#include "families/GZLFamilyUtil.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

using TQMV::IsMissing;

namespace {

inline bool AnyMissing(double a, double b, double c, double d) noexcept {
  return IsMissing(a) || IsMissing(b) || IsMissing(c) || IsMissing(d);
}

void DisplayFrame(const char* className, bool start) {
  TQDisplay_940::DisplayText(1, std::string(className) + (start ? " display start" : " display end"));
}

// The multinomial deviance, shared by the ordinal and nominal classes:
// 2 sum_j o_j log(o_j / (pi_j n)) over the categories that were observed.
double MultinomialDeviance(const std::vector<double>& o, const std::vector<double>& pi, double n,
                           double& sum) {
  if (o.size() != pi.size() || IsMissing(n)) return TQMV::Missing;
  double total = 0.0;
  for (std::size_t j = 0; j < o.size(); ++j) {
    if (IsMissing(o[j]) || IsMissing(pi[j])) return TQMV::Missing;
    if (o[j] > 0.0 && n > 0.0 && pi[j] > 0.0) total += 2.0 * o[j] * std::log(o[j] / (pi[j] * n));
  }
  return GZLFamilyUtil::AddTerm(sum, total);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

double IGZLDevianceFunc::AddDevianceOrdinal(const std::vector<double>&, const std::vector<double>&, double) {
  return TQMV::Missing;
}
double IGZLDevianceFunc::AddDevianceNominal(const std::vector<double>&, const std::vector<double>&, double) {
  return TQMV::Missing;
}

double IGZLDevianceFunc::Add(double term) {
  return GZLFamilyUtil::AddTerm(fDeviance, term);
}

void IGZLDevianceFunc::DisplayBase() const { TQDisplay_940::DisplayDF("Deviance value", fDeviance); }

// ---------------------------------------------------------------------------------------------
// The normal and inverse Gaussian deviances carry no factor 2, unlike the others.

double GZLDevianceNormal::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega)) return TQMV::Missing;
  const double r = y - mu;
  return Add(f * omega * r * r);
}

double GZLDevianceBinomial::AddDeviance(double mu, double y, double f, double omega, double m) {
  if (AnyMissing(mu, y, f, omega) || IsMissing(m)) return TQMV::Missing;
  if (!(mu > 0.0 && mu < 1.0)) return TQMV::Missing;
  const double c = 2.0 * f * omega * m;
  if (y > 0.0 && y < 1.0)
    return Add(c * ((1.0 - y) * std::log((1.0 - y) / (1.0 - mu)) + y * std::log(y / mu)));
  if (y == 0.0) return Add(-c * std::log(1.0 - mu));
  if (y == 1.0) return Add(-c * std::log(mu));
  return fDeviance;  // a response outside [0, 1] adds nothing
}

double GZLDevianceGamma::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega)) return TQMV::Missing;
  if (!(mu > 0.0 && y > 0.0)) return TQMV::Missing;
  const double r = y / mu;
  return Add(2.0 * f * omega * (r - std::log(r) - 1.0));
}

double GZLDevianceInvGaussian::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega)) return TQMV::Missing;
  if (mu == 0.0 || !(y > 0.0)) return TQMV::Missing;
  const double r = y / mu - 1.0;
  return Add(f * omega * r * r / y);
}

double GZLDeviancePoisson::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega)) return TQMV::Missing;
  const double c = 2.0 * f * omega;
  if (!(y >= 0.0 && mu >= 0.0 && c != 0.0)) return TQMV::Missing;
  if (y == 0.0) return Add(c * mu);
  if (!(mu > 0.0)) return TQMV::Missing;
  return Add(c * (y * std::log(y / mu) - (y - mu)));
}

// A record with y equal to mu has a and b equal and comes back missing: that is how this family
// reports it, and the callers count it as not fitting.
double GZLDevianceNegBinomial::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega) || IsMissing(fK)) return TQMV::Missing;
  const double c = 2.0 * f * omega;
  if (mu > 0.0 && y > 0.0) {
    const double invK = 1.0 / fK;
    if (invK == 0.0) return TQMV::Missing;
    const double a = y * std::log(y / mu);
    const double b = (invK + y) * std::log((invK + y) / (invK + mu));
    if (a == b) return TQMV::Missing;
    return Add(c * (a - b));
  }
  if (y == 0.0) {
    const double onePlus = 1.0 + fK * mu;
    if (!(fK > 0.0 && onePlus > 0.0)) return TQMV::Missing;
    return Add(c * std::log(onePlus) / fK);
  }
  return TQMV::Missing;
}

double GZLDevianceTweedie::AddDeviance(double mu, double y, double f, double omega, double) {
  if (AnyMissing(mu, y, f, omega) || IsMissing(fP)) return TQMV::Missing;
  if (!(fP > 1.0 && fP < 2.0) || mu == 0.0) return TQMV::Missing;
  double y2p = TQMV::Missing, mu1p = TQMV::Missing, mu2p = TQMV::Missing;
  if (!TQPower::Power(y, 2.0 - fP, y2p) || !TQPower::Power(mu, 1.0 - fP, mu1p) ||
      !TQPower::Power(mu, 2.0 - fP, mu2p))
    return TQMV::Missing;
  return Add(2.0 * f * omega * (y2p - (2.0 - fP) * y * mu1p + (1.0 - fP) * mu2p) /
             ((1.0 - fP) * (2.0 - fP)));
}

double GZLDevianceOrdinal::AddDeviance(double, double, double, double, double) { return TQMV::Missing; }
double GZLDevianceOrdinal::AddDevianceOrdinal(const std::vector<double>& o, const std::vector<double>& pi,
                                              double n) {
  return MultinomialDeviance(o, pi, n, fDeviance);
}

double GZLDevianceNominal::AddDeviance(double, double, double, double, double) { return TQMV::Missing; }
double GZLDevianceNominal::AddDevianceNominal(const std::vector<double>& o, const std::vector<double>& pi,
                                              double n) {
  return MultinomialDeviance(o, pi, n, fDeviance);
}

// ---------------------------------------------------------------------------------------------

void GZLDevianceNormal::Display() const {
  DisplayFrame("GZLDevianceNormal", true);
  DisplayBase();
  DisplayFrame("GZLDevianceNormal", false);
}
void GZLDevianceBinomial::Display() const {
  DisplayFrame("GZLDevianceBinomial", true);
  DisplayBase();
  DisplayFrame("GZLDevianceBinomial", false);
}
void GZLDevianceGamma::Display() const {
  DisplayFrame("GZLDevianceGamma", true);
  DisplayBase();
  DisplayFrame("GZLDevianceGamma", false);
}
void GZLDevianceInvGaussian::Display() const {
  DisplayFrame("GZLDevianceInvGaussian", true);
  DisplayBase();
  DisplayFrame("GZLDevianceInvGaussian", false);
}
void GZLDevianceNegBinomial::Display() const {
  DisplayFrame("GZLDevianceNegBinomial", true);
  DisplayBase();
  TQDisplay_940::DisplayDF("Parameter k of the negative binomial distribution", fK);
  DisplayFrame("GZLDevianceNegBinomial", false);
}
void GZLDeviancePoisson::Display() const {
  DisplayFrame("GZLDeviancePoisson", true);
  DisplayBase();
  DisplayFrame("GZLDeviancePoisson", false);
}
void GZLDevianceTweedie::Display() const {
  DisplayFrame("GZLDevianceTweedie", true);
  DisplayBase();
  TQDisplay_940::DisplayDF("Parameter p of the Tweedie distribution", fP);
  DisplayFrame("GZLDevianceTweedie", false);
}
void GZLDevianceOrdinal::Display() const {
  DisplayFrame("GZLDevianceOrdinal", true);
  DisplayBase();
  DisplayFrame("GZLDevianceOrdinal", false);
}
void GZLDevianceNominal::Display() const {
  DisplayFrame("GZLDevianceNominal", true);
  DisplayBase();
  DisplayFrame("GZLDevianceNominal", false);
}

IGZLDevianceFunc* CreateDevianceFunction(TQConst::DistType dist, double distParam) {
  switch (dist) {
    case TQConst::DistNormal: return new GZLDevianceNormal();
    case TQConst::DistBinomial: return new GZLDevianceBinomial();
    case TQConst::DistGamma: return new GZLDevianceGamma();
    case TQConst::DistInvGaussian: return new GZLDevianceInvGaussian();
    case TQConst::DistNegBinomial: return new GZLDevianceNegBinomial(distParam);
    case TQConst::DistPoisson: return new GZLDeviancePoisson();
    case TQConst::DistOrdinalMultinomial: return new GZLDevianceOrdinal();
    case TQConst::DistTweedie: return new GZLDevianceTweedie(distParam);
    case TQConst::DistNominalMultinomial: return new GZLDevianceNominal();
    default: return nullptr;
  }
}
