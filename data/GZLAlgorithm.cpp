#include "data/GZLAlgorithm.h"

#include <algorithm>
#include <cmath>

#include "GZLConst_940.h"
#include "GZLSettings.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "GZLMarginals.h"
#include "GZLOutputStats.h"
#include "GZLPMMLExporter.h"
#include "inference/GZLInference.h"
#include "inference/GZLLRStats.h"
#include "inference/GZLProfileLikelihoodCI.h"
#include "inference/GZLOmnibusTest.h"
#include "inference/GZLScoringEngine.h"
#include "GZLScoreStats.h"
#include "support/TQDisplay_940.h"
#include "support/TQVarList.h"


GZLAlgorithm::GZLAlgorithm(const GZLSettings& settings) : fpSettings(&settings) {
  fCancelInfo.fpCancel = settings.GetCancelPointer();
  fbReportIterations = true;
  if (!settings.IsValid()) fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);
}

GZLAlgorithm::~GZLAlgorithm() {
  // Owned objects go first, in a fixed order; the lists follow with the members.
  fpDesignMatrix.reset();
  DiscardFit();
  fpOutputStats.reset();
  fpScoringEngine.reset();
  fpMarginals.reset();
}

std::string GZLAlgorithm::GetComponentInfo() const {
  return "gzl 0.1: generalized linear models and generalized estimating equations\n"
         "Copyright (c) the gzl developers. All rights reserved.";
}

void GZLAlgorithm::AddWarning(std::vector<TQStatus>& list, const TQStatus& status) {
  if (!status.IsWarning()) return;
  if (std::find(list.begin(), list.end(), status) == list.end()) list.push_back(status);
}

void GZLAlgorithm::DiscardFit() {
  // A new fit starts without the optimizer, inference and test objects of the previous one.
  fpOmnibusTest.reset();
  fpTypeILRStats.reset();
  fpTypeIIILRStats.reset();
  fpProfileCI.reset();
  fpInference.reset();
  fpOptimizer.reset();
  fpRowSource.reset();
}

GZLOptimizer* GZLAlgorithm::GetOptimizer() const { return fpOptimizer.get(); }

bool GZLAlgorithm::HasEstimates() const { return fpOptimizer != nullptr && fpOptimizer->IsEstimated(); }

TQStatus GZLAlgorithm::RunEstimation() {
  const GZLSettings& s = *fpSettings;
  // A new fit replaces the warnings of the previous one.
  fBuildModelWarnings.clear();
  fEffectAnalysisWarnings.clear();
  fEmmeansWarnings.clear();
  const bool normalIdentity = s.GetDistType() == TQConst::DistNormal && s.GetLinkType() == TQConst::LinkIdentity;
  const bool mixedHost = s.GetGZLModelType() == GZLConst_940::GZLMMM;
  // The optimizer over the design rows; no iteration listener for a silent (inner) fit.
  fpRowSource = std::make_unique<GZLDesignRowSource>(*fpDesignMatrix);
  fpOptimizer = std::make_unique<GZLOptimizerForGZLM>(*fpRowSource, s, fbReportIterations);
  if (mixedHost && normalIdentity) fpOptimizer->SetThetaEstType(s.GetThetaEstTypeGZLMMM());

  TQStatus status = fpOptimizer->Estimate();
  const bool allInvalid = status.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction;
  if (!status.IsError() && !allInvalid && fpOptimizer->GetPhi() > 0.0) {
    status = fpOptimizer->GetStatus();
    if (!status.IsError()) {
      const TQStatus post = fpOptimizer->PostEstimation();
      if (post.IsError()) {
        status = post;
      } else if (mixedHost && normalIdentity && s.GetThetaEstTypeGZLMMM() == 1) {
        // The restricted log-likelihood of the mixed-model host. ln(2 pi) is kept exactly as
        // this literal gives it.
        const double p = fpOptimizer->GetNumNonRedundant();
        double delta = (std::log(fpOptimizer->GetPhi()) + 1.8378770664093456) * p / 2.0 -
                       fpOptimizer->GetCorrectionTerm() / 2.0;
        if (fpDesignMatrix->IsScaledDesign()) {
          const TQRectMatrix& back = fpDesignMatrix->GetBackTransform();
          const TQBitSet& inModel = fpOptimizer->GetInitRedunInfo();
          for (int j = 0; j < back.GetNumRows() && j < back.GetNumCols(); ++j)
            if (inModel.Test(j) && back(j, j) > 0.0) delta += std::log(back(j, j));
        }
        fpOptimizer->AdjustLogLikelihood(delta);
      }
    }
  }
  for (const TQStatus& w : fpOptimizer->GetWarnings()) AddWarning(fBuildModelWarnings, w);
  if (allInvalid) status = TQStatus::Warning(GZLStatusCode::AllInvalidRecordsForLinkFunction);
  return status;
}

