#pragma once
// The GZLM driver: runs the dictionary pass, builds the parameter list (intercept or ordinal
// thresholds, one parameter per design column of every effect, nominal blocks per response
// category), hands the data passes of the fit to the optimizer and runs the inference steps.
// It owns everything it creates; the settings and the record source are borrowed.
#include <memory>
#include <string>
#include <vector>

#include "GZLEffectInfo.h"
#include "GZLFactorCounts.h"
#include "GZLRegrParameter.h"
#include "IGZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "support/TQBitSet.h"
#include "support/TQClassificationMatrix.h"
#include "support/TQStatus.h"

class GZLSettings;
class GZLDesignRowSource;
class GZLOptimizerForGZLM;
class GZLInference;
class GZLOmnibusTest;
class GZLScoringEngine;
class GZLMarginals;
class GZLLRStatsBase;
class GZLProfileLikelihoodCI;
struct GZLScoringFit;

class GZLAlgorithm : public IGZLAlgorithm {
 public:
  // Stores the settings and their cancel object; status InvalidSettings when the settings are
  // not valid. Reads no data.
  explicit GZLAlgorithm(const GZLSettings& settings);
  GZLAlgorithm(const GZLAlgorithm&) = delete;
  GZLAlgorithm& operator=(const GZLAlgorithm&) = delete;
  ~GZLAlgorithm() override;

  // ---- IGZLAlgorithm, in slot order ------------------------------------------------------
  std::string GetComponentInfo() const override;
  const GZLSettings* GetSettings() const override { return fpSettings; }
  TQStatus InitializeModel(IGZLRecordSource& source) override;
  const std::vector<TQRegrParameter>& GetRegrParameters() const override { return fParameters; }
  bool IsModelInitialized() const override { return fbInitialized; }
  const TQFactorCounts& GetFactorCounts() const override { return fFactorCounts; }
  const std::vector<int>& GetDependCategories() const override { return fResponseCategories; }
  TQStatus BuildModel(IGZLRecordSource& source) override;
  bool IsModelBuilt() const override;
  TQStatus GetStatus() const override { return fStatus; }
  const std::vector<GZLEffectInfo>& GetEffectInfo() const override { return fEffectInfo; }
  const std::vector<std::vector<int>>* GetWSCombinations() const override { return nullptr; }
  const std::vector<std::vector<int>>* GetPWCombinations(int emmeansIndex) override;
  TQStatus GetOutputStats(const GZLOutputStats*& outputStats) override;
  TQStatus Score(const Record& record, GZLScoreStats& scores, const int* mask) override;
  TQStatus ExportPMML(const TQVarList& variables, std::ostream& out, bool includeCovariance,
                      const TQApplicInfo4XML* applicationInfo) override;
  const std::vector<TQStatus>& GetBuildModelWarnings() const override { return fBuildModelWarnings; }
  const std::vector<TQStatus>& GetEmmeansWarnings() const override { return fEmmeansWarnings; }
  const std::vector<TQStatus>& GetEffectAnalysisWarnings() const override { return fEffectAnalysisWarnings; }
  GZLOptimizer* GetOptimizer() const override;
  void SetPropensityCategory(int category) override { fPropensityCategory = category; }
  void SetNumOfPredictors(int n) override { fNumOfPredictors = n; }
  void SetGainsRegr(const std::vector<LiftInfo>& gains) override { fGainsRegr = gains; }
  void SetGainCls(const std::vector<std::vector<LiftInfo>>& gains) override { fGainsCls = gains; }
  void SetClassification(const TQClassificationMatrix& classification) override { fClassification = classification; }
  void Display() const override;

