#pragma once
// Maximum likelihood fitting of a generalized linear model.
//
// GZLOptimizer holds what every fit needs: the settings, the cancel object, the progress
// reporter, the parameter vectors, the information matrix and its inverse, the redundancy sets,
// the status and the warnings. GZLOptimizerForGZLM adds the statistics factory and the
// iteration: starting values (host values, one weighted least squares step, or the closed form
// of the normal identity model), Newton steps with Fisher scoring, Newton-Raphson or the hybrid
// of the two, step-halving, three convergence criteria, separation checks, redundancy tracking
// and the checks for a vanishing scale, then, on request, the post-estimation pass (deviance,
// Pearson chi-square, log-likelihood constant, deviance or Pearson scale).
//
// Parameter vector: the P regression parameters in design order, followed, exactly when the
// scale (ScaleMLE) or the negative binomial k (DistParamMLE) is estimated by maximum likelihood,
// by theta = log(phi) or log(k); gradient, information and Newton direction have P+1 entries
// then. Redundancy sets have P bits; a set bit means the parameter is in the model.
//
// After Estimate the stored "Hessian" is the Hessian of the log-likelihood (the information with
// its sign changed) and the stored inverse is minus the covariance matrix of the estimates.
#include <memory>
#include <vector>

#include "GZLConst_940.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class IGZLRowSource;
class IGZLDevianceFunc;
class IGZLLagrangeMultiplierTest;
class IGZLPearsonFunc;
class GZLStatFactory;
class ProgressListener;
class TQQueryCancel;

class GZLOptimizer {
 public:
  // The absolute threshold below which off-diagonal elements of an inverse are set to 0 is this
  // times the number of rows.
  static constexpr double kMachineEpsilon = 2.220446049250313e-16;

  explicit GZLOptimizer(const GZLSettings& settings);
  virtual ~GZLOptimizer();
  GZLOptimizer(const GZLOptimizer&) = delete;
  GZLOptimizer& operator=(const GZLOptimizer&) = delete;

  // Inversion of an information matrix with redundancy detection: the diagonal (checked against
  // the tolerance, entries at or below it replaced by 1.0, from two rows on), the Cholesky
  // generalized inverse, and off-diagonal elements of the inverse below n * eps set to 0.
  // scaleFree > 0 multiplies the matrix by it before the inversion and the inverse after it (the
  // normal identity model passes phi, so that the tolerance acts on a scale-free matrix).
  // `set` gets one bit per row. Returns the rank, -1 on bad arguments.
  static int InvertWithRedundancy(const TQSymMatrix& information, double tolerance, TQSymMatrix& inverse,
                                  TQBitSet& set, double scaleFree = 0.0);
  // The same with the settings' tolerance and, for the normal identity model, the current phi.
  int CholInverse(const TQSymMatrix& information, TQSymMatrix& inverse, TQBitSet& set) const;