TQStatus GZLAlgorithm::InitializeModel(IGZLRecordSource& source) {
  if (!source.HasMoreRecords()) return fStatus = TQStatus::Error(GZLStatusCode::NoValidRecords);
  if (!fpSettings->IsValid()) return fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);

  fbInitialized = false;
  fParameters.clear();
  fpScoringEngine.reset();
  fpMarginals.reset();
  fpDesignMatrix.reset();
  DiscardFit();
  fEffectInfo.clear();
  fResponseCategories.clear();
  fResponsePositions.clear();
  fResponseWeightedCounts.clear();
  fResponseUnweightedCounts.clear();
  fResponseOffsetTotals.clear();
  fNominalTemplate.clear();
  fNominalTemplateSize = 0;

  fpDesignMatrix = std::make_unique<GZLDesignMatrix>(*fpSettings);
  TQStatus status;
  fpDesignMatrix->RunDictionaryPass(status, source);
  fStatus = status;
  if (status.IsError()) return fStatus;
  fFactorCounts = fpDesignMatrix->GetFactorCounts();

  FillEffectInfo(*fpDesignMatrix, fEffectInfo);

  const TQStatus parameterStatus = BuildParameterList();
  if (parameterStatus.IsError()) return fStatus = parameterStatus;
  if (parameterStatus.IsWarning()) fStatus = parameterStatus;
  fbInitialized = true;
  return fStatus;
}

TQStatus GZLAlgorithm::DetermineNominalCategories() {
  const TQStatus status = fpDesignMatrix->GetNominalCategoryOrder(fResponseCategories);
  if (status.IsError()) return status;
  const std::vector<TQFactorCounts::Count>* counts = fFactorCounts.GetDependCountsPtr();
  const std::vector<TQFactorCounts::Count>* offsets = fFactorCounts.GetOffsetCountsForDepCatPtr();
  const std::size_t k = counts != nullptr ? counts->size() : 0;
  fResponsePositions.assign(k, -1);
  for (std::size_t pos = 0; pos < fResponseCategories.size(); ++pos) {
    const std::size_t c = static_cast<std::size_t>(fResponseCategories[pos]);
    fResponsePositions[c] = static_cast<int>(pos);
    fResponseWeightedCounts.push_back((*counts)[c].first);
    fResponseUnweightedCounts.push_back((*counts)[c].second);
    fResponseOffsetTotals.push_back(offsets != nullptr && c < offsets->size() ? (*offsets)[c].first : 0.0);
  }
  return status;
}

void GZLAlgorithm::FillEffectInfo(const GZLDesignMatrix& design, std::vector<GZLEffectInfo>& info) {
  for (int i = 0; i < design.GetNumEffects(); ++i) {
    const GZLDesignMatrixEffect& effect = design.GetEffect(i);
    GZLEffectInfo entry;
    entry.fIndex = i;
    entry.fStart = effect.GetStart();
    entry.fNValues = effect.GetNColumns();
    entry.fCombinations = effect.GetCombinations();
    info.push_back(std::move(entry));
  }
}

