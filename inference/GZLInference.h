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
#include "support/TQBitSet.h"
#include "support/TQMV.h"
#include "support/TQRegrParameterStats.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLDesignMatrix;
class GZLOptimizerForGZLM;

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

  // Number of observations of the degrees of freedom (fN) and sample size n of the information
  // criteria, by the counting rules of the response type.
  static void CountObservations(const GZLSettings& settings, const GZLOptimizerForGZLM& optimizer,
                                const GZLDesignMatrix* design, double& nObs, double& sampleSize);

  // ---- results ----
  TQStatus GetStatus() const { return fStatus; }
  // The covariance matrix of the regression parameters (P x P), or null when there is none.
  const TQSymMatrix* GetCovarianceMatrix() const { return fpCovariance.get(); }
  const TQSymMatrix* GetRobustCovarianceMatrix() const { return fpRobustCovariance.get(); }
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
  // Wald tests of model effects are attached here by their own step of the fit.

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
