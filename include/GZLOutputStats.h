#pragma once
// Every number of a fitted model, read by the host through one object: estimates and their
// statistics, covariance and Hessian, counts, goodness of fit and information criteria, the
// omnibus test against the null model, the Lagrange multiplier test, the stopping state and
// the warning lists.
//
// The algorithm creates it on the first request after a successful fit and owns it. It copies
// everything at construction: the getters only read, never recompute, and never fail; a
// number that could not be computed is the missing-value marker (TQMV::Missing).
#include <memory>
#include <utility>
#include <vector>

#include "GZLConst_940.h"
#include "GZLFactorCounts.h"
#include "GZLMarginals.h"
#include "GZLRegrParameter.h"
#include "support/TQModelTests.h"
#include "support/TQRegrParameterStats.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
class GZLAlgorithm;
class GEEAlgorithm;
class GZLDataStats;
class GZLEventsCount;

class GZLOutputStats {
 public:
  // Copies the state of a fitted GZLM algorithm.
  GZLOutputStats(const GZLSettings& settings, const GZLAlgorithm& algorithm);
  // Copies the state of a fitted GEE algorithm.
  GZLOutputStats(const GZLSettings& settings, const GEEAlgorithm& algorithm);
  GZLOutputStats(const GZLOutputStats&) = delete;
  GZLOutputStats& operator=(const GZLOutputStats&) = delete;
  ~GZLOutputStats();
  void Display() const;

  // ---- estimates ----
  // P values in design-column order (redundant parameters at 0).
  const std::vector<double>& GetParamEstimates() const;
  const std::vector<TQRegrParameter>& GetParameters() const;
  // One row per regression parameter, then the scale row, then, for a negative binomial
  // model, the k row.
  const std::vector<TQRegrParameterStats>& GetParamStats() const;
  // Covariance matrix of the regression parameters (P x P); 0 x 0 when there is none.
  const TQSymMatrix& GetCovarianceMatrix() const;
  // The final Hessian of the log-likelihood (P or P+1 rows), or null.
  const TQSymMatrix* GetHessianMatrixPtr() const;
  // The final gradient, P or P+1 entries.
  const std::vector<double>& GetFullGradientVector() const;
  // One entry per regression parameter, true = redundant.
  const std::vector<bool>& GetRedundancyIndicators() const;
  // Means of the model's covariates, in the settings' covariate order.
  const std::vector<double>& GetMeanValues() const;
  double GetNegBinK() const;
  bool GetRTransformedIndicator() const;

  // ---- data ----
  double GetPopulationSize() const;
  int GetNumOfRecords() const;
  double GetNDegFreedom() const;
  const TQFactorCounts& GetFactorCounts() const;
  const GZLEventsCount& GetEventsCount() const;
  const std::vector<int>& GetDependCategories() const;
  const GZLDataStats& GetDataStats() const;

  // ---- fit ----
  double GetDevianceValue() const;
  double GetScaledDevianceValue() const;
  double GetDevianceValueByDegFreedom() const;
  double GetPearsonChiSquareValue() const;
  double GetScaledPearsonChiSquareValue() const;
  double GetPearsonChiSquareValueByDegFreedom() const;
  double GetLogLikehood() const;
  double GetLogLikehoodScaleFixed() const;
  double GetAIC() const;
  double GetAICC() const;
  double GetBIC() const;
  double GetCAIC() const;
  double GetPseudoR2() const;

  // ---- tests ----
  double GetOmnibusDist() const;
  double GetOmnibusDF() const;
  double GetOmnibusSig() const;
  bool GetOmnibusFailedInitModel() const;
  double GetLagrangeMultDist() const;
  double GetLagrangeMultDF() const;
  double GetLagrangeMultSig() const;
  double GetLagrangeSigLessZero() const;
  double GetLagrangeSigGreaterZero() const;
  double GetLagrangeSigNonDir() const;
  // Wald tests of model effects, one entry per effect in test order (the intercept first when
  // the model has one); empty when not computed. The corrected model test has one entry.
  const TQModelTestStats& GetTypeITestStats() const;
  const TQModelTestStats& GetTypeIIITestStats() const;
  const TQModelTestStats& GetCorrectedModelTest() const;