void GZLAlgorithm::AppendThresholds(const TQFactorCounts& counts, std::vector<TQRegrParameter>& parameters,
                                    std::vector<int>& categories) {
  const std::vector<TQFactorCounts::Count>* depend = counts.GetDependCountsPtr();
  const int k = depend != nullptr ? static_cast<int>(depend->size()) : 0;
  const std::size_t first = parameters.size();
  TQRegrParameter threshold;
  for (int c = 0; c < k; ++c) {
    if (!((*depend)[static_cast<std::size_t>(c)].first > 0.0)) continue;
    threshold.SetTargetCategory(c);
    parameters.push_back(threshold);
    categories.push_back(c);
  }
  if (parameters.size() > first) parameters.pop_back();
}

void GZLAlgorithm::AppendEffectParameters(const GZLSettings& settings, const std::vector<GZLEffectInfo>& info,
                                          int target, std::vector<TQRegrParameter>& parameters,
                                          std::vector<TQRegrParameter>* copies) {
  const std::vector<GZLModelEffect>& effects = settings.GetModelEffects();
  for (std::size_t i = 0; i < effects.size() && i < info.size(); ++i) {
    TQRegrParameter p;
    p.SetTargetCategory(target);
    // An effect without variables cannot be set up, but it still spans a design column: its
    // parameter keeps the list aligned with the columns.
    if (!p.SetupFromEffect(effects[i], static_cast<int>(i))) p.SetEffectIndex(static_cast<int>(i));
    const GZLEffectInfo& columns = info[i];
    if (columns.fNValues == 1 && p.GetNFactors() == 0) {
      parameters.push_back(p);
      if (copies != nullptr) copies->push_back(p);
      continue;
    }
    for (int column = 0; column < columns.fNValues; ++column) {
      // Combinations list the factors in nesting order, the order of the parameter's factors.
      p.GetCategories() = columns.fCombinations[static_cast<std::size_t>(column)];
      parameters.push_back(p);
      if (copies != nullptr) copies->push_back(p);
    }
  }
}

TQStatus GZLAlgorithm::BuildParameterList() {
  TQStatus status;
  const TQConst::DistType dist = fpSettings->GetDistType();
  const bool nominal = dist == TQConst::DistNominalMultinomial;
  TQRegrParameter parameter;
  parameter.SetTargetCategory(-1);

  if (dist == TQConst::DistOrdinalMultinomial) {
    // K observed categories, K-1 thresholds, whether or not an intercept was asked for.
    AppendThresholds(fFactorCounts, fParameters, fResponseCategories);
  } else if (nominal) {
    status = DetermineNominalCategories();
    if (status.IsError()) return status;
    if (fpSettings->GetInterceptUse()) {
      parameter.SetTargetCategory(fResponseCategories.front());
      fParameters.push_back(parameter);
      fNominalTemplate.push_back(parameter);
    }
  } else if (fpSettings->GetInterceptUse()) {
    fParameters.push_back(parameter);
  }

  AppendEffectParameters(*fpSettings, fEffectInfo, nominal ? fResponseCategories.front() : -1, fParameters,
                         nominal ? &fNominalTemplate : nullptr);

  if (nominal) {
    fNominalTemplateSize = static_cast<int>(fNominalTemplate.size());
    const std::vector<TQFactorCounts::Count>* counts = fFactorCounts.GetDependCountsPtr();
    const int k = counts != nullptr ? static_cast<int>(counts->size()) : 0;
    // One block per further category; the bound counts declared categories, the list holds
    // observed ones only, so the loop stops at the end of the list. With one category never
    // observed the last block goes to the reference category (kept on purpose).
    for (int i = 1; i <= k - 2 && i < static_cast<int>(fResponseCategories.size()); ++i) {
      for (const TQRegrParameter& t : fNominalTemplate) {
        TQRegrParameter copy = t;
        copy.SetTargetCategory(fResponseCategories[static_cast<std::size_t>(i)]);
        fParameters.push_back(std::move(copy));
      }
    }
  }
  return status;
}

