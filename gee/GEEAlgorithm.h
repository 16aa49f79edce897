#pragma once
// The GEE driver: groups records into subjects, obtains initial estimates from an inner GZLM fit
// under independence (or from the host), hands the iterations to GEEOptimizer, then computes the
// robust covariance, the parameter inference and the quasi-likelihood criteria. It owns
// everything it creates; the settings and the record source are borrowed.
//
// Protocol and results as for every IGZLAlgorithm. What differs for GEE: GetWSCombinations
// lists the within-subject combinations in position order; ExportPMML writes nothing; the
// setters of the PMML and gains extras are accepted and ignored.
#include <memory>
#include <string>
#include <vector>

#include "GZLEffectInfo.h"
#include "GZLFactorCounts.h"
#include "GZLRegrParameter.h"
#include "IGZLAlgorithm.h"
#include "support/TQStatus.h"

class GZLSettings;
class GZLAlgorithm;
class GZLInference;
class GEEDesignMatrix;
class GEEOptimizer;
class GEEScoreStats;
class GZLScoringEngine;
class GZLMarginals;
class TQBitSet;

class GEEAlgorithm : public IGZLAlgorithm {
 public:
  // inner: the GZLM fit of the initial values (null when the settings need none). Status
  // InvalidSettings when the settings are not valid. Reads no data.
  GEEAlgorithm(const GZLSettings& settings, std::unique_ptr<GZLAlgorithm> inner);
  GEEAlgorithm(const GEEAlgorithm&) = delete;
  GEEAlgorithm& operator=(const GEEAlgorithm&) = delete;
  ~GEEAlgorithm() override;

  // ---- IGZLAlgorithm, in slot order ------------------------------------------------------
  std::string GetComponentInfo() const override;
  const GZLSettings* GetSettings() const override { return fpSettings; }
  TQStatus InitializeModel(IGZLRecordSource& source) override;
  const std::vector<TQRegrParameter>& GetRegrParameters() const override { return fParameters; }
  bool IsModelInitialized() const override { return fbSetupDone; }
  const TQFactorCounts& GetFactorCounts() const override { return fFactorCounts; }
  const std::vector<int>& GetDependCategories() const override { return fTargetCategories; }
  TQStatus BuildModel(IGZLRecordSource& source) override;
  bool IsModelBuilt() const override;
  TQStatus GetStatus() const override { return fStatus; }
  const std::vector<GZLEffectInfo>& GetEffectInfo() const override { return fEffectInfo; }
  const std::vector<std::vector<int>>* GetWSCombinations() const override { return &fWSCombinations; }
  const std::vector<std::vector<int>>* GetPWCombinations(int emmeansIndex) override;
  TQStatus GetOutputStats(const GZLOutputStats*& outputStats) override;
  TQStatus Score(const Record& record, GZLScoreStats& scores, const int* mask) override;
  TQStatus ExportPMML(const TQVarList& variables, std::ostream& out, bool includeCovariance,
                      const TQApplicInfo4XML* applicationInfo) override;
  const std::vector<TQStatus>& GetBuildModelWarnings() const override { return fEstimationWarnings; }
  const std::vector<TQStatus>& GetEmmeansWarnings() const override { return fEmmeansWarnings; }
  const std::vector<TQStatus>& GetEffectAnalysisWarnings() const override { return fEffectTestWarnings; }
  GZLOptimizer* GetOptimizer() const override;
  void SetPropensityCategory(int) override {}
  void SetNumOfPredictors(int) override {}
  void SetGainsRegr(const std::vector<LiftInfo>&) override {}
  void SetGainCls(const std::vector<std::vector<LiftInfo>>&) override {}
  void SetClassification(const TQClassificationMatrix&) override {}
  void Display() const override;

  // ---- for the output statistics, the marginal means and scoring --------------------------
  // Null before the first setup pass / fit.
  const GEEDesignMatrix* GetDesignMatrix() const noexcept { return fpDesignMatrix.get(); }
  const GEEOptimizer* GetGEEOptimizer() const noexcept { return fpOptimizer.get(); }
  GEEOptimizer* GetGEEOptimizer() noexcept { return fpOptimizer.get(); }
  // The inference object of the last fit: the covariance chosen for inference (robust or
  // model-based, as the settings' GetCovbType says), both covariances, the parameter rows and
  // the quasi-likelihood criteria.
  const GZLInference* GetInference() const noexcept { return fpInference.get(); }
  const GZLAlgorithm* GetInnerAlgorithm() const noexcept { return fpInner.get(); }
  // The marginal means of the last fit that computed them (null when none).
  const GZLMarginals* GetMarginals() const noexcept { return fpMarginals.get(); }
  const GZLCancelInfo& GetCancelInfo() const noexcept { return fCancelInfo; }
  // The generalized score tests of effects of the last fit (null when not asked for or not run).
  const GEEScoreStats* GetTypeIScoreStats() const noexcept { return fpTypeIScore.get(); }
  const GEEScoreStats* GetTypeIIIScoreStats() const noexcept { return fpTypeIIIScore.get(); }

 private:
  // Step 5 of the fit: the initial vector (estimates and phi) and the redundancy of the start;
  // InitialValueFailed when they cannot be had.
  TQStatus ComputeInitialValues(IGZLRecordSource& source);
  // The inner GZLM fit, estimation only and silent, on the records the GEE design accepts.
  // Answers false when its estimates cannot be used (an error or no record valid for the link).
  bool RunInnerFit(IGZLRecordSource& source, TQStatus& status);
  // Redundancy of the design from the cross-products of its rows (host initial values).
  TQStatus DesignRedundancy(TQBitSet& inModel);
  // Everything after the iterations: robust pass, inference, criteria, tests of effects,
  // marginal means.
  void RunInference();
  // Wald tests of model effects on the covariance chosen for inference.
  void RunEffectTests();
  // Generalized score tests of effects (the likelihood-ratio effect analysis of a GEE model);
  // false when the host cancelled.
  bool RunScoreTests();
  void BuildParameterList();

  const GZLSettings* fpSettings;
  TQStatus fStatus;
  std::unique_ptr<GEEDesignMatrix> fpDesignMatrix;
  std::unique_ptr<GEEOptimizer> fpOptimizer;
  std::unique_ptr<GZLInference> fpInference;
  std::unique_ptr<GEEScoreStats> fpTypeIScore;
  std::unique_ptr<GEEScoreStats> fpTypeIIIScore;
  std::unique_ptr<GZLOutputStats> fpOutputStats;
  std::vector<GZLEffectInfo> fEffectInfo;
  std::vector<std::vector<int>> fWSCombinations;
  std::vector<TQStatus> fEstimationWarnings;
  std::vector<TQStatus> fEffectTestWarnings;
  std::vector<TQStatus> fEmmeansWarnings;
  std::vector<TQRegrParameter> fParameters;
  std::vector<int> fTargetCategories;
  bool fbSetupDone = false;
  std::vector<std::vector<int>> fPWCombinations;
  GZLCancelInfo fCancelInfo;
  std::unique_ptr<GZLAlgorithm> fpInner;
  TQFactorCounts fFactorCounts;
  // Created on the first Score; every fit counts, so that scoring takes a refit's estimates.
  std::unique_ptr<GZLScoringEngine> fpScoringEngine;
  long fFitCount = 0;
  // Replaced by every fit that computes marginal means.
  std::unique_ptr<GZLMarginals> fpMarginals;
  // The inner fit reads the host's source through this filter (records of unusable subjects
  // left out), kept for as long as the inner algorithm may read it.
  std::unique_ptr<IGZLRecordSource> fpInnerSource;
};
