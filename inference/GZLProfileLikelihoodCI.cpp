#include "inference/GZLProfileLikelihoodCI.h"

#include <algorithm>
#include <cmath>

#include "GZLSettings.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLOptimizer.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"
#include "support/TQPower.h"

using GZLConst_940::StoppingCriteria;

GZLProfileLikelihoodCI::GZLProfileLikelihoodCI(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer)
    : fpSettings(&settings),
      fpOptimizer(&optimizer),
      fpListener(settings.GetIterProgressListenerPLCI()),
      fNParams(optimizer.GetNumParams()),
      fbExtra(optimizer.IsUpdatePhi() || optimizer.IsUpdateK()),
      fbUpdatePhi(optimizer.IsUpdatePhi()),
      fbUpdateK(optimizer.IsUpdateK()),
      fPhi(optimizer.GetPhi()),
      fK(optimizer.GetK()) {
  fTheta0 = optimizer.GetScaledParamEstimates();
  if (fbUpdatePhi) fTheta0.push_back(std::log(fPhi));
  if (fbUpdateK) fTheta0.push_back(std::log(fK));
}

GZLProfileLikelihoodCI::~GZLProfileLikelihoodCI() = default;

double GZLProfileLikelihoodCI::PhiOf(const std::vector<double>& theta) const {
  return fbUpdatePhi ? TQPower::Exponent(theta[static_cast<std::size_t>(fNParams)]) : fPhi;
}

double GZLProfileLikelihoodCI::KOf(const std::vector<double>& theta) const {
  return fbUpdateK ? TQPower::Exponent(theta[static_cast<std::size_t>(fNParams)]) : fK;
}

bool GZLProfileLikelihoodCI::Pass(const std::vector<double>& theta, TQStatus& status) {
  std::vector<double> g;
  TQSymMatrix h;
  double ll = TQMV::Missing;
  const double phi = PhiOf(theta), k = KOf(theta);
  if (!(phi > 0.0) || (fbUpdateK && !(k > 0.0))) {
    status = TQStatus::Error(GZLStatusCode::ScaleIsZero);
    return false;
  }
  ++fNPasses;
  fpModel->ComputeLLGradHessian(status, theta, phi, k, ll, g, h, false);
  if (status.IsError() || TQMV::IsMissingOrInfinite(ll)) {
    if (!status.IsError()) status = TQStatus::Error(GZLStatusCode::InternalError);
    return false;
  }
  fTheta = theta;
  fLL = ll;
  fGradient = fpModel->GetGradient();
  fInverse = fpModel->GetInverse();
  return true;
}

bool GZLProfileLikelihoodCI::NextDirection(int j, bool upper, std::vector<double>& direction,
                                           double& lambdaOut) const {
  const double v = fInverse.ComputeVSV(fGradient);
  const double h = fInverse(j, j);
  if (TQMV::IsMissingOrInfinite(v) || TQMV::IsMissingOrInfinite(h) || h == 0.0) return false;
  const double q = (2.0 * (fTarget - fLL) - v) / (-h);
  if (!(q >= 0.0) || !std::isfinite(q)) return false;
  const double lambda = upper ? std::sqrt(q) : -std::sqrt(q);
  std::vector<double> g = fGradient;
  g[static_cast<std::size_t>(j)] += lambda;
  fInverse.ComputeSV(g, direction);
  lambdaOut = lambda;
  return direction.size() == fTheta.size();
}

void GZLProfileLikelihoodCI::Report(int iteration, int j, bool upper) {
  if (fpListener == nullptr) return;
  fReporter.SetInfo(&fTheta, PhiOf(fTheta), KOf(fTheta), iteration, j, fLL, GZLReporter::Clock(),
                    fpModel->GetNumBadRecords(), 1, upper ? 1 : 0);
  fpListener->OnProgress(fReporter);
}

