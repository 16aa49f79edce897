#pragma once
// Profile likelihood confidence intervals: each end point of a parameter's interval is where
// the profile log-likelihood (the other parameters at their conditional maximum) has fallen
// from its maximum by IdfChi(level, 1) / 2. Every end point is found by a modified Newton
// iteration on the whole parameter vector: with C the inverse information, g the gradient and
// LL* the target, the step is C (g + lambda e_j) with lambda^2 = (g'C g + 2 (LL - LL*)) / C_jj,
// which makes the quadratic model of the log-likelihood reach LL* while keeping the other
// parameters' scores at 0. A candidate point for which no such lambda exists is pulled halfway
// back, up to the maximum number of step-halvings.
//
// The regression parameters are profiled, and the scale (maximum likelihood) and the negative
// binomial k when estimated (on the log scale, the interval reported for phi or k). A deviance
// or Pearson scale is held at the fitted value, a fixed scale at its value. Each iteration is
// one data pass (plus one per halving) through the fit's own statistics factory.
//
// The iteration limit is the settings' GetMaxIterationsPLCI; its default 0 lets each end point
// make a single iteration (hosts set the limit they want).
#include <utility>
#include <vector>

#include "GZLConst_940.h"
#include "GZLReporter.h"
#include "support/TQMV.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
class GZLOptimizerForGZLM;
class GZLLLGradHessian;

class GZLProfileLikelihoodCI {
 public:
  // Largest entry of a starting step.
  static constexpr double kMaxStartStep = 5.0;

  GZLProfileLikelihoodCI(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer);
  GZLProfileLikelihoodCI(const GZLProfileLikelihoodCI&) = delete;
  GZLProfileLikelihoodCI& operator=(const GZLProfileLikelihoodCI&) = delete;
  ~GZLProfileLikelihoodCI();

  // Every end point of every parameter in the model, the lower first. Returns the overall
  // status: OK when at least one end point was found, 130087 when none, 130080 when the
  // starting step cannot be formed, 1 when the host cancelled (nothing is to be published).
  TQStatus ComputeIntervals();

  TQStatus GetStatus() const noexcept { return fStatus; }
  // Per regression parameter, missing where not found (redundant parameters included).
  const std::vector<double>& GetLowerBounds() const noexcept { return fLower; }
  const std::vector<double>& GetUpperBounds() const noexcept { return fUpper; }
  // The scale and k intervals (missing unless estimated by maximum likelihood).
  double GetScaleLower() const noexcept { return fScaleLower; }
  double GetScaleUpper() const noexcept { return fScaleUpper; }
  double GetKLower() const noexcept { return fKLower; }
  double GetKUpper() const noexcept { return fKUpper; }
  // Per profiled parameter (the regression parameters, then the scale or k when estimated):
  // status and stopping criterion of the lower and of the upper end point.
  const std::vector<std::pair<TQStatus, TQStatus>>& GetStatusForParam() const noexcept { return fStatuses; }
  const std::vector<std::pair<GZLConst_940::StoppingCriteria, GZLConst_940::StoppingCriteria>>& GetStoppingCrits()
      const noexcept {
    return fCriteria;
  }
  int GetNumPasses() const noexcept { return fNPasses; }
  double GetTargetLogLikelihood() const noexcept { return fTarget; }
  void Display() const;

 private:
  // One end point of parameter j; the value (phi or k for the extra parameter) or missing.
  TQStatus ComputeCIForOneParameter(int j, bool upper, double& endPoint, GZLConst_940::StoppingCriteria& criterion);
  // One pass at theta; false on error (status set).
  bool Pass(const std::vector<double>& theta, TQStatus& status);
  // The step C (g + lambda e_j) from the last pass; false when the target is out of reach
  // (no real lambda). lambdaOut gets lambda.
  bool NextDirection(int j, bool upper, std::vector<double>& direction, double& lambdaOut) const;
  double PhiOf(const std::vector<double>& theta) const;
  double KOf(const std::vector<double>& theta) const;
  void Report(int iteration, int j, bool upper);

  const GZLSettings* fpSettings;
  GZLOptimizerForGZLM* fpOptimizer;
  GZLLLGradHessian* fpModel = nullptr;
  ProgressListener* fpListener;
  GZLReporter fReporter;
  int fNParams;
  bool fbExtra;
  bool fbUpdatePhi;
  bool fbUpdateK;
  double fPhi;  // the scale of the passes when it is not estimated
  double fK;
  std::vector<double> fTheta0;
  double fLLMax = TQMV::Missing;
  double fTarget = TQMV::Missing;
  // The last pass.
  std::vector<double> fTheta;
  double fLL = TQMV::Missing;
  std::vector<double> fGradient;
  TQSymMatrix fInverse;
  std::vector<double> fLower, fUpper;
  double fScaleLower = TQMV::Missing, fScaleUpper = TQMV::Missing;
  double fKLower = TQMV::Missing, fKUpper = TQMV::Missing;
  std::vector<std::pair<TQStatus, TQStatus>> fStatuses;
  std::vector<std::pair<GZLConst_940::StoppingCriteria, GZLConst_940::StoppingCriteria>> fCriteria;
  TQStatus fStatus = TQStatus::Error(GZLStatusCode::NoValidPLCIStats);
  int fNPasses = 0;
  int fParamIndex = -1;
  bool fbUpper = false;
};
