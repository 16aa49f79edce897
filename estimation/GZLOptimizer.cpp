#include "estimation/GZLOptimizer.h"

#include <algorithm>
#include <cmath>

#include "GZLProgress.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "estimation/GZLLagrangeMultiplierTest.h"
#include "estimation/GZLStatFactory.h"
#include "estimation/IGZLRowSource.h"
#include "families/GZLDevianceFunc.h"
#include "families/GZLLogLikeFunc.h"
#include "families/GZLPearsonFunc.h"
#include "include/GZLVarianceFunc.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQPower.h"
#include "support/TQRectMatrix.h"

using GZLConst_940::StoppingCriteria;

namespace {

// eta = o + x'beta over the row's columns.
double Eta(const GZLDesignRow& row, const std::vector<double>& beta) {
  double eta = 0.0;
  const std::size_t n = std::min(row.fValues.size(), beta.size());
  for (std::size_t j = 0; j < n; ++j) eta += row.fValues[j] * beta[j];
  return row.fOffset + eta;
}

}  // namespace

// =============================================================================================
// GZLOptimizer

GZLOptimizer::GZLOptimizer(const GZLSettings& settings)
    : fpSettings(&settings), fpCancel(settings.GetCancelPointer()) {
  fbUpdatePhi = settings.GetScaleType() == GZLConst_940::ScaleMLE;
  fbUpdateK = settings.GetDistType() == TQConst::DistNegBinomial &&
              settings.GetDistParamType() == GZLConst_940::DistParamMLE;
  fMaxIter = settings.GetMaxIterations();
  fMaxStepHalving = settings.GetMaxStepHalvingValue();
  fCSIteration = settings.GetCSIteration();
  fbNormalIdentity =
      settings.GetDistType() == TQConst::DistNormal && settings.GetLinkType() == TQConst::LinkIdentity;
  if (settings.GetDistType() == TQConst::DistNegBinomial) fK = fPrevK = settings.GetDistParam();
  fPhi = fPrevPhi = settings.GetScaleType() == GZLConst_940::ScaleFixed ? settings.GetScaleValue() : 1.0;
}

GZLOptimizer::~GZLOptimizer() = default;

int GZLOptimizer::InvertWithRedundancy(const TQSymMatrix& information, double tolerance, TQSymMatrix& inverse,
                                       TQBitSet& set, double scaleFree) {
  const int n = information.GetNumRows();
  inverse.Resize(n);
  TQSymMatrix scaled;
  const TQSymMatrix* m = &information;
  if (scaleFree > 0.0) {
    scaled = information;
    scaled.MultiplyByNumber(scaleFree);
    m = &scaled;
  }
  std::vector<double> diagonal;
  if (n < 2)
    m->GetDiagonal(diagonal);
  else
    m->GetNCheckDiagonal(diagonal, tolerance, 1.0);
  const int rank = m->CholInverse(diagonal, tolerance, inverse, set);
  if (rank < 0) return rank;
  if (scaleFree > 0.0) inverse.MultiplyByNumber(scaleFree);
  inverse.ZeroOutNonDiag(n * kMachineEpsilon);
  int inSet = 0;
  for (int i = 0; i < n; ++i)
    if (set.InSet(i)) ++inSet;
  return inSet;
}

int GZLOptimizer::CholInverse(const TQSymMatrix& information, TQSymMatrix& inverse, TQBitSet& set) const {
  const double scaleFree = (fbNormalIdentity && fPhi > 0.0) ? fPhi : 0.0;
  return InvertWithRedundancy(information, fpSettings->GetTolerance(), inverse, set, scaleFree);
}

double GZLOptimizer::GetLogLikelihood() const noexcept {
  return fpSettings->GetLLType() == GZLConst_940::LLKernel ? fKernelLL : fFullLL;
}

double GZLOptimizer::GetLogLikelihoodScaleFixed() const noexcept {
  return fpSettings->GetLLType() == GZLConst_940::LLKernel ? fKernelLLScaleFixed : fFullLLScaleFixed;
}

void GZLOptimizer::AdjustLogLikelihood(double delta) noexcept {
  for (double* ll : {&fKernelLL, &fFullLL, &fKernelLLScaleFixed, &fFullLLScaleFixed})
    if (!TQMV::IsMissing(*ll)) *ll += delta;
}

void GZLOptimizer::AddWarning(const TQStatus& warning) {
  if (!warning.IsWarning()) return;
  if (std::find(fWarnings.begin(), fWarnings.end(), warning) == fWarnings.end()) fWarnings.push_back(warning);
}

bool GZLOptimizer::StopsAfterIteration() {
  if (fIterNum >= fMaxIter) {
    AddWarning(TQStatus::Warning(GZLStatusCode::LoopIterLargeMaxIter));
    fStopCriterion = GZLConst_940::MaxIterationsReached;
    return true;
  }
  if (fbSingular) {
    fStopCriterion = GZLConst_940::UnexpectedSingularity;
    return true;
  }
  return false;
}

bool GZLOptimizer::IsCancelled() const { return fpCancel != nullptr && fpCancel->IsCancelled(); }

