#pragma once
// The algorithm interface through which a host drives every model (GZLM and GEE). Created by
// GZLFactory::CreateAlgorithm; the caller owns it and deletes it through the virtual
// destructor. The order of the operations is part of the contract.
//
// Protocol: CreateAlgorithm; optionally InitializeModel (to inspect parameters, effect layout
// and counts); BuildModel (runs InitializeModel itself when needed); then, when IsModelBuilt,
// the results. Every result handed out by pointer or reference stays valid until the algorithm
// is destroyed; later calls may replace the contents of returned lists.
#include <iosfwd>
#include <string>
#include <vector>

#include "GZLEffectInfo.h"
#include "GZLFactorCounts.h"
#include "GZLRecord.h"
#include "GZLRegrParameter.h"
#include "support/TQStatus.h"

class GZLSettings;
class GZLOutputStats;
class GZLScoreStats;
class GZLOptimizer;
class TQVarList;
class TQApplicInfo4XML;
class TQClassificationMatrix;
struct LiftInfo;

class IGZLAlgorithm {
 public:
  virtual ~IGZLAlgorithm() = default;

  // A one-line banner naming the component and its version, then a copyright notice.
  virtual std::string GetComponentInfo() const = 0;
  virtual const GZLSettings* GetSettings() const = 0;
  // The dictionary pass and the parameter list.
  virtual TQStatus InitializeModel(IGZLRecordSource& source) = 0;
  // The parameters in design-column order.
  virtual const std::vector<TQRegrParameter>& GetRegrParameters() const = 0;
  virtual bool IsModelInitialized() const = 0;
  // Factor and response category counts of the dictionary pass.
  virtual const TQFactorCounts& GetFactorCounts() const = 0;
  // Observed categories of a multinomial response (ordinal: ascending; nominal: the
  // non-reference ones ascending, then the reference); empty otherwise.
  virtual const std::vector<int>& GetDependCategories() const = 0;
  // The whole fit.
  virtual TQStatus BuildModel(IGZLRecordSource& source) = 0;
  virtual bool IsModelBuilt() const = 0;
  virtual TQStatus GetStatus() const = 0;
  // One entry per settings effect.
  virtual const std::vector<GZLEffectInfo>& GetEffectInfo() const = 0;
  // Within-subject combinations (GEE only; null for GZLM).
  virtual const std::vector<std::vector<int>>* GetWSCombinations() const = 0;
  // Pairwise combinations of a marginal-means request, or null.
  virtual const std::vector<std::vector<int>>* GetPWCombinations(int emmeansIndex) = 0;
  // ModelNotBuilt (also left as the stored status) unless the model is built; the out-pointer
  // is then left untouched.
  virtual TQStatus GetOutputStats(const GZLOutputStats*& outputStats) = 0;
  // Scores one record; mask: score types wanted, or null for the current ones.
  virtual TQStatus Score(const Record& record, GZLScoreStats& scores, const int* mask) = 0;
  virtual TQStatus ExportPMML(const TQVarList& variables, std::ostream& out, bool includeCovariance,
                              const TQApplicInfo4XML* applicationInfo) = 0;
  virtual const std::vector<TQStatus>& GetBuildModelWarnings() const = 0;
  virtual const std::vector<TQStatus>& GetEmmeansWarnings() const = 0;
  virtual const std::vector<TQStatus>& GetEffectAnalysisWarnings() const = 0;
  // The optimizer of the last fit, or null.
  virtual GZLOptimizer* GetOptimizer() const = 0;
  // 0: the raw propensity is 1 - predicted probability; 1: the predicted probability.
  virtual void SetPropensityCategory(int category) = 0;
  virtual void SetNumOfPredictors(int n) = 0;
  virtual void SetGainsRegr(const std::vector<LiftInfo>& gains) = 0;
  virtual void SetGainCls(const std::vector<std::vector<LiftInfo>>& gains) = 0;
  virtual void SetClassification(const TQClassificationMatrix& classification) = 0;
  virtual void Display() const = 0;
};
