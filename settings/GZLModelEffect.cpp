#include "GZLModelEffect.h"

#include <algorithm>

#include "support/TQDisplay_940.h"

GZLModelEffect::GZLModelEffect(int factorsInModel, int covariatesInModel, const std::vector<int>* varIndices)
    : fpVarIndices(varIndices),
      fFactorsInModel(std::max(0, factorsInModel)),
      fCovariatesInModel(std::max(0, covariatesInModel)) {
  fMainVector.assign(static_cast<std::size_t>(fFactorsInModel), -1);
  fMainVector.resize(static_cast<std::size_t>(fFactorsInModel + fCovariatesInModel), 0);
}

void GZLModelEffect::Setup(int factorsInModel, int covariatesInModel, const std::vector<int>* varIndices) {
  // Entries already there survive, so Setup on a used effect does not clear it: the factor
  // part is resized (new entries -1), then the covariate part (new entries 0), each keeping
  // its existing entries.
  const auto oldFactors = std::min(fMainVector.size(), static_cast<std::size_t>(fFactorsInModel));
  std::vector<int> covariatePart(fMainVector.begin() + static_cast<std::ptrdiff_t>(oldFactors), fMainVector.end());
  fFactorsInModel = std::max(0, factorsInModel);
  fCovariatesInModel = std::max(0, covariatesInModel);
  fpVarIndices = varIndices;
  fMainVector.resize(oldFactors);
  fMainVector.resize(static_cast<std::size_t>(fFactorsInModel), -1);
  covariatePart.resize(static_cast<std::size_t>(fCovariatesInModel), 0);
  fMainVector.insert(fMainVector.end(), covariatePart.begin(), covariatePart.end());
}

void GZLModelEffect::Reset() {
  fMainVector.clear();
  fFactorsInEffect = 0;
  fCovariatesInEffect = 0;
  fNestingLevels = 0;
  fbCovariatesInParens = false;
  fMainVector.assign(static_cast<std::size_t>(fFactorsInModel), -1);
  fMainVector.resize(static_cast<std::size_t>(fFactorsInModel + fCovariatesInModel), 0);
}

int GZLModelEffect::FactorPosition(int variable) const {
  if (!fpVarIndices) return -1;
  const int n = std::min(fFactorsInModel, static_cast<int>(fpVarIndices->size()));
  for (int i = 0; i < n; ++i)
    if ((*fpVarIndices)[i] == variable) return i;
  return -1;
}

int GZLModelEffect::CovariatePosition(int variable) const {
  if (!fpVarIndices) return -1;
  const int end = std::min(fFactorsInModel + fCovariatesInModel, static_cast<int>(fpVarIndices->size()));
  for (int i = fFactorsInModel; i < end; ++i)
    if ((*fpVarIndices)[i] == variable) return i - fFactorsInModel;
  return -1;
}

bool GZLModelEffect::AddNewFactor(int variable, bool nested) {
  if (fFactorsInModel == 0) return false;
  const int pos = FactorPosition(variable);
  if (pos < 0 || pos >= static_cast<int>(fMainVector.size())) return false;
  if (fMainVector[pos] != -1) return false;
  if (nested) {
    for (int i = 0; i < fFactorsInModel; ++i)
      if (fMainVector[i] >= 0) ++fMainVector[i];
    ++fNestingLevels;
  }
  fMainVector[pos] = 0;
  ++fFactorsInEffect;
  if (fFactorsInEffect == 1) fNestingLevels = 1;
  return true;
}

int GZLModelEffect::AddCovariate(int variable) {
  const int pos = CovariatePosition(variable);
  if (pos < 0) return -1;
  const auto entry = static_cast<std::size_t>(fFactorsInModel + pos);
  if (entry >= fMainVector.size()) return -1;
  const int mult = ++fMainVector[entry];
  if (mult == 1) ++fCovariatesInEffect;
  return mult;
}

int GZLModelEffect::ContainsFactor(int variable) const {
  const int pos = FactorPosition(variable);
  if (pos < 0 || pos >= static_cast<int>(fMainVector.size())) return -1;
  return fMainVector[pos];
}

std::vector<int> GZLModelEffect::GetFactors() const {
  std::vector<int> out;
  if (!fpVarIndices) return out;
  const int n = std::min({fFactorsInModel, static_cast<int>(fpVarIndices->size()), static_cast<int>(fMainVector.size())});
  for (int i = 0; i < n; ++i)
    if (fMainVector[i] >= 0) out.push_back((*fpVarIndices)[i]);
  return out;
}

std::vector<int> GZLModelEffect::GetFactorLevels() const {
  std::vector<int> out;
  if (!fpVarIndices) return out;
  const int n = std::min({fFactorsInModel, static_cast<int>(fpVarIndices->size()), static_cast<int>(fMainVector.size())});
  for (int i = 0; i < n; ++i)
    if (fMainVector[i] >= 0) out.push_back(fMainVector[i]);
  return out;
}

std::vector<int> GZLModelEffect::GetCovariates() const {
  std::vector<int> out;
  if (!fpVarIndices) return out;
  const int end = std::min({fFactorsInModel + fCovariatesInModel, static_cast<int>(fpVarIndices->size()),
                            static_cast<int>(fMainVector.size())});
  for (int i = fFactorsInModel; i < end; ++i)
    if (fMainVector[i] > 0) out.push_back((*fpVarIndices)[i]);
  return out;
}

