#include "GZLSettings.h"

#include <algorithm>
#include <cmath>

#include "diagnostics/GZLComponentDisplay_940.h"
#include "support/TQDisplay_940.h"

namespace {

bool IsFiniteNonNegative(double v) noexcept { return std::isfinite(v) && v >= 0.0; }

bool Contains(const std::vector<int>& list, int v) { return std::find(list.begin(), list.end(), v) != list.end(); }

bool IsCumulativeLink(TQConst::LinkType l) noexcept {
  return l >= TQConst::LinkCumCauchit && l <= TQConst::LinkCumProbit;
}

}  // namespace

GZLSettings::GZLSettings() {
  fbInterceptUse = false;
  fDependentNCategs = 0;
  fDependentRefCateg = 0;
  fLLConCriterion = 1e-6;
}

// ---- virtual operations ---------------------------------------------------------------------

TQConst::TQRegModelType GZLSettings::GetModelType() const {
  if (IsSingleDependentForBinomial() || fDistType == TQConst::DistNominalMultinomial)
    return TQConst::RegModelBinaryOrNominal;
  if (fDistType == TQConst::DistOrdinalMultinomial) return TQConst::RegModelOrdinal;
  return TQConst::RegModelOther;
}

TQStatus GZLSettings::IsValidSettings(bool requireDependent) const {
  TQStatus status = TQLogRegSettings::IsValidSettings(requireDependent);
  if (status.IsError()) return status;
  if (!IsValid()) return TQStatus::Error(GZLStatusCode::InvalidSettings);
  return status;
}

bool GZLSettings::SetDependent(int index) {
  if (!TQLogRegSettings::SetDependent(index)) return false;
  fDependentType = TQConst::DependentSingle;
  fTrials = -1;
  fTrialsValue = TQMV::Missing;
  return true;
}

bool GZLSettings::AddModelEffect(const TQModelEffect& effect) {
  const std::vector<int> factors = effect.GetFactors();
  // A factor of the effect must have been registered, since its size comes from there.
  for (int f : factors)
    if (!Contains(fFactors, f)) return false;

  fModelEffects.push_back(effect);
  for (int f : factors) {
    if (Contains(fEffectFactors, f)) continue;
    const auto pos = static_cast<std::size_t>(std::find(fFactors.begin(), fFactors.end(), f) - fFactors.begin());
    fEffectFactors.push_back(f);
    fEffectFactorSizes.push_back(pos < fFactorSizes.size() ? fFactorSizes[pos] : 0);
  }
  for (int c : effect.GetCovariates())
    if (!Contains(fEffectCovariates, c)) fEffectCovariates.push_back(c);
  return true;
}

void GZLSettings::Copy(const GZLSettings& other, bool nullModel) {
  if (this != &other) *this = other;
  if (!nullModel) return;

  // Keep only the starting values that the intercept-only model has: the intercept (first)
  // and the ML scale parameter (last).
  const bool scaleMLE = fScaleType == GZLConst_940::ScaleMLE;
  const std::size_t kept = (fbInterceptUse ? 1u : 0u) + (scaleMLE ? 1u : 0u);
  if (fInitParams.size() > kept) {
    std::vector<double> reduced;
    if (fbInterceptUse) reduced.push_back(fInitParams.front());
    if (scaleMLE) reduced.push_back(fInitParams.back());
    fInitParams = std::move(reduced);
  }
  fModelEffects.clear();
  fEffectFactors.clear();
  fEffectFactorSizes.clear();
  fEffectCovariates.clear();
}

// ---- response ---------------------------------------------------------------------------------

void GZLSettings::ReleaseDependent() noexcept {
  if (fDependent < 0) return;
  if (static_cast<std::size_t>(fDependent) < fRoles.size()) fRoles[fDependent] = RoleNone;
  fDependent = -1;
}

bool GZLSettings::SetEventsTrials(int events, int trials) {
  // Checked before the old dependent is released: the current dependent cannot be named.
  if (!IsRoleFree(events) || !IsRoleFree(trials) || events == trials) return false;
  ReleaseDependent();
  if (!TQLogRegSettings::SetDependent(events)) return false;
  fTrials = trials;
  SetVariableRole(trials, RoleTrials);
  fDependentType = TQConst::DependentEventsTrials;
  fTrialsValue = TQMV::Missing;
  return true;
}