  // ---- for the GEE driver and the inference, scoring and export steps --------------------
  // The GEE driver runs its inner model as estimation only and without iteration reports.
  void SetEstimationOnly(bool on) noexcept { fbEstimationOnly = on; }
  bool IsEstimationOnly() const noexcept { return fbEstimationOnly; }
  void SetReportIterations(bool on) noexcept { fbReportIterations = on; }
  bool GetReportIterations() const noexcept { return fbReportIterations; }
  // The optimizer of the last fit (null before a fit).
  GZLOptimizerForGZLM* GetGZLOptimizer() const noexcept { return fpOptimizer.get(); }
  // The inference object and the omnibus test of the last fit (null when not computed).
  const GZLInference* GetInference() const noexcept { return fpInference.get(); }
  const GZLOmnibusTest* GetOmnibusTest() const noexcept { return fpOmnibusTest.get(); }
  // The marginal means of the last fit that computed them (null when none).
  const GZLMarginals* GetMarginals() const noexcept { return fpMarginals.get(); }
  // The likelihood-ratio tests of effects and the profile likelihood intervals of the last fit
  // (null when not computed).
  const GZLLRStatsBase* GetTypeILRStats() const noexcept { return fpTypeILRStats.get(); }
  const GZLLRStatsBase* GetTypeIIILRStats() const noexcept { return fpTypeIIILRStats.get(); }
  const GZLProfileLikelihoodCI* GetProfileCI() const noexcept { return fpProfileCI.get(); }
  // Null before the first InitializeModel.
  GZLDesignMatrix* GetDesignMatrix() noexcept { return fpDesignMatrix.get(); }
  const GZLDesignMatrix* GetDesignMatrix() const noexcept { return fpDesignMatrix.get(); }
  const GZLCancelInfo& GetCancelInfo() const noexcept { return fCancelInfo; }
  int GetPropensityCategory() const noexcept { return fPropensityCategory; }
  int GetNumOfPredictors() const noexcept { return fNumOfPredictors; }
  // Nominal response: for every declared category its position in GetDependCategories (-1 when
  // never observed), and the weighted / unweighted counts and offset totals of the listed
  // categories, in list order.
  const std::vector<int>& GetResponsePositions() const noexcept { return fResponsePositions; }
  const std::vector<double>& GetResponseWeightedCounts() const noexcept { return fResponseWeightedCounts; }
  const std::vector<double>& GetResponseUnweightedCounts() const noexcept { return fResponseUnweightedCounts; }
  const std::vector<double>& GetResponseOffsetTotals() const noexcept { return fResponseOffsetTotals; }
  // Nominal response: the parameters of one logit (the first block of the parameter list).
  const std::vector<TQRegrParameter>& GetNominalTemplate() const noexcept { return fNominalTemplate; }
  int GetNominalTemplateSize() const noexcept { return fNominalTemplateSize; }

  // Appends a status to a warning list when it is a warning not already listed.
  static void AddWarning(std::vector<TQStatus>& list, const TQStatus& status);

  // ---- parts of the parameter list shared with the GEE driver ----------------------------
  // The effect information of a design matrix after its dictionary pass, one entry per effect.
  static void FillEffectInfo(const GZLDesignMatrix& design, std::vector<GZLEffectInfo>& info);
  // Ordinal response: one threshold per category with a positive weighted count, each appended
  // with its category to `categories`, then the last one removed again (the highest observed
  // category is the reference; it stays in `categories`).
  static void AppendThresholds(const TQFactorCounts& counts, std::vector<TQRegrParameter>& parameters,
                               std::vector<int>& categories);
  // For every settings effect: one parameter per design column carrying the column's category
  // combination, or one for an effect of a single column without factors; target category
  // `target`. Each is also appended to `copies` when given.
  static void AppendEffectParameters(const GZLSettings& settings, const std::vector<GZLEffectInfo>& info, int target,
                                     std::vector<TQRegrParameter>& parameters,
                                     std::vector<TQRegrParameter>* copies);

