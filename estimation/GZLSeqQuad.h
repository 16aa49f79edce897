#pragma once
// The maximum of the log-likelihood under linear equality constraints L theta = r, by
// sequential quadratic programming: Newton steps from the Karush-Kuhn-Tucker equations
//   [H L'; L 0] [delta; lambda] = [-g; r - L theta]
// (H the Hessian and g the gradient of the log-likelihood at theta), with step-halving on the
// log-likelihood. The model is reached only through IGZLLLGradHessian, so the same code serves
// the likelihood-ratio tests and the score tests of any model that implements it. In GEE mode
// (estimating equations, no likelihood) every Newton step is taken whole and the iterations stop
// on the change of the estimates, as the GEE fit itself does.
//
// theta holds the P regression parameters and, when the scale or the negative binomial k is
// estimated by maximum likelihood (never for GEE), log(phi) or log(k) as entry P. Constraints
// are given over the P regression parameters (or over all n entries); redundant parameters stay
// at 0 and their columns of L are ignored.
//
// Use: construct, IsValidLMatrix, ComputeInitial, Estimate; then read the constrained maximum.
// Each iteration costs one data pass, plus one per halving of its step: the trial point's pass
// also gives the gradient and Hessian used when the step is accepted.
#include <vector>

#include "GZLConst_940.h"
#include "GZLReporter.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
class IGZLLLGradHessian;
class ProgressListener;

class GZLSeqQuad {
 public:
  // Size of a parameter that a single-entry constraint row sets to exactly 0.
  static constexpr double kZeroThreshold = 1e-6;
  // Tolerance of the second attempt at solving the KKT equations.
  static constexpr double kRetryTolerance = 1e-12;

  // L: m x P (or m x n) constraint matrix; rhs: m values (empty: zeros); betaInit: the P
  // starting regression parameters (the unconstrained estimates); phiInit, kInit: the starting
  // scale and k. An L of the wrong width makes every later step fail with 130094.
  GZLSeqQuad(const GZLSettings& settings, IGZLLLGradHessian& model, const TQRectMatrix& L,
             const std::vector<double>& rhs, const std::vector<double>& betaInit, double phiInit, double kInit,
             bool gee = false);
  GZLSeqQuad(const GZLSeqQuad&) = delete;
  GZLSeqQuad& operator=(const GZLSeqQuad&) = delete;

  // Progress of the iterations to this listener (may be null).
  void SetProgressListener(ProgressListener* listener) noexcept { fpListener = listener; }

  // Factors L L' with redundancy detection: keeps the independent constraints. An L without
  // rows (or whose rows vanish on the parameters in the model) means an unconstrained fit.
  // False when L does not fit the parameters (status 130094).
  bool IsValidLMatrix();
  // A feasible start: the unconstrained estimates moved onto the constraints along the
  // quadratic model of the log-likelihood that the fit's own Hessian gives (no data pass).
  // Without a usable Hessian the estimates are taken as they are; the first step then reaches
  // the constraints.
  void ComputeInitial();
  // The iterations (see the .cpp). The status is stored and returned: OK or a warning (130069,
  // 130070, 130072) with the constrained maximum; an error (130090, 130094, 1 when cancelled,
  // or that of a data pass) without.
  TQStatus Estimate();
  void Estimate(TQStatus& status) { status = Estimate(); }

  // ---- results ----
  TQStatus GetStatus() const noexcept { return fStatus; }
  GZLConst_940::StoppingCriteria GetStoppingCriterion() const noexcept { return fCriterion; }
  // The P regression parameters.
  std::vector<double> GetParamEstimates() const;
  double GetPhi() const noexcept { return fPhi; }
  double GetK() const noexcept { return fK; }
  double GetLogLikelihood() const noexcept { return fLogLikelihood; }
  int GetLastIteration() const noexcept { return fLastIter; }
  int GetNumPasses() const noexcept { return fNPasses; }
  // Constraints kept after the redundancy check.
  int GetNumConstraints() const noexcept { return static_cast<int>(fvLIndNonRed.size()); }
  bool IsExtraParamEstimated() const noexcept { return fbExtra; }
  void Display() const;

 private:
  // Zeroes what the constraints and the redundancy fix at 0; phi or k from the extra entry.
  void CleanUp(std::vector<double>& theta);
  void SyncPhiK(const std::vector<double>& theta);
  // One pass at theta; stores the log-likelihood (and with full, gradient and Hessian).
  TQStatus Pass(const std::vector<double>& theta, double& ll, std::vector<double>& g, TQSymMatrix& h);
  // Solves the KKT equations at theta with Hessian h and gradient g (zero gradient when g is
  // empty) into fvDelta and fvLambda.
  bool SolveKKT(const TQSymMatrix& h, const std::vector<double>& g, const std::vector<double>& theta);
  // The same, made an ascent direction when the Hessian is not negative definite there.
  bool SolveAscentKKT(const TQSymMatrix& h, const std::vector<double>& g, const std::vector<double>& theta);
  void Report(int halvings);
  // GEE mode: whether the last step moved every regression parameter less than the GEE
  // parameter criterion.
  bool GEEStepConverged() const;

  const GZLSettings* fpSettings;
  bool fbGEE;
  IGZLLLGradHessian* fpModel;
  ProgressListener* fpListener = nullptr;
  GZLReporter fReporter;
  int fNParams;   // P
  int fN;         // P, or P + 1 with the extra parameter
  int fM;         // rows of L
  bool fbExtra;
  bool fbUpdatePhi;
  bool fbUpdateK;
  std::vector<double> fvBetaInit;
  std::vector<double> fvBeta;
  std::vector<double> fvBetaPrev;
  double fPhiInit, fPhi, fPhiPrev;
  double fKInit, fK, fKPrev;
  std::vector<double> fvDelta;
  std::vector<double> fvLambda;
  TQRectMatrix fL;    // m x n
  std::vector<double> fRhs;
  std::vector<int> fvLIndNonRed;
  int fIndRedun1 = -1;
  bool fbNoLMatrix = false;
  bool fbValidL = false;
  // Parameters that a constraint row fixes on its own.
  std::vector<int> fSingleEntry;
  double fLogLikelihood = TQMV::Missing;
  double fLogLikelihoodPrev = TQMV::Missing;
  std::vector<double> fGradient;
  TQSymMatrix fHessian;
  int fLastIter = 0;
  int fNHalvingSteps = 0;
  int fNBadRecords = 0;
  int fNPasses = 0;
  TQBitSet fInModel;      // P bits, the fit's redundancy
  TQBitSet fCombined;     // n + m bits: parameters in the model, the extra one, kept constraints
  GZLConst_940::StoppingCriteria fCriterion = GZLConst_940::NoCriterionSatisfied;
  TQStatus fStatus;
};