bool GZLSettings::SetEventsConstTrials(int events, double trials) {
  if (!IsRoleFree(events)) return false;
  if (TQMV::IsMissing(trials) || !std::isfinite(trials) || !(trials > 0.0)) return false;
  ReleaseDependent();
  if (!TQLogRegSettings::SetDependent(events)) return false;
  fTrialsValue = trials;
  fTrials = -1;
  fDependentType = TQConst::DependentEventsConstTrials;
  return true;
}

// ---- offset -------------------------------------------------------------------------------------

bool GZLSettings::SetOffset(int index) {
  if (!IsRoleFree(index)) return false;
  // A previously set offset variable keeps its role entry.
  fOffset = index;
  fOffsetType = TQConst::OffsetVariable;
  fOffsetValue = TQMV::Missing;
  SetVariableRole(index, RoleOffset);
  return true;
}

bool GZLSettings::SetOffsetValue(double value) noexcept {
  // Once an offset variable has been given, a fixed offset can no longer replace it.
  if (TQMV::IsMissing(value) || !std::isfinite(value) || fOffset != -1) return false;
  fOffsetValue = value;
  fOffsetType = TQConst::OffsetValue;
  return true;
}

// ---- GEE structure ----------------------------------------------------------------------------

bool GZLSettings::AddGroupingVar(int index, int size, std::vector<int>& vars, std::vector<int>& sizes) {
  if (index < 0 || size < 1 || GetVariableRole(index) == RoleSubject) return false;
  vars.push_back(index);
  sizes.push_back(size);
  SetVariableRole(index, RoleSubject);
  return true;
}

bool GZLSettings::AddGEESubjectVar(int index, int size) {
  return AddGroupingVar(index, size, fSubjectVars, fSubjectVarSizes);
}

bool GZLSettings::AddGEEWSVar(int index, int size) { return AddGroupingVar(index, size, fWSVars, fWSVarSizes); }

bool GZLSettings::HasWSVar(int index) const noexcept { return Contains(fWSVars, index); }

// ---- distribution and link --------------------------------------------------------------------

void GZLSettings::SetDistType(TQConst::DistType type) noexcept {
  fDistType = type;
  if (type == TQConst::DistNegBinomial) {
    if (TQMV::IsMissing(fDistParam)) fDistParam = 1.0;
    if (fLinkType == TQConst::LinkNegBinomial) fLinkParam = fDistParam;
  }
}

bool GZLSettings::SetDistParam(double value) noexcept {
  if (!std::isfinite(value)) return false;
  if (fDistType == TQConst::DistNegBinomial) {
    if (!(value > 0.0)) return false;
  } else if (fDistType == TQConst::DistTweedie) {
    if (!(value > 1.0 && value < 2.0)) return false;
  } else {
    return false;
  }
  fDistParam = value;
  if (fDistType == TQConst::DistNegBinomial && fLinkType == TQConst::LinkNegBinomial) fLinkParam = value;
  return true;
}

void GZLSettings::SetLinkType(TQConst::LinkType type) noexcept {
  fLinkType = type;
  if (fDistType == TQConst::DistNegBinomial && type == TQConst::LinkNegBinomial) fLinkParam = fDistParam;
}

bool GZLSettings::IsCanonicalLink() const noexcept {
  using namespace TQConst;
  const bool paramSet = !TQMV::IsMissing(fLinkParam);
  switch (fDistType) {
    case DistNormal:
      return fLinkType == LinkIdentity || (fLinkType == LinkPower && paramSet && fLinkParam == 1.0);
    case DistBinomial:
      return fLinkType == LinkLogit;
    case DistGamma:
      return fLinkType == LinkPower && paramSet && fLinkParam == -1.0;
    case DistInvGaussian:
      return fLinkType == LinkPower && paramSet && fLinkParam == -2.0;
    case DistNegBinomial:
      return fLinkType == LinkNegBinomial && paramSet;
    case DistPoisson:
      return fLinkType == LinkLog;
    case DistTweedie:
      return fLinkType == LinkPower && paramSet && !TQMV::IsMissing(fDistParam) && fLinkParam == 1.0 - fDistParam;
    case DistOrdinalMultinomial:
      return fLinkType == LinkCumLogit;
    case DistNominalMultinomial:
      return true;
  }
  return false;
}