 private:
  // Parameter list from the effect information (steps 5 to 8 of the dictionary pass).
  TQStatus BuildParameterList();
  // Observed nominal response categories and the reference category: error 318 with fewer
  // than two observed categories, warning 319 when a positive reference setting names an
  // unobserved category.
  TQStatus DetermineNominalCategories();
  // Discards the objects of a previous fit (optimizer, inference and test objects).
  void DiscardFit();
  // Estimation and inference over the later passes (the optimizer's iterations, its
  // post-estimation step, covariance and Wald tests, likelihood-ratio tests, the omnibus test,
  // marginal means). The source is rewound and handed to the design matrix before the call.
  // Returns the fit status; warnings go to the three lists.
  TQStatus RunEstimation();
  // The inference steps after the fit: the inference object (covariance and parameter
  // statistics) and the omnibus test. Warnings go to the build-model list.
  void RunInference();
  // The shared data of the Wald tests of effects: X'WX of the fit (one pass) and the layout.
  TQStatus PrepareEffectTests();
  // The marginal means of the settings' requests on the fit; statuses to the
  // marginal-means warnings.
  void RunMarginalMeans();
  // The likelihood-ratio tests of effects the settings ask for; false when the host cancelled.
  bool RunLRTests();
  // Whether the last fit produced estimates.
  bool HasEstimates() const;
  // What the scoring engine takes from the last fit.
  GZLScoringFit ScoringFit() const;

  const GZLSettings* fpSettings;
  TQStatus fStatus;
  std::unique_ptr<GZLDesignMatrix> fpDesignMatrix;
  // The design rows as the estimation passes read them, and the optimizer of the last fit.
  std::unique_ptr<GZLDesignRowSource> fpRowSource;
  std::unique_ptr<GZLOptimizerForGZLM> fpOptimizer;
  std::unique_ptr<GZLInference> fpInference;
  // Created on the first GetOutputStats after a fit and kept for the life of the algorithm.
  std::unique_ptr<GZLOutputStats> fpOutputStats;
  std::unique_ptr<GZLOmnibusTest> fpOmnibusTest;
  std::unique_ptr<GZLLRStatsBase> fpTypeILRStats;
  std::unique_ptr<GZLLRStatsBase> fpTypeIIILRStats;
  std::unique_ptr<GZLProfileLikelihoodCI> fpProfileCI;
  // Created on the first Score; it reads the design matrix and goes with it.
  std::unique_ptr<GZLScoringEngine> fpScoringEngine;
  // Replaced by every fit that computes marginal means.
  std::unique_ptr<GZLMarginals> fpMarginals;
  // Counts the fits, so that the scoring engine knows a refit from the fit it last saw.
  long fFitCount = 0;
  std::vector<TQStatus> fBuildModelWarnings;
  std::vector<TQStatus> fEffectAnalysisWarnings;
  std::vector<TQStatus> fEmmeansWarnings;
  std::vector<GZLEffectInfo> fEffectInfo;
  std::vector<std::vector<int>> fPWCombinations;
  std::vector<TQRegrParameter> fParameters;
  std::vector<int> fResponseCategories;
  bool fbInitialized = false;
  bool fbEstimationOnly = false;
  bool fbReportIterations = true;
  GZLCancelInfo fCancelInfo;
  std::vector<int> fResponsePositions;
  std::vector<double> fResponseWeightedCounts;
  std::vector<double> fResponseUnweightedCounts;
  std::vector<double> fResponseOffsetTotals;
  std::vector<TQRegrParameter> fNominalTemplate;
  int fNominalTemplateSize = 0;
  TQBitSet fReservedBits;
  std::vector<int> fReservedInts;
  int fPropensityCategory = 1;
  int fNumOfPredictors = 0;
  // Quality figures of the host, handed to the PMML writer.
  TQClassificationMatrix fClassification;
  std::vector<LiftInfo> fGainsRegr;
  std::vector<std::vector<LiftInfo>> fGainsCls;
  TQFactorCounts fFactorCounts;
};
