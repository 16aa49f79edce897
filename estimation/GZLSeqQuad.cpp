#include "estimation/GZLSeqQuad.h"

#include <cmath>

#include "GZLSettings.h"
#include "IGZLLLGradHessian.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "estimation/GZLOptimizer.h"
#include "support/TQDisplay_940.h"
#include "support/TQPower.h"

GZLSeqQuad::GZLSeqQuad(const GZLSettings& settings, IGZLLLGradHessian& model, const TQRectMatrix& L,
                       const std::vector<double>& rhs, const std::vector<double>& betaInit, double phiInit,
                       double kInit, bool gee)
    : fpSettings(&settings),
      fbGEE(gee),
      fpModel(&model),
      fNParams(static_cast<int>(betaInit.size())),
      fM(L.GetNumRows()),
      fvBetaInit(betaInit),
      fPhiInit(phiInit),
      fPhi(phiInit),
      fPhiPrev(phiInit),
      fKInit(kInit),
      fK(kInit),
      fKPrev(kInit) {
  fbUpdatePhi = !gee && settings.GetScaleType() == GZLConst_940::ScaleMLE;
  fbUpdateK = !gee && settings.GetDistType() == TQConst::DistNegBinomial &&
              settings.GetDistParamType() == GZLConst_940::DistParamMLE;
  fbExtra = fbUpdatePhi || fbUpdateK;
  fN = fNParams + (fbExtra ? 1 : 0);
  const GZLOptimizer* optimizer = model.GetOptimizer();
  fInModel = optimizer != nullptr ? optimizer->GetInitRedunInfo() : TQBitSet(fNParams, true);
  fInModel.Resize(fNParams, false);
  // The constraints over all n entries; columns of redundant parameters do not count.
  if (L.GetNumCols() == fNParams || L.GetNumCols() == fN) {
    fL = TQRectMatrix(fM, fN, 0.0);
    for (int i = 0; i < fM; ++i)
      for (int j = 0; j < L.GetNumCols(); ++j)
        if (j >= fNParams || fInModel.Test(j)) fL(i, j) = L(i, j);
    fbValidL = true;
  } else if (fM == 0) {
    fL = TQRectMatrix(0, fN);
    fbValidL = true;
  }
  fRhs = rhs;
  fRhs.resize(static_cast<std::size_t>(fM), 0.0);
  fvBeta = betaInit;
  if (fbExtra) fvBeta.push_back(std::log(fbUpdatePhi ? phiInit : kInit));
  fvBetaPrev = fvBeta;
  if (!fbValidL) fStatus = TQStatus::Error(GZLStatusCode::InternalError);
}

std::vector<double> GZLSeqQuad::GetParamEstimates() const {
  return std::vector<double>(fvBeta.begin(), fvBeta.begin() + fNParams);
}

bool GZLSeqQuad::IsValidLMatrix() {
  fvLIndNonRed.clear();
  fIndRedun1 = -1;
  fSingleEntry.clear();
  if (!fbValidL) {
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    return false;
  }
  if (fM > 0) {
    TQSymMatrix llt;
    fL.ComputeRByRTrans(llt);
    if (llt.CholIndNonRed(fpSettings->GetTolerance(), fvLIndNonRed) < 0) fvLIndNonRed.clear();
    for (int i = 0, k = 0; i < fM; ++i) {
      if (k < static_cast<int>(fvLIndNonRed.size()) && fvLIndNonRed[static_cast<std::size_t>(k)] == i) {
        ++k;
      } else if (fIndRedun1 < 0) {
        fIndRedun1 = i;
      }
    }
  }
  fbNoLMatrix = fvLIndNonRed.empty();
  // Parameters that a kept constraint row fixes on its own.
  for (int i : fvLIndNonRed) {
    int only = -1, count = 0;
    for (int j = 0; j < fNParams; ++j)
      if (fL(i, j) != 0.0) {
        only = j;
        ++count;
      }
    if (count == 1) fSingleEntry.push_back(only);
  }
  // The set of the KKT equations: parameters in the model, the extra one, kept constraints.
  const int k = static_cast<int>(fvLIndNonRed.size());
  fCombined = TQBitSet(fN + k, false);
  for (int j = 0; j < fNParams; ++j) fCombined.Set(j, fInModel.Test(j));
  if (fbExtra) fCombined.Set(fNParams);
  for (int i = 0; i < k; ++i) fCombined.Set(fN + i);
  fvLambda.assign(static_cast<std::size_t>(k), 0.0);
  return true;
}