  // ---- results ----
  TQStatus GetStatus() const noexcept { return fStatus; }
  // Warnings in the order they arose (each listed once).
  const std::vector<TQStatus>& GetWarnings() const noexcept { return fWarnings; }
  int GetNumParams() const noexcept { return fNParams; }
  const std::vector<double>& GetParamEstimates() const noexcept { return fParamEstimates; }
  const std::vector<double>& GetPrevParamEstimates() const noexcept { return fPrevParamEstimates; }
  const std::vector<double>& GetDirection() const noexcept { return fDirection; }
  double GetPhi() const noexcept { return fPhi; }
  double GetPrevPhi() const noexcept { return fPrevPhi; }
  // The negative binomial k (missing for other distributions).
  double GetK() const noexcept { return fK; }
  double GetPrevK() const noexcept { return fPrevK; }
  bool IsUpdatePhi() const noexcept { return fbUpdatePhi; }
  bool IsUpdateK() const noexcept { return fbUpdateK; }
  // P, or P+1 with the extra parameter.
  int GetNumFullParams() const noexcept { return fNParams + ((fbUpdatePhi || fbUpdateK) ? 1 : 0); }
  const std::vector<double>& GetGradient() const noexcept { return fGradient; }
  const TQSymMatrix& GetHessian() const noexcept { return fHessian; }
  const TQSymMatrix& GetInverseHessian() const noexcept { return fInverseHessian; }
  // The augmented cross-product matrix of the starting regression ((P+1) rows: X'WX, then the
  // row of the working response X'Wz and z'Wz); empty when the starting values came from the
  // host.
  const TQSymMatrix& GetInitHessian() const noexcept { return fInitHessian; }
  const TQBitSet& GetInitRedunInfo() const noexcept { return fInitRedunInfo; }
  const TQBitSet& GetFinalRedunInfo() const noexcept { return fFinalRedunInfo; }
  // Parameters in the model at the start (number of set bits of the initial set).
  int GetNumNonRedundant() const noexcept { return fInitRedunInfo.Count(); }
  bool IsConverged() const noexcept { return fbConverged; }
  int GetIterationNumber() const noexcept { return fIterNum; }
  int GetTotalIterations() const noexcept { return fTotalIter; }
  int GetStepHalvingNumber() const noexcept { return fNStepHalving; }
  GZLConst_940::StoppingCriteria GetStoppingCriterion() const noexcept { return fStopCriterion; }
  double GetKernelLogLikelihood() const noexcept { return fKernelLL; }
  double GetPrevKernelLogLikelihood() const noexcept { return fPrevKernelLL; }
  // Kernel plus constant after the post-estimation step (missing before, or when the constant
  // is missing).
  double GetFullLogLikelihood() const noexcept { return fFullLL; }
  double GetLogLikeConstant() const noexcept { return fLLConstant; }
  // With a scaled design the results above refer to the design as specified (mapped back from
  // the scaled design); these are the estimates, Hessian and inverse of the scaled design
  // itself. Without a scaled design they equal the results above.
  bool IsRTransformed() const noexcept { return fbRTransformed; }
  const std::vector<double>& GetScaledParamEstimates() const noexcept {
    return fbRTransformed ? fScaledParamEstimates : fParamEstimates;
  }
  const TQSymMatrix& GetScaledHessian() const noexcept { return fbRTransformed ? fScaledHessian : fHessian; }
  const TQSymMatrix& GetScaledInverseHessian() const noexcept {
    return fbRTransformed ? fScaledInverseHessian : fInverseHessian;
  }
  // The log-likelihood the settings ask for (full or kernel).
  double GetLogLikelihood() const noexcept;
  // For the deviance and Pearson scale methods, the kernel and full log-likelihood evaluated
  // with the scale fixed at its estimate; otherwise equal to the values above.
  double GetKernelLogLikelihoodScaleFixed() const noexcept { return fKernelLLScaleFixed; }
  double GetFullLogLikelihoodScaleFixed() const noexcept { return fFullLLScaleFixed; }
  double GetLogLikelihoodScaleFixed() const noexcept;
  double GetDeviance() const noexcept { return fDeviance; }
  double GetPearson() const noexcept { return fPearson; }
  double GetLagrangeMultChiSquare() const noexcept { return fLMChiSquare; }
  double GetLagrangeMultDF() const noexcept { return fLMDF; }
  double GetLagrangeMultSig() const noexcept { return fLMSig; }
  // One-sided (alternative below or above the null value) and non-directional significances;
  // missing unless the test defines them (the overdispersion test).
  double GetLagrangeSigLessZero() const noexcept { return fLMSigLessZero; }
  double GetLagrangeSigGreaterZero() const noexcept { return fLMSigGreaterZero; }
  double GetLagrangeSigNonDir() const noexcept { return fLMSigNonDir; }
  // Records refused by the last pass (invalid for the link or the family).
  int GetNumBadRecords() const noexcept { return fNBadRecords; }
  // At least one pass refused a record, or no record was usable.
  bool IsInvalidForLink() const noexcept { return fbInvalidForLink; }
  bool IsExpectedHessian() const noexcept { return fbUseExpected; }
  bool IsSingularHessian() const noexcept { return fbSingular; }
  bool IsPerfectFit() const noexcept { return fbPerfectFit; }
  bool IsExtraParamRedundant() const noexcept { return fbExtraRedundant; }
  // The estimates can be used (the fit ended without error and with a usable record).
  bool IsEstimated() const noexcept { return fbEstimated; }
  double GetInitialScale() const noexcept { return fInitScale; }
  double GetInitialK() const noexcept { return fInitK; }
  // Kernel log-likelihood at the starting values.
  double GetStartLogLikelihood() const noexcept { return fStartKernelLL; }
  // The mean m of the fitted means of the final fit, and the spread G of the fitted means about
  // it from the post-estimation pass (0 until computed).
  double GetMeanFittedValue() const noexcept { return fMeanFitted; }
  double GetFittedSpread() const noexcept { return fFittedSpread; }
  // Log-determinant of the weighted cross-product of the non-redundant columns (closed form of
  // mixed-model fits, else 0).
  double GetCorrectionTerm() const noexcept { return fCorrectionTerm; }
  int GetMaxIterations() const noexcept { return fMaxIter; }
  int GetMaxStepHalving() const noexcept { return fMaxStepHalving; }
  int GetCSIteration() const noexcept { return fCSIteration; }
  const GZLSettings& GetSettings() const noexcept { return *fpSettings; }

