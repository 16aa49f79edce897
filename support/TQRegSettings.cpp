#include "support/TQRegSettings.h"

#include <algorithm>
#include <cmath>

#include "GZLConst_940.h"
#include "support/TQDisplay_940.h"

namespace {
bool IsFiniteNonNegative(double v) noexcept { return std::isfinite(v) && v >= 0.0; }
}  // namespace

void TQRegSettings::SetVariableRole(int index, int32_t role) {
  if (index < 0) return;
  const auto pos = static_cast<std::size_t>(index);
  if (pos >= fRoles.size()) fRoles.resize(pos + 1, RoleNone);
  fRoles[pos] = role;
}

TQStatus TQRegSettings::IsValidSettings(bool requireDependent) const {
  const TQStatus invalid = TQStatus::Error(GZLStatusCode::InvalidSettings);
  if (requireDependent && fDependent < 0) return invalid;
  if (fFactors.size() != fFactorSizes.size()) return invalid;
  if (!(fConfidenceLevel > 0.0 && fConfidenceLevel < 1.0)) return invalid;
  if (!(fTolerance > 0.0 && fTolerance < 1.0)) return invalid;
  if (fMaxIterations < 0 || fIterationFrequency < 1) return invalid;
  return TQStatus();
}

bool TQRegSettings::SetDependent(int index) {
  if (index < 0) return false;
  if (index == fDependent) return true;
  if (!IsRoleFree(index)) return false;
  if (fDependent >= 0 && GetVariableRole(fDependent) == RoleDependent) SetVariableRole(fDependent, RoleNone);
  fDependent = index;
  SetVariableRole(index, RoleDependent);
  return true;
}

bool TQRegSettings::AddCovariate(int index) {
  if (!IsRoleFree(index)) return false;
  fCovariates.push_back(index);
  SetVariableRole(index, RoleCovariate);
  return true;
}

bool TQRegSettings::AddFactor(int index, int size) {
  if (size < 1 || !IsRoleFree(index)) return false;
  fFactors.push_back(index);
  fFactorSizes.push_back(size);
  SetVariableRole(index, RoleFactor);
  return true;
}

bool TQRegSettings::AddModelEffect(const TQModelEffect& effect) {
  fModelEffects.push_back(effect);
  return true;
}

bool TQRegSettings::SetFrequencyWeightVar(int index) {
  if (index == fFrequencyWeightVar) return true;
  if (index != -1 && !IsRoleFree(index)) return false;
  if (fFrequencyWeightVar >= 0 && GetVariableRole(fFrequencyWeightVar) == RoleFrequencyWeight)
    SetVariableRole(fFrequencyWeightVar, RoleNone);
  fFrequencyWeightVar = index;
  if (index >= 0) SetVariableRole(index, RoleFrequencyWeight);
  return true;
}

bool TQRegSettings::SetRegrWeightVar(int index) {
  if (index == fRegrWeightVar) return true;
  if (index != -1 && !IsRoleFree(index)) return false;
  if (fRegrWeightVar >= 0 && GetVariableRole(fRegrWeightVar) == RoleRegrWeight)
    SetVariableRole(fRegrWeightVar, RoleNone);
  fRegrWeightVar = index;
  if (index >= 0) SetVariableRole(index, RoleRegrWeight);
  return true;
}

bool TQRegSettings::SetParamEstConCriterion(double tol) {
  if (!IsFiniteNonNegative(tol)) return false;
  fParamEstConCriterion = tol;
  return true;
}

bool TQRegSettings::SetMaxIterations(int n) {
  if (n < 0) return false;
  fMaxIterations = n;
  return true;
}

bool TQRegSettings::SetTolerance(double tol) {
  if (!(tol > 0.0 && tol < 1.0)) return false;
  fTolerance = tol;
  return true;
}

bool TQRegSettings::SetIterationFrequency(int n) {
  if (n < 1) return false;
  fIterationFrequency = n;
  return true;
}

bool TQRegSettings::SetConfidenceLevel(double level) {
  if (!(level > 0.0 && level < 1.0)) return false;
  fConfidenceLevel = level;
  return true;
}

void TQRegSettings::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQRegSettings display start");
  DisplayI("Dependent index", fDependent);
  DisplayIV("Factors", fFactors);
  DisplayIV("Factors sizes", fFactorSizes);
  DisplayIV("Covariates", fCovariates);
  DisplayI("Number of model effects", static_cast<int>(fModelEffects.size()));
  DisplayB("Intercept in the model indicator", fbInterceptUse);
  DisplayI("Frequency weight index", fFrequencyWeightVar);
  DisplayI("Regression weight index", fRegrWeightVar);
  DisplayI("Dependent number of categories", fDependentNCategs);
  DisplayI("Dependent reference category", fDependentRefCateg);
  DisplayB("Transform effects indicator", fbTransformEffects);
  DisplayD("Degrees of freedom option", fDF);
  DisplayD("Parameter convergence tolerance", fParamEstConCriterion);
  DisplayI("Max number of iterations", fMaxIterations);
  DisplayD("Computational tolerance", fTolerance);
  DisplayI("Frequency of showing iteration history", fIterationFrequency);
  DisplayD("Confidence interval level", fConfidenceLevel);
  DisplayC("Estimator type of parameter estimate covariance matrix", fCovbType);
  DisplayI("Test type", fTestType);
  DisplayI("P-value adjustment method", fPAdjustment);
  DisplayText(1, fpCancel ? "Cancel object is defined" : "Cancel object is not defined");
  DisplayText(1, "TQRegSettings display end");
}

TQStatus TQLogRegSettings::IsValidSettings(bool requireDependent) const {
  TQStatus status = TQRegSettings::IsValidSettings(requireDependent);
  if (status.IsError()) return status;
  if (fLLConCriterion < 0.0 || fMaxStepHalving < 0) return TQStatus::Error(GZLStatusCode::InvalidSettings);
  return status;
}

bool TQLogRegSettings::SetLLConCriterion(double tol) {
  if (!IsFiniteNonNegative(tol)) return false;
  fLLConCriterion = tol;
  return true;
}

bool TQLogRegSettings::SetMaxStepHalvingValue(int n) {
  if (n < 0) return false;
  fMaxStepHalving = n;
  return true;
}
