#pragma once
// The engine's one configuration object: the model (response, distribution and link,
// predictors and effects, offset, weights, GEE subject structure) and every control of
// estimation, inference, GEE iterations, constrained sub-problems, progress and cancellation.
//
// The host fills it through setters and keeps it alive for as long as any algorithm created
// from it; algorithms only read it. Setters returning bool refuse a value outside their range
// and then leave the object unchanged. Getters are plain inline reads.
#include <cstdint>
#include <utility>
#include <vector>

#include "GZLConst_940.h"
#include "GZLModelEffect.h"
#include "GZLProgress.h"
#include "TQConst.h"
#include "TQEmmeansSpec.h"
#include "support/TQMV.h"
#include "support/TQRegSettings.h"
#include "support/TQStatus.h"

class GZLSettings : public TQLogRegSettings {
 public:
  GZLSettings();
  GZLSettings(const GZLSettings&) = default;
  GZLSettings& operator=(const GZLSettings&) = default;
  ~GZLSettings() override = default;

  // ---- virtual operations --------------------------------------------------------------
  // 1 binomial with a single dependent and nominal multinomial, 2 ordinal multinomial, else 0.
  TQConst::TQRegModelType GetModelType() const override;
  // The base checks first (its error is returned); then IsValid (130009 when it fails).
  TQStatus IsValidSettings(bool requireDependent) const override;
  // A single dependent variable: dependent type 1, no trials.
  bool SetDependent(int index) override;
  using TQRegSettings::AddCovariate;
  // Appends the effect and records the factors (with sizes) and covariates it uses, in order of
  // first use. A factor must be registered with AddFactor first: an effect naming an unknown
  // factor is refused (false, nothing changed).
  bool AddModelEffect(const TQModelEffect& effect) override;
  void Display() const override;

  // The settings of the intercept-only model when nullModel is true: initial values cut down
  // to the intercept and the ML scale, all effects removed.
  void Copy(const GZLSettings& other, bool nullModel);

  // ---- model type -----------------------------------------------------------------------
  void SetGZLModelType(GZLConst_940::ModelType type) noexcept { fModelType = type; }
  GZLConst_940::ModelType GetGZLModelType() const noexcept { return fModelType; }
  bool IsModelGZLM() const noexcept { return fModelType == GZLConst_940::GZLM; }
  bool IsModelGEE() const noexcept { return fModelType == GZLConst_940::GEE; }
  bool IsModelGZLMMM() const noexcept { return fModelType == GZLConst_940::GZLMMM; }

  // ---- initial values -------------------------------------------------------------------
  void SetInitParams(std::vector<double> values) { fInitParams = std::move(values); }
  const std::vector<double>& GetInitParams() const noexcept { return fInitParams; }
  void SetInitDistParam(double value) noexcept { fInitDistParam = value; }
  double GetInitDistParam() const noexcept { return fInitDistParam; }