  // A fit made for the likelihood-ratio tests of effects (its own log-likelihood tolerance,
  // parameter and Hessian criteria off).
  void SetLRFit(bool on) noexcept { fbLRFit = on; }
  bool IsLRFit() const noexcept { return fbLRFit; }
  void SetBiasCorrection(bool on) noexcept { fbBiasCorrection = on; }
  // Adds delta to the kernel and full log-likelihoods (those at the fixed scale too): the
  // restricted log-likelihood of a mixed-model host.
  void AdjustLogLikelihood(double delta) noexcept;
  void SetThetaEstType(GZLConst_940::ThetaEstTypeGZLMMM type) noexcept { fThetaEstType = type; }
  GZLConst_940::ThetaEstTypeGZLMMM GetThetaEstType() const noexcept { return fThetaEstType; }

  virtual void Display() const;

 protected:
  // Appends a warning that is not listed yet.
  void AddWarning(const TQStatus& warning);
  // After an iteration that did not converge: true when the iterations end here, because the
  // iteration limit is reached (warning 130051, stopping criterion 7) or a parameter became
  // redundant on the way (stopping criterion 4).
  bool StopsAfterIteration();
  bool IsCancelled() const;

  const GZLSettings* fpSettings;
  TQQueryCancel* fpCancel;
  ProgressListener* fpListener = nullptr;
  GZLReporter fReporter;
  double fStartTime = 0.0;
  int fNParams = 0;
  std::vector<double> fParamEstimates;
  std::vector<double> fPrevParamEstimates;
  std::vector<double> fDirection;
  double fPhi = 1.0;
  double fPrevPhi = 1.0;
  double fK = TQMV::Missing;
  double fPrevK = TQMV::Missing;
  bool fbUpdatePhi = false;
  bool fbUpdateK = false;
  std::vector<double> fGradient;
  TQSymMatrix fHessian;
  TQSymMatrix fInverseHessian;
  std::vector<double> fSavedGradient;
  TQSymMatrix fSavedHessian;
  TQSymMatrix fSavedInverseHessian;
  TQSymMatrix fInitHessian;
  TQBitSet fInitRedunInfo;
  TQBitSet fFinalRedunInfo;
  // The full sets (P+1 bits with the extra parameter) of the first and the last inversion.
  TQBitSet fInitFullSet;
  TQBitSet fFinalFullSet;
  bool fbConverged = false;
  int fIterNum = 0;
  int fTotalIter = 0;
  int fNStepHalving = 0;
  GZLConst_940::StoppingCriteria fStopCriterion = GZLConst_940::NoCriterionSatisfied;
  double fKernelLL = TQMV::Missing;
  double fPrevKernelLL = TQMV::Missing;
  double fFullLL = TQMV::Missing;
  double fLLConstant = TQMV::Missing;
  double fKernelLLScaleFixed = TQMV::Missing;
  double fFullLLScaleFixed = TQMV::Missing;
  double fDeviance = TQMV::Missing;
  double fPearson = TQMV::Missing;
  double fLMChiSquare = TQMV::Missing;
  double fLMDF = TQMV::Missing;
  double fLMSig = TQMV::Missing;
  double fLMSigLessZero = TQMV::Missing;
  double fLMSigGreaterZero = TQMV::Missing;
  double fLMSigNonDir = TQMV::Missing;
  int fNBadRecords = 0;
  bool fbInvalidForLink = false;
  bool fbUseExpected = true;
  int fMaxIter = 0;
  int fMaxStepHalving = 0;
  int fCSIteration = 0;
  TQStatus fStatus;
  std::vector<TQStatus> fWarnings;
  bool fbSingular = false;
  bool fbPerfectFit = false;
  bool fbExtraRedundant = false;
  bool fbLRFit = false;
  bool fbBiasCorrection = true;
  bool fbEstimated = false;
  double fInitScale = TQMV::Missing;
  double fInitK = TQMV::Missing;
  double fStartKernelLL = TQMV::Missing;
  double fMeanFitted = TQMV::Missing;
  double fFittedSpread = 0.0;
  double fCorrectionTerm = 0.0;
  GZLConst_940::ThetaEstTypeGZLMMM fThetaEstType = 1;
  // Normal distribution with identity link: closed form, scale-free inversion.
  bool fbNormalIdentity = false;
  // Results mapped back from a scaled design, and the scaled originals.
  bool fbRTransformed = false;
  std::vector<double> fScaledParamEstimates;
  std::vector<double> fScaledGradient;
  TQSymMatrix fScaledHessian;
  TQSymMatrix fScaledInverseHessian;
};