bool GZLSettings::IsValidDistLink() const noexcept {
  using namespace TQConst;
  if (fDistType == DistOrdinalMultinomial) return IsCumulativeLink(fLinkType);
  if (fDistType == DistNominalMultinomial) return true;
  switch (fLinkType) {
    case LinkIdentity:
    case LinkLog:
    case LinkPower:
      return true;
    case LinkCLogLog:
    case LinkLogC:
    case LinkLogit:
    case LinkNLogLog:
    case LinkOddsPower:
    case LinkProbit:
      return fDistType == DistBinomial;
    case LinkNegBinomial:
      // k is the link's parameter; a missing k passes, only an exact 0 is refused.
      return fDistType == DistNegBinomial && fLinkParam != 0.0;
    case LinkCumCauchit:
    case LinkCumCLogLog:
    case LinkCumLogit:
    case LinkCumNLogLog:
    case LinkCumProbit:
      return false;
    default:
      return fLinkType > LinkCumProbit;
  }
}

bool GZLSettings::CheckDistLink() noexcept {
  using namespace TQConst;
  if (IsValidDistLink()) return true;
  if (fDistType != DistOrdinalMultinomial) return false;
  switch (fLinkType) {
    case LinkCLogLog: fLinkType = LinkCumCLogLog; return true;
    case LinkLogit: fLinkType = LinkCumLogit; return true;
    case LinkNLogLog: fLinkType = LinkCumNLogLog; return true;
    case LinkProbit: fLinkType = LinkCumProbit; return true;
    case LinkCumDefault: fLinkType = LinkCumLogit; return true;
    default: return false;
  }
}

// ---- controls -----------------------------------------------------------------------------------

namespace {
template <class T>
bool StoreIf(bool accept, T& field, T value) noexcept {
  if (accept) field = value;
  return accept;
}
}  // namespace

bool GZLSettings::SetNSkippedReports(int n) noexcept { return StoreIf(n >= 0, fNSkippedReports, n); }
bool GZLSettings::SetScaleValue(double v) noexcept { return StoreIf(std::isfinite(v) && v > 0.0, fScaleValue, v); }
bool GZLSettings::SetCSIteration(int n) noexcept { return StoreIf(n > 0, fCSIteration, n); }
bool GZLSettings::SetFNIteration(int n) noexcept { return StoreIf(n > 0, fFNIteration, n); }
bool GZLSettings::SetToleranceHessian(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceHessian, v);
}
bool GZLSettings::SetGEEHConverge(double v) noexcept { return StoreIf(IsFiniteNonNegative(v), fGEEHConverge, v); }
bool GZLSettings::SetGEEPConverge(double v) noexcept { return StoreIf(IsFiniteNonNegative(v), fGEEPConverge, v); }
bool GZLSettings::SetGEEMaxIterations(int n) noexcept { return StoreIf(n >= 0, fGEEMaxIterations, n); }
bool GZLSettings::SetUpdateCorr(int n) noexcept { return StoreIf(n >= 0, fUpdateCorr, n); }
bool GZLSettings::SetCIConvProfile(double v) noexcept { return StoreIf(IsFiniteNonNegative(v), fCIConvProfile, v); }
bool GZLSettings::SetMaxIterationsPLCI(int n) noexcept { return StoreIf(n >= 0, fMaxIterationsPLCI, n); }
bool GZLSettings::SetToleranceLogLikePLCI(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceLogLikePLCI, v);
}
bool GZLSettings::SetToleranceHessianPLCI(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceHessianPLCI, v);
}
bool GZLSettings::SetMaxIterationsSQP(int n) noexcept { return StoreIf(n >= 0, fMaxIterationsSQP, n); }
bool GZLSettings::SetToleranceLogLikeSQP(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceLogLikeSQP, v);
}
bool GZLSettings::SetToleranceParamSQP(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceParamSQP, v);
}
bool GZLSettings::SetToleranceHessianSQP(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fToleranceHessianSQP, v);
}
bool GZLSettings::SetTolLogLikeTypeIandIII(double v) noexcept {
  return StoreIf(IsFiniteNonNegative(v), fTolLogLikeTypeIandIII, v);
}

// ---- validation ---------------------------------------------------------------------------------

bool GZLSettings::IsValidVariables() const noexcept {
  if (fDependentType == TQConst::DependentNone) return false;
  // Events and trials only make sense for the binomial.
  if (fDistType != TQConst::DistBinomial && fDependentType != TQConst::DependentSingle) return false;
  if (IsModelGEE() && fSubjectVars.empty()) return false;
  return true;
}