void GZLSeqQuad::CleanUp(std::vector<double>& theta) {
  for (int j : fSingleEntry)
    if (std::fabs(theta[static_cast<std::size_t>(j)]) < kZeroThreshold) theta[static_cast<std::size_t>(j)] = 0.0;
  for (int j = 0; j < fNParams; ++j)
    if (!fInModel.Test(j)) theta[static_cast<std::size_t>(j)] = 0.0;
}

void GZLSeqQuad::SyncPhiK(const std::vector<double>& theta) {
  if (!fbExtra) return;
  const double value = TQPower::Exponent(theta[static_cast<std::size_t>(fNParams)]);
  if (fbUpdatePhi)
    fPhi = value;
  else
    fK = value;
}

bool GZLSeqQuad::SolveAscentKKT(const TQSymMatrix& h, const std::vector<double>& g,
                                const std::vector<double>& theta) {
  if (!SolveKKT(h, g, theta)) return false;
  auto ascent = [&]() {
    double gd = 0.0;
    for (int j = 0; j < fN; ++j) gd += g[static_cast<std::size_t>(j)] * fvDelta[static_cast<std::size_t>(j)];
    return !(gd < 0.0);
  };
  if (ascent()) return true;
  // Far from the maximum the observed second derivatives of the extra parameter can make the
  // Hessian indefinite, and the Newton step then descends. Without its cross terms (their
  // expectation is 0) and with a concave diagonal the step ascends again; failing that, the
  // diagonal alone gives a scaled gradient step.
  TQSymMatrix m = h;
  if (fbExtra) {
    for (int j = 0; j < fNParams; ++j) m(fNParams, j) = 0.0;
    m(fNParams, fNParams) = -std::max(std::fabs(h(fNParams, fNParams)), 1e-8);
    if (SolveKKT(m, g, theta) && ascent()) return true;
  }
  TQSymMatrix d(fN);
  for (int j = 0; j < fN; ++j) d(j, j) = -std::max(std::fabs(h(j, j)), 1e-8);
  return SolveKKT(d, g, theta);
}

bool GZLSeqQuad::SolveKKT(const TQSymMatrix& h, const std::vector<double>& g, const std::vector<double>& theta) {
  const int k = static_cast<int>(fvLIndNonRed.size());
  TQSymMatrix kkt;
  if (fbNoLMatrix) {
    kkt = h;
  } else {
    TQRectMatrix kept(k, fN);
    for (int i = 0; i < k; ++i)
      for (int j = 0; j < fN; ++j) kept(i, j) = fL(fvLIndNonRed[static_cast<std::size_t>(i)], j);
    if (!kkt.ExpandSym(h, kept)) return false;
  }
  std::vector<double> rhs(static_cast<std::size_t>(fN + k), 0.0);
  for (int j = 0; j < fN && j < static_cast<int>(g.size()); ++j) rhs[static_cast<std::size_t>(j)] = -g[j];
  // The constraint block: what the constraints still lack at theta (0 once they hold).
  for (int i = 0; i < k; ++i) {
    const int row = fvLIndNonRed[static_cast<std::size_t>(i)];
    double lx = 0.0;
    for (int j = 0; j < fN; ++j) lx += fL(row, j) * theta[static_cast<std::size_t>(j)];
    rhs[static_cast<std::size_t>(fN + i)] = fRhs[static_cast<std::size_t>(row)] - lx;
  }
  std::vector<double> solution;
  if (!kkt.SolveIndefinite(fCombined, fpSettings->GetTolerance(), rhs, solution) &&
      !kkt.SolveIndefinite(fCombined, kRetryTolerance, rhs, solution))
    return false;
  fvDelta.assign(solution.begin(), solution.begin() + fN);
  fvLambda.assign(solution.begin() + fN, solution.end());
  return true;
}

void GZLSeqQuad::ComputeInitial() {
  if (fStatus.IsError()) return;
  CleanUp(fvBeta);
  const GZLOptimizer* optimizer = fpModel->GetOptimizer();
  if (optimizer == nullptr || fbNoLMatrix) return;
  // The Hessian of the unconstrained fit at its estimates: the step to the constraints that
  // keeps the quadratic model of the log-likelihood highest. Without a usable one the first
  // iteration's step meets the constraints instead.
  const TQSymMatrix& hessian = optimizer->GetScaledHessian();
  if (hessian.GetNumRows() != fN) return;
  for (std::size_t i = 0; i < hessian.PackedSize(); ++i)
    if (TQMV::IsMissingOrInfinite(hessian.Data()[i])) return;
  if (!SolveKKT(hessian, std::vector<double>(), fvBeta)) return;
  for (int j = 0; j < fN; ++j) fvBeta[static_cast<std::size_t>(j)] += fvDelta[static_cast<std::size_t>(j)];
  CleanUp(fvBeta);
  SyncPhiK(fvBeta);
}