TQStatus GZLAlgorithm::BuildModel(IGZLRecordSource& source) {
  if (!source.HasMoreRecords()) return fStatus = TQStatus::Error(GZLStatusCode::NoValidRecords);
  if (!fbInitialized) InitializeModel(source);
  DiscardFit();
  if (fStatus.IsError()) return fStatus;
  // The rewind result is not checked here: the first pass of the fit asks again and ends with
  // NewPass when the source cannot start over.
  source.Rewind();
  fpDesignMatrix->SetRecordSource(&source);

  ++fFitCount;
  fStatus = RunEstimation();
  RunInference();
  if (!fStatus.IsError() && !fBuildModelWarnings.empty()) return fBuildModelWarnings.back();
  return fStatus;
}

bool GZLAlgorithm::IsModelBuilt() const {
  if (fStatus.IsError()) return false;
  return HasEstimates();
}

// The results below exist only after a fit with estimates (IsModelBuilt); the objects that
// compute them (marginal means, output statistics, scoring engine, PMML writer) are created
// here by the inference, scoring and export steps.
const std::vector<std::vector<int>>* GZLAlgorithm::GetPWCombinations(int emmeansIndex) {
  // Made here when the fit did not make them: none were asked for, or records were refused for
  // the link (then none are made).
  if (!IsModelBuilt()) return nullptr;
  return GZLMarginals::PWCombinationsOfFit(fpMarginals, !fpOptimizer->IsInvalidForLink(), *fpSettings, *this,
                                           *fpDesignMatrix, fCancelInfo, emmeansIndex, fPWCombinations);
}

TQStatus GZLAlgorithm::GetOutputStats(const GZLOutputStats*& outputStats) {
  // Asking for results of a model that is not built leaves ModelNotBuilt as the stored status
  // and the caller's pointer as it was.
  if (!IsModelBuilt()) return fStatus = TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  if (!fpOutputStats) fpOutputStats = std::make_unique<GZLOutputStats>(*fpSettings, *this);
  outputStats = fpOutputStats.get();
  return fStatus = TQStatus();
}

void GZLAlgorithm::RunInference() {
  if (!fpOptimizer || fStatus.IsError() || !fpOptimizer->IsEstimated()) return;
  if (!fbEstimationOnly) {
    fpInference = std::make_unique<GZLInference>(*fpSettings);
    const TQStatus inference = fpInference->Compute(*fpOptimizer, fpDesignMatrix.get());
    AddWarning(fBuildModelWarnings, inference);
    // Profile likelihood intervals replace the Wald intervals; they need the data as fitted.
    if (fpSettings->GetCIType() == GZLConst_940::Profile && !fpOptimizer->IsInvalidForLink()) {
      fpProfileCI = std::make_unique<GZLProfileLikelihoodCI>(*fpSettings, *fpOptimizer);
      const TQStatus profile = fpProfileCI->ComputeIntervals();
      if (profile.GetErrorCode() == 1) {
        // Cancelled: the operation ends and no partial result is published.
        fStatus = profile;
        return;
      }
      fpInference->ApplyProfileIntervals(*fpProfileCI);
    }
    // Tests of model effects, unless none are asked for or records were refused for the link
    // (the hypotheses would not describe the data the estimates come from).
    if (fpSettings->GetEffectAnalysisType() != TQConst::EffectNone && !fpOptimizer->IsInvalidForLink()) {
      if (inference.IsOK()) AddWarning(fBuildModelWarnings, PrepareEffectTests());
      std::vector<TQStatus> warnings;
      const double df2 = fpInference->IsTBased() ? fpInference->GetDFForT() : TQMV::Missing;
      AddWarning(fEffectAnalysisWarnings,
                 fpInference->ComputeEffectTests(fpOptimizer->GetParamEstimates(), fpOptimizer->GetInitRedunInfo(),
                                                 fpInference->GetCovarianceMatrix(), df2, warnings));
      for (const TQStatus& w : warnings) AddWarning(fEffectAnalysisWarnings, w);
      if (fpSettings->GetEffectAnalysisStat() == GZLConst_940::EffectStatLR && !RunLRTests()) {
        fStatus = TQStatus::Error(1);
        return;
      }
    }
  }
  // The omnibus test refits the null model over further passes of the same design.
  if (fpSettings->GetModelFittingTest() && !fpOptimizer->IsInvalidForLink() && fpOptimizer->GetPhi() > 0.0) {
    fpOmnibusTest = std::make_unique<GZLOmnibusTest>(*fpSettings, *fpDesignMatrix, *fpOptimizer);
    fpOmnibusTest->Run();
  }
  if (!fbEstimationOnly && fpSettings->GetNEmmeansSpecs() > 0 && !fpOptimizer->IsInvalidForLink()) RunMarginalMeans();
}

