#include "GZLRegrParameter.h"

#include <algorithm>
#include <numeric>

#include "support/TQDisplay_940.h"

bool GZLRegrParameter::AddFactor(int variable, int category, int nestLevel) {
  if (variable < 0 || category < 0 || nestLevel < 0) return false;
  if (std::find(fFactors.begin(), fFactors.end(), variable) != fFactors.end()) return false;
  // Before the first factor nested deeper than the new one: ascending levels, ties in order.
  const auto it = std::find_if(fFactorNestLevels.begin(), fFactorNestLevels.end(),
                               [nestLevel](int level) { return level > nestLevel; });
  const auto pos = it - fFactorNestLevels.begin();
  fFactors.insert(fFactors.begin() + pos, variable);
  fCategories.insert(fCategories.begin() + pos, category);
  fFactorNestLevels.insert(fFactorNestLevels.begin() + pos, nestLevel);
  return true;
}

int GZLRegrParameter::AddCovariate(int variable, int multiplicity) {
  if (variable < 0 || multiplicity < 1) return 0;
  const auto it = std::find(fCovariates.begin(), fCovariates.end(), variable);
  if (it != fCovariates.end()) {
    int& mult = fCovMultiplicities[static_cast<std::size_t>(it - fCovariates.begin())];
    mult += multiplicity;
    return mult;
  }
  fCovariates.push_back(variable);
  fCovMultiplicities.push_back(multiplicity);
  return multiplicity;
}

int GZLRegrParameter::ContainsFactor(int variable) const {
  const auto it = std::find(fFactors.begin(), fFactors.end(), variable);
  if (it == fFactors.end()) return -1;
  return fCategories[static_cast<std::size_t>(it - fFactors.begin())];
}

int GZLRegrParameter::GetCovariateMult(int variable) const {
  const auto it = std::find(fCovariates.begin(), fCovariates.end(), variable);
  if (it == fCovariates.end()) return 0;
  return fCovMultiplicities[static_cast<std::size_t>(it - fCovariates.begin())];
}

int GZLRegrParameter::GetNCovariateMult() const {
  return std::accumulate(fCovMultiplicities.begin(), fCovMultiplicities.end(), 0);
}

bool GZLRegrParameter::SetupFromEffect(const GZLModelEffect& effect, int effectIndex) {
  if (effect.IsIntercept() || effectIndex < 0) return false;
  fEffectIndex = effectIndex;
  fFactors.clear();
  fCategories.clear();
  fFactorNestLevels.clear();
  const std::vector<int> factors = effect.GetFactors();
  const std::vector<int> levels = effect.GetFactorLevels();
  for (std::size_t i = 0; i < factors.size() && i < levels.size(); ++i) AddFactor(factors[i], 0, levels[i]);
  fCovariates = effect.GetCovariates();
  fCovMultiplicities = effect.GetCovMultiplicities();
  return true;
}

bool GZLRegrParameter::operator==(const GZLRegrParameter& o) const {
  return fEffectIndex == o.fEffectIndex && fFactors == o.fFactors && fCategories == o.fCategories &&
         fFactorNestLevels == o.fFactorNestLevels && fCovariates == o.fCovariates &&
         fCovMultiplicities == o.fCovMultiplicities && fTargetCategory == o.fTargetCategory;
}

void GZLRegrParameter::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "Begin GZLRegrParameter object display.");
  if (!fFactors.empty()) {
    DisplayIV("The factors:", fFactors);
    DisplayIV("Categories:", fCategories);
    DisplayIV("Factor nesting levels:", fFactorNestLevels);
  } else {
    DisplayText(1, "No factors are present.");
  }
  if (!fCovariates.empty()) {
    DisplayIV("Covariates:", fCovariates);
    DisplayIV("Covariate multiplicities:", fCovMultiplicities);
  } else {
    DisplayText(1, "No covariates are present.");
  }
  DisplayI("Index of the effect", fEffectIndex);
  DisplayI("Target category", fTargetCategory);
  DisplayText(1, "End GZLRegrParameter object display.");
  DisplayText(1, "");
}
