#pragma once
// The general regression options shared by the engine's settings: dependent variable, factors,
// covariates, model effects, intercept, weights, convergence tolerances, iteration limits,
// confidence level, covariance estimator, test options, the cancel object, and the variable
// role table (one code per record field index).
//
// Defaults of this layer (the engine's settings override a few at construction):
//   dependent -1, no factors/covariates/effects, intercept on, no weights,
//   dependent categories 0, reference category -1 (the last),
//   log-likelihood tolerance 0 (off), parameter tolerance 1e-6, 100 iterations,
//   5 step-halvings, singularity tolerance 1e-12, iteration history every iteration,
//   confidence level 0.95 (a fraction), model-based covariance, test type 0,
//   no p-value adjustment, no cancel object.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLProgress.h"
#include "TQConst.h"
#include "support/TQStatus.h"

class TQRegSettings {
 public:
  // Role codes of the role table. 0 means the field has no role. 8 (a grouping variable of
  // repeated measures) does not make a field a model variable, so the role setters accept a
  // field holding 8 just like a free one.
  enum VariableRole : int32_t {
    RoleNone = 0,
    RoleDependent = 1,
    RoleFactor = 2,
    RoleCovariate = 3,
    RoleFrequencyWeight = 4,
    RoleRegrWeight = 5,
    RoleOffset = 6,
    RoleTrials = 7,
    RoleSubject = 8
  };

  TQRegSettings() = default;
  TQRegSettings(const TQRegSettings&) = default;
  TQRegSettings& operator=(const TQRegSettings&) = default;
  virtual ~TQRegSettings() = default;

  // Virtual operations (in this order): model type for the regression layer, validation,
  // dependent, covariates, effects, display.
  virtual TQConst::TQRegModelType GetModelType() const { return TQConst::RegModelOther; }
  // bool: also require a dependent variable. Returns 130009 when a check fails.
  virtual TQStatus IsValidSettings(bool requireDependent) const;
  // Refuses a negative index and a field that already has another role; releases the role of
  // the previous dependent.
  virtual bool SetDependent(int index);
  // Refuses a negative index and a field that already has another role.
  virtual bool AddCovariate(int index);
  virtual bool AddModelEffect(const TQModelEffect& effect);
  virtual void Display() const;

  // Variables.
  int GetDependent() const noexcept { return fDependent; }
  // Refuses a negative index, a size below 1, and a field that already has another role.
  bool AddFactor(int index, int size);
  const std::vector<int>& GetFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetFactorSizes() const noexcept { return fFactorSizes; }
  const std::vector<int>& GetCovariates() const noexcept { return fCovariates; }
  const std::vector<TQModelEffect>& GetModelEffects() const noexcept { return fModelEffects; }
  void ClearModelEffects() noexcept { fModelEffects.clear(); }

  bool GetInterceptUse() const noexcept { return fbInterceptUse; }
  void SetInterceptUse(bool use) noexcept { fbInterceptUse = use; }

  // -1 clears the weight; otherwise the field must be free. The previous weight is released.
  int GetFrequencyWeightVar() const noexcept { return fFrequencyWeightVar; }
  bool SetFrequencyWeightVar(int index);
  int GetRegrWeightVar() const noexcept { return fRegrWeightVar; }
  bool SetRegrWeightVar(int index);

  int GetDependentNCategs() const noexcept { return fDependentNCategs; }
  int GetDependentRefCateg() const noexcept { return fDependentRefCateg; }

  bool GetTransformEffects() const noexcept { return fbTransformEffects; }
  void SetTransformEffects(bool transform) noexcept { fbTransformEffects = transform; }
  // Degrees-of-freedom option, stored for the host (0 by default).
  double GetDF() const noexcept { return fDF; }
  void SetDF(double df) noexcept { fDF = df; }