void GZLAlgorithm::RunMarginalMeans() {
  fpMarginals = std::make_unique<GZLMarginals>(*fpSettings, *this, *fpDesignMatrix, fCancelInfo);
  fpMarginals->ComputeEmmeans();
  fpMarginals->AddWarnings(fEmmeansWarnings);
  // The output statistics exist from here on; they supply the residual degrees of freedom.
  if (!fpOutputStats) fpOutputStats = std::make_unique<GZLOutputStats>(*fpSettings, *this);
  AddWarning(fEmmeansWarnings, fpMarginals->SetEmmeansTesting(fpInference->GetCovarianceMatrix(), *fpOutputStats));
}

TQStatus GZLAlgorithm::PrepareEffectTests() {
  TQSymMatrix sscp;
  const TQStatus status = fpOptimizer->ComputeSSCP(sscp);
  if (status.IsError()) return status;
  return fpInference->SetEffectTestData(
      std::make_unique<GZLModelEffectTestData>(*fpSettings, fEffectInfo, fpOptimizer->GetNumParams(), sscp));
}

bool GZLAlgorithm::RunLRTests() {
  const GZLModelEffectTestData* data = fpInference->GetEffectTestData();
  const TQConst::TQEffectAnalysisType type = fpSettings->GetEffectAnalysisType();
  const double df2 = fpInference->GetNDegFreedom();
  auto run = [&](std::unique_ptr<GZLLRStatsBase> lr, GZLDefaultModelEffectTest& hypotheses,
                 std::unique_ptr<GZLLRStatsBase>& keep) {
    std::vector<TQRectMatrix> L;
    TQStatus status = TQStatus::Error(GZLStatusCode::InternalError);
    if (data != nullptr && !data->GetStatus().IsError()) {
      hypotheses.SetData(data);
      status = hypotheses.ComputeLMatrices(L);
    }
    if (!status.IsError()) status = lr->Compute(*data, L);
    if (status.GetErrorCode() == 1) return false;
    AddWarning(fEffectAnalysisWarnings, status);
    for (const TQStatus& s : lr->GetStatusEff()) AddWarning(fEffectAnalysisWarnings, s);
    keep = std::move(lr);
    return true;
  };
  // Type III first, as the design orders the steps.
  if (type == TQConst::EffectTypeIII || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeIII hypotheses;
    if (!run(std::make_unique<GZLTypeIIILRStats>(*fpSettings, *fpOptimizer, df2), hypotheses, fpTypeIIILRStats))
      return false;
  }
  if (type == TQConst::EffectTypeI || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeI hypotheses;
    if (!run(std::make_unique<GZLTypeILRStats>(*fpSettings, *fpOptimizer, df2), hypotheses, fpTypeILRStats))
      return false;
  }
  return true;
}