void GZLOptimizer::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLOptimizer display start");
  DisplayI("Number of parameters", fNParams);
  DisplayDV("Vector of parameter estimates", fParamEstimates, false);
  DisplayDV("Vector of previous parameter estimates", fPrevParamEstimates, false);
  DisplayDV("Newton direction", fDirection, false);
  DisplayD("Scale (phi) value", fPhi);
  DisplayD("Previous scale (phi) value", fPrevPhi);
  DisplayD("parameter (K) value", fK);
  DisplayD("Previous parameter (K) value", fPrevK);
  DisplayB("Update phi indicator", fbUpdatePhi);
  DisplayB("Update distribution parameter indicator", fbUpdateK);
  DisplayDV("Gradient vector:", fGradient, false);
  fHessian.Display("Hessian matrix:");
  fInverseHessian.Display("Inverse Hessian matrix:");
  DisplayText(1, "Initial redundancy indicators:");
  fInitRedunInfo.Display();
  DisplayText(1, "Final redundancy indicators:");
  fFinalRedunInfo.Display();
  DisplayB("Model convergence", fbConverged);
  DisplayI("Iteration number in the outer loop", fIterNum);
  DisplayI("Total number of iterations", fTotalIter);
  DisplayI("Number of steps in the step-halving (inner) loop", fNStepHalving);
  GZLComponentDisplay_940::DisplayC("Stopping criteria", fStopCriterion);
  DisplayD("Kernel loglikelihood", fKernelLL);
  DisplayD("Previous kernel loglikelihood", fPrevKernelLL);
  DisplayD("Full loglikelihood (missing if LL type Kernel)",
           fpSettings->GetLLType() == GZLConst_940::LLKernel ? TQMV::Missing : fFullLL);
  DisplayD("Loglikelihood constant", fLLConstant);
  DisplayD("Deviance (missing if not computed yet)", fDeviance);
  DisplayD("Pearson (missing if not computed yet)", fPearson);
  DisplayD("Lagrange multiplier test chi-square", fLMChiSquare);
  DisplayD("Lagrange multiplier test degrees of freedom", fLMDF);
  DisplayD("Lagrange multiplier test significance", fLMSig);
  DisplayI("Number of bad records", fNBadRecords);
  DisplayB("Hessian matrix is computed using fish or not", fbUseExpected);
  DisplayI("Maximum number of iterations", fMaxIter);
  DisplayI("Maximum number of step-halvings", fMaxStepHalving);
  DisplayI("Iteration number for checking cs/qcs", fCSIteration);
  GZLComponentDisplay_940::DisplayStatus("Status", fStatus);
  GZLComponentDisplay_940::DisplayVStatus("Warnings", fWarnings);
  DisplayB("Singular Hessian indicator", fbSingular);
  DisplayB("Perfect fit indicator", fbPerfectFit);
  DisplayB("Extra parameter redundant indicator", fbExtraRedundant);
  DisplayB("Likelihood-ratio test fit indicator", fbLRFit);
  DisplayD("Initial scale value", fInitScale);
  DisplayD("Initial parameter (K) value", fInitK);
  DisplayText(1, "GZLOptimizer display end");
}

// =============================================================================================
// GZLOptimizerForGZLM

GZLOptimizerForGZLM::GZLOptimizerForGZLM(IGZLRowSource& source, const GZLSettings& settings, bool reportIterations)
    : GZLOptimizer(settings), fpSource(&source) {
  fpStatFactory = std::make_unique<GZLStatFactory>(source, settings);
  fNParams = fpStatFactory->GetNumParams();
  fParamEstimates.assign(static_cast<std::size_t>(fNParams), 0.0);
  fPrevParamEstimates = fParamEstimates;
  fInitRedunInfo = TQBitSet(fNParams, true);
  fFinalRedunInfo = fInitRedunInfo;
  fpListener = reportIterations ? settings.GetIterProgressListener() : nullptr;
}

GZLOptimizerForGZLM::~GZLOptimizerForGZLM() = default;

bool GZLOptimizerForGZLM::IsSeparationModel() const noexcept {
  return fpSettings->IsSingleDependentForBinomial() || fpSettings->IsMultinomial();
}

TQStatus GZLOptimizerForGZLM::RunPass(bool llOnly) {
  TQStatus st;
  fpStatFactory->ComputeLLGradHessian(st, fParamEstimates, fPhi, fbUseExpected, llOnly, false);
  if (st.GetErrorCode() == 1 || st.GetErrorCode() == GZLStatusCode::NewPass) return st;
  fNBadRecords = fpStatFactory->GetNumInvalidRecords();
  if (fNBadRecords > 0 || st.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction)
    fbInvalidForLink = true;
  // Rows the design matrix could not complete (unseen category combination, overflowing
  // covariate product) are refused like records invalid for the link.
  if (fpStatFactory->GetNumFlaggedRows() > 0) AddWarning(TQStatus::Warning(GZLStatusCode::InvalidRecordsOverflow));
  if (st.IsError()) return st;
  fKernelLL = fpStatFactory->GetLogLikelihood();
  if (!llOnly) {
    fGradient = fpStatFactory->GetGradient();
    fHessian = fpStatFactory->GetHessian();
  }
  return st;
}

void GZLOptimizerForGZLM::InvertAndTrack() {
  TQBitSet set;
  CholInverse(fHessian, fInverseHessian, set);
  TQBitSet inModel = set;
  inModel.Resize(fNParams, false);
  if (fbFirstInversion) {
    fInitRedunInfo = inModel;
    fInitFullSet = set;
    fbFirstInversion = false;
    fpStatFactory->SetRedundancy(fInitRedunInfo);
  } else if (inModel.IsNewFalse(fInitRedunInfo, fNParams)) {
    fbSingular = true;
  }
  fFinalRedunInfo = inModel;
  fFinalFullSet = set;
  fInverseHessian.ComputeSV(fGradient, fDirection);
}

double GZLOptimizerForGZLM::ZeroScaleThreshold() const {
  const int r = fInitRedunInfo.Count() + ((fbUpdatePhi || fbUpdateK) ? 1 : 0);
  const double R = fpSource->GetResponseSumOfSquares(fpSettings->GetInterceptUse(), fpSettings->GetRegrWeightVar() >= 0);
  return std::min(1e-8, R * kMachineEpsilon * r);
}

bool GZLOptimizerForGZLM::ZeroScaleCheck() {
  if (fPhi > 0.0 && fPhi < ZeroScaleThreshold()) fPhi = 0.0;
  if (fPhi <= 0.0 || (fbUpdateK && fK < 0.0)) {
    const int n = GetNumFullParams();
    fHessian = TQSymMatrix(n, TQMV::Missing);
    fInverseHessian = TQSymMatrix(n, TQMV::Missing);
    fFullLL = TQMV::Missing;
    AddWarning(TQStatus::Warning(GZLStatusCode::ScaleIsZero));
    if (fbUpdatePhi) {
      AddWarning(TQStatus::Warning(GZLStatusCode::PerfectFit));
      fbPerfectFit = true;
    }
    return true;
  }
  return false;
}