  // Estimation controls.
  double GetParamEstConCriterion() const noexcept { return fParamEstConCriterion; }
  bool SetParamEstConCriterion(double tol);  // >= 0 (0 switches the criterion off)
  int GetMaxIterations() const noexcept { return fMaxIterations; }
  bool SetMaxIterations(int n);  // >= 0 (0: no iterations)
  double GetTolerance() const noexcept { return fTolerance; }
  bool SetTolerance(double tol);  // singularity tolerance, 0 < tol < 1
  int GetIterationFrequency() const noexcept { return fIterationFrequency; }
  bool SetIterationFrequency(int n);  // >= 1

  // Inference controls.
  double GetConfidenceLevel() const noexcept { return fConfidenceLevel; }
  bool SetConfidenceLevel(double level);  // a fraction, 0 < level < 1
  TQConst::TQCovbType GetCovbType() const noexcept { return fCovbType; }
  void SetCovbType(TQConst::TQCovbType type) noexcept { fCovbType = type; }
  TQConst::TQTestType GetTestType() const noexcept { return fTestType; }
  void SetTestType(TQConst::TQTestType type) noexcept { fTestType = type; }
  TQConst::TQPAdjustMethod GetPAdjustment() const noexcept { return fPAdjustment; }
  void SetPAdjustment(TQConst::TQPAdjustMethod method) noexcept { fPAdjustment = method; }

  // Borrowed; null means no cancellation.
  TQQueryCancel* GetCancelPointer() const noexcept { return fpCancel; }
  void SetCancelPointer(TQQueryCancel* cancel) noexcept { fpCancel = cancel; }

  // The role table: one code per field index, grown on demand with zeros.
  const std::vector<int32_t>& GetRoleTable() const noexcept { return fRoles; }
  int32_t GetVariableRole(int index) const noexcept {
    return (index >= 0 && static_cast<std::size_t>(index) < fRoles.size()) ? fRoles[index] : RoleNone;
  }

 protected:
  // Free for a new role: a non-negative index whose role is 0 or 8.
  bool IsRoleFree(int index) const noexcept {
    const int32_t role = GetVariableRole(index);
    return index >= 0 && (role == RoleNone || role == RoleSubject);
  }
  // Grows the table as needed and writes the code.
  void SetVariableRole(int index, int32_t role);

  int fDependent = -1;
  std::vector<int> fFactors;
  std::vector<int> fFactorSizes;
  std::vector<int> fCovariates;
  std::vector<TQModelEffect> fModelEffects;
  bool fbInterceptUse = true;
  int fFrequencyWeightVar = -1;
  int fRegrWeightVar = -1;
  int fDependentNCategs = 0;
  int fDependentRefCateg = -1;
  bool fbTransformEffects = false;
  double fDF = 0.0;
  double fParamEstConCriterion = 1e-6;
  int fMaxIterations = 100;
  double fTolerance = 1e-12;
  int fIterationFrequency = 1;
  double fConfidenceLevel = 0.95;
  TQConst::TQCovbType fCovbType = TQConst::CovbModelBased;
  TQConst::TQTestType fTestType = TQConst::TestType0;
  TQConst::TQPAdjustMethod fPAdjustment = TQConst::PAdjNone;
  TQQueryCancel* fpCancel = nullptr;
  std::vector<int32_t> fRoles;
};

// Adds the controls of likelihood-based fitting: the log-likelihood convergence tolerance and
// the step-halving limit.
class TQLogRegSettings : public TQRegSettings {
 public:
  TQStatus IsValidSettings(bool requireDependent) const override;

  double GetLLConCriterion() const noexcept { return fLLConCriterion; }
  bool SetLLConCriterion(double tol);  // >= 0 (0 switches the criterion off)
  int GetMaxStepHalvingValue() const noexcept { return fMaxStepHalving; }
  bool SetMaxStepHalvingValue(int n);  // >= 0 here; the engine's validation requires >= 1

 protected:
  double fLLConCriterion = 0.0;
  int fMaxStepHalving = 5;
};