TQStatus GZLProfileLikelihoodCI::ComputeIntervals() {
  const std::size_t P = static_cast<std::size_t>(fNParams);
  fLower.assign(P, TQMV::Missing);
  fUpper.assign(P, TQMV::Missing);
  fScaleLower = fScaleUpper = fKLower = fKUpper = TQMV::Missing;
  const std::size_t nProfiled = P + (fbExtra ? 1 : 0);
  fStatuses.assign(nProfiled, {TQStatus(), TQStatus()});
  fCriteria.assign(nProfiled, {GZLConst_940::NoCriterionSatisfied, GZLConst_940::NoCriterionSatisfied});
  fNPasses = 0;
  fStatus = TQStatus::Error(GZLStatusCode::NoValidPLCIStats);
  const GZLOptimizerForGZLM& opt = *fpOptimizer;
  // A scaled design's parameters are combinations of its rows' parameters: not profiled here.
  if (!opt.IsEstimated() || opt.IsRTransformed() || opt.IsPerfectFit() || !(fPhi > 0.0)) return fStatus;

  GZLLLGradHessian model(*fpSettings, *fpOptimizer, opt.GetSource());
  fpModel = &model;
  model.SetExpectedHessian(opt.IsExpectedHessian());
  // The maximum and the quadratic model there, from the same accumulation as the profile.
  TQStatus st;
  const bool ok = Pass(fTheta0, st);
  if (!ok) {
    fpModel = nullptr;
    if (st.GetErrorCode() == 1) return fStatus = st;
    return fStatus = TQStatus::Error(GZLStatusCode::ComputeInitialStepSize);
  }
  const std::vector<double> g0 = fGradient;
  const TQSymMatrix c0 = fInverse;
  fLLMax = fLL;
  fTarget = fLLMax - TQDistFun::IdfChi(fpSettings->GetConfidenceLevel(), 1.0) / 2.0;
  if (TQMV::IsMissingOrInfinite(fTarget)) {
    fpModel = nullptr;
    return fStatus = TQStatus::Error(GZLStatusCode::ComputeInitialStepSize);
  }

  bool any = false;
  const TQBitSet& initSet = opt.GetInitRedunInfo();
  const TQBitSet& finalSet = opt.GetFinalRedunInfo();
  for (std::size_t j = 0; j < nProfiled; ++j) {
    if (j < P && !(initSet.Test(static_cast<int>(j)) && finalSet.Test(static_cast<int>(j)))) continue;
    for (int side = 0; side < 2; ++side) {
      const bool upper = side == 1;
      // Every end point starts from the maximum.
      fTheta = fTheta0;
      fLL = fLLMax;
      fGradient = g0;
      fInverse = c0;
      double endPoint = TQMV::Missing;
      StoppingCriteria criterion = GZLConst_940::NoCriterionSatisfied;
      st = ComputeCIForOneParameter(static_cast<int>(j), upper, endPoint, criterion);
      if (st.GetErrorCode() == 1) {
        fpModel = nullptr;
        return fStatus = st;
      }
      (upper ? fStatuses[j].second : fStatuses[j].first) = st;
      (upper ? fCriteria[j].second : fCriteria[j].first) = criterion;
      if (st.IsError()) endPoint = TQMV::Missing;
      if (!TQMV::IsMissing(endPoint)) any = true;
      if (j < P)
        (upper ? fUpper[j] : fLower[j]) = endPoint;
      else if (fbUpdatePhi)
        (upper ? fScaleUpper : fScaleLower) = endPoint;
      else
        (upper ? fKUpper : fKLower) = endPoint;
    }
  }
  fpModel = nullptr;
  fStatus = any ? TQStatus() : TQStatus::Error(GZLStatusCode::NoValidPLCIStats);
  return fStatus;
}