bool GZLSettings::IsValidModelEffects() const noexcept {
  // Effects never make the settings invalid: the walk only looks for the first effect that is
  // empty, the intercept, or names a variable without a model role.
  for (const TQModelEffect& e : fModelEffects) {
    if (e.IsIntercept()) break;
    bool unusable = false;
    for (int v : e.GetFactors()) {
      const int32_t role = GetVariableRole(v);
      if (role == RoleNone || role == RoleSubject) unusable = true;
    }
    for (int v : e.GetCovariates()) {
      const int32_t role = GetVariableRole(v);
      if (role == RoleNone || role == RoleSubject) unusable = true;
    }
    if (unusable) break;
  }
  return true;
}

bool GZLSettings::IsValidIterations() const noexcept { return fMaxStepHalving >= 1 && fFNIteration >= 1; }

bool GZLSettings::IsValidTolerance() const noexcept {
  const double ll = GetLLConCriterion();
  const double param = GetParamEstConCriterion();
  const double hess = fToleranceHessian;
  if (!(ll >= 0.0) || !(param >= 0.0) || !(hess >= 0.0)) return false;
  return !(ll == 0.0 && param == 0.0 && hess == 0.0);
}

bool GZLSettings::IsValidScaleType() const noexcept {
  if (fScaleType != GZLConst_940::ScaleMLE) return true;
  switch (fDistType) {
    case TQConst::DistNormal:
    case TQConst::DistGamma:
    case TQConst::DistInvGaussian:
    case TQConst::DistTweedie:
      return true;
    default:
      return false;
  }
}

bool GZLSettings::IsValid() const noexcept {
  return IsValidVariables() && IsValidDistLink() && IsValidModelEffects() && IsValidIterations() &&
         IsValidTolerance() && IsValidScaleType();
}

// ---- display ------------------------------------------------------------------------------------