  // ---- estimated marginal means (those of the algorithm's last fit that computed them; see
  // GZLMarginals). Without them every getter answers InvalidEmmeansIndex. ----
  const GZLMarginals* GetMarginals() const;
  TQStatus GetEmmeansStats(int spec, const TQEmmeansSpec*& specOut, const TQRectMatrix*& L,
                           std::vector<TQEmmeansStats>& stats) const;
  int GetNEmmeansTests(int spec, TQStatus& status) const;
  TQStatus GetEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others, std::vector<int>& levels,
                           TQRectMatrix& contrast, std::vector<TQTestStats>& individual, TQTestStats& overall) const;
  int GetNPairwiseEmmeansTests(int spec, int test) const;
  TQStatus GetPairwiseEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                   std::vector<int>& levels, std::vector<GZLPairwiseRecord>& records) const;
  TQStatus GetPairwiseOverallTest(int spec, int test, std::vector<std::pair<int, int>>& others,
                                  TQTestStats& overall) const;
  // Likelihood-ratio tests of model effects, one entry per effect in test order (empty when
  // not computed): 7 values (chi-square, df, significance, F, its second df, its significance,
  // deviance of the constrained fit; missing where they do not apply), the status and the
  // stopping criterion of each effect's refit, and the status of the whole family (130086
  // when not computed).
  const std::vector<std::vector<double>>& GetTypeILRStats() const;
  TQStatus GetTypeILRStatus() const;
  const std::vector<TQStatus>& GetTypeILRStatusEff() const;
  const std::vector<GZLConst_940::StoppingCriteria>& GetTypeILRStoppingCrits() const;
  const std::vector<std::vector<double>>& GetTypeIIILRStats() const;
  TQStatus GetTypeIIILRStatus() const;
  const std::vector<TQStatus>& GetTypeIIILRStatusEff() const;
  const std::vector<GZLConst_940::StoppingCriteria>& GetTypeIIILRStoppingCrits() const;

  // ---- profile intervals ----
  // The intervals themselves replace the Wald limits of GetParamStats (parameter, scale and k
  // rows). 130087 when none was computed.
  TQStatus GetPLCIStatus() const;
  // Per profiled parameter (the regression parameters, then the scale or k when estimated):
  // the lower end point's and the upper end point's status and stopping criterion.
  const std::vector<std::pair<TQStatus, TQStatus>>& GetPLCIStatusForParam() const;
  const std::vector<std::pair<GZLConst_940::StoppingCriteria, GZLConst_940::StoppingCriteria>>& GetPLCIStoppingCrits()
      const;

  // ---- state ----
  GZLConst_940::StoppingCriteria GetEstimStopCriterion() const;
  bool IsSingularHessian() const;
  bool IsPerfectFit() const;

  // ---- warnings ----
  const std::vector<TQStatus>& GetBuildModelWarnings() const;
  const std::vector<TQStatus>& GetEffectAnalysisWarnings() const;
  const std::vector<TQStatus>& GetEmmeansWarnings() const;
  const std::vector<TQStatus>& GetStatComputeWarnings() const;

  // ---- GEE (missing, empty or 0 for a GZLM fit) ----
  // The working correlation R (d x d).
  const TQSymMatrix& GetWorkCorrelationMatrix() const;
  // QIC = 2 (T - Q), QICu = 2 (p - Q) and the quasi-likelihood Q under independence.
  double GetQICValue() const;
  double GetQICUValue() const;
  double GetQBetaIValue() const;
  // The within-subject combinations in position order (the rows and columns of R).
  const std::vector<std::vector<int>>& GetWSInfo() const;
  // Category counts of the subject and of the within-subject variables.
  const TQFactorCounts& GetSubjectCounts() const;
  const TQFactorCounts& GetWSCounts() const;
  int GetNumberOfSubjects() const;
  int GetMinMeasurePerSubject() const;
  int GetMaxMeasurePerSubject() const;
  // The dimension d of the working correlation.
  int GetMaxGroupSize() const;
  // Both covariances of the estimates (GetCovarianceMatrix is the one chosen for inference);
  // 0 x 0 for a GZLM fit.
  const TQSymMatrix& GetRobustCovarianceMatrix() const;
  const TQSymMatrix& GetModelBasedCovarianceMatrix() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> fpImpl;
};