GZLScoringFit GZLAlgorithm::ScoringFit() const {
  GZLScoringFit fit;
  const GZLOptimizerForGZLM& optimizer = *fpOptimizer;
  fit.fModelType = fpSettings->GetGZLModelType();
  fit.fFitCount = fFitCount;
  // The rows of a scaled design hold scaled columns: their estimates and covariance go with
  // them (the stored inverse of the optimizer is minus the covariance).
  fit.fpEstimates = &optimizer.GetScaledParamEstimates();
  if (optimizer.IsRTransformed()) {
    fit.fpCovariance = &optimizer.GetScaledInverseHessian();
    fit.fCovarianceSign = -1.0;
  } else if (fpInference) {
    fit.fpCovariance = fpInference->GetCovarianceMatrix();
  }
  // The model-based covariance is the inverse information at the final scale.
  fit.fpInverseInformation = fit.fpCovariance;
  fit.fInverseInformationSign = fit.fCovarianceSign;
  fit.fPhi = optimizer.GetPhi();
  fit.fK = optimizer.GetK();
  fit.fNNonRedundant = optimizer.GetNumNonRedundant();
  fit.fDF = fpInference ? fpInference->GetTQuantileDF() : TQMV::Missing;
  fit.fPropensityCategory = fPropensityCategory;
  fit.fpCategories = &fResponseCategories;
  return fit;
}

TQStatus GZLAlgorithm::Score(const Record& record, GZLScoreStats& scores, const int* mask) {
  if (!IsModelBuilt()) return TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  if (!fpScoringEngine) fpScoringEngine = std::make_unique<GZLScoringEngine>(*fpDesignMatrix, *fpSettings);
  fpScoringEngine->SetFit(ScoringFit());
  if (mask != nullptr) {
    const TQStatus maskStatus = fpScoringEngine->SetScoreType(*mask);
    if (!maskStatus.IsOK()) return maskStatus;
  }
  TQStatus status;
  fpScoringEngine->ScoreRecord(status, record, scores);
  return status;
}

TQStatus GZLAlgorithm::ExportPMML(const TQVarList& variables, std::ostream& out, bool includeCovariance,
                                  const TQApplicInfo4XML* applicationInfo) {
  if (!IsModelBuilt()) return fStatus = TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  const GZLOutputStats* stats = nullptr;
  const TQStatus statsStatus = GetOutputStats(stats);
  if (statsStatus.IsError() || stats == nullptr) return statsStatus;

  // The distribution parameter of the document: the fitted negative binomial k (estimated or
  // fixed) or the Tweedie power.
  const TQConst::DistType dist = fpSettings->GetDistType();
  double k = TQMV::Missing;
  if (dist == TQConst::DistNegBinomial)
    k = fpOptimizer->GetK();
  else if (dist == TQConst::DistTweedie)
    k = fpSettings->GetDistParam();
  GZLPMMLExporter exporter(*fpSettings, variables, applicationInfo, fParameters, stats->GetParamEstimates(),
                           fpOptimizer->GetInitRedunInfo(), k);
  exporter.SetAICCValue(stats->GetAICC());
  exporter.SetBICValue(stats->GetBIC());
  exporter.SetNumOfPredictors(fNumOfPredictors);
  if (dist == TQConst::DistBinomial || fpSettings->IsMultinomial()) exporter.SetClassification(fClassification);
  const GZLPMMLVariable* response = variables.GetVariable(fpSettings->GetDependent());
  if (response != nullptr && response->GetMeasLevel() == MeasContinuous)
    exporter.SetGainsRegr(fGainsRegr);
  else
    exporter.SetGainCls(fGainsCls);
  TQStatus status = exporter.CheckConsistency();
  if (status.IsOK()) status = exporter.ExportPMML(out, includeCovariance ? &stats->GetCovarianceMatrix() : nullptr);
  return status;
}

void GZLAlgorithm::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLAlgorithm display start");
  if (fpDesignMatrix) fpDesignMatrix->Display();
  if (fpMarginals) fpMarginals->Display();
  DisplayText(1, "Effect info:");
  for (std::size_t i = 0; i < fEffectInfo.size(); ++i) fEffectInfo[i].Display(static_cast<int>(i));
  DisplayText(1, "GZLAlgorithm display end");
}
