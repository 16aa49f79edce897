#include "inference/GZLInference.h"

#include <cmath>

#include "data/GZLDesignMatrix.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/IGZLRowSource.h"
#include "inference/GZLProfileLikelihoodCI.h"
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

void GZLInference::CountObservations(const GZLSettings& settings, const GZLOptimizerForGZLM& optimizer,
                                     const GZLDesignMatrix* design, double& nObs, double& sampleSize) {
  // The observation total: the frequency weights of the complete records.
  nObs = design != nullptr ? design->GetSumFreqWeights() : optimizer.GetSource().GetNumObservations();
  sampleSize = nObs;
  if (design == nullptr) return;
  const double validRecords = design->GetDataStats().GetDependentStat().fWeightedN;
  if (settings.IsSingleDependentForBinomial()) {
    nObs = validRecords;
    sampleSize = nObs;
  } else if (settings.IsMultinomial()) {
    // Each record contributes one observation per non-reference category to the degrees of
    // freedom; the information criteria count records.
    const int c = design->GetNResponseCategories();
    nObs = (c - 1) * validRecords;
    sampleSize = validRecords;
  } else if (settings.IsEventsTrialsForBinomial()) {
    // Degrees of freedom count records; the criteria count Bernoulli trials.
    sampleSize = design->GetWeightedTrials();
  }
}

TQStatus GZLInference::Compute(const GZLOptimizerForGZLM& optimizer, const GZLDesignMatrix* design) {
  using namespace GZLConst_940;
  fStatComputeWarnings.clear();
  fpCovariance.reset();
  fpRobustCovariance.reset();
  fStatus = TQStatus();

  const int p = optimizer.GetNumParams();
  const std::vector<double>& estimates = optimizer.GetParamEstimates();
  const TQBitSet& initSet = optimizer.GetInitRedunInfo();
  const TQBitSet& finalSet = optimizer.GetFinalRedunInfo();
  fRedundancy = initSet;
  const int nInModel = initSet.Count(0, p);
  const bool extra = optimizer.IsUpdatePhi() || optimizer.IsUpdateK();
  fNParameters = nInModel + (extra ? 1 : 0);

  CountObservations(fSettings, optimizer, design, fNObservations, fSampleSize);

  // Log-likelihoods: the one the settings ask for, and the one at the fixed deviance or Pearson
  // scale, which is what the criteria of those scale methods are built on.
  const ScaleMethod scaleMethod = fSettings.GetScaleType();
  fLogLikelihood = optimizer.GetLogLikelihood();
  fLogLikelihoodScaleFixed = optimizer.GetLogLikelihoodScaleFixed();
  if (scaleMethod != ScaleDeviance && scaleMethod != ScalePearson) fLogLikelihoodScaleFixed = fLogLikelihood;
  const double criteriaLL =
      (scaleMethod == ScaleDeviance || scaleMethod == ScalePearson) ? fLogLikelihoodScaleFixed : fLogLikelihood;

  const bool normalIdentity =
      fSettings.GetDistType() == TQConst::DistNormal && fSettings.GetLinkType() == TQConst::LinkIdentity;
  const bool mixedHost = fSettings.IsModelGZLMMM();
  const bool restricted = mixedHost && fSettings.GetThetaEstTypeGZLMMM() == 1 && normalIdentity;
  fGoodnessOfFit = GZLGoodnessOfFit(optimizer.GetDeviance(), optimizer.GetPearson(), optimizer.GetPhi(), criteriaLL,
                                    fNObservations, fSampleSize, fNParameters, fSettings.GetDistType(), scaleMethod,
                                    fSettings.GetDistParamType(), restricted);
  fGoodnessOfFit.AddWarnings(fStatComputeWarnings);
  fPseudoR2 = fGoodnessOfFit.GetPseudoR2(optimizer.GetFittedSpread());

  // Critical value of the intervals: normal, or t for a mixed-model host.
  const double q = 0.5 + fConfidenceLevel / 2.0;
  const double z = TQDistFun::IdfNorm(q, 0.0, 1.0);
  fbTBased = mixedHost;
  double used = nInModel;
  if (fSettings.GetDistType() == TQConst::DistNominalMultinomial) {
    used = 0.0;
    for (int j = 0; j < p && j < static_cast<int>(estimates.size()); ++j)
      if (estimates[j] != 0.0) used += 1.0;
  }
  fTQuantileDF = TQMV::IsMissing(fNObservations) ? TQMV::Missing : fNObservations - used;
  fDFForT = TQMV::Missing;
  if (fbTBased) {
    fDFForT = fTQuantileDF;
    fCriticalValue = TQMV::IsMissing(fDFForT) ? TQMV::Missing : TQDistFun::IdfT(q, fDFForT);
  } else {
    fCriticalValue = z;
  }

  // Covariance: the stored inverse is minus the covariance of all P (+1) parameters; the
  // regression block is the covariance used for inference.
  const TQSymMatrix& inverse = optimizer.GetInverseHessian();
  if (inverse.GetNumRows() >= p && p > 0) {
    auto cov = std::make_unique<TQSymMatrix>(p);
    for (int i = 0; i < p; ++i)
      for (int j = 0; j <= i; ++j) {
        const double v = inverse.Get(i, j);
        cov->Set(i, j, TQMV::IsMissing(v) ? TQMV::Missing : -v);
      }
    fpCovariance = std::move(cov);
  } else if (p > 0) {
    fStatus = TQStatus::Warning(GZLStatusCode::RobustCovarianceFailed);
  }

  ComputeRegressionRows(estimates, fpCovariance.get(), initSet, finalSet, fCriticalValue, fbTBased, fDFForT,
                        fParamStats);

  // The scale row, then the k row of a negative binomial model. Their standard errors come from
  // the curvature of the log-likelihood in log(phi) or log(k), the extra parameter P.
  const TQSymMatrix& hessian = optimizer.GetHessian();
  const double h = (extra && hessian.GetNumRows() > p) ? hessian.Get(p, p) : TQMV::Missing;
  const double ancillaryQuantile = (fbTBased && restricted) ? z : fCriticalValue;
  fParamStats.push_back(ComputeAncillaryRow(optimizer.GetPhi(), optimizer.IsUpdatePhi(),
                                            optimizer.IsUpdatePhi() ? h : TQMV::Missing, ancillaryQuantile));
  if (fSettings.GetDistType() == TQConst::DistNegBinomial)
    fParamStats.push_back(ComputeAncillaryRow(optimizer.GetK(), optimizer.IsUpdateK(),
                                              optimizer.IsUpdateK() ? h : TQMV::Missing, ancillaryQuantile));
  return fStatus;
}

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