TQStatus GZLProfileLikelihoodCI::ComputeCIForOneParameter(int j, bool upper, double& endPoint,
                                                           StoppingCriteria& criterion) {
  using namespace GZLConst_940;
  fParamIndex = j;
  fbUpper = upper;
  endPoint = TQMV::Missing;
  criterion = NoCriterionSatisfied;
  const GZLSettings& s = *fpSettings;
  const int maxIter = s.GetMaxIterationsPLCI();
  const int maxHalvings = s.GetMaxStepHalvingValue();
  const int frequency = std::max(s.GetIterationFrequency(), 1);
  const double tolLL = s.GetToleranceLogLikePLCI();
  const double tolH = s.GetToleranceHessianPLCI();
  TQQueryCancel* cancel = s.GetCancelPointer();
  const std::size_t J = static_cast<std::size_t>(j);

  // The first step: towards the Wald end point of the quadratic model at the maximum, no entry
  // longer than kMaxStartStep.
  std::vector<double> direction;
  double lambda = 0.0;
  if (!NextDirection(j, upper, direction, lambda)) return TQStatus::Error(GZLStatusCode::ComputeInitialStepSize);
  double largest = 0.0;
  for (double d : direction) largest = std::max(largest, std::fabs(d));
  if (largest > kMaxStartStep)
    for (double& d : direction) d *= kMaxStartStep / largest;

  TQStatus status;
  int countdown = frequency;
  for (int iteration = 1;; ++iteration) {
    if (cancel != nullptr && cancel->IsCancelled()) return TQStatus::Error(1);
    const std::vector<double> previous = fTheta;
    std::vector<double> candidate = previous;
    for (std::size_t i = 0; i < candidate.size(); ++i) candidate[i] += direction[i];
    bool accepted = false;
    for (int h = 0; h <= maxHalvings && !accepted; ++h) {
      if (h > 0)
        for (std::size_t i = 0; i < candidate.size(); ++i) candidate[i] = 0.5 * (previous[i] + candidate[i]);
      TQStatus st;
      if (!Pass(candidate, st)) {
        if (st.GetErrorCode() == 1) return st;
        Report(iteration, j, upper);
        return st;  // the pass failed: no end point, criterion 0
      }
      if (st.GetErrorCode() == GZLStatusCode::SingularHessian) {
        criterion = UnexpectedSingularity;
        Report(iteration, j, upper);
        return TQStatus::Warning(GZLStatusCode::SingularHessian);
      }
      std::vector<double> next;
      if (NextDirection(j, upper, next, lambda)) {
        accepted = true;
        direction = std::move(next);
      }
    }
    if (!accepted) {
      criterion = StepHalvingExhausted;
      Report(iteration, j, upper);
      return status;
    }
    bool met = tolLL == 0.0 || std::fabs(fLL - fTarget) < tolLL;
    if (met && tolH != 0.0) {
      std::vector<double> g = fGradient;
      g[J] += lambda;
      const double D = fInverse.ComputeVSV(g);
      met = !TQMV::IsMissing(D) && std::fabs(D) < tolH;
    }
    if (met) {
      criterion = AllConverged;
      const double value = fTheta[J];
      endPoint = j < fNParams ? value : TQPower::Exponent(value);
      Report(iteration, j, upper);
      return status;
    }
    if (iteration >= maxIter) {
      criterion = MaxIterationsReached;
      Report(iteration, j, upper);
      return TQStatus::Warning(GZLStatusCode::LoopIterLargeMaxIter);
    }
    if (--countdown < 1) {
      Report(iteration, j, upper);
      countdown = frequency;
    }
  }
}

void GZLProfileLikelihoodCI::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLProfileLikelihoodCI display start");
  DisplayDV("Parameter estimates", fTheta0, false);
  DisplayD("Scale parameter", fPhi);
  DisplayD("Negative Binomial K parameter", fK);
  DisplayD("Kernel loglikelihood", fLLMax);
  DisplayD("Target loglikelihood", fTarget);
  DisplayI("Parameter index", fParamIndex);
  DisplayB("The upper boundary indicator", fbUpper);
  DisplayDV("Parameter low boundary", fLower, false);
  DisplayDV("Parameter upper boundary", fUpper, false);
  DisplayD("Scale parameter low boundary", fScaleLower);
  DisplayD("Scale parameter upper boundary", fScaleUpper);
  DisplayD("Negative Binomial K parameter low boundary", fKLower);
  DisplayD("Negative Binomial K parameter upper boundary", fKUpper);
  for (std::size_t j = 0; j < fStatuses.size(); ++j) {
    GZLComponentDisplay_940::DisplayStatus("Status of the lower boundary", fStatuses[j].first);
    GZLComponentDisplay_940::DisplayStatus("Status of the upper boundary", fStatuses[j].second);
    GZLComponentDisplay_940::DisplayC("Stopping criteria of the lower boundary", fCriteria[j].first);
    GZLComponentDisplay_940::DisplayC("Stopping criteria of the upper boundary", fCriteria[j].second);
  }
  GZLComponentDisplay_940::DisplayStatus("Status", fStatus);
  DisplayText(1, "GZLProfileLikelihoodCI display end");
}