class GZLOptimizerForGZLM : public GZLOptimizer {
 public:
  // source: the design rows of the fit (borrowed; must outlive the optimizer). reportIterations
  // false: no iteration listener.
  GZLOptimizerForGZLM(IGZLRowSource& source, const GZLSettings& settings, bool reportIterations = true);
  ~GZLOptimizerForGZLM() override;

  // The whole fit; the status is stored and returned.
  TQStatus Estimate();
  void Estimate(TQStatus& status) { status = Estimate(); }

  // After a successful fit: one pass for the deviance, the Pearson chi-square and the
  // log-likelihood constant; the deviance or Pearson scale (or fixedScale when it is > 0); the
  // full log-likelihood. Warnings are recorded; the status of the step is returned.
  TQStatus PostEstimation(double fixedScale = TQMV::Missing);

  // After a successful fit: one pass for the weighted cross-product X'WX of every design column
  // (aliased ones included) at the final estimates, W the expected-information weight
  // f s (dmu/deta)^2 / V(mu) without the scale; the matrix the hypotheses of the tests of
  // effects are built on. With a scaled design it is mapped back to the design as specified.
  // Multinomial models: the cross-products of one row of the design (a nominal model's one
  // logit; an ordinal model's unit column for the thresholds, then the effect columns), each
  // record weighted by f s (see MultinomialSSCP). Errors: InternalError before estimates exist,
  // and those of the pass.
  TQStatus ComputeSSCP(TQSymMatrix& sscp);

  // Binary and multinomial responses: the models whose fits check for separation.
  bool IsSeparationModel() const noexcept;
  GZLStatFactory& GetStatFactory() noexcept { return *fpStatFactory; }
  const GZLStatFactory& GetStatFactory() const noexcept { return *fpStatFactory; }
  // The Lagrange multiplier test of the post-estimation step, or null when the model calls for
  // none.
  const IGZLLagrangeMultiplierTest* GetLagrangeMultiplierTest() const noexcept { return fpLMTest.get(); }
  IGZLRowSource& GetSource() const noexcept { return *fpSource; }
  void Display() const override;

 private:
  TQStatus MultinomialSSCP(TQSymMatrix& sscp);
  // Starting values (host values or the weighted least squares step), the starting scale and
  // k, and the starting pass.
  void ComputeInitialValues();
  void InitialBeta();
  // The starting values of the ordinal and nominal multinomial models, from the weighted
  // response counts (and offset totals) of the dictionary pass (fromHost: only the checks, the
  // host's values are kept), and the redundancy of the design. 130018 when a declared response
  // category never occurs.
  void MultinomialStartingValues(bool fromHost);
  // fInitRedunInfo from a sweep of the design rows' cross-products (with the host's starting
  // values, and with the multinomial models' own): for an ordinal model the thresholds
  // stand for a unit column before the row's, for a nominal model every logit repeats the
  // columns' aliasing.
  void DesignRedundancy();
  // The deviance and Pearson chi-square of a multinomial model over its covariate patterns.
  TQStatus MultinomialFitStatistics(IGZLDevianceFunc& deviance, IGZLPearsonFunc& pearson);
  void ClosedFormSolution();
  void IterationLoop();
  // One data pass at the current estimates: log-likelihood, gradient and information.
  TQStatus RunPass(bool llOnly = false);
  // Inverse of the information with redundancy tracking, then the Newton direction.
  void InvertAndTrack();
  // beta = beta_prev + step d; phi or k on the log scale. False when phi or k cannot be formed.
  bool ApplyStep(double step);
  // The convergence test of the last accepted iteration.
  bool TestConvergence();
  // Separation check when due: true when separation was found (warning and criterion set).
  bool RunSeparationCheck(bool atEnd);
  // phi below the zero-scale threshold becomes 0; a non-positive phi (or negative k) makes the
  // covariance and Hessian missing and records 130074 (and 130075 under ScaleMLE). True when
  // the scale vanished.
  bool ZeroScaleCheck();
  double ZeroScaleThreshold() const;
  void ReportProgress();
  // Maps estimates, gradient, Hessian and inverse of a scaled design back to the design as
  // specified. False when the transforms do not fit.
  bool MapBackFromScaledDesign();

  IGZLRowSource* fpSource;
  std::unique_ptr<GZLStatFactory> fpStatFactory;
  std::unique_ptr<IGZLLagrangeMultiplierTest> fpLMTest;
  bool fbFirstInversion = true;
  int fReportCountdown = 0;
  bool fbReportDue = false;
};
