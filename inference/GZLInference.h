#pragma once
// The inference object of a fit: the covariance matrix used for inference, the statistics of
// every parameter row (estimate, standard error, Wald interval, test statistic, significance,
// redundancy), the scale and k rows, the log-likelihood figures and the goodness of fit. The
// driver builds it once per fit from the settings and the finished optimizer; the output
// statistics, the scoring engine and the marginal means read it.
#include <memory>
#include <vector>

#include "GZLSettings.h"
#include "inference/GZLGoodnessOfFit.h"
#include "inference/GZLModelEffectTest.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"
#include "support/TQRegrParameterStats.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLDesignMatrix;
class GZLOptimizerForGZLM;
class GZLProfileLikelihoodCI;
class GEEOptimizer;

class GZLInference {
 public:
  // Singularity tolerance of the inference computations.
  static constexpr double kTolerance = 1e-12;
  // Smallest second derivative of the log-likelihood in log(phi) or log(k) that still yields a
  // standard error.
  static constexpr double kMachineEpsilon = 2.220446049250313e-16;

  explicit GZLInference(const GZLSettings& settings);
  GZLInference(const GZLInference&) = delete;
  GZLInference& operator=(const GZLInference&) = delete;
  ~GZLInference();

  // Everything of a finished GZLM fit: covariance, parameter rows, log-likelihoods and goodness
  // of fit. design: the fit's design matrix, for the counts of the dictionary pass (without it
  // the observation total of the optimizer's row source is used throughout). Returns OK, or
  // warning 130050 when the fit has no covariance matrix (the parameter rows then carry only
  // estimates and redundancy). The status is stored.
  TQStatus Compute(const GZLOptimizerForGZLM& optimizer, const GZLDesignMatrix* design = nullptr);

  // Everything of a finished GEE fit (after its robust pass): the model-based covariance H^-1,
  // the robust sandwich H^-1 M H^-1, the one the settings choose (GetCovbType: 1 robust) as the
  // covariance of inference, the parameter rows, and the quasi-likelihood criteria. Returns OK
  // or warning 130050 (the sandwich cannot be formed). The status is stored.
  TQStatus ComputeGEE(const GEEOptimizer& optimizer);

  // Number of observations of the degrees of freedom (fN) and sample size n of the information
  // criteria, by the counting rules of the response type.
  static void CountObservations(const GZLSettings& settings, const GZLOptimizerForGZLM& optimizer,
                                const GZLDesignMatrix* design, double& nObs, double& sampleSize);

  // ---- results ----
  TQStatus GetStatus() const { return fStatus; }
  // The covariance matrix of the regression parameters (P x P), or null when there is none.
  const TQSymMatrix* GetCovarianceMatrix() const { return fpCovariance.get(); }
  const TQSymMatrix* GetRobustCovarianceMatrix() const { return fpRobustCovariance.get(); }
  // GEE fits: the model-based covariance (null for a GZLM fit) and the quasi-likelihood
  // criteria (missing for a GZLM fit): Q under independence, the trace T of the independence
  // model's information times the robust covariance, QIC = 2 (T - Q), QICu = 2 (p - Q).
  const TQSymMatrix* GetModelBasedCovarianceMatrix() const { return fpModelCovariance.get(); }
  double GetQuasiLikelihood() const { return fQuasiLikelihood; }
  double GetQICTrace() const { return fQICTrace; }
  double GetQIC() const { return fQIC; }
  double GetQICu() const { return fQICu; }
  // One row per regression parameter, then the scale row, then (negative binomial) the k row.
  const std::vector<TQRegrParameterStats>& GetParamStats() const { return fParamStats; }
  const GZLGoodnessOfFit& GetGoodnessOfFit() const { return fGoodnessOfFit; }
  // Set bit = parameter in the model at the start of the iterations.
  const TQBitSet& GetRedundancy() const { return fRedundancy; }
  bool IsTBased() const { return fbTBased; }
  // Residual degrees of freedom of the t statistics (missing unless t-based).
  double GetDFForT() const { return fDFForT; }
  // Observations less the parameters in the model (for a nominal response the non-zero
  // estimates): the degrees of freedom of t quantiles, whether or not the fit's own statistics
  // are t-based (the intervals of scored means use them).
  double GetTQuantileDF() const { return fTQuantileDF; }
  double GetCriticalValue() const { return fCriticalValue; }
  double GetConfidenceLevel() const { return fConfidenceLevel; }
  bool HasIntercept() const { return fbIntercept; }
  const std::vector<TQModelEffect>& GetModelEffects() const { return fModelEffects; }

