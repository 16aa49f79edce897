#include "families/GZLVarianceFunctions.h"

#include "families/GZLFamilyUtil.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

using GZLFamilyUtil::Checked;

namespace {

// A variance must be positive to divide by; anything else is missing.
inline double PositiveOrMissing(double v) noexcept {
  return (TQMV::IsMissingOrInfinite(v) || !(v > 0.0)) ? TQMV::Missing : v;
}

}  // namespace

double GZLVarianceNormal::GetVariance(double) const { return 1.0; }
double GZLVarianceNormal::GetVarianceDeriv(double) const { return 0.0; }

double GZLVarianceBinomial::GetVariance(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return PositiveOrMissing(mu * (1.0 - mu));
}
double GZLVarianceBinomial::GetVarianceDeriv(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return Checked(1.0 - 2.0 * mu);
}

double GZLVariancePoisson::GetVariance(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return PositiveOrMissing(mu);
}
double GZLVariancePoisson::GetVarianceDeriv(double) const { return 1.0; }

double GZLVarianceGamma::GetVariance(double mu) const {
  double v = TQMV::Missing;
  if (!TQPower::Power(mu, 2.0, v)) return TQMV::Missing;
  return PositiveOrMissing(v);
}
double GZLVarianceGamma::GetVarianceDeriv(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return Checked(2.0 * mu);
}

double GZLVarianceInvGaussian::GetVariance(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return PositiveOrMissing(mu * mu * mu);
}
double GZLVarianceInvGaussian::GetVarianceDeriv(double mu) const {
  if (TQMV::IsMissing(mu)) return TQMV::Missing;
  return Checked(mu * 3.0 * mu);
}

double GZLVarianceNegBinomial::GetVariance(double mu) const {
  if (TQMV::IsMissing(mu) || TQMV::IsMissing(fK)) return TQMV::Missing;
  return PositiveOrMissing(mu * fK * mu + mu);
}
double GZLVarianceNegBinomial::GetVarianceDeriv(double mu) const {
  if (TQMV::IsMissing(mu) || TQMV::IsMissing(fK)) return TQMV::Missing;
  return Checked(2.0 * fK * mu + 1.0);
}

// The Tweedie variance takes whatever the power gives, 0^p included, without a sign check.
double GZLVarianceTweedie::GetVariance(double mu) const {
  double v = TQMV::Missing;
  TQPower::Power(mu, fP, v);
  return v;
}
double GZLVarianceTweedie::GetVarianceDeriv(double mu) const {
  double v = TQMV::Missing;
  if (!TQPower::Power(mu, fP - 1.0, v)) return TQMV::Missing;
  return Checked(fP * v);
}

IGZLVarianceFunc* CreateVarianceFunction(TQConst::DistType dist, double param) {
  switch (dist) {
    case TQConst::DistNormal: return new GZLVarianceNormal();
    case TQConst::DistBinomial: return new GZLVarianceBinomial();
    case TQConst::DistGamma: return new GZLVarianceGamma();
    case TQConst::DistInvGaussian: return new GZLVarianceInvGaussian();
    case TQConst::DistNegBinomial: return new GZLVarianceNegBinomial(param);
    case TQConst::DistPoisson: return new GZLVariancePoisson();
    case TQConst::DistTweedie: return new GZLVarianceTweedie(param);
    default: return nullptr;  // the multinomial models work on category probabilities
  }
}
