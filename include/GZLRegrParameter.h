#pragma once
// One regression parameter, i.e. one design column: which factors take which categories in
// it (ordered by nesting level), which covariates enter it with which powers, the effect it
// belongs to and, for multinomial responses, the response category it serves.
#include <vector>

#include "GZLModelEffect.h"

class GZLRegrParameter {
 public:
  GZLRegrParameter() = default;

  // Inserts the factor before the first factor with a higher nesting level, so equal levels
  // keep insertion order. False on a negative argument or a factor already present.
  bool AddFactor(int variable, int category, int nestLevel);
  // Returns the covariate's new power; 0 when the variable is negative or multiplicity < 1.
  int AddCovariate(int variable, int multiplicity);

  // Category of the factor in this column, or -1.
  int ContainsFactor(int variable) const;
  // Power of the covariate, 0 when absent.
  int GetCovariateMult(int variable) const;
  int GetNCovariateMult() const;

  int GetNFactors() const noexcept { return static_cast<int>(fFactors.size()); }
  int GetNCovariates() const noexcept { return static_cast<int>(fCovariates.size()); }
  const std::vector<int>& GetFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetCategories() const noexcept { return fCategories; }
  std::vector<int>& GetCategories() noexcept { return fCategories; }
  const std::vector<int>& GetFactorNestLevels() const noexcept { return fFactorNestLevels; }
  const std::vector<int>& GetCovariates() const noexcept { return fCovariates; }
  const std::vector<int>& GetCovariateMultiplicities() const noexcept { return fCovMultiplicities; }

  bool IsIntercept() const noexcept { return fFactors.empty() && fCovariates.empty(); }

  int GetEffectIndex() const noexcept { return fEffectIndex; }
  void SetEffectIndex(int index) noexcept {
    if (index >= 0) fEffectIndex = index;
  }
  int GetTargetCategory() const noexcept { return fTargetCategory; }
  void SetTargetCategory(int category) noexcept { fTargetCategory = category; }

  // Takes the effect's factors (category 0, ordered by nesting level) and covariates. False,
  // changing nothing, for an intercept effect or a negative index. The target category is kept.
  bool SetupFromEffect(const GZLModelEffect& effect, int effectIndex);

  bool operator==(const GZLRegrParameter& other) const;

  void Display() const;

 private:
  std::vector<int> fFactors;
  std::vector<int> fCategories;
  std::vector<int> fFactorNestLevels;
  std::vector<int> fCovariates;
  std::vector<int> fCovMultiplicities;
  int fEffectIndex = 0;
  int fTargetCategory = 0;
};

// The regression layer's parameter is the same value class.
using TQRegrParameter = GZLRegrParameter;