std::vector<int> GZLModelEffect::GetCovMultiplicities() const {
  std::vector<int> out;
  if (!fpVarIndices) return out;
  const int end = std::min({fFactorsInModel + fCovariatesInModel, static_cast<int>(fpVarIndices->size()),
                            static_cast<int>(fMainVector.size())});
  for (int i = fFactorsInModel; i < end; ++i)
    if (fMainVector[i] > 0) out.push_back(fMainVector[i]);
  return out;
}

int GZLModelEffect::GetCovariateMult(int variable) const {
  const int pos = CovariatePosition(variable);
  if (pos < 0) return -1;
  const auto entry = static_cast<std::size_t>(fFactorsInModel + pos);
  return entry < fMainVector.size() ? fMainVector[entry] : -1;
}

int GZLModelEffect::GetNCovariateMult() const {
  int sum = 0;
  for (std::size_t i = static_cast<std::size_t>(fFactorsInModel); i < fMainVector.size(); ++i) sum += fMainVector[i];
  return sum;
}

bool GZLModelEffect::IsContainedIn(const GZLModelEffect& other) const {
  if (fFactorsInEffect >= other.fFactorsInEffect) return false;
  if (fCovariatesInEffect != other.fCovariatesInEffect) return false;
  if (fFactorsInModel != other.fFactorsInModel || fCovariatesInModel != other.fCovariatesInModel) return false;
  if (fpVarIndices != other.fpVarIndices) return false;
  if (fMainVector.size() != other.fMainVector.size()) return false;
  for (int i = 0; i < fFactorsInModel; ++i)
    if (fMainVector[i] >= 0 && other.fMainVector[i] < 0) return false;
  for (std::size_t i = static_cast<std::size_t>(fFactorsInModel); i < fMainVector.size(); ++i)
    if (fMainVector[i] != other.fMainVector[i]) return false;
  return true;
}

bool GZLModelEffect::ApplyMask(const std::vector<bool>& mask) {
  bool ok = true;
  for (int i = static_cast<int>(fMainVector.size()) - 1; i >= 0; --i) {
    if (static_cast<std::size_t>(i) >= mask.size() || mask[i]) continue;
    const bool isFactor = i < fFactorsInModel;
    const int entry = fMainVector[i];
    // Keep the counts true to the vector even when a used variable is dropped; the caller is
    // told through the result.
    if (isFactor) {
      if (entry >= 0) {
        ok = false;
        --fFactorsInEffect;
      }
      --fFactorsInModel;
    } else {
      if (entry >= 1) {
        ok = false;
        --fCovariatesInEffect;
      }
      --fCovariatesInModel;
    }
    fMainVector.erase(fMainVector.begin() + i);
  }
  return ok;
}

bool GZLModelEffect::operator==(const GZLModelEffect& o) const {
  return fFactorsInModel == o.fFactorsInModel && fCovariatesInModel == o.fCovariatesInModel &&
         fFactorsInEffect == o.fFactorsInEffect && fCovariatesInEffect == o.fCovariatesInEffect &&
         fNestingLevels == o.fNestingLevels && fpVarIndices == o.fpVarIndices &&
         fbCovariatesInParens == o.fbCovariatesInParens && fMainVector == o.fMainVector;
}

std::vector<bool> GZLModelEffect::CheckVariableUse(const std::vector<GZLModelEffect>& effects) {
  std::vector<bool> used;
  if (effects.empty()) return used;
  const int nFactors = effects.front().fFactorsInModel;
  const int nTotal = nFactors + effects.front().fCovariatesInModel;
  used.assign(static_cast<std::size_t>(nTotal), false);
  for (const GZLModelEffect& e : effects) {
    const int n = std::min(nTotal, static_cast<int>(e.fMainVector.size()));
    for (int i = 0; i < n; ++i) {
      const bool inUse = i < nFactors ? e.fMainVector[i] >= 0 : e.fMainVector[i] > 0;
      if (inUse) used[i] = true;
    }
  }
  return used;
}

void GZLModelEffect::GetUsedVariables(const std::vector<GZLModelEffect>& effects, std::vector<int>& factors,
                                      std::vector<int>& covariates) {
  if (effects.empty()) return;
  factors.clear();
  covariates.clear();
  auto appendNew = [](std::vector<int>& list, int v) {
    if (std::find(list.begin(), list.end(), v) == list.end()) list.push_back(v);
  };
  for (const GZLModelEffect& e : effects) {
    for (int v : e.GetFactors()) appendNew(factors, v);
    for (int v : e.GetCovariates()) appendNew(covariates, v);
  }
}

void GZLModelEffect::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "Begin GZLModelEffect object display.");
  DisplayI("Factors in model", fFactorsInModel);
  DisplayI("Factors in effect", fFactorsInEffect);
  DisplayI("Nesting levels", fNestingLevels);
  DisplayI("Covariates in model", fCovariatesInModel);
  DisplayB("Covariate(s) nested within factor(s) e.g. cov(fac) indicator", fbCovariatesInParens);
  DisplayI("Covariates in effect", fCovariatesInEffect);
  DisplayIV("The main vector", fMainVector);
  DisplayText(1, "End GZLModelEffect object display.");
}
