#include "inference/GZLInference.h"

#include <cmath>

#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {

bool Usable(double x) { return !TQMV::IsMissingOrInfinite(x); }

}  // namespace

GZLInference::GZLInference(const GZLSettings& settings)
    : fSettings(settings),
      fModelEffects(settings.GetModelEffects()),
      fbIntercept(settings.GetInterceptUse()),
      fConfidenceLevel(settings.GetConfidenceLevel()) {}

GZLInference::~GZLInference() = default;

void GZLInference::ComputeRegressionRows(const std::vector<double>& estimates, const TQSymMatrix* covariance,
                                         const TQBitSet& initSet, const TQBitSet& finalSet, double critical,
                                         bool tBased, double dfT, std::vector<TQRegrParameterStats>& rows) {
  const int p = static_cast<int>(estimates.size());
  rows.assign(p, TQRegrParameterStats());
  const bool haveCov = covariance != nullptr && covariance->GetNumRows() >= p;
  for (int j = 0; j < p; ++j) {
    TQRegrParameterStats& row = rows[j];
    const double b = estimates[j];
    row.SetEstimate(b);
    if (!initSet.InSet(j)) {
      // Aliased with earlier columns: fixed at 0, no statistics.
      row.SetRedundant(true);
      continue;
    }
    // In the model at the start but dropped during the iterations, or no covariance at all:
    // no statistics either.
    if (!finalSet.InSet(j) || !haveCov || !Usable(b)) continue;
    const double cjj = covariance->Get(j, j);
    double se = TQMV::Missing;
    if (Usable(cjj) && cjj >= 0.0) se = std::sqrt(cjj);
    row.SetStdError(se);
    if (!TQMV::IsMissing(se) && Usable(critical)) {
      row.SetLowerBound(b - se * critical);
      row.SetUpperBound(b + se * critical);
    }
    if (!TQMV::IsMissing(se) && se > 0.0) {
      const double ratio = b / se;
      if (tBased) {
        row.SetTValue(ratio);
        row.SetDF(dfT);
        const double cdf = TQDistFun::CdfT(std::fabs(ratio), dfT);
        row.SetSignificance(TQMV::IsMissing(cdf) ? TQMV::Missing : 2.0 * (1.0 - cdf));
      } else {
        const double chi = ratio * ratio;
        row.SetWaldChiSquare(chi);
        row.SetDF(1.0);
        const double cdf = TQDistFun::CdfChi(chi, 1.0);
        row.SetSignificance(TQMV::IsMissing(cdf) ? TQMV::Missing : 1.0 - cdf);
      }
    } else {
      // No usable standard error: the statistic cannot be formed; an estimate of exactly 0
      // gives no significance, any other counts as infinitely significant.
      row.SetSignificance(b == 0.0 ? TQMV::Missing : 0.0);
    }
  }
}

TQRegrParameterStats GZLInference::ComputeAncillaryRow(double value, bool estimated, double h,
                                                       double intervalQuantile) {
  TQRegrParameterStats row;
  row.SetEstimate(value);
  if (!Usable(value)) return row;
  if (!estimated) {
    // A fixed value has no sampling error.
    row.SetStdError(0.0);
    row.SetLowerBound(value);
    row.SetUpperBound(value);
    return row;
  }
  if (value == 0.0) {
    // A vanished scale (perfect fit): nothing varies.
    row.SetStdError(0.0);
    row.SetLowerBound(0.0);
    row.SetUpperBound(0.0);
    return row;
  }
  if (!Usable(h) || h >= 0.0) return row;
  if (!(std::fabs(h) > kMachineEpsilon)) return row;
  // Standard error of log(value) from the curvature, carried to the value by the delta method;
  // the interval is symmetric on the log scale so that it stays positive.
  const double s = std::sqrt(-1.0 / h);
  const double se = s * value;
  row.SetStdError(se);
  if (Usable(intervalQuantile)) {
    const double e = std::exp(s * intervalQuantile);
    if (std::isfinite(e) && e > 0.0) {
      row.SetLowerBound(value / e);
      row.SetUpperBound(value * e);
    }
  }
  if (se > 0.0) {
    const double z = value / se;
    row.SetWaldZ(z);
    const double cdf = TQDistFun::CdfStdNorm(z);
    row.SetSignificance(TQMV::IsMissing(cdf) ? TQMV::Missing : 2.0 * (1.0 - cdf));
  }
  return row;
}

void GZLInference::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLInference display start");
  DisplayDF("Tolerance", fTolerance);
  DisplayB("Intercept in the model indicator", fbIntercept);
  DisplayI("Number of model effects", static_cast<int>(fModelEffects.size()));
  DisplayDF("Confidence interval level", fConfidenceLevel);
  DisplayB("t-based inference indicator", fbTBased);
  DisplayDF("Critical value of confidence intervals", fCriticalValue);
  DisplayDF("Degrees of freedom for t statistics", fDFForT);
  DisplayDF("Loglikelihood", fLogLikelihood);
  DisplayDF("Loglikelihood with the scale fixed", fLogLikelihoodScaleFixed);
  fGoodnessOfFit.Display();
  DisplayI("Number of parameter statistics", static_cast<int>(fParamStats.size()));
  for (const TQRegrParameterStats& row : fParamStats) row.Display();
  DisplayText(1, "Redundancy indicators: " + fRedundancy.ToString());
  if (fpCovariance)
    fpCovariance->Display("Covariance matrix of the parameter estimates");
  else
    DisplayText(1, "Covariance matrix of the parameter estimates is not defined");
  if (fpRobustCovariance) fpRobustCovariance->Display("Robust covariance matrix of the parameter estimates");
  DisplayI("Status of profile likelihood confidence intervals", fPLCIStatus.GetErrorCode());
  DisplayText(1, "GZLInference display end");
}
