// The inference object of a GEE fit (GZLInference::ComputeGEE): both covariances of the
// estimates, the one chosen for inference, the parameter rows and the quasi-likelihood criteria.
#include <cmath>

#include "data/GZLAlgorithm.h"
#include "estimation/GZLOptimizer.h"
#include "gee/GEEOptimizer.h"
#include "inference/GZLInference.h"
#include "support/TQDistFun.h"

namespace {

// trace(A B) of two symmetric matrices of the same size: sum over i, j of a_ij b_ij.
double TraceOfProduct(const TQSymMatrix& a, const TQSymMatrix& b) {
  const int n = a.GetNumRows();
  double t = 0.0;
  for (int i = 0; i < n; ++i) {
    t += a(i, i) * b(i, i);
    for (int j = 0; j < i; ++j) t += 2.0 * a(i, j) * b(i, j);
  }
  return t;
}

}  // namespace

TQStatus GZLInference::ComputeGEE(const GEEOptimizer& optimizer) {
  fStatComputeWarnings.clear();
  fpCovariance.reset();
  fpRobustCovariance.reset();
  fpModelCovariance.reset();
  fStatus = TQStatus();
  fQuasiLikelihood = fQICTrace = fQIC = fQICu = TQMV::Missing;

  const int n = optimizer.GetNumParams();
  const std::vector<double>& estimates = optimizer.GetParamEstimates();
  const TQBitSet& initSet = optimizer.GetInitRedunInfo();
  const TQBitSet& finalSet = optimizer.GetFinalRedunInfo();
  fRedundancy = initSet;
  const int p = finalSet.Count(0, n);
  fNParameters = p;
  fNObservations = optimizer.GetNumObservations();
  fSampleSize = fNObservations;
  const double phi = optimizer.GetPhi();
  const double threshold = n * GZLOptimizer::kMachineEpsilon;

  // Model-based: the final inverse carries minus the covariance. Robust: the sandwich G M G
  // (the sign of G cancels), rows of a vanishing diagonal set to 0.
  if (!(phi > 0.0)) {
    fpModelCovariance = std::make_unique<TQSymMatrix>(n);
    fpRobustCovariance = std::make_unique<TQSymMatrix>(n);
  } else {
    const TQSymMatrix& G = optimizer.GetInverseHessian();
    if (G.GetNumRows() == n) {
      fpModelCovariance = std::make_unique<TQSymMatrix>(G);
      fpModelCovariance->ChangeSign();
      auto robust = std::make_unique<TQSymMatrix>();
      if (optimizer.GetRobustMiddleMatrix().GetNumRows() == n && G.ComputeGMG(optimizer.GetRobustMiddleMatrix(), *robust)) {
        robust->ZeroOutRowsForSmallDiag(threshold);
        fpRobustCovariance = std::move(robust);
      }
    }
    if (!fpRobustCovariance) fStatus = TQStatus::Warning(GZLStatusCode::RobustCovarianceFailed);
  }
  const TQSymMatrix* chosen =
      fSettings.GetCovbType() == TQConst::CovbRobust ? fpRobustCovariance.get() : fpModelCovariance.get();
  if (chosen != nullptr) fpCovariance = std::make_unique<TQSymMatrix>(*chosen);

  // Goodness of fit: a GEE model has no likelihood; the Pearson statistic of the last pass is
  // what it reports, its degrees of freedom counting the non-redundant parameters only.
  fLogLikelihood = fLogLikelihoodScaleFixed = TQMV::Missing;
  fGoodnessOfFit = GZLGoodnessOfFit(TQMV::Missing, optimizer.GetPearsonChiSquare(), phi, TQMV::Missing,
                                    fNObservations, fSampleSize, p, fSettings.GetDistType(),
                                    GZLConst_940::ScaleFixed, fSettings.GetDistParamType(), false);
  fPseudoR2 = 0.0;

  fbTBased = false;
  fDFForT = TQMV::Missing;
  // The degrees of freedom of t quantiles asked for elsewhere (scoring with test type 0).
  fTQuantileDF = fNObservations - p;
  fCriticalValue = TQDistFun::IdfNorm(0.5 + fConfidenceLevel / 2.0, 0.0, 1.0);
  ComputeRegressionRows(estimates, fpCovariance.get(), initSet, finalSet, fCriticalValue, false, TQMV::Missing,
                        fParamStats);
  // An estimate of exactly 0 gets no standard error.
  for (int j = 0; j < n && j < static_cast<int>(fParamStats.size()); ++j) {
    TQRegrParameterStats& row = fParamStats[static_cast<std::size_t>(j)];
    if (row.IsRedundant() || estimates[static_cast<std::size_t>(j)] != 0.0) continue;
    const double b = row.GetEstimate();
    const bool redundant = row.IsRedundant();
    row = TQRegrParameterStats();
    row.SetEstimate(b);
    row.SetRedundant(redundant);
  }
  // The scale and k are not parameters of the estimating equations: an estimated value comes
  // without a standard error, a fixed one with 0.
  fParamStats.push_back(ComputeAncillaryRow(phi, fSettings.GetScaleType() != GZLConst_940::ScaleFixed,
                                            TQMV::Missing, fCriticalValue));
  if (fSettings.GetDistType() == TQConst::DistNegBinomial)
    fParamStats.push_back(ComputeAncillaryRow(optimizer.GetK(),
                                              fSettings.GetDistParamType() == GZLConst_940::DistParamMLE,
                                              TQMV::Missing, fCriticalValue));

  // Quasi-likelihood criteria (none for the multinomial distributions).
  fQuasiLikelihood = optimizer.GetQuasiLikelihood();
  if (!TQMV::IsMissing(fQuasiLikelihood)) fQICu = 2.0 * (p - fQuasiLikelihood);
  if (fSettings.GetDistType() != TQConst::DistOrdinalMultinomial && phi > 0.0) {
    const TQSymMatrix& info = optimizer.GetIndependenceInformation();
    if (!fpRobustCovariance) {
      GZLAlgorithm::AddWarning(fStatComputeWarnings, TQStatus::Warning(GZLStatusCode::RobustCovarianceFailed));
    } else if (info.GetNumRows() != n) {
      GZLAlgorithm::AddWarning(fStatComputeWarnings, TQStatus::Warning(GZLStatusCode::PostEstimation));
    } else {
      const double t = TraceOfProduct(info, *fpRobustCovariance);
      if (std::isfinite(t)) {
        fQICTrace = t;
        if (!TQMV::IsMissing(fQuasiLikelihood)) fQIC = 2.0 * (t - fQuasiLikelihood);
      } else {
        GZLAlgorithm::AddWarning(fStatComputeWarnings, TQStatus::Warning(GZLStatusCode::PostEstimation));
      }
    }
  }
  return fStatus;
}
