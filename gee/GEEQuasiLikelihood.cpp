#include "gee/GEEQuasiLikelihood.h"

#include <cmath>

#include "support/TQDisplay_940.h"
#include "support/TQPower.h"

double IGEEQuasiLikeliHoodFunc::Weight(double trials, double f, double a) const noexcept {
  if (!(fPhi > 0.0) || TQMV::IsMissing(f) || TQMV::IsMissing(a)) return TQMV::Missing;
  double w = f * a / fPhi;
  if (UsesTrials()) {
    if (TQMV::IsMissing(trials)) return TQMV::Missing;
    w *= trials;
  }
  return w;
}

double IGEEQuasiLikeliHoodFunc::accumulate(double y, double mu, double trials, double f, double a) {
  const double w = Weight(trials, f, a);
  const double term = (TQMV::IsMissing(w) || TQMV::IsMissing(y) || TQMV::IsMissing(mu)) ? TQMV::Missing
                                                                                          : Term(y, mu, w);
  if (TQMV::IsMissing(term)) return IsMissingWhenSkipped() ? TQMV::Missing : fSum;
  fSum += term;
  return fSum;
}

double IGEEQuasiLikeliHoodFunc::accumulateRelative(double, double, double, double, double) { return 0.0; }

void IGEEQuasiLikeliHoodFunc::Display() const {
  using namespace TQDisplay_940;
  const std::string name = GetClassName();
  DisplayText(1, name + " display start");
  DisplayD("quasi-loglikelihood", fSum);
  DisplayText(1, name + " display end");
}

double GEEQuasiLikeliHoodNormal::Term(double y, double mu, double w) const {
  const double e = y - mu;
  return -w * 0.5 * e * e;
}

double GEEQuasiLikeliHoodBinomial::Term(double y, double mu, double w) const {
  if (y == 0.0) return mu < 1.0 ? w * std::log1p(-mu) : TQMV::Missing;
  if (y == 1.0) return mu > 0.0 ? w * std::log(mu) : TQMV::Missing;
  if (!(mu > 0.0 && mu < 1.0)) return TQMV::Missing;
  return w * (y * std::log(mu) + (1.0 - y) * std::log1p(-mu));
}

double GEEQuasiLikeliHoodBinomial::accumulateRelative(double y, double mu, double trials, double f, double a) {
  const double w = Weight(trials, f, a);
  if (TQMV::IsMissing(w) || TQMV::IsMissing(y) || !(mu > 0.0 && mu < 1.0)) return TQMV::Missing;
  if (y > 0.0 && y < 1.0)
    fSum += w * ((1.0 - y) * std::log((1.0 - mu) / (1.0 - y)) + y * std::log(mu / y));
  else if (y == 0.0)
    fSum += w * std::log1p(-mu);
  else if (y == 1.0)
    fSum += w * std::log(mu);
  return fSum;
}

double GEEQuasiLikeliHoodGamma::Term(double y, double mu, double w) const {
  if (!(mu > 0.0)) return TQMV::Missing;
  return -w * (std::log(mu) + y / mu);
}

double GEEQuasiLikeliHoodInvGaussian::Term(double y, double mu, double w) const {
  if (mu == 0.0) return TQMV::Missing;
  return -w * (y / (2.0 * mu * mu) - 1.0 / mu);
}

double GEEQuasiLikeliHoodNegBinomial::Term(double y, double mu, double w) const {
  if (!(fK > 0.0) || !(mu > 0.0)) return TQMV::Missing;
  const double km = fK * mu;
  const double first = y == 0.0 ? 0.0 : y * std::log(km);
  return w * (first - (1.0 / fK + y) * std::log1p(km));
}

double GEEQuasiLikeliHoodPoisson::Term(double y, double mu, double w) const {
  if (y == 0.0) return -w * mu;
  if (!(mu > 0.0)) return TQMV::Missing;
  return w * (y * std::log(mu) - mu);
}

double GEEQuasiLikeliHoodTweedie::Term(double y, double mu, double w) const {
  const double p = fPower;
  if (!(p > 1.0) || !(p < 2.0) || mu == 0.0) return TQMV::Missing;
  double a = TQMV::Missing, b = TQMV::Missing;
  if (!TQPower::Power(mu, 1.0 - p, a) || !TQPower::Power(mu, 2.0 - p, b)) return TQMV::Missing;
  return w * ((2.0 - p) * y * a - (1.0 - p) * b) / ((1.0 - p) * (2.0 - p));
}

IGEEQuasiLikeliHoodFunc* CreateGEEQuasiLikeliHoodFunc(TQConst::DistType dist, double param) {
  switch (dist) {
    case TQConst::DistNormal: return new GEEQuasiLikeliHoodNormal();
    case TQConst::DistBinomial: return new GEEQuasiLikeliHoodBinomial();
    case TQConst::DistGamma: return new GEEQuasiLikeliHoodGamma();
    case TQConst::DistInvGaussian: return new GEEQuasiLikeliHoodInvGaussian();
    case TQConst::DistNegBinomial: return new GEEQuasiLikeliHoodNegBinomial(param);
    case TQConst::DistPoisson: return new GEEQuasiLikeliHoodPoisson();
    case TQConst::DistTweedie: return new GEEQuasiLikeliHoodTweedie(param);
    default: return nullptr;  // the multinomial distributions have no quasi-likelihood
  }
}