  // ---- response ---------------------------------------------------------------------------
  bool SetSingleDependent(int index) { return SetDependent(index); }
  // Binomial events/trials given by two variables. Neither may be the current dependent or
  // have any role other than 0 or 8; events and trials must differ.
  bool SetEventsTrials(int events, int trials);
  // Binomial events with a constant number of trials (> 0).
  bool SetEventsConstTrials(int events, double trials);
  TQConst::TQDependentType GetDependentType() const noexcept { return fDependentType; }
  int GetTrials() const noexcept { return fTrials; }
  double GetTrialsValue() const noexcept { return fTrialsValue; }
  // The events variable for dependent types 2 and 3, else -1.
  int GetEvents() const noexcept {
    return (fDependentType == TQConst::DependentEventsTrials ||
            fDependentType == TQConst::DependentEventsConstTrials)
               ? fDependent
               : -1;
  }
  // Number of categories of a multinomial dependent (no check).
  void SetDependentSize(int size) noexcept { fDependentNCategs = size; }
  // 2 for a binary binomial response, the stored count for multinomial, else 0.
  int GetDependentSize() const noexcept {
    if (IsSingleDependentForBinomial()) return 2;
    if (IsMultinomial()) return fDependentNCategs;
    return 0;
  }
  // Refuses c below -1.
  bool SetDependentRefCateg(int c) noexcept {
    if (c < -1) return false;
    fDependentRefCateg = c;
    return true;
  }
  bool IsSingleDependentForBinomial() const noexcept {
    return fDistType == TQConst::DistBinomial && fDependentType == TQConst::DependentSingle;
  }
  bool IsEventsTrialsForBinomial() const noexcept {
    return fDistType == TQConst::DistBinomial && (fDependentType == TQConst::DependentEventsTrials ||
                                                  fDependentType == TQConst::DependentEventsConstTrials);
  }
  // Binary: 1.0 for the event value (1.0 with reference category 0, else 0.0), else 0.0.
  // Multinomial: 1.0 when 0 <= y < number of categories, else 0.0. Otherwise y unchanged.
  double CheckDepCategory(double y) const noexcept {
    if (IsSingleDependentForBinomial()) {
      const double eventValue = fDependentRefCateg == 0 ? 1.0 : 0.0;
      return y == eventValue ? 1.0 : 0.0;
    }
    if (IsMultinomial()) return (y >= 0.0 && y < static_cast<double>(fDependentNCategs)) ? 1.0 : 0.0;
    return y;
  }

  // ---- offset ---------------------------------------------------------------------------
  bool SetOffset(int index);
  // Only while no offset variable has been set, and only a non-missing value.
  bool SetOffsetValue(double value) noexcept;
  int GetOffset() const noexcept { return fOffset; }
  double GetOffsetValue() const noexcept { return fOffsetValue; }
  TQConst::TQOffsetType GetOffsetType() const noexcept { return fOffsetType; }

  // ---- GEE structure ----------------------------------------------------------------------
  bool AddGEESubjectVar(int index, int size);
  bool AddGEEWSVar(int index, int size);
  const std::vector<int>& GetGEESubjectVars() const noexcept { return fSubjectVars; }
  const std::vector<int>& GetGEESubjectVarSizes() const noexcept { return fSubjectVarSizes; }
  int GetNumGEESubjectVars() const noexcept { return static_cast<int>(fSubjectVars.size()); }
  const std::vector<int>& GetGEEWSVars() const noexcept { return fWSVars; }
  const std::vector<int>& GetGEEWSVarSizes() const noexcept { return fWSVarSizes; }
  int GetNumWSVars() const noexcept { return static_cast<int>(fWSVars.size()); }
  bool HasSubjectVar(int index) const noexcept { return GetVariableRole(index) == RoleSubject; }
  bool HasWSVar(int index) const noexcept;
  // Inside the role table with a role other than 0 and 8.
  bool HasVariable(int index) const noexcept {
    const int32_t role = GetVariableRole(index);
    return role != RoleNone && role != RoleSubject;
  }
  int GetMaxIndex() const noexcept { return static_cast<int>(fRoles.size()) - 1; }

  // ---- distribution and link ------------------------------------------------------------
  void SetDistType(TQConst::DistType type) noexcept;
  TQConst::DistType GetDistType() const noexcept { return fDistType; }
  void SetDistParamType(GZLConst_940::DistParam type) noexcept { fDistParamType = type; }
  GZLConst_940::DistParam GetDistParamType() const noexcept { return fDistParamType; }
  // Negative binomial k > 0, Tweedie power 1 < p < 2; refused for other distributions.
  bool SetDistParam(double value) noexcept;
  double GetDistParam() const noexcept { return fDistParam; }
  void SetLinkType(TQConst::LinkType type) noexcept;
  TQConst::LinkType GetLinkType() const noexcept { return fLinkType; }
  void SetLinkParam(double value) noexcept { fLinkParam = value; }
  double GetLinkParam() const noexcept { return fLinkParam; }
  // A Poisson model standing for a negative binomial with k = 0.
  void SetNegBin0(bool value) noexcept { fbNegBin0 = value; }
  bool IsNegBin0() const noexcept { return fbNegBin0; }
  bool IsMultinomial() const noexcept {
    return fDistType == TQConst::DistOrdinalMultinomial || fDistType == TQConst::DistNominalMultinomial;
  }
  bool IsCanonicalLink() const noexcept;
  bool IsValidDistLink() const noexcept;
  // Repairs the link of an ordinal model (logit to cumulative logit, ...). True when the pair
  // is valid afterwards.
  bool CheckDistLink() noexcept;