TQStatus GZLSeqQuad::Pass(const std::vector<double>& theta, double& ll, std::vector<double>& g, TQSymMatrix& h) {
  TQStatus st;
  ++fNPasses;
  fpModel->ComputeLLGradHessian(st, theta, fPhi, fK, ll, g, h, false);
  fNBadRecords = std::max(fNBadRecords, fpModel->GetNumBadRecords());
  return st;
}

void GZLSeqQuad::Report(int halvings) {
  if (fpListener == nullptr) return;
  fReporter.SetInfo(&fvBeta, fPhi, fK, fLastIter, halvings, fLogLikelihood, GZLReporter::Clock(),
                    fpModel->GetNumBadRecords(), 1);
  fpListener->OnProgress(fReporter);
}

TQStatus GZLSeqQuad::Estimate() {
  using namespace GZLConst_940;
  if (!fStatus.IsOK()) return fStatus;
  const GZLSettings& s = *fpSettings;
  const int maxIter = fbGEE ? s.GetGEEMaxIterations() : s.GetMaxIterations();
  const int maxHalvings = s.GetMaxStepHalvingValue();
  const int frequency = std::max(s.GetIterationFrequency(), 1);
  const bool criterionAtStart = fCriterion == NoCriterionSatisfied;
  TQQueryCancel* cancel = s.GetCancelPointer();
  if (fpListener != nullptr) fReporter.SetStartTime(GZLReporter::Clock());
  if (maxIter == 0) fCriterion = MaxIterationsReached;
  if (fCriterion != NoCriterionSatisfied) return fStatus;

  fpModel->SetExpectedHessian(s.GetHessianCompMethod() != TQConst::HessianNewtonRaphson);
  // The KKT equations at the starting point.
  TQStatus st = Pass(fvBeta, fLogLikelihood, fGradient, fHessian);
  if (st.IsError()) return fStatus = st;
  if (!SolveAscentKKT(fHessian, fGradient, fvBeta))
    return fStatus = TQStatus::Error(GZLStatusCode::PostEstimation);
  fLogLikelihoodPrev = fLogLikelihood;

  bool converged = false;
  int countdown = frequency;
  std::vector<double> trial(fvBeta.size());
  std::vector<double> g;
  TQSymMatrix h;
  while (fCriterion == NoCriterionSatisfied) {
    if (cancel != nullptr && cancel->IsCancelled()) {
      fStatus = TQStatus::Error(1);
      break;
    }
    ++fLastIter;
    fNHalvingSteps = 0;
    fvBetaPrev = fvBeta;
    fPhiPrev = fPhi;
    fKPrev = fK;
    // The full step, halved until the log-likelihood rises strictly.
    double step = 1.0, ll = TQMV::Missing;
    bool accepted = false;
    for (;;) {
      for (int j = 0; j < fN; ++j)
        trial[static_cast<std::size_t>(j)] =
            fvBetaPrev[static_cast<std::size_t>(j)] + step * fvDelta[static_cast<std::size_t>(j)];
      CleanUp(trial);
      SyncPhiK(trial);
      const bool usable = !(fbUpdatePhi && !(fPhi > 0.0)) && !(fbUpdateK && !(fK > 0.0));
      if (usable) {
        st = Pass(trial, ll, g, h);
        if (st.IsError()) break;
        // Estimating equations have no objective to climb: their Newton step is taken whole.
        accepted = fbGEE || (!TQMV::IsMissing(ll) && ll > fLogLikelihoodPrev);
      }
      if (accepted || fNHalvingSteps >= maxHalvings) break;
      ++fNHalvingSteps;
      step /= 2.0;
    }
    if (st.IsError()) {
      fStatus = st;
      fvBeta = fvBetaPrev;
      fPhi = fPhiPrev;
      fK = fKPrev;
      break;
    }
    if (!accepted) {
      fvBeta = fvBetaPrev;
      fPhi = fPhiPrev;
      fK = fKPrev;
      fCriterion = StepHalvingExhausted;
      break;
    }
    // A singular Hessian at the new point (130069) is kept in mind but does not stop the fit.
    fvBeta = trial;
    fLogLikelihood = ll;
    fGradient = g;
    fHessian = h;
    fpModel->CheckSeparation(st, 0, fLastIter, false, fCriterion);
    if (st.IsError()) {
      fStatus = st;
      break;
    }
    if (fCriterion == CompleteSeparation || fCriterion == QuasiCompleteSeparation) break;
    if (!SolveAscentKKT(fHessian, fGradient, fvBeta)) {
      fCriterion = UnexpectedSingularity;
      break;
    }
    const double tol = s.GetTolLogLikeTypeIandIII();
    bool met = true;
    if (fbGEE) {
      met = GEEStepConverged();
    } else if (tol > 0.0) {
      double D = std::fabs(fLogLikelihood - fLogLikelihoodPrev);
      if (s.GetLConvergeTypeTypeIandIII() == TQConst::ConvRelative) D /= std::fabs(fLogLikelihoodPrev) + 1e-6;
      met = D < tol;
    }
    if (met) {
      converged = true;
      fCriterion = AllConverged;
      fpModel->CheckSeparation(st, 0, fLastIter, true, fCriterion);
      if (st.IsError()) fStatus = st;
      break;
    }
    if (fLastIter >= maxIter) {
      fCriterion = MaxIterationsReached;
      break;
    }
    if (--countdown < 1) {
      Report(fNHalvingSteps);
      countdown = frequency;
    }
    fLogLikelihoodPrev = fLogLikelihood;
  }

  if (fCriterion == UnexpectedSingularity && fpModel->IsExtraParamRedundant()) fCriterion = ScaleParamSingularity;
  if (!fStatus.IsError() && (fCriterion == UnexpectedSingularity || fCriterion == ScaleParamSingularity))
    fStatus = TQStatus::Warning(converged ? GZLStatusCode::HessianNotPositiveDefinite : GZLStatusCode::SingularHessian);
  if (fNBadRecords > 0 && (!fStatus.IsError() || fStatus.GetErrorCode() == GZLStatusCode::InternalError))
    fStatus = TQStatus::Warning(GZLStatusCode::InvalidRecordsForLinkFunction);
  if (fpListener != nullptr && criterionAtStart && !fStatus.IsError()) Report(fNHalvingSteps);
  return fStatus;
}

