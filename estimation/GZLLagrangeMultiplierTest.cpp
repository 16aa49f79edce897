#include "estimation/GZLLagrangeMultiplierTest.h"

#include <cmath>

#include "GZLSettings.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLOptimizer.h"
#include "families/GZLLogLikeFunc.h"
#include "include/GZLVarianceFunc.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {
double OneMinus(double cdf) { return TQMV::IsMissing(cdf) ? TQMV::Missing : 1.0 - cdf; }
}  // namespace

// ---------------------------------------------------------------------------------------------
// Overdispersion of a Poisson model

bool GZLCTLMTest::UpdateForRow(const GZLDesignRow& row, double y, double mu) {
  if (mu == 0.0 || TQMV::IsMissingOrInfinite(mu) || TQMV::IsMissingOrInfinite(y)) return false;
  const double f = row.fFreqWeight;
  const double a = (y - mu) * (y - mu) - y;
  fAlphaNumerator += a * f;
  fStdErrNumerator1 += (a / mu) * (a / mu) * f;
  fStdErrNumerator2 -= 2.0 * f * a;
  fStdErrNumerator3 += mu * mu * f;
  fDenominator += mu * mu * f;
  return true;
}

void GZLCTLMTest::Merge(const GZLCTLMTest& other) noexcept {
  fAlphaNumerator += other.fAlphaNumerator;
  fStdErrNumerator1 += other.fStdErrNumerator1;
  fStdErrNumerator2 += other.fStdErrNumerator2;
  fStdErrNumerator3 += other.fStdErrNumerator3;
  fDenominator += other.fDenominator;
}

double GZLCTLMTest::GetAlpha() const {
  if (fDenominator == 0.0) return TQMV::Missing;
  const double alpha = fAlphaNumerator / fDenominator;
  return std::isfinite(alpha) ? alpha : TQMV::Missing;
}

double GZLCTLMTest::GetStdError() const {
  const double alpha = GetAlpha();
  if (TQMV::IsMissing(alpha) || fN == 1.0 || TQMV::IsMissing(fN)) return TQMV::Missing;
  // sum (a/mu - alpha mu)^2 f, expanded into the three accumulated sums.
  const double radicand =
      (alpha * fStdErrNumerator2 + fStdErrNumerator1 + alpha * alpha * fStdErrNumerator3) / (fN - 1.0) / fDenominator;
  if (!(radicand >= 0.0) || !std::isfinite(radicand)) return TQMV::Missing;
  return std::sqrt(radicand);
}

double GZLCTLMTest::GetStatistic() const {
  const double s = GetStdError();
  if (TQMV::IsMissing(s) || s == 0.0) return TQMV::Missing;
  return GetAlpha() / s;
}

double GZLCTLMTest::GetSigGreaterZero() const {
  const double z = GetStatistic();
  return TQMV::IsMissing(z) ? TQMV::Missing : OneMinus(TQDistFun::CdfStdNorm(z));
}

double GZLCTLMTest::GetSigLessZero() const {
  const double z = GetStatistic();
  return TQMV::IsMissing(z) ? TQMV::Missing : TQDistFun::CdfStdNorm(z);
}

double GZLCTLMTest::GetSigNonDir() const {
  const double z = GetStatistic();
  if (TQMV::IsMissing(z)) return TQMV::Missing;
  const double upper = OneMinus(TQDistFun::CdfStdNorm(std::fabs(z)));
  return TQMV::IsMissing(upper) ? TQMV::Missing : 2.0 * upper;
}

void GZLCTLMTest::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLCTLMTest display start");
  DisplayD("Value", GetStatistic());
  DisplayD("Numerator of alpha", fAlphaNumerator);
  DisplayD("First numerator of the standard error", fStdErrNumerator1);
  DisplayD("Second numerator of the standard error", fStdErrNumerator2);
  DisplayD("Third numerator of the standard error", fStdErrNumerator3);
  DisplayD("Denominator", fDenominator);
  DisplayD("Number of observations", fN);
  DisplayText(1, "GZLCTLMTest display end");
}

// ---------------------------------------------------------------------------------------------
// Fixed scale or fixed k

GZLNormalLMTest::GZLNormalLMTest(const GZLSettings& settings, int nParams, const TQBitSet& inModel, double phi,
                                 double k, IGZLLogLikeFunc& ll, const ITQLinkFunc& link, const IGZLVarianceFunc& var)
    : fHessian(nParams, &ll, settings),
      fTolerance(settings.GetTolerance()),
      fValueTested(settings.GetDistType() == TQConst::DistNegBinomial ? k : phi),
      fbNegBinLink(settings.GetLinkType() == TQConst::LinkNegBinomial),
      fInModel(inModel),
      fIndices(static_cast<std::size_t>(std::max(nParams, 0))),
      fValues(static_cast<std::size_t>(std::max(nParams, 0))),
      fpLogLike(&ll),
      fpLink(&link),
      fpVariance(&var) {
  fInModel.Resize(std::max(nParams, 0), false);
  if (!TQMV::IsMissing(k)) fHessian.SetDistParam(k);
  // Expected information of the regression parameters, as the fit's covariance uses.
  fHessian.Reset(phi, true);
}