  // ---- effects ----------------------------------------------------------------------------
  const std::vector<int>& GetEffectFactors() const noexcept { return fEffectFactors; }
  const std::vector<int>& GetEffectFactorSizes() const noexcept { return fEffectFactorSizes; }
  int GetNumOfEffectFactors() const noexcept { return static_cast<int>(fEffectFactors.size()); }
  const std::vector<int>& GetEffectCovariates() const noexcept { return fEffectCovariates; }
  int GetNumOfEffectCovariates() const noexcept { return static_cast<int>(fEffectCovariates.size()); }
  int GetNumOfModelEffects() const noexcept { return static_cast<int>(fModelEffects.size()); }
  int GetNumOfFactors() const noexcept { return static_cast<int>(fFactors.size()); }
  int GetNumOfCovariates() const noexcept { return static_cast<int>(fCovariates.size()); }
  bool IsEmptyModel() const noexcept { return fModelEffects.empty() && !fbInterceptUse; }

  void SetModelID(int id) noexcept { fModelID = id; }
  int GetModelID() const noexcept { return fModelID; }
  void SetThetaEstTypeGZLMMM(GZLConst_940::ThetaEstTypeGZLMMM type) noexcept { fThetaEstTypeGZLMMM = type; }
  GZLConst_940::ThetaEstTypeGZLMMM GetThetaEstTypeGZLMMM() const noexcept { return fThetaEstTypeGZLMMM; }

  // ---- progress listeners (borrowed) ------------------------------------------------------
  void SetIterProgressListener(ProgressListener* l) noexcept { fpIterListener = l; }
  ProgressListener* GetIterProgressListener() const noexcept { return fpIterListener; }
  void SetIterProgressListenerPLCI(ProgressListener* l) noexcept { fpIterListenerPLCI = l; }
  ProgressListener* GetIterProgressListenerPLCI() const noexcept { return fpIterListenerPLCI; }
  void SetIterProgressListenerTypeI(ProgressListener* l) noexcept { fpIterListenerTypeI = l; }
  ProgressListener* GetIterProgressListenerTypeI() const noexcept { return fpIterListenerTypeI; }
  void SetIterProgressListenerTypeIII(ProgressListener* l) noexcept { fpIterListenerTypeIII = l; }
  ProgressListener* GetIterProgressListenerTypeIII() const noexcept { return fpIterListenerTypeIII; }
  void SetRecProgressListener(ProgressListener* l) noexcept { fpRecListener = l; }
  ProgressListener* GetRecProgressListener() const noexcept { return fpRecListener; }
  bool SetNSkippedReports(int n) noexcept;  // >= 0
  int GetNSkippedReports() const noexcept { return fNSkippedReports; }

  // ---- estimation -------------------------------------------------------------------------
  void SetHessianCompMethod(TQConst::TQHessianCompMethod m) noexcept { fHessianCompMethod = m; }
  TQConst::TQHessianCompMethod GetHessianCompMethod() const noexcept { return fHessianCompMethod; }
  void SetScaleType(GZLConst_940::ScaleMethod m) noexcept { fScaleType = m; }
  GZLConst_940::ScaleMethod GetScaleType() const noexcept { return fScaleType; }
  bool SetScaleValue(double v) noexcept;  // > 0
  double GetScaleValue() const noexcept { return fScaleValue; }
  bool SetCSIteration(int n) noexcept;  // > 0 (the default 0 cannot be set back)
  int GetCSIteration() const noexcept { return fCSIteration; }
  bool SetFNIteration(int n) noexcept;  // > 0
  int GetFNIteration() const noexcept { return fFNIteration; }
  bool SetToleranceHessian(double v) noexcept;  // >= 0
  double GetToleranceHessian() const noexcept { return fToleranceHessian; }
  void SetHConvergeType(TQConst::TQConvType t) noexcept { fHConvergeType = t; }
  TQConst::TQConvType GetHConvergeType() const noexcept { return fHConvergeType; }
  void SetLConvergeType(TQConst::TQConvType t) noexcept { fLConvergeType = t; }
  TQConst::TQConvType GetLConvergeType() const noexcept { return fLConvergeType; }
  void SetPConvergeType(TQConst::TQConvType t) noexcept { fPConvergeType = t; }
  TQConst::TQConvType GetPConvergeType() const noexcept { return fPConvergeType; }
  void SetLLType(GZLConst_940::LLType t) noexcept { fLLType = t; }
  GZLConst_940::LLType GetLLType() const noexcept { return fLLType; }