bool GZLSeqQuad::GEEStepConverged() const {
  // The parameter criterion of the GEE iterations on the change of the constrained estimates;
  // without one (a 0 tolerance) the changes must fall below the single-entry threshold.
  const GZLSettings& s = *fpSettings;
  const double eps = s.GetGEEPConverge() > 0.0 ? s.GetGEEPConverge() : kZeroThreshold;
  const bool relative = s.GetGEEPConvergeType() == TQConst::ConvRelative;
  for (int j = 0; j < fNParams; ++j) {
    const std::size_t k = static_cast<std::size_t>(j);
    double change = std::fabs(fvBeta[k] - fvBetaPrev[k]);
    if (relative) change /= std::fabs(fvBetaPrev[k]) + 1e-6;
    if (!(change < eps)) return false;
  }
  return true;
}

void GZLSeqQuad::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLSeqQuad display start");
  DisplayB("GEE model indicator", fbGEE);
  DisplayI("Number of estimated parameters", fN);
  DisplayI("Number of equality constraints", fM);
  DisplayDV("Vector of initial values of estimated parameters", fvBetaInit, false);
  DisplayDV("Vector of estimated parameters", fvBeta, false);
  DisplayDV("Vector of estimated parameters in previous iteration", fvBetaPrev, false);
  DisplayD("Initial scale (phi) parameter", fPhiInit);
  DisplayD("Scale (phi) parameter", fPhi);
  DisplayD("Previous scale (phi) parameter", fPhiPrev);
  DisplayD("Initial distribution (k) parameter", fKInit);
  DisplayD("Distribution (k) parameter", fK);
  DisplayD("Previous distribution (k) parameter", fKPrev);
  DisplayDV("Delta-vector of increments of estimated parameters", fvDelta, false);
  DisplayDV("Lambda-vector of Lagrange multipliers", fvLambda, false);
  fL.Display("Left-hand side matrix of constraints (the L matrix)");
  DisplayDV("Right-hand side vector of constraints", fRhs, false);
  std::vector<double> kept(fvLIndNonRed.begin(), fvLIndNonRed.end());
  DisplayDV("Indices of non-redundant columns in the L matrix", kept, false);
  DisplayI("Index of the first redundant column in the L matrix", fIndRedun1);
  DisplayB("No L matrix indicator", fbNoLMatrix);
  DisplayD("Loglikelihood value", fLogLikelihood);
  DisplayD("Loglikelihood value in previous iteration", fLogLikelihoodPrev);
  DisplayDV("Gradient vector", fGradient, false);
  fHessian.Display("Hessian matrix");
  DisplayI("Last iteration number", fLastIter);
  DisplayI("Number of steps in step-halving", fNHalvingSteps);
  DisplayI("Number of bad record detected during data pass", fNBadRecords);
  DisplayText(1, "Bit set of combined redundancies:");
  fCombined.Display();
  GZLComponentDisplay_940::DisplayC("Stopping criteria", fCriterion);
  GZLComponentDisplay_940::DisplayStatus("Status", fStatus);
  DisplayText(1, "GZLSeqQuad display end");
}