void GZLSettings::Display() const {
  using namespace TQDisplay_940;
  namespace CD = GZLComponentDisplay_940;
  auto defined = [](const char* what, const void* p) {
    DisplayText(1, std::string(what) + (p ? " is defined" : " is not defined"));
  };

  DisplayText(1, "GZLSettings display start");
  defined("Iteration progress listener for model building", fpIterListener);
  defined("Iteration progress listener for PLCI", fpIterListenerPLCI);
  defined("Iteration progress listener for Type I tests", fpIterListenerTypeI);
  defined("Iteration progress listener for Type III tests", fpIterListenerTypeIII);
  defined("Record progress listener", fpRecListener);
  DisplayI("Number of progress reports to skip", fNSkippedReports);
  defined("Cancel object", fpCancel);
  DisplayText(1, "Temporary file directory: ");
  DisplayIV("Factors", fFactors);
  DisplayIV("Factors sizes", fFactorSizes);
  DisplayIV("Covariates", fCovariates);
  DisplayC("Dependent type", fDependentType);
  switch (fDependentType) {
    case TQConst::DependentSingle: DisplayI("Dependent index", fDependent); break;
    case TQConst::DependentEventsTrials: DisplayI("Trials index", fTrials); break;
    case TQConst::DependentEventsConstTrials: DisplayD("Constant trials value", fTrialsValue); break;
    default: break;
  }
  DisplayI("Dependent number of categories", fDependentNCategs);
  DisplayI("Dependent reference category", fDependentRefCateg);
  if (fFrequencyWeightVar >= 0) DisplayI("Frequency weight index", fFrequencyWeightVar);
  if (fRegrWeightVar >= 0) DisplayI("Omega weight index", fRegrWeightVar);
  DisplayC("Offset type", fOffsetType);
  if (fOffsetType == TQConst::OffsetVariable) DisplayI("Offset index", fOffset);
  if (fOffsetType == TQConst::OffsetValue) DisplayD("Offset value", fOffsetValue);
  DisplayB("Intercept in the model indicator", fbInterceptUse);
  DisplayC("Probability distribution type", fDistType);
  CD::DisplayC("Distribution parameter type", fDistParamType);
  DisplayD("Distribution parameter value", fDistParam);
  DisplayB("Negative binomial with k=0 indicator", fbNegBin0);
  DisplayC("Link function type", fLinkType);
  DisplayD("Link function parameter", fLinkParam);
  DisplayI("Number of model effects: ", static_cast<int>(fModelEffects.size()));
  for (const TQModelEffect& e : fModelEffects) e.Display();
  DisplayC("Hessian computing method type", fHessianCompMethod);
  CD::DisplayC("Scale parameter type", fScaleType);
  DisplayD("Scale parameter value", fScaleValue);
  DisplayI("Iteration number for checking cs/qcs", fCSIteration);
  DisplayI("Max steps in step-halving method", fMaxStepHalving);
  DisplayI("Iteration number for switch from Fisher scoring to Newton-Raphson", fFNIteration);
  DisplayI("Max number of iterations", fMaxIterations);
  DisplayD("Loglikelihood convergence tolerance", fLLConCriterion);
  DisplayD("Parameter convergence tolerance", fParamEstConCriterion);
  DisplayD("Hessian convergence tolerance", fToleranceHessian);
  DisplayD("Computational tolerance", fTolerance);
  CD::DisplayC("GZLM model type", fModelType);
  DisplayDV("The initial parameters", fInitParams, false);
  DisplayD("The initial value of the estimated distribution parameter", fInitDistParam);
  DisplayIV("Subject variables sizes for GEE model", fSubjectVarSizes);
  DisplayIV("Subject variables for GEE model", fSubjectVars);
  DisplayIV("Within subject variables sizes for GEE model", fWSVarSizes);
  DisplayIV("Within subject variables for GEE model", fWSVars);
  DisplayC("Type of analysis for each model effect", fEffectAnalysisType);
  CD::DisplayC("Type of chi-square statistic in analyses of model effects", fEffectAnalysisStat);
  DisplayDV("Working correlation matrix", fWorkCorrMatrix, false);
  DisplayC("Estimator type of parameter estimate covariance matrix", fCovbType);
  DisplayB("Need sort or not", fbSorted);
  DisplayB("Need adjust working correlation matrix or not", fbAdjustCorr);
  DisplayC("GEE estimator type of parameter estimate covariance matrix", fGEECovbType);
  DisplayD("Hessian convergence criteria for GEE model", fGEEHConverge);
  DisplayD("Parameter convergence criteria for GEE model", fGEEPConverge);
  DisplayC("Parameter convergence criteria type for GEE model", fGEEPConvergeType);
  DisplayI("Max number of iterations for GEE model", fGEEMaxIterations);
  DisplayI("Number of iterations between updates of working correlation matrix", fUpdateCorr);
  DisplayB("Value for 'Sort case by subject and within subject variables' indicator", fbGEESortBySubjectWS);
  CD::DisplayC("Type of the working correlation matrix for GEE", fGEECorrType);
  DisplayD("Parameter for m-dependent working correlation matrix", fGEEMDependentPar);
  DisplayD("Confidence interval level", fConfidenceLevel);
  CD::DisplayC("Confidence interval type", fCIType);
  DisplayD("Confidence interval convergence criterion", fCIConvProfile);
  DisplayC("Hessian convergence type for GZLM model", fHConvergeType);
  DisplayC("Loglikelihood convergence type for GZLM model", fLConvergeType);
  DisplayC("Parameter convergence type for GZLM model", fPConvergeType);
  CD::DisplayC("Loglikehood function computation type", fLLType);
  DisplayI("Number of marginal means : ", static_cast<int>(fEmmeans.size()));
  for (const TQEmmeansSpec& spec : fEmmeans) spec.Display();
  DisplayI("Frequency of showing iteration history", fIterationFrequency);
  DisplayI("Max number of iterations for PLCI", fMaxIterationsPLCI);
  DisplayD("Loglikelihood convergence tolerance for PLCI", fToleranceLogLikePLCI);
  DisplayD("Hessian convergence tolerance for PLCI", fToleranceHessianPLCI);
  DisplayI("Max number of iterations in SQP", fMaxIterationsSQP);
  DisplayD("Hessian convergence tolerance in SQP", fToleranceHessianSQP);
  DisplayD("Loglikelihood convergence tolerance in SQP", fToleranceLogLikeSQP);
  DisplayD("Parameter convergence tolerance in SQP", fToleranceParamSQP);
  DisplayD("Tolerance in convergence for Type I and III", fTolLogLikeTypeIandIII);
  DisplayC("Hessian convergence type in SQP", fHConvergeTypeSQP);
  DisplayC("Loglikelihood convergence type in SQP", fLConvergeTypeSQP);
  DisplayC("Parameter convergence type in SQP", fPConvergeTypeSQP);
  DisplayC("Convergence type for Type I and III", fLConvergeTypeTypeIandIII);
  DisplayText(1, "GZLSettings display end");
}