TQStatus GZLOptimizerForGZLM::Estimate() {
  if (fpListener != nullptr) {
    fStartTime = GZLReporter::Clock();
    fReporter.SetStartTime(fStartTime);
  }
  fStatus = fpStatFactory->GetStatus();
  if (fStatus.IsError()) return fStatus;
  // Both extra parameters asked for: refused whatever the distribution (only the negative
  // binomial has a k to estimate, but the request itself is contradictory).
  if (fbUpdatePhi && (fbUpdateK || fpSettings->GetDistParamType() == GZLConst_940::DistParamMLE)) {
    fStatus = TQStatus::Error(GZLStatusCode::ScaleAndKBothMle);
    return fStatus;
  }
  if (fbNormalIdentity) {
    ClosedFormSolution();
  } else {
    ComputeInitialValues();
    if (!fStatus.IsError() && fStatus.GetErrorCode() != GZLStatusCode::SingularHessian && fPhi > 0.0) {
      if (fMaxIter != 0)
        IterationLoop();
      else
        fStopCriterion = GZLConst_940::NoIterations;
    }
  }
  if (!fStatus.IsError() && fPhi > 0.0) {
    fHessian.ChangeSign();
    fInverseHessian.ChangeSign();
  }
  if (fbInvalidForLink) AddWarning(TQStatus::Warning(GZLStatusCode::InvalidRecordsForLinkFunction));
  if (fStatus.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction) {
    fStatus = TQStatus::Warning(GZLStatusCode::AllInvalidRecordsForLinkFunction);
    AddWarning(fStatus);
  } else if (!fStatus.IsError()) {
    ZeroScaleCheck();
  }
  fbEstimated = !fStatus.IsError() && fStatus.GetErrorCode() != GZLStatusCode::AllInvalidRecordsForLinkFunction;
  if (fbEstimated && fpSource->GetBackTransform() != nullptr && !MapBackFromScaledDesign()) {
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    fbEstimated = false;
  }
  const double usable = fpSource->GetNumObservations() - fNBadRecords;
  fMeanFitted = (fbEstimated && usable > 0.0) ? fpStatFactory->GetSumFittedMeans() / usable : TQMV::Missing;
  return fStatus;
}

TQStatus GZLOptimizerForGZLM::ComputeSSCP(TQSymMatrix& sscp) {
  if (!fbEstimated || !fpStatFactory) return TQStatus::Error(GZLStatusCode::InternalError);
  if (fpSettings->IsMultinomial()) return MultinomialSSCP(sscp);
  GZLStatFactory& factory = *fpStatFactory;
  // Every column takes part, the aliased ones too: the hypotheses need their relations to the
  // others. The fit's own redundancy is put back afterwards.
  const TQBitSet inModel = factory.GetRedundancy();
  factory.SetRedundancy(TQBitSet(fNParams, true));
  const double phi = fPhi > 0.0 ? fPhi : 1.0;
  TQStatus st;
  factory.ComputeLLGradHessian(st, GetScaledParamEstimates(), phi, true, false, true);
  factory.SetRedundancy(inModel);
  if (st.IsError()) return st;
  // The pass gives the information X'WX / phi.
  TQSymMatrix information = factory.GetHessian();
  information.MultiplyByNumber(phi);
  if (fbRTransformed) {
    // Scaled columns are X A (A the back transform), so X'WX = B' (scaled X'WX) B.
    const TQRectMatrix* forward = fpSource->GetForwardTransform();
    if (forward == nullptr || !information.ComputeRTransSR(*forward, sscp))
      return TQStatus::Error(GZLStatusCode::InternalError);
  } else {
    sscp = std::move(information);
  }
  return TQStatus();
}

// A multinomial record's information is a block of (C - 1) x (C - 1) per pair of columns, with
// no single working weight for the one-row design the hypotheses are built on. Its records are
// weighted by their frequency and scale weights alone: the same weights at any estimates, so
// the hypotheses do not move with the fit, and those of a design without empty cells do not
// depend on the weights at all (the sum-to-zero hypotheses of every complete design).
TQStatus GZLOptimizerForGZLM::MultinomialSSCP(TQSymMatrix& sscp) {
  const bool ordinal = fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial;
  TQStatus st;
  TQSymMatrix xx;
  fpStatFactory->ComputeCrossProducts(st, xx, ordinal);
  if (st.IsError()) return st;
  if (!fbRTransformed) {
    sscp = std::move(xx);
    return TQStatus();
  }
  // Scaled rows: the row as specified is the scaled row times the forward transform of one
  // logit's block (nominal), or of the thresholds' unit column and the effect columns
  // (ordinal, where a threshold row of the transform carries minus the columns' centres).
  const TQRectMatrix* forward = fpSource->GetForwardTransform();
  const int n = xx.GetNumRows();
  const int thresholds = ordinal ? fNParams - (n - 1) : 0;
  if (forward == nullptr || n < 1 || forward->GetNumRows() != fNParams || forward->GetNumCols() != fNParams ||
      (ordinal && thresholds < 1) || (!ordinal && n > fNParams))
    return TQStatus::Error(GZLStatusCode::InternalError);
  TQRectMatrix rowForward(n, n, 0.0);
  if (ordinal) {
    rowForward(0, 0) = 1.0;
    for (int j = 1; j < n; ++j) {
      rowForward(0, j) = -(*forward)(0, thresholds + j - 1);
      for (int i = 1; i < n; ++i) rowForward(i, j) = (*forward)(thresholds + i - 1, thresholds + j - 1);
    }
  } else {
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) rowForward(i, j) = (*forward)(i, j);
  }
  if (!xx.ComputeRTransSR(rowForward, sscp)) return TQStatus::Error(GZLStatusCode::InternalError);
  return TQStatus();
}