void GZLInference::ApplyProfileIntervals(const GZLProfileLikelihoodCI& profile) {
  fPLCIStatus = profile.GetStatus();
  const std::vector<double>& lower = profile.GetLowerBounds();
  const std::vector<double>& upper = profile.GetUpperBounds();
  const std::size_t p = lower.size();
  for (std::size_t j = 0; j < p && j < fParamStats.size(); ++j) {
    if (fParamStats[j].IsRedundant()) continue;
    fParamStats[j].SetLowerBound(lower[j]);
    fParamStats[j].SetUpperBound(upper[j]);
  }
  // The scale row follows the parameter rows, the k row the scale row.
  if (fSettings.GetScaleType() == GZLConst_940::ScaleMLE && p < fParamStats.size()) {
    fParamStats[p].SetLowerBound(profile.GetScaleLower());
    fParamStats[p].SetUpperBound(profile.GetScaleUpper());
  }
  if (fSettings.GetDistType() == TQConst::DistNegBinomial &&
      fSettings.GetDistParamType() == GZLConst_940::DistParamMLE && p + 1 < fParamStats.size()) {
    fParamStats[p + 1].SetLowerBound(profile.GetKLower());
    fParamStats[p + 1].SetUpperBound(profile.GetKUpper());
  }
}

TQStatus GZLInference::SetEffectTestData(std::unique_ptr<GZLModelEffectTestData> data) {
  fpModelEffectTest = std::move(data);
  fpTypeIModelTestStats.reset();
  fpTypeIIIModelTestStats.reset();
  fpCorrectedModelTest.reset();
  return fpModelEffectTest ? fpModelEffectTest->GetStatus() : TQStatus::Error(GZLStatusCode::InternalError);
}

TQStatus GZLInference::ComputeEffectTests(const std::vector<double>& estimates, const TQBitSet& inModel,
                                          const TQSymMatrix* covariance, double df2,
                                          std::vector<TQStatus>& warnings) {
  if (!fpModelEffectTest || covariance == nullptr || fpModelEffectTest->GetModelTests() != nullptr)
    return TQStatus::Error(GZLStatusCode::InternalError);
  fpModelEffectTest->SetModelTests(std::make_unique<TQModelTests>(estimates, inModel, *covariance, df2));
  auto keep = [&warnings](const TQStatus& status) {
    if (!status.IsOK()) warnings.push_back(status);
  };
  auto run = [&](GZLDefaultModelEffectTest& test, std::unique_ptr<TQModelTestStats>& result) {
    test.SetData(fpModelEffectTest.get());
    TQStatus status;
    test.ComputeTests(status);
    if (status.IsError()) keep(status);
    for (const TQStatus& w : test.GetWarnings()) keep(w);
    result = std::make_unique<TQModelTestStats>(test.GetModelTestStats());
  };
  const TQConst::TQEffectAnalysisType type = fSettings.GetEffectAnalysisType();
  if (type == TQConst::EffectTypeI || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeI typeI;
    run(typeI, fpTypeIModelTestStats);
  }
  if (type == TQConst::EffectTypeIII || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeIII typeIII;
    run(typeIII, fpTypeIIIModelTestStats);
  }
  fpCorrectedModelTest = std::make_unique<TQModelTestStats>();
  keep(fpModelEffectTest->ComputeCorrectedModelTest(*fpCorrectedModelTest));
  return TQStatus();
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
  if (fpModelEffectTest) fpModelEffectTest->Display();
  if (fpTypeIModelTestStats) fpTypeIModelTestStats->Display("Type I tests of model effects");
  if (fpTypeIIIModelTestStats) fpTypeIIIModelTestStats->Display("Type III tests of model effects");
  if (fpCorrectedModelTest) fpCorrectedModelTest->Display("Corrected model test");
  DisplayI("Status of profile likelihood confidence intervals", fPLCIStatus.GetErrorCode());
  DisplayText(1, "GZLInference display end");
}