  double GetLogLikelihood() const { return fLogLikelihood; }
  double GetLogLikelihoodScaleFixed() const { return fLogLikelihoodScaleFixed; }
  double GetNObservations() const { return fNObservations; }
  double GetSampleSize() const { return fSampleSize; }
  int GetNParameters() const { return fNParameters; }
  double GetNDegFreedom() const { return fGoodnessOfFit.GetResidualDF(); }
  double GetPseudoR2() const { return fPseudoR2; }
  // Warnings raised while computing the statistics (130095), in order.
  const std::vector<TQStatus>& GetStatComputeWarnings() const { return fStatComputeWarnings; }
  // Status of the profile-likelihood intervals; 130087 until they are computed.
  TQStatus GetPLCIStatus() const { return fPLCIStatus; }
  void SetPLCIStatus(TQStatus status) { fPLCIStatus = status; }
  // The profile likelihood end points in place of the Wald intervals of the parameter rows (and
  // of the scale and k rows when those are estimated), missing where not found; takes the
  // status of the intervals.
  void ApplyProfileIntervals(const GZLProfileLikelihoodCI& profile);

  // ---- Wald tests of model effects ----
  // Takes the shared data of the effect tests (layout and X'WX of the fit); returns its status.
  TQStatus SetEffectTestData(std::unique_ptr<GZLModelEffectTestData> data);
  const GZLModelEffectTestData* GetEffectTestData() const { return fpModelEffectTest.get(); }
  // The Wald tests of model effects on these estimates and this covariance matrix (P x P; the
  // driver's choice: model-based, robust): type I and type III as the settings' analysis type
  // asks, and the corrected model test; df2 > 0 adds their F form. InternalError when there is
  // no test data or no covariance matrix, or the tests were already computed; otherwise OK, and
  // the statuses of the tests go to `warnings` in the order raised.
  TQStatus ComputeEffectTests(const std::vector<double>& estimates, const TQBitSet& inModel,
                              const TQSymMatrix* covariance, double df2, std::vector<TQStatus>& warnings);
  // Null when not computed.
  const TQModelTestStats* GetTypeITestStats() const { return fpTypeIModelTestStats.get(); }
  const TQModelTestStats* GetTypeIIITestStats() const { return fpTypeIIIModelTestStats.get(); }
  const TQModelTestStats* GetCorrectedModelTest() const { return fpCorrectedModelTest.get(); }

  void Display() const;

  // ---- building blocks (pure functions of their arguments) ----

  // The regression rows. estimates: P values; covariance: P x P (or larger, the leading block
  // is used) or null; initSet / finalSet: redundancy at the start and the end of the
  // iterations; critical: the quantile of the intervals; tBased with dfT: t statistics instead
  // of Wald chi-squares.
  static void ComputeRegressionRows(const std::vector<double>& estimates, const TQSymMatrix* covariance,
                                    const TQBitSet& initSet, const TQBitSet& finalSet, double critical,
                                    bool tBased, double dfT, std::vector<TQRegrParameterStats>& rows);
  // The row of an ancillary parameter (the scale phi or the negative binomial k) whose log is
  // estimated with second derivative h of the log-likelihood (ignored unless estimated).
  // intervalQuantile: the quantile of the interval on the log scale.
  static TQRegrParameterStats ComputeAncillaryRow(double value, bool estimated, double h, double intervalQuantile);

 private:
  GZLSettings fSettings;
  double fTolerance = kTolerance;
  std::vector<TQModelEffect> fModelEffects;
  bool fbIntercept = false;
  double fConfidenceLevel = 0.95;
  GZLGoodnessOfFit fGoodnessOfFit;
  std::vector<TQRegrParameterStats> fParamStats;
  TQBitSet fRedundancy;
  double fDFForT = TQMV::Missing;
  double fTQuantileDF = TQMV::Missing;
  std::unique_ptr<TQSymMatrix> fpCovariance;
  std::unique_ptr<TQSymMatrix> fpRobustCovariance;
  std::unique_ptr<TQSymMatrix> fpModelCovariance;
  double fQuasiLikelihood = TQMV::Missing;
  double fQICTrace = TQMV::Missing;
  double fQIC = TQMV::Missing;
  double fQICu = TQMV::Missing;
  // Wald tests of model effects: their shared data and results.
  std::unique_ptr<GZLModelEffectTestData> fpModelEffectTest;
  std::unique_ptr<TQModelTestStats> fpTypeIModelTestStats;
  std::unique_ptr<TQModelTestStats> fpTypeIIIModelTestStats;
  std::unique_ptr<TQModelTestStats> fpCorrectedModelTest;

  TQStatus fPLCIStatus = TQStatus::Error(130087);
  TQStatus fStatus;
  bool fbTBased = false;
  double fCriticalValue = TQMV::Missing;
  double fLogLikelihood = TQMV::Missing;
  double fLogLikelihoodScaleFixed = TQMV::Missing;
  double fNObservations = TQMV::Missing;
  double fSampleSize = TQMV::Missing;
  int fNParameters = 0;
  double fPseudoR2 = 0.0;
  std::vector<TQStatus> fStatComputeWarnings;
};