bool GZLOptimizerForGZLM::MapBackFromScaledDesign() {
  const TQRectMatrix* back = fpSource->GetBackTransform();
  const TQRectMatrix* forward = fpSource->GetForwardTransform();
  const int P = fNParams;
  if (back == nullptr || forward == nullptr || back->GetNumRows() != P || back->GetNumCols() != P ||
      forward->GetNumRows() != P || forward->GetNumCols() != P)
    return false;
  fScaledParamEstimates = fParamEstimates;
  fScaledGradient = fGradient;
  fScaledHessian = fHessian;
  fScaledInverseHessian = fInverseHessian;
  std::vector<double> mapped;
  if (!back->ComputeRV(fParamEstimates, mapped)) return false;
  fParamEstimates = mapped;
  // The extra parameter (log phi or log k) is not transformed.
  const int n = GetNumFullParams();
  TQRectMatrix A(n, n, 0.0), B(n, n, 0.0);
  for (int i = 0; i < P; ++i)
    for (int j = 0; j < P; ++j) {
      A(i, j) = (*back)(i, j);
      B(i, j) = (*forward)(i, j);
    }
  for (int i = P; i < n; ++i) A(i, i) = B(i, i) = 1.0;
  // Unscaled = A scaled, so the gradient and the Hessian go with B' and B' H B, the inverse with
  // A H^-1 A'.
  if (static_cast<int>(fGradient.size()) == n) {
    if (!B.ComputeRTransV(fScaledGradient, mapped)) return false;
    fGradient = mapped;
  }
  const bool missingMatrices = n > 0 && fHessian.GetNumRows() == n && TQMV::IsMissing(fHessian(0, 0));
  if (!missingMatrices && fHessian.GetNumRows() == n) {
    TQSymMatrix out;
    if (!fScaledHessian.ComputeRTransSR(B, out)) return false;
    fHessian = out;
    if (!fScaledInverseHessian.ComputeRSRTrans(A, out)) return false;
    fInverseHessian = out;
  }
  fbRTransformed = true;
  return true;
}

void GZLOptimizerForGZLM::DesignRedundancy() {
  TQStatus st;
  TQSymMatrix xx;
  const bool ordinal = fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial;
  fpStatFactory->ComputeCrossProducts(st, xx, ordinal);
  if (st.IsError()) {
    fStatus = st;
    return;
  }
  const int n = xx.GetNumRows();
  std::vector<double> diagonal;
  xx.GetDiagonal(diagonal);
  TQBitSet set(n, false);
  xx.Sweep(0, n, fpSettings->GetTolerance(), diagonal, set);
  set.Resize(n, false);
  if (!fpSettings->IsMultinomial()) {
    set.Resize(fNParams, false);
    fInitRedunInfo = set;
    return;
  }
  // Ordinal: the thresholds (the unit column's place) always, then the columns; nominal: the
  // columns' pattern in every logit.
  fInitRedunInfo = TQBitSet(fNParams, true);
  if (ordinal) {
    const int thresholds = fNParams - (n - 1);
    for (int j = 1; j < n; ++j)
      if (!set.Test(j)) fInitRedunInfo.Clear(thresholds + j - 1);
  } else if (n > 0) {
    for (int k = 0; k < fNParams; ++k)
      if (!set.Test(k % n)) fInitRedunInfo.Clear(k);
  }
}

void GZLOptimizerForGZLM::MultinomialStartingValues(bool fromHost) {
  const std::size_t P = static_cast<std::size_t>(fNParams);
  if (!fromHost) fParamEstimates.assign(P, 0.0);
  std::vector<int> categories;
  std::vector<double> counts, offsets;
  const bool haveCounts = fpSource->GetResponseCategories(categories, counts, offsets);
  const std::size_t K = static_cast<std::size_t>(std::max(fpSettings->GetDependentSize(), 0));
  const bool withOffset = fpSettings->GetOffsetType() != TQConst::OffsetNone;
  const TQStatus cannot = TQStatus::Error(GZLStatusCode::CantBuildModel);
  // Every declared category must occur: an ordinal threshold between two categories, or a
  // nominal logit, needs records on both sides. (Without it the nominal categories could not
  // even be given their places, the reference last.)
  const bool allObserved =
      haveCounts && K >= 2 && counts.size() == K && std::all_of(counts.begin(), counts.end(), [](double c) { return c > 0.0; });
  if (!allObserved) {
    fStatus = cannot;
    return;
  }
  if (fromHost) return;
  // The aliasing of the design's columns, from their cross-products: exact for the columns of
  // factor levels, whose cross-products are sums of weights, where the information summed over
  // many records would decide it on rounding.
  DesignRedundancy();
  if (fStatus.IsError()) return;
  if (fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial) {
    // The thresholds reproduce the cumulative proportions (less the mean offset of the records
    // at or below each one), made non-decreasing.
    if (P < K - 1) {
      fStatus = cannot;
      return;
    }
    double total = 0.0;
    for (double c : counts) total += c;
    const ITQLinkFunc* link = fpStatFactory->GetLinkFunction();
    double cumulative = 0.0, cumulativeOffset = 0.0;
    for (std::size_t k = 0; k + 1 < K; ++k) {
      cumulative += counts[k];
      cumulativeOffset += offsets[k];
      double threshold = link != nullptr ? link->GetEta(cumulative / total) : TQMV::Missing;
      if (TQMV::IsMissing(threshold)) {
        fStatus = cannot;
        return;
      }
      if (withOffset) threshold -= cumulativeOffset / cumulative;
      if (k > 0 && fParamEstimates[k - 1] > threshold) threshold = fParamEstimates[k - 1];
      fParamEstimates[k] = threshold;
    }
    return;
  }
  // Nominal: the intercept of each logit at the log odds of its category against the reference.
  if (!fpSettings->GetInterceptUse()) return;
  if (withOffset && offsets.size() != K) {
    fStatus = cannot;
    return;
  }
  const std::size_t perLogit = P / (K - 1);
  for (std::size_t k = 0; k + 1 < K; ++k) {
    double intercept = std::log(counts[k] / counts[K - 1]);
    if (withOffset) intercept -= offsets[k] / counts[k];
    if (k * perLogit < P) fParamEstimates[k * perLogit] = intercept;
  }
}