  // ---- tests of model effects -------------------------------------------------------------
  void SetEffectAnalysisType(TQConst::TQEffectAnalysisType t) noexcept { fEffectAnalysisType = t; }
  TQConst::TQEffectAnalysisType GetEffectAnalysisType() const noexcept { return fEffectAnalysisType; }
  void SetEffectAnalysisStat(GZLConst_940::EffectAnalysisStat s) noexcept { fEffectAnalysisStat = s; }
  GZLConst_940::EffectAnalysisStat GetEffectAnalysisStat() const noexcept { return fEffectAnalysisStat; }
  void SetModelFittingTest(bool b) noexcept { fbModelFittingTest = b; }
  bool GetModelFittingTest() const noexcept { return fbModelFittingTest; }
  void SetGEFTest(bool b) noexcept { fbGEFTest = b; }
  bool GetGEFTest() const noexcept { return fbGEFTest; }

  // ---- GEE controls -----------------------------------------------------------------------
  void SetWorkCorrMatrix(std::vector<double> values) { fWorkCorrMatrix = std::move(values); }
  const std::vector<double>& GetWorkCorrMatrix() const noexcept { return fWorkCorrMatrix; }
  void SetSorted(bool b) noexcept { fbSorted = b; }
  bool IsSorted() const noexcept { return fbSorted; }
  void SetAdjustCorr(bool b) noexcept { fbAdjustCorr = b; }
  bool IsAdjustCorr() const noexcept { return fbAdjustCorr; }
  void SetGEECovbType(TQConst::TQCovbType t) noexcept { fGEECovbType = t; }
  TQConst::TQCovbType GetGEECovbType() const noexcept { return fGEECovbType; }
  bool SetGEEHConverge(double v) noexcept;  // >= 0
  double GetGEEHConverge() const noexcept { return fGEEHConverge; }
  bool SetGEEPConverge(double v) noexcept;  // >= 0
  double GetGEEPConverge() const noexcept { return fGEEPConverge; }
  void SetGEEPConvergeType(TQConst::TQConvType t) noexcept { fGEEPConvergeType = t; }
  TQConst::TQConvType GetGEEPConvergeType() const noexcept { return fGEEPConvergeType; }
  bool SetGEEMaxIterations(int n) noexcept;  // >= 0
  int GetGEEMaxIterations() const noexcept { return fGEEMaxIterations; }
  bool SetUpdateCorr(int n) noexcept;  // >= 0
  int GetUpdateCorr() const noexcept { return fUpdateCorr; }
  void SetGEESortBySubjectWS(bool b) noexcept { fbGEESortBySubjectWS = b; }
  bool IsGEESortBySubjectWS() const noexcept { return fbGEESortBySubjectWS; }
  void SetGEECorrType(GZLConst_940::CorrType t) noexcept { fGEECorrType = t; }
  GZLConst_940::CorrType GetGEECorrType() const noexcept { return fGEECorrType; }
  void SetGEEMDependentPar(double m) noexcept { fGEEMDependentPar = m; }
  double GetGEEMDependentPar() const noexcept { return fGEEMDependentPar; }

  // ---- confidence intervals ---------------------------------------------------------------
  void SetCIType(GZLConst_940::CIType t) noexcept { fCIType = t; }
  GZLConst_940::CIType GetCIType() const noexcept { return fCIType; }
  bool SetCIConvProfile(double v) noexcept;  // >= 0
  double GetCIConvProfile() const noexcept { return fCIConvProfile; }

