#pragma once
// One request for estimated marginal means: the factors whose level combinations get a mean,
// the factor whose levels are compared, fixed covariate values, the contrast, the scale of the
// means and the p-value adjustment. A plain value; the accessors are what the marginal-means
// code reads.
#include <utility>
#include <vector>

#include "TQConst.h"
#include "support/TQMV.h"

struct TQEmmeansSpec {
  // Field indices of the factors, and their nesting levels (parallel).
  std::vector<int> fFactors;
  std::vector<int> fFactorsNestLevel;
  // Factors whose levels are compared; the first one is the compare factor.
  std::vector<int> fCompareFactors;
  // (covariate field index, value); a missing value means "at the covariate's mean".
  std::vector<std::pair<int, double>> fCovariates;
  TQConst::TQContrastType fContrastType = TQConst::ContrastNone;
  // Reference category of the contrast; negative means the last observed level.
  int fRefCateg = -1;
  // Metric of a polynomial contrast; empty means 1, 2, ..., K.
  std::vector<double> fMetricValues;
  // 0: means on the scale of the response; otherwise on the scale of the linear predictor.
  TQConst::TQEmmScaleType fEmmScaleType = TQConst::EmmScaleOriginal;
  TQConst::TQPAdjustMethod fPAdjust = TQConst::PAdjNone;

  const std::vector<int>& GetFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetFactorsNestLevel() const noexcept { return fFactorsNestLevel; }
  const std::vector<int>& GetCompareFactors() const noexcept { return fCompareFactors; }
  const std::vector<std::pair<int, double>>& GetCovariates() const noexcept { return fCovariates; }
  std::vector<std::pair<int, double>>& GetCovariates() noexcept { return fCovariates; }
  TQConst::TQContrastType GetContrastType() const noexcept { return fContrastType; }
  int GetRefCateg() const noexcept { return fRefCateg; }
  const std::vector<double>& GetMetricValueList() const noexcept { return fMetricValues; }
  void SetMetricValueList(std::vector<double> values) { fMetricValues = std::move(values); }
  TQConst::TQEmmScaleType GetEmmScaleType() const noexcept { return fEmmScaleType; }
  TQConst::TQPAdjustMethod GetPAdjust() const noexcept { return fPAdjust; }

  bool operator==(const TQEmmeansSpec&) const = default;

  void Display() const;
};

// One estimated marginal mean: the categories of the request's factors (in the
// request's order), the mean, its standard error and confidence limits.
struct TQEmmeansStats {
  std::vector<int> fLevels;
  double fEstimate = TQMV::Missing;
  double fStdError = TQMV::Missing;
  double fLower = TQMV::Missing;
  double fUpper = TQMV::Missing;
};