void GZLOptimizerForGZLM::InitialBeta() {
  if (fpSettings->IsMultinomial()) {
    MultinomialStartingValues(false);
    return;
  }
  TQSymMatrix augmented;
  int used = 0, seen = 0;
  TQStatus st;
  fpStatFactory->ComputeStartingRegression(st, fPhi > 0.0 ? fPhi : 1.0, augmented, used, seen);
  if (st.IsError()) {
    fStatus = st;
    return;
  }
  if (seen > 0 && used == 0) {
    // Not one response lies where the link and the variance can be formed.
    fbInvalidForLink = true;
    fStatus = TQStatus::Error(GZLStatusCode::AllInvalidRecordsForLinkFunction);
    return;
  }
  fInitHessian = augmented;
  std::vector<double> coeffs;
  TQBitSet set;
  // A model without regression parameters (no intercept, no effect) has nothing to solve for.
  if (fNParams > 0 && augmented.GetRegCoeffs(fpSettings->GetTolerance(), coeffs, set) < 0) {
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  fParamEstimates = coeffs;
  fParamEstimates.resize(static_cast<std::size_t>(fNParams), 0.0);
  set.Resize(fNParams, false);
  fInitRedunInfo = set;
}

void GZLOptimizerForGZLM::ComputeInitialValues() {
  const std::vector<double>& init = fpSettings->GetInitParams();
  const bool fromHost = !init.empty() && !(fpSettings->IsModelGEE() && !fpSettings->GetInterceptUse());
  const std::size_t P = static_cast<std::size_t>(fNParams);
  fParamEstimates.assign(P, 0.0);
  if (fromHost) {
    if (!(init.size() == P || (fbUpdatePhi && init.size() == P + 1))) {
      fStatus = TQStatus::Error(GZLStatusCode::InitialParameterNumberInvalid);
      return;
    }
    std::copy(init.begin(), init.begin() + static_cast<std::ptrdiff_t>(P), fParamEstimates.begin());
    if (fpSettings->IsMultinomial()) {
      MultinomialStartingValues(true);
      if (fStatus.IsError()) return;
    }
    // Redundancy of the design from its cross-products.
    DesignRedundancy();
    if (fStatus.IsError()) return;
    for (int j = 0; j < fNParams; ++j)
      if (!fInitRedunInfo.Test(j)) fParamEstimates[static_cast<std::size_t>(j)] = 0.0;
  } else {
    InitialBeta();
    if (fStatus.IsError()) return;
  }
  if (fbUpdateK) {
    const double k0 = fpSettings->GetInitDistParam();
    fK = TQMV::IsMissing(k0) ? 1.0 : k0;
  }
  if (fpSettings->GetDistType() == TQConst::DistNegBinomial) fpStatFactory->SetDistParam(fK);
  fInitK = fK;
  fpStatFactory->SetRedundancy(fInitRedunInfo);
  if (fbUpdatePhi) {
    TQStatus st;
    int skipped = 0;
    fPhi = fpStatFactory->ComputeInitialScale(st, fParamEstimates, skipped);
    if (st.IsError()) {
      fStatus = st;
      return;
    }
    if (fpSettings->IsModelGZLMMM() && fbBiasCorrection) {
      const double N = fpSource->GetNumObservations();
      const double r = fInitRedunInfo.Count();
      fPhi = (N == r) ? 0.0 : fPhi * N / (N - r);
    }
  }
  fInitScale = fPhi;
  fFinalRedunInfo = fInitRedunInfo;
  fPrevParamEstimates = fParamEstimates;
  fPrevPhi = fPhi;
  fPrevK = fK;
  if (ZeroScaleCheck()) return;
  // The starting pass; with a listener it also gives the log-likelihood constant of the
  // iteration display (it does not depend on the estimates).
  fpStatFactory->SetComputeConstant(fpListener != nullptr);
  const TQStatus st = RunPass();
  fpStatFactory->SetComputeConstant(false);
  if (st.IsError()) {
    fStatus = st;
    return;
  }
  if (fpListener != nullptr) fLLConstant = fpStatFactory->GetLogLikeConstant();
  if (st.IsWarning()) AddWarning(st);
  fStartKernelLL = fKernelLL;
  fPrevKernelLL = fKernelLL;
  InvertAndTrack();
}

void GZLOptimizerForGZLM::ClosedFormSolution() {
  // The closed form is the starting regression itself: for the normal identity model one weighted
  // least squares sweep is already the maximum likelihood solution.
  InitialBeta();
  if (fStatus.IsError()) return;
  fFinalRedunInfo = fInitRedunInfo;
  fbFirstInversion = false;
  TQStatus st;
  fpStatFactory->SetRedundancy(fInitRedunInfo);

  if (fpSettings->IsModelGZLMMM()) {
    // log det of the weighted cross-products of the non-redundant columns.
    TQSymMatrix xwx(fNParams);
    for (int i = 0; i < fNParams; ++i)
      for (int j = 0; j <= i; ++j) xwx(i, j) = fInitHessian(i, j);
    std::vector<double> diagonal;
    xwx.GetDiagonal(diagonal);
    TQBitSet cholSet;
    xwx.LTChol(diagonal, fpSettings->GetTolerance(), cholSet, false);
    double logDet = 0.0;
    for (int i = 0; i < fNParams; ++i)
      if (fInitRedunInfo.Test(i) && xwx(i, i) > 0.0) logDet += 2.0 * std::log(xwx(i, i));
    fCorrectionTerm = logDet;
  }

  if (fbUpdatePhi) {
    const double ss = fpStatFactory->ComputeResidualSS(st, fParamEstimates);
    if (st.IsError()) {
      fStatus = st;
      return;
    }
    const double N = fpSource->GetNumObservations();
    fPhi = N > 0.0 ? ss / N : 0.0;
    if (fpSettings->IsModelGZLMMM() && fbBiasCorrection) {
      const double r = fInitRedunInfo.Count();
      fPhi = (N == r) ? 0.0 : fPhi * N / (N - r);
    }
  }
  fInitScale = fPhi;
  fPrevParamEstimates = fParamEstimates;
  fPrevPhi = fPhi;
  fbConverged = true;
  fStopCriterion = GZLConst_940::AllConverged;
  if (ZeroScaleCheck()) return;
  st = RunPass();
  if (st.IsError()) {
    fStatus = st;
    return;
  }
  if (st.IsWarning()) AddWarning(st);
  fStartKernelLL = fKernelLL;
  fPrevKernelLL = fKernelLL;
  InvertAndTrack();
  if (fbUpdatePhi && !fFinalFullSet.Test(fNParams)) {
    fbExtraRedundant = true;
    fbSingular = true;
    fStopCriterion = GZLConst_940::ScaleParamSingularity;
    AddWarning(TQStatus::Warning(GZLStatusCode::HessianNotPositiveDefinite));
  }
}

bool GZLOptimizerForGZLM::ApplyStep(double step) {
  const std::size_t P = static_cast<std::size_t>(fNParams);
  if (fDirection.size() < P) return false;
  for (std::size_t j = 0; j < P; ++j) fParamEstimates[j] = fPrevParamEstimates[j] + step * fDirection[j];
  if (fbUpdatePhi || fbUpdateK) {
    if (fDirection.size() < P + 1) return false;
    const double prev = fbUpdatePhi ? fPrevPhi : fPrevK;
    if (!(prev > 0.0)) return false;
    const double value = TQPower::Exponent(std::log(prev) + step * fDirection[P]);
    if (TQMV::IsMissing(value)) return false;
    if (fbUpdatePhi) {
      fPhi = value;
    } else {
      fK = value;
      fpStatFactory->SetDistParam(fK);
    }
  }
  return true;
}

bool GZLOptimizerForGZLM::TestConvergence() {
  const GZLSettings& s = *fpSettings;
  double tolLL, tolParam, tolHess;
  TQConst::TQConvType typeLL, typeParam = TQConst::ConvAbsolute, typeHess = TQConst::ConvAbsolute;
  if (fbLRFit) {
    tolLL = s.GetTolLogLikeTypeIandIII();
    typeLL = s.GetLConvergeTypeTypeIandIII();
    tolParam = 0.0;
    tolHess = 0.0;
  } else {
    tolLL = s.GetLLConCriterion();
    typeLL = s.GetLConvergeType();
    tolParam = s.GetParamEstConCriterion();
    typeParam = s.GetPConvergeType();
    tolHess = s.GetToleranceHessian();
    typeHess = s.GetHConvergeType();
  }
  bool converged = true;
  if (tolLL > 0.0) {
    double D = std::fabs(fKernelLL - fPrevKernelLL);
    // Relative to the signed previous value: a negative previous log-likelihood makes the
    // measure negative and the criterion met.
    if (typeLL == TQConst::ConvRelative) D = D / (fPrevKernelLL + 1e-6);
    converged = D < tolLL;
  }
  if (converged && tolParam > 0.0) {
    const bool relative = typeParam == TQConst::ConvRelative;
    auto change = [relative](double now, double prev) {
      const double d = std::fabs(now - prev);
      return relative ? d / (std::fabs(prev) + 1e-6) : d;
    };
    double D = 0.0;
    for (int j = 0; j < fNParams; ++j) {
      const std::size_t k = static_cast<std::size_t>(j);
      D = std::max(D, change(fParamEstimates[k], fPrevParamEstimates[k]));
    }
    if (fbUpdatePhi && fPhi > 0.0 && fPrevPhi > 0.0) D = std::max(D, change(std::log(fPhi), std::log(fPrevPhi)));
    if (fbUpdateK && fK > 0.0 && fPrevK > 0.0) D = std::max(D, change(std::log(fK), std::log(fPrevK)));
    converged = D < tolParam;
  }
  auto hessianMeasure = [&]() {
    double D = fInverseHessian.ComputeVSV(fGradient);
    if (TQMV::IsMissing(D)) return D;
    if (typeHess == TQConst::ConvRelative) D = D / (std::fabs(fKernelLL) + 1e-6);
    return D;
  };
  if (converged && tolHess > 0.0) {
    const double D = hessianMeasure();
    converged = !TQMV::IsMissing(D) && D < tolHess;
  }
  if (converged && !s.IsCanonicalLink() && fbUseExpected && s.GetHessianCompMethod() == TQConst::HessianHybrid) {
    // Converged under expected information: continue under observed information.
    fTotalIter = s.GetFNIteration() + 1;
    return false;
  }
  if (converged && tolHess == 0.0) {
    const double D = hessianMeasure();
    if (!TQMV::IsMissing(D) && D > 0.0001) {
      AddWarning(TQStatus::Warning(GZLStatusCode::HessianCriterionUnmet));
      fStopCriterion = GZLConst_940::HessianCriterionUnmet;
    }
  }
  return converged;
}

bool GZLOptimizerForGZLM::RunSeparationCheck(bool atEnd) {
  if (!IsSeparationModel() || fCSIteration < 1) return false;
  const bool due = atEnd ? (fIterNum < fCSIteration) : (fCSIteration <= fIterNum);
  if (!due) return false;
  TQStatus st;
  fpStatFactory->CheckSeparation(st);
  if (st.GetErrorCode() == GZLStatusCode::CompleteSeparation) {
    AddWarning(st);
    fStopCriterion = GZLConst_940::CompleteSeparation;
    return true;
  }
  if (st.GetErrorCode() == GZLStatusCode::QuasiCompleteSeparation) {
    AddWarning(st);
    fStopCriterion = GZLConst_940::QuasiCompleteSeparation;
    return true;
  }
  return false;
}

void GZLOptimizerForGZLM::ReportProgress() {
  if (fpListener == nullptr) return;
  double ll = fKernelLL;
  int good = 1;
  if (fpStatFactory->GetNumValidRecords() == 0 && fpStatFactory->GetNumInvalidRecords() > 0) {
    ll = TQMV::Missing;
    good = 0;
  } else if (fpSettings->GetLLType() == GZLConst_940::LLFull) {
    ll = (TQMV::IsMissing(fLLConstant) || TQMV::IsMissing(fKernelLL)) ? TQMV::Missing : fKernelLL + fLLConstant;
  }
  fReporter.SetInfo(&fParamEstimates, fPhi, fK, fIterNum, fNStepHalving, ll, GZLReporter::Clock(), fNBadRecords,
                    good);
  fpListener->OnProgress(fReporter);
}

void GZLOptimizerForGZLM::IterationLoop() {
  const GZLSettings& s = *fpSettings;
  const int frequency = std::max(s.GetIterationFrequency(), 1);
  fReportCountdown = frequency;
  fIterNum = 0;
  fTotalIter = 0;
  while (true) {
    if (IsCancelled()) {
      fStatus = TQStatus::Error(1);
      break;
    }
    ++fIterNum;
    ++fTotalIter;
    fSavedGradient = fGradient;
    fSavedHessian = fHessian;
    fSavedInverseHessian = fInverseHessian;
    switch (s.GetHessianCompMethod()) {
      case TQConst::HessianNewtonRaphson:
        fbUseExpected = false;
        break;
      case TQConst::HessianHybrid:
        fbUseExpected = fTotalIter <= s.GetFNIteration();
        break;
      default:
        fbUseExpected = true;
        break;
    }

    // The full step, then halvings until the log-likelihood does not decrease.
    fNStepHalving = 0;
    double step = 1.0;
    bool accepted = false, failed = false, vanished = false;
    TQStatus st;
    auto attempt = [&]() {
      if (!ApplyStep(step)) return;  // phi or k not representable: as a decrease
      if (ZeroScaleCheck()) {
        vanished = true;
        return;
      }
      st = RunPass();
      if (st.IsError() || !(fPhi > 0.0) || (fbUpdateK && !(fK > 0.0))) {
        failed = true;
        return;
      }
      accepted = fKernelLL >= fPrevKernelLL;
    };
    attempt();
    while (!failed && !vanished && !accepted && fNStepHalving < fMaxStepHalving) {
      ++fNStepHalving;
      step /= 2.0;
      attempt();
    }
    if (failed) {
      if (st.IsError()) fStatus = st;
      break;
    }
    if (vanished) break;
    if (!accepted) {
      AddWarning(TQStatus::Warning(GZLStatusCode::StepHalvingProblem));
      fStopCriterion = GZLConst_940::StepHalvingExhausted;
      fGradient = fSavedGradient;
      fHessian = fSavedHessian;
      fInverseHessian = fSavedInverseHessian;
      fKernelLL = fPrevKernelLL;
      fParamEstimates = fPrevParamEstimates;
      fPhi = fPrevPhi;
      fK = fPrevK;
      if (fbUpdateK) fpStatFactory->SetDistParam(fK);
      break;
    }
    if (st.IsWarning()) AddWarning(st);
    InvertAndTrack();

    if (RunSeparationCheck(false)) break;
    // Progress of this iteration, every `frequency` iterations.
    if (--fReportCountdown < 1) {
      ReportProgress();
      fReportCountdown = frequency;
    }
    if (TestConvergence()) {
      fbConverged = true;
      if (fStopCriterion != GZLConst_940::HessianCriterionUnmet) fStopCriterion = GZLConst_940::AllConverged;
      RunSeparationCheck(true);
      break;
    }
    if (StopsAfterIteration()) break;
    fPrevKernelLL = fKernelLL;
    fPrevParamEstimates = fParamEstimates;
    fPrevPhi = fPhi;
    fPrevK = fK;
  }

  if (IsCancelled()) fStatus = TQStatus::Error(1);
  if (fpListener != nullptr && fReportCountdown != frequency && !fStatus.IsError()) ReportProgress();
  if (!fStatus.IsError()) {
    fPrevKernelLL = fKernelLL;
    fPrevParamEstimates = fParamEstimates;
    fPrevPhi = fPhi;
    fPrevK = fK;
  }
  if ((fbUpdatePhi || fbUpdateK) && !fbSingular && !fStatus.IsError() && fPhi > 0.0) {
    TQBitSet set;
    CholInverse(fHessian, fInverseHessian, set);
    if (!set.Test(fNParams)) {
      fbExtraRedundant = true;
      fbSingular = true;
      fStopCriterion = GZLConst_940::ScaleParamSingularity;
    }
  }
  if (fbSingular)
    AddWarning(TQStatus::Warning(fbConverged ? GZLStatusCode::HessianNotPositiveDefinite
                                             : GZLStatusCode::SingularHessian));
}

TQStatus GZLOptimizerForGZLM::PostEstimation(double fixedScale) {
  TQStatus result;
  if (fStatus.IsError() || !fbEstimated || !(fPhi > 0.0)) return TQStatus::Error(GZLStatusCode::InternalError);
  const GZLSettings& s = *fpSettings;
  const TQConst::DistType dist = s.GetDistType();
  GZLStatFactory& factory = *fpStatFactory;
  const ITQLinkFunc* link = factory.GetLinkFunction();
  const IGZLVarianceFunc* var = factory.GetVarianceFunction();
  IGZLLogLikeFunc* ll = factory.GetLogLikeFunction();
  std::unique_ptr<IGZLDevianceFunc> deviance(
      CreateDevianceFunction(dist, dist == TQConst::DistNegBinomial ? fK : s.GetDistParam()));
  std::unique_ptr<IGZLPearsonFunc> pearson(CreatePearsonFunction(dist));
  const bool multinomial = s.IsMultinomial();
  if (!link || (!var && !multinomial) || !ll || !deviance || !pearson)
    return TQStatus::Error(GZLStatusCode::CantBuildModel);
  if (dist == TQConst::DistNegBinomial) deviance->SetParam(fK);

  if (!fpSource->RestartPass()) return TQStatus::Error(GZLStatusCode::NewPass);
  if (IsCancelled()) return TQStatus::Error(1);
  ll->Reset(fPhi);
  // The Lagrange multiplier test of a fixed scale or k, or of Poisson overdispersion, over the
  // records of this pass; multinomial models have neither a scale nor k to test.
  if (!multinomial)
    fpLMTest = CreateLagrangeMultiplierTest(s, fNParams, fInitRedunInfo, fPhi, fK, fpSource->GetNumObservations(),
                                            *ll, *link, *var);
  int bad = 0;
  double spread = 0.0;
  if (multinomial) {
    const TQStatus st = MultinomialFitStatistics(*deviance, *pearson);
    if (st.IsError()) return st;
  }
  const bool binarySingle = s.IsSingleDependentForBinomial();
  const double eventValue = s.GetDependentRefCateg() == 0 ? 1.0 : 0.0;
  const std::size_t P = static_cast<std::size_t>(fNParams);
  while (const GZLDesignRow* row = multinomial ? nullptr : fpSource->GetNextRow()) {
    if (row->fbInvalid || row->fValues.size() != P) {
      ++bad;
    } else {
      int linkStatus = 0;
      const double mu = link->GetMu(Eta(*row, GetScaledParamEstimates()), &linkStatus);
      if (linkStatus != 0 || TQMV::IsMissing(mu)) {
        ++bad;
      } else {
        double y = row->fResponse;
        double trials = row->fTrials, events = row->fEvents;
        if (binarySingle) {
          y = (y == eventValue) ? 1.0 : 0.0;
          trials = 1.0;
          events = y;
        }
        const double f = row->fFreqWeight, w = row->fScaleWeight;
        // The scale weight of an events/trials response already carries the trials.
        deviance->AddDeviance(mu, y, f, w, 1.0);
        pearson->AddPearson(y, mu, var->GetVariance(mu), f, w, 1.0);
        if (fpLMTest) fpLMTest->UpdateForRow(*row, y, mu);
        ll->AddConstant(y, f, w, trials, events);
        if (!TQMV::IsMissing(fMeanFitted)) spread += (mu - fMeanFitted) * (mu - fMeanFitted);
      }
    }
    if (IsCancelled()) return TQStatus::Error(1);
  }
  fDeviance = deviance->GetDeviance();
  fPearson = pearson->GetPearson();
  // The multinomial log-likelihood has no constant: the kernel is the full log-likelihood.
  fLLConstant = multinomial ? 0.0 : ll->GetNonKernel();
  if (TQMV::IsMissingOrInfinite(fLLConstant)) {
    fLLConstant = TQMV::Missing;
    result = TQStatus::Warning(GZLStatusCode::DeviancePearsonConstLikelihoodMissing);
    AddWarning(result);
  }
  const double N = fpSource->GetNumObservations();
  fFittedSpread = (N - bad - 1.0) > 0.0 ? spread / (N - bad - 1.0) : 0.0;

  const GZLConst_940::ScaleMethod method = s.GetScaleType();
  if (method == GZLConst_940::ScaleDeviance || method == GZLConst_940::ScalePearson) {
    if (fixedScale > 0.0 && !TQMV::IsMissing(fixedScale)) {
      fPhi = fixedScale;
    } else {
      // A multinomial record counts once per non-reference category.
      const double records = multinomial ? (s.GetDependentSize() - 1) * N : N;
      const double df = records - fInitRedunInfo.Count() - (fbUpdateK ? 1.0 : 0.0);
      if (df == 0.0) {
        result = TQStatus::Warning(GZLStatusCode::DegreeFreedomIsZero);
        AddWarning(result);
      } else {
        const bool byDeviance = method == GZLConst_940::ScaleDeviance;
        fPhi = (byDeviance ? fDeviance : fPearson) / df;
        if (!(fPhi >= ZeroScaleThreshold()) || !(fPhi > 0.0)) {
          result = TQStatus::Warning(byDeviance ? GZLStatusCode::DevianceChiSquareIsZero
                                                : GZLStatusCode::PearsonChiSquareIsZero);
          AddWarning(result);
          if (byDeviance)
            fDeviance = 0.0;
          else
            fPearson = 0.0;
          fbPerfectFit = true;
          fPhi = 1.0;
        }
      }
    }
    for (double& g : fGradient) g /= fPhi;
    fInverseHessian.MultiplyByNumber(fPhi);
    fHessian.MultiplyByNumber(1.0 / fPhi);
    if (fbRTransformed) {
      for (double& g : fScaledGradient) g /= fPhi;
      fScaledInverseHessian.MultiplyByNumber(fPhi);
      fScaledHessian.MultiplyByNumber(1.0 / fPhi);
    }
    if ((dist == TQConst::DistBinomial || dist == TQConst::DistNegBinomial || dist == TQConst::DistPoisson) &&
        !TQMV::IsMissing(fLLConstant))
      fLLConstant /= fPhi;
    // The kernel at the estimated scale.
    TQStatus st;
    factory.ComputeLLGradHessian(st, GetScaledParamEstimates(), fPhi, fbUseExpected, true, true);
    fKernelLLScaleFixed = st.IsError() ? TQMV::Missing : factory.GetLogLikelihood();
    if (st.GetErrorCode() == 1 || st.GetErrorCode() == GZLStatusCode::NewPass) return st;
  } else {
    fKernelLLScaleFixed = fKernelLL;
  }
  if (fpLMTest) {
    fLMChiSquare = fpLMTest->GetStatistic();
    fLMSig = fpLMTest->GetSignificance();
    fLMDF = fpLMTest->GetDF();
    fLMSigLessZero = fpLMTest->GetSigLessZero();
    fLMSigGreaterZero = fpLMTest->GetSigGreaterZero();
    fLMSigNonDir = fpLMTest->GetSigNonDir();
    if (dist == TQConst::DistInvGaussian && fbPerfectFit) fLMChiSquare = fLMSig = TQMV::Missing;
  }
  fFullLL = TQMV::IsMissing(fLLConstant) || TQMV::IsMissing(fKernelLL) ? TQMV::Missing : fKernelLL + fLLConstant;
  fFullLLScaleFixed = TQMV::IsMissing(fLLConstant) || TQMV::IsMissing(fKernelLLScaleFixed)
                          ? TQMV::Missing
                          : fKernelLLScaleFixed + fLLConstant;
  return result;
}

TQStatus GZLOptimizerForGZLM::MultinomialFitStatistics(IGZLDevianceFunc& deviance, IGZLPearsonFunc& pearson) {
  const bool ordinal = fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial;
  const std::vector<double>& beta = GetScaledParamEstimates();
  // Pattern weights come by category code; the probabilities in the model's order.
  std::vector<int> categories;
  std::vector<double> counts, offsets;
  fpSource->GetResponseCategories(categories, counts, offsets);
  std::vector<double> pi, observed;
  while (const GZLDesignRow* row = fpSource->GetNextPatternRow()) {
    if (!row->fbInvalid && fpStatFactory->ComputeCategoryProbabilities(*row, beta, pi) &&
        pi.size() == categories.size()) {
      observed.assign(pi.size(), 0.0);
      for (std::size_t k = 0; k < categories.size(); ++k) {
        const std::size_t code = static_cast<std::size_t>(categories[k]);
        if (code < row->fCategoryWeights.size()) observed[k] = row->fCategoryWeights[code];
      }
      if (ordinal) {
        deviance.AddDevianceOrdinal(observed, pi, row->fPatternTotal);
        pearson.AddPearsonOrdinal(observed, pi, row->fPatternTotal);
      } else {
        deviance.AddDevianceNominal(observed, pi, row->fPatternTotal);
        pearson.AddPearsonNominal(observed, pi, row->fPatternTotal);
      }
    }
    if (IsCancelled()) return TQStatus::Error(1);
  }
  return TQStatus();
}

void GZLOptimizerForGZLM::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLOptimizerForGZLM display start");
  GZLOptimizer::Display();
  fpStatFactory->Display();
  DisplayText(1, "GZLOptimizerForGZLM display end");
}