bool GZLNormalLMTest::UpdateForRow(const GZLDesignRow& row, double y, double mu) {
  const double f = row.fFreqWeight, s = row.fScaleWeight;
  // The kernel first: some families keep per-record terms for the derivatives. Its sum is not
  // read by the test.
  if (TQMV::IsMissing(fpLogLike->AddKernel(y, mu, f, s))) return false;
  const double pd = fpLogLike->GetParamDeriv(mu, y, f, s);
  const double pd2 = fpLogLike->GetParamDeriv2(mu, y, f, s);
  const double V = fpVariance->GetVariance(mu);
  const double Vd = fpVariance->GetVarianceDeriv(mu);
  const double g1 = fpLink->GetFirstDeriv(mu, nullptr);
  const double g2 = fpLink->GetSecondDeriv(mu, nullptr);
  if (TQMV::IsMissing(pd) || TQMV::IsMissing(pd2) || TQMV::IsMissing(V) || TQMV::IsMissing(Vd) ||
      TQMV::IsMissing(g1) || TQMV::IsMissing(g2) || !(V > 0.0) || g1 == 0.0 || !(fHessian.GetPhi() > 0.0))
    return false;
  const int n = std::min(static_cast<int>(fIndices.size()), static_cast<int>(row.fValues.size()));
  int m = 0;
  for (int j = 0; j < n; ++j) {
    const double x = row.fValues[static_cast<std::size_t>(j)];
    if (x != 0.0 && fInModel.Test(j)) {
      fIndices[static_cast<std::size_t>(m)] = j;
      fValues[static_cast<std::size_t>(m)] = x;
      ++m;
    }
  }
  const double w = f * s;
  fHessian.UpdateForRow(fIndices.data(), fValues.data(), m, fHessian.RecordWeight(w, y, mu, V, Vd, g1, g2),
                        fHessian.ExtraRowFactor(w, y, mu, V, g1), pd2);
  fValue += pd;
  if (!std::isfinite(fValue)) fbBad = true;
  return true;
}

void GZLNormalLMTest::Merge(const GZLNormalLMTest& other) noexcept {
  fValue += other.fValue;
  fbBad = fbBad || other.fbBad;
  fHessian.Merge(other.fHessian);
}

double GZLNormalLMTest::GetEfficientInformation() const {
  if (fbBad) return TQMV::Missing;
  TQSymMatrix information, inverse;
  fHessian.GetHessian(information);
  const int p = fHessian.GetNumParams();
  if (information.GetNumRows() != p + 1) return TQMV::Missing;
  // The extra parameter's own information less what the regression parameters explain of it:
  // the reciprocal of its diagonal element of the inverse.
  TQBitSet set;
  GZLOptimizer::InvertWithRedundancy(information, fTolerance, inverse, set);
  if (!set.Test(p)) return TQMV::Missing;
  const double d = inverse(p, p);
  if (!(d > 0.0) || !std::isfinite(d)) return TQMV::Missing;
  return 1.0 / d;
}

double GZLNormalLMTest::GetStatistic() const {
  const double V = GetEfficientInformation();
  if (TQMV::IsMissing(V) || V == 0.0 || fbBad) return TQMV::Missing;
  const double stat = fValue * fValue / V;
  return std::isfinite(stat) ? stat : TQMV::Missing;
}

double GZLNormalLMTest::GetSignificance() const {
  const double stat = GetStatistic();
  return TQMV::IsMissing(stat) ? TQMV::Missing : OneMinus(TQDistFun::CdfChi(stat, 1.0));
}

void GZLNormalLMTest::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLNormalLMTest display start");
  DisplayD("Value", fValue);
  DisplayD("Efficient information", GetEfficientInformation());
  DisplayD("Value tested", fValueTested);
  DisplayD("Tolerance", fTolerance);
  DisplayB("Negative binomial link indicator", fbNegBinLink);
  fHessian.Display();
  DisplayText(1, "GZLNormalLMTest display end");
}

std::unique_ptr<IGZLLagrangeMultiplierTest> CreateLagrangeMultiplierTest(
    const GZLSettings& settings, int nParams, const TQBitSet& inModel, double phi, double k, double nObs,
    IGZLLogLikeFunc& ll, const ITQLinkFunc& link, const IGZLVarianceFunc& var) {
  switch (settings.GetDistType()) {
    case TQConst::DistNormal:
    case TQConst::DistGamma:
    case TQConst::DistInvGaussian:
    case TQConst::DistTweedie:
      if (settings.GetScaleType() != GZLConst_940::ScaleFixed) return nullptr;
      return std::make_unique<GZLNormalLMTest>(settings, nParams, inModel, phi, k, ll, link, var);
    case TQConst::DistNegBinomial:
      if (settings.GetDistParamType() != GZLConst_940::DistParamFixed) return nullptr;
      return std::make_unique<GZLNormalLMTest>(settings, nParams, inModel, phi, k, ll, link, var);
    case TQConst::DistPoisson:
      if (!settings.IsNegBin0()) return nullptr;
      return std::make_unique<GZLCTLMTest>(nObs);
    default:
      return nullptr;
  }
}