  // ---- estimated marginal means -----------------------------------------------------------
  void SetEmmeans(std::vector<TQEmmeansSpec> specs) { fEmmeans = std::move(specs); }
  const std::vector<TQEmmeansSpec>& GetEmmeans() const noexcept { return fEmmeans; }
  int GetNEmmeansSpecs() const noexcept { return static_cast<int>(fEmmeans.size()); }
  void SetEmmeansOptions(const TQEmmeansSpec& options) { fEmmeansOptions = options; }
  const TQEmmeansSpec& GetEmmeansOptions() const noexcept { return fEmmeansOptions; }

  // ---- profile-likelihood intervals, SQP, Type I/III refits -------------------------------
  bool SetMaxIterationsPLCI(int n) noexcept;  // >= 0
  int GetMaxIterationsPLCI() const noexcept { return fMaxIterationsPLCI; }
  bool SetToleranceLogLikePLCI(double v) noexcept;  // >= 0
  double GetToleranceLogLikePLCI() const noexcept { return fToleranceLogLikePLCI; }
  bool SetToleranceHessianPLCI(double v) noexcept;  // >= 0
  double GetToleranceHessianPLCI() const noexcept { return fToleranceHessianPLCI; }
  bool SetMaxIterationsSQP(int n) noexcept;  // >= 0
  int GetMaxIterationsSQP() const noexcept { return fMaxIterationsSQP; }
  bool SetToleranceLogLikeSQP(double v) noexcept;  // >= 0
  double GetToleranceLogLikeSQP() const noexcept { return fToleranceLogLikeSQP; }
  bool SetToleranceParamSQP(double v) noexcept;  // >= 0
  double GetToleranceParamSQP() const noexcept { return fToleranceParamSQP; }
  bool SetToleranceHessianSQP(double v) noexcept;  // >= 0
  double GetToleranceHessianSQP() const noexcept { return fToleranceHessianSQP; }
  bool SetTolLogLikeTypeIandIII(double v) noexcept;  // >= 0
  double GetTolLogLikeTypeIandIII() const noexcept { return fTolLogLikeTypeIandIII; }
  void SetHConvergeTypeSQP(TQConst::TQConvType t) noexcept { fHConvergeTypeSQP = t; }
  TQConst::TQConvType GetHConvergeTypeSQP() const noexcept { return fHConvergeTypeSQP; }
  void SetLConvergeTypeSQP(TQConst::TQConvType t) noexcept { fLConvergeTypeSQP = t; }
  TQConst::TQConvType GetLConvergeTypeSQP() const noexcept { return fLConvergeTypeSQP; }
  void SetPConvergeTypeSQP(TQConst::TQConvType t) noexcept { fPConvergeTypeSQP = t; }
  TQConst::TQConvType GetPConvergeTypeSQP() const noexcept { return fPConvergeTypeSQP; }
  void SetLConvergeTypeTypeIandIII(TQConst::TQConvType t) noexcept { fLConvergeTypeTypeIandIII = t; }
  TQConst::TQConvType GetLConvergeTypeTypeIandIII() const noexcept { return fLConvergeTypeTypeIandIII; }

  // ---- validation (IsValid runs them in this order) ---------------------------------------
  bool IsValidVariables() const noexcept;
  bool IsValidModelEffects() const noexcept;  // always true
  bool IsValidIterations() const noexcept;
  bool IsValidTolerance() const noexcept;
  bool IsValidScaleType() const noexcept;
  bool IsValid() const noexcept;

 private:
  // Frees the field of the current dependent (role 0, index -1).
  void ReleaseDependent() noexcept;
  bool AddGroupingVar(int index, int size, std::vector<int>& vars, std::vector<int>& sizes);

  // Model request.
  GZLConst_940::ModelType fModelType = GZLConst_940::GZLM;
  std::vector<double> fInitParams;
  double fInitDistParam = TQMV::Missing;
  TQConst::TQDependentType fDependentType = TQConst::DependentNone;
  int fTrials = -1;
  double fTrialsValue = TQMV::Missing;
  int fOffset = -1;
  double fOffsetValue = TQMV::Missing;
  TQConst::TQOffsetType fOffsetType = TQConst::OffsetNone;
  std::vector<int> fSubjectVars;
  std::vector<int> fSubjectVarSizes;
  std::vector<int> fWSVars;
  std::vector<int> fWSVarSizes;
  TQConst::DistType fDistType = TQConst::DistNormal;
  GZLConst_940::DistParam fDistParamType = GZLConst_940::DistParamFixed;
  double fDistParam = TQMV::Missing;
  TQConst::LinkType fLinkType = TQConst::LinkIdentity;
  double fLinkParam = TQMV::Missing;
  bool fbNegBin0 = false;
  std::vector<int> fEffectFactors;
  std::vector<int> fEffectFactorSizes;
  std::vector<int> fEffectCovariates;
  int fModelID = 0;
  GZLConst_940::ThetaEstTypeGZLMMM fThetaEstTypeGZLMMM = 1;

  // Estimation, inference and output controls, in display order.
  ProgressListener* fpIterListener = nullptr;
  ProgressListener* fpIterListenerPLCI = nullptr;
  ProgressListener* fpIterListenerTypeI = nullptr;
  ProgressListener* fpIterListenerTypeIII = nullptr;
  ProgressListener* fpRecListener = nullptr;
  int fNSkippedReports = 0;
  TQConst::TQHessianCompMethod fHessianCompMethod = TQConst::HessianFisher;
  GZLConst_940::ScaleMethod fScaleType = GZLConst_940::ScaleMLE;
  double fScaleValue = 1.0;
  int fCSIteration = 0;
  int fFNIteration = 1;
  double fToleranceHessian = 1e-6;
  TQConst::TQEffectAnalysisType fEffectAnalysisType = TQConst::EffectNone;
  GZLConst_940::EffectAnalysisStat fEffectAnalysisStat = GZLConst_940::EffectStatNone;
  std::vector<double> fWorkCorrMatrix;
  bool fbSorted = true;
  bool fbAdjustCorr = true;
  TQConst::TQCovbType fGEECovbType = TQConst::CovbRobust;
  double fGEEHConverge = 0.0;
  double fGEEPConverge = 1e-6;
  TQConst::TQConvType fGEEPConvergeType = TQConst::ConvAbsolute;
  int fGEEMaxIterations = 100;
  int fUpdateCorr = 1;
  bool fbGEESortBySubjectWS = false;
  GZLConst_940::CorrType fGEECorrType = GZLConst_940::Independent;
  double fGEEMDependentPar = 0.0;
  GZLConst_940::CIType fCIType = GZLConst_940::Wald;
  double fCIConvProfile = 1e-4;
  TQConst::TQConvType fHConvergeType = TQConst::ConvAbsolute;
  TQConst::TQConvType fLConvergeType = TQConst::ConvAbsolute;
  TQConst::TQConvType fPConvergeType = TQConst::ConvAbsolute;
  GZLConst_940::LLType fLLType = GZLConst_940::LLFull;
  std::vector<TQEmmeansSpec> fEmmeans;
  TQEmmeansSpec fEmmeansOptions;
  bool fbModelFittingTest = false;
  bool fbGEFTest = false;
  int fMaxIterationsPLCI = 0;
  double fToleranceLogLikePLCI = 1e-4;
  double fToleranceHessianPLCI = 1e-4;
  int fMaxIterationsSQP = 0;
  double fToleranceLogLikeSQP = 1e-4;
  double fToleranceParamSQP = 1e-4;
  double fToleranceHessianSQP = 1e-4;
  double fTolLogLikeTypeIandIII = 1e-4;
  TQConst::TQConvType fHConvergeTypeSQP = TQConst::ConvAbsolute;
  TQConst::TQConvType fLConvergeTypeSQP = TQConst::ConvAbsolute;
  TQConst::TQConvType fPConvergeTypeSQP = TQConst::ConvAbsolute;
  TQConst::TQConvType fLConvergeTypeTypeIandIII = TQConst::ConvAbsolute;
};
