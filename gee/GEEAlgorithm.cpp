#include "gee/GEEAlgorithm.h"

#include <algorithm>

#include "GZLConst_940.h"
#include "GZLMarginals.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEEScoreStats.h"
#include "inference/GZLInference.h"
#include "inference/GZLModelEffectTest.h"
#include "inference/GZLScoringEngine.h"
#include "support/TQDisplay_940.h"

namespace {

// The host's source as the inner GZLM fit reads it: records whose subject or within-subject
// values the GEE design refuses are left out, so that the initial values (and an initial scale
// taken from the inner fit) come from the records the GEE fit uses.
class GroupedRecordSource final : public IGZLRecordSource {
 public:
  GroupedRecordSource(IGZLRecordSource& source, const GEEDesignMatrix& design) noexcept
      : fpSource(&source), fpDesign(&design) {}
  bool HasMoreRecords() override { return fpSource->HasMoreRecords(); }
  const Record* NextRecord() override {
    while (fpSource->HasMoreRecords()) {
      const Record* record = fpSource->NextRecord();
      if (record != nullptr && fpDesign->IsValidGrouping(*record)) return record;
    }
    return nullptr;
  }
  int Rewind() override { return fpSource->Rewind(); }

 private:
  IGZLRecordSource* fpSource;
  const GEEDesignMatrix* fpDesign;
};

}  // namespace

GEEAlgorithm::GEEAlgorithm(const GZLSettings& settings, std::unique_ptr<GZLAlgorithm> inner)
    : fpSettings(&settings), fpInner(std::move(inner)) {
  fCancelInfo.fpCancel = settings.GetCancelPointer();
  if (!settings.IsValid()) fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);
}

GEEAlgorithm::~GEEAlgorithm() {
  // Owned objects go first, in a fixed order; the lists follow with the members.
  fpDesignMatrix.reset();
  fpOptimizer.reset();
  fpInference.reset();
  fpOutputStats.reset();
  fpScoringEngine.reset();
  fpInner.reset();
  fpMarginals.reset();
}

std::string GEEAlgorithm::GetComponentInfo() const {
  return "gzl 0.1: generalized linear models and generalized estimating equations\n"
         "Copyright (c) the gzl developers. All rights reserved.";
}

GZLOptimizer* GEEAlgorithm::GetOptimizer() const { return fpOptimizer.get(); }

bool GEEAlgorithm::IsModelBuilt() const {
  if (fStatus.IsError()) return false;
  return fpOptimizer != nullptr && fpOptimizer->IsEstimated();
}

TQStatus GEEAlgorithm::InitializeModel(IGZLRecordSource& source) {
  if (!source.HasMoreRecords()) return TQStatus::Error(GZLStatusCode::NoValidRecords);
  if (!fpSettings->IsValid()) return fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);
  fbSetupDone = false;
  fParameters.clear();
  fTargetCategories.clear();
  fEffectInfo.clear();
  fWSCombinations.clear();
  fpOptimizer.reset();
  fpInference.reset();
  fpMarginals.reset();
  fpDesignMatrix = std::make_unique<GEEDesignMatrix>(*fpSettings);
  TQStatus status;
  fpDesignMatrix->RunDictionaryPass(status, source);
  if (!status.IsError()) {
    const IGEENumSubject& counter = fpDesignMatrix->GetSubjectCounter();
    if (counter.IsRepeatedWithinSubject())
      status = TQStatus::Error(GZLStatusCode::CasesWithSameSubjWS);
    else if (counter.IsMixedWeight())
      status = TQStatus::Error(GZLStatusCode::CasesWithDiffFW);
  }
  fStatus = status;
  if (status.IsError()) return fStatus;
  fpDesignMatrix->NumberWSCombinations();
  fpDesignMatrix->GetSubjectCounter().Compute();
  fFactorCounts = fpDesignMatrix->GetFactorCounts();
  GZLAlgorithm::FillEffectInfo(*fpDesignMatrix, fEffectInfo);
  fWSCombinations = fpDesignMatrix->GetWSCombinations();
  BuildParameterList();
  fbSetupDone = true;
  return fStatus;
}

void GEEAlgorithm::BuildParameterList() {
  if (fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial)
    GZLAlgorithm::AppendThresholds(fFactorCounts, fParameters, fTargetCategories);
  else if (fpSettings->GetInterceptUse())
    fParameters.emplace_back().SetTargetCategory(-1);
  GZLAlgorithm::AppendEffectParameters(*fpSettings, fEffectInfo, -1, fParameters, nullptr);
}

bool GEEAlgorithm::RunInnerFit(IGZLRecordSource& source, TQStatus& status) {
  fpInnerSource = std::make_unique<GroupedRecordSource>(source, *fpDesignMatrix);
  fpInner->SetEstimationOnly(true);
  fpInner->SetReportIterations(false);
  fpInner->BuildModel(*fpInnerSource);
  const TQStatus inner = fpInner->GetStatus();
  if (inner.IsError() || inner.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction) return false;
  const GZLOptimizerForGZLM* optimizer = fpInner->GetGZLOptimizer();
  if (optimizer == nullptr || !optimizer->IsEstimated()) return false;
  if (optimizer->IsInvalidForLink()) status = TQStatus::Warning(GZLStatusCode::InvalidRecordsForLinkFunction);
  return true;
}

TQStatus GEEAlgorithm::DesignRedundancy(TQBitSet& inModel) {
  GZLDesignRowSource rows(*fpDesignMatrix);
  GZLStatFactory factory(rows, *fpSettings);
  TQStatus status = factory.GetStatus();
  if (status.IsError()) return status;
  // An ordinal design's thresholds stand in for an intercept: its columns are swept after a
  // column of ones, and every threshold stays in the model.
  const bool ordinal = fpSettings->GetDistType() == TQConst::DistOrdinalMultinomial;
  TQSymMatrix xx;
  factory.ComputeCrossProducts(status, xx, ordinal);
  if (status.IsError()) return status;
  const int P = fpDesignMatrix->GetNumOfParams();
  const int n = xx.GetNumRows();
  std::vector<double> diagonal;
  xx.GetDiagonal(diagonal);
  TQBitSet swept(n, false);
  xx.Sweep(0, n, fpSettings->GetTolerance(), diagonal, swept);
  swept.Resize(n, false);
  if (!ordinal) {
    inModel = swept;
    inModel.Resize(P, false);
    return status;
  }
  const int T = P - (n - 1);
  inModel = TQBitSet(P, true);
  for (int k = 1; k < n; ++k)
    if (!swept.Test(k)) inModel.Set(T + k - 1, false);
  return status;
}

TQStatus GEEAlgorithm::ComputeInitialValues(IGZLRecordSource& source) {
  const GZLSettings& s = *fpSettings;
  const TQStatus failed = TQStatus::Error(GZLStatusCode::InitialValueFailed);
  const int P = fpDesignMatrix->GetNumOfParams();
  int p = P;
  std::vector<double> init;
  TQBitSet inModel(P, true);
  TQStatus status;
  // A cancel during the inner fit ends the fit as cancelled.
  auto innerFailure = [&]() {
    return fpInner->GetStatus().GetErrorCode() == GZLStatusCode::Cancelled ? fpInner->GetStatus() : failed;
  };
  if (fpInner && s.GetMaxIterations() > 0) {
    if (!RunInnerFit(source, status)) return innerFailure();
    const GZLOptimizerForGZLM& inner = *fpInner->GetGZLOptimizer();
    if (s.GetDistType() == TQConst::DistNegBinomial) fpOptimizer->SetK(inner.GetK());
    init = inner.GetParamEstimates();
    p = inner.GetNumNonRedundant();
    init.push_back(inner.GetPhi());
    inModel = inner.GetInitRedunInfo();
  } else {
    init = s.GetInitParams();
    if (s.GetScaleType() == GZLConst_940::ScaleFixed) init.push_back(s.GetScaleValue());
    if (fpInner && !RunInnerFit(source, status)) return innerFailure();
    // The host's values of aliased columns do not count: they start at 0.
    const TQStatus redundancy = DesignRedundancy(inModel);
    if (redundancy.IsError()) return redundancy;
    p = inModel.Count();
    for (int j = 0; j < P && j < static_cast<int>(init.size()); ++j)
      if (!inModel.Test(j)) init[static_cast<std::size_t>(j)] = 0.0;
  }
  if (static_cast<int>(init.size()) != P + 1) return failed;
  fpOptimizer->SetInitialRedundancy(inModel);
  if (!fpOptimizer->SetInitialParameters(init, p)) return failed;
  return status;
}

TQStatus GEEAlgorithm::BuildModel(IGZLRecordSource& source) {
  if (!source.HasMoreRecords()) return fStatus = TQStatus::Error(GZLStatusCode::NoValidRecords);
  if (!fbSetupDone) InitializeModel(source);
  fpOptimizer.reset();
  fpInference.reset();
  fpTypeIScore.reset();
  fpTypeIIIScore.reset();
  ++fFitCount;
  // A new fit replaces the warnings of the previous one.
  fEstimationWarnings.clear();
  fEffectTestWarnings.clear();
  fEmmeansWarnings.clear();
  if (fStatus.IsError() || !fbSetupDone) return fStatus;
  // The estimating equations of a nominal response have no variance function to stand on
  // (every record would be refused: the model cannot be built).
  if (fpSettings->GetDistType() == TQConst::DistNominalMultinomial)
    return fStatus = TQStatus::Error(GZLStatusCode::CantBuildModel);

  // The rewind result is not checked here: the first pass asks again and ends with NewPass.
  source.Rewind();
  fpDesignMatrix->SetRecordSource(&source);
  fpOptimizer = std::make_unique<GEEOptimizer>(*fpDesignMatrix, *fpSettings);
  const TQStatus initial = ComputeInitialValues(source);
  if (initial.IsError()) {
    // A cancel, or a source that cannot start a pass, is said as such.
    const int code = initial.GetErrorCode();
    const bool passFailed = code == GZLStatusCode::Cancelled || code == GZLStatusCode::NewPass;
    fStatus = passFailed ? initial : TQStatus::Error(GZLStatusCode::InitialValueFailed);
    return fStatus;
  }
  GZLAlgorithm::AddWarning(fEstimationWarnings, initial);

  TQStatus status = fpOptimizer->Run();
  if (status.IsError() && fpOptimizer->IsFailure() && fpInner && fpInner->GetStatus().IsWarning())
    status = TQStatus::Error(fpInner->GetStatus().GetErrorCode());
  if (fpInner && fpSettings->GetMaxIterations() == 0 && !status.IsError()) {
    // The inner fit evaluated its initial values without iterating: the fit starts once more
    // from them, with the settings' scale, silently.
    std::vector<double> restart = fpInner->GetGZLOptimizer()->GetParamEstimates();
    restart.push_back(fpSettings->GetScaleValue());
    if (fpOptimizer->SetInitialParameters(restart, fpOptimizer->GetNonRedundantCount())) {
      fpOptimizer->SetK(fpSettings->GetDistParam());
      fpOptimizer->SetReportProgress(false);
      status = fpOptimizer->Run();
    }
  }
  if (!status.IsError() && fpOptimizer->GetPhi() > 0.0) {
    const TQStatus robust = fpOptimizer->ComputeRobustCovariance();
    if (robust.IsError()) status = robust;
  }
  for (const TQStatus& w : fpOptimizer->GetWarnings()) GZLAlgorithm::AddWarning(fEstimationWarnings, w);
  fStatus = status;
  RunInference();
  return fStatus;
}

void GEEAlgorithm::RunInference() {
  if (fStatus.IsError() || !fpOptimizer || !fpOptimizer->IsEstimated()) return;
  fpInference = std::make_unique<GZLInference>(*fpSettings);
  const TQStatus inference = fpInference->ComputeGEE(*fpOptimizer);
  GZLAlgorithm::AddWarning(fEstimationWarnings, inference);
  // Tests of model effects and marginal means, unless records were refused for the link.
  if (fpOptimizer->IsInvalidForLink()) return;
  if (fpSettings->GetEffectAnalysisType() != TQConst::EffectNone) {
    RunEffectTests();
    if (fStatus.IsOK() && fpOptimizer->GetPhi() > 0.0 &&
        fpSettings->GetEffectAnalysisStat() == GZLConst_940::EffectStatLR && !RunScoreTests()) {
      // Cancelled: the operation ends and no partial result is published.
      fpTypeIScore.reset();
      fpTypeIIIScore.reset();
      fStatus = TQStatus::Error(GZLStatusCode::Cancelled);
      return;
    }
  }
  if (fpSettings->GetNEmmeansSpecs() == 0) return;
  // The means on the GEE estimates with the covariance chosen for inference (robust or
  // model-based).
  fpMarginals = std::make_unique<GZLMarginals>(*fpSettings, *this, *fpDesignMatrix, fCancelInfo);
  fpMarginals->ComputeEmmeans();
  fpMarginals->AddWarnings(fEmmeansWarnings);
  if (!fpOutputStats) fpOutputStats = std::make_unique<GZLOutputStats>(*fpSettings, *this);
  GZLAlgorithm::AddWarning(fEmmeansWarnings,
                           fpMarginals->SetEmmeansTesting(fpInference->GetCovarianceMatrix(), *fpOutputStats));
}

void GEEAlgorithm::RunEffectTests() {
  // Their hypotheses come from the weighted cross-products of the design at the final
  // estimates: the information of the independence model of the robust pass (a multiple of
  // X'WX, which leaves the hypotheses unchanged), over the basic design for an ordinal
  // response (the test data check its size).
  const TQSymMatrix& crossProducts = fpOptimizer->GetIndependenceInformation();
  if (crossProducts.GetNumRows() > 0)
    GZLAlgorithm::AddWarning(fEffectTestWarnings,
                             fpInference->SetEffectTestData(std::make_unique<GZLModelEffectTestData>(
                                 *fpSettings, fEffectInfo, fpOptimizer->GetNumParams(), crossProducts)));
  std::vector<TQStatus> warnings;
  GZLAlgorithm::AddWarning(fEffectTestWarnings,
                           fpInference->ComputeEffectTests(fpOptimizer->GetParamEstimates(),
                                                           fpOptimizer->GetInitRedunInfo(),
                                                           fpInference->GetCovarianceMatrix(), TQMV::Missing, warnings));
  for (const TQStatus& w : warnings) GZLAlgorithm::AddWarning(fEffectTestWarnings, w);
}

bool GEEAlgorithm::RunScoreTests() {
  const GZLModelEffectTestData* data = fpInference->GetEffectTestData();
  const TQConst::TQEffectAnalysisType type = fpSettings->GetEffectAnalysisType();
  auto run = [&](GZLDefaultModelEffectTest& hypotheses, bool typeI, std::unique_ptr<GEEScoreStats>& keep) {
    std::vector<TQRectMatrix> L;
    TQStatus status = TQStatus::Error(GZLStatusCode::LMatrixNotExist);
    auto tests = std::make_unique<GEEScoreStats>(*fpSettings, *fpOptimizer, typeI);
    if (data != nullptr && !data->GetStatus().IsError()) {
      hypotheses.SetData(data);
      status = hypotheses.ComputeLMatrices(L);
      if (!status.IsError()) status = tests->Compute(*data, L);
    }
    if (status.GetErrorCode() == GZLStatusCode::Cancelled) return false;
    GZLAlgorithm::AddWarning(fEffectTestWarnings, status);
    for (const TQStatus& s : tests->GetStatusEff()) GZLAlgorithm::AddWarning(fEffectTestWarnings, s);
    keep = std::move(tests);
    return true;
  };
  // Type I first, then type III.
  if (type == TQConst::EffectTypeI || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeI hypotheses;
    if (!run(hypotheses, true, fpTypeIScore)) return false;
  }
  if (type == TQConst::EffectTypeIII || type == TQConst::EffectTypeIAndIII) {
    GZLModelEffectTestTypeIII hypotheses;
    if (!run(hypotheses, false, fpTypeIIIScore)) return false;
  }
  return true;
}

const std::vector<std::vector<int>>* GEEAlgorithm::GetPWCombinations(int emmeansIndex) {
  // Made here when the fit did not make them: none were asked for, or records were refused for
  // the link (then none are made).
  if (!IsModelBuilt()) return nullptr;
  return GZLMarginals::PWCombinationsOfFit(fpMarginals, !fpOptimizer->IsInvalidForLink(), *fpSettings, *this,
                                           *fpDesignMatrix, fCancelInfo, emmeansIndex, fPWCombinations);
}

TQStatus GEEAlgorithm::GetOutputStats(const GZLOutputStats*& outputStats) {
  if (!IsModelBuilt()) return fStatus = TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  if (!fpOutputStats) fpOutputStats = std::make_unique<GZLOutputStats>(*fpSettings, *this);
  outputStats = fpOutputStats.get();
  return fStatus = TQStatus();
}

TQStatus GEEAlgorithm::Score(const Record& record, GZLScoreStats& scores, const int* mask) {
  if (!IsModelBuilt()) return TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  if (!fpScoringEngine) fpScoringEngine = std::make_unique<GZLScoringEngine>(*fpDesignMatrix, *fpSettings);
  // The final estimates with the covariance chosen for inference; a GEE fit has no inverse
  // information, so the leverage and what is built on it cannot be asked for.
  GZLScoringFit fit;
  fit.fModelType = GZLConst_940::GEE;
  fit.fFitCount = fFitCount;
  fit.fpEstimates = &fpOptimizer->GetParamEstimates();
  if (fpInference) fit.fpCovariance = fpInference->GetCovarianceMatrix();
  fit.fPhi = fpOptimizer->GetPhi();
  fit.fK = fpOptimizer->GetK();
  fit.fNNonRedundant = fpOptimizer->GetFinalRedunInfo().Count();
  fit.fDF = fpInference ? fpInference->GetTQuantileDF() : TQMV::Missing;
  fit.fpCategories = &fTargetCategories;
  fpScoringEngine->SetFit(fit);
  if (mask != nullptr && (*mask != fpScoringEngine->GetScoreType() || !fpScoringEngine->IsValidated())) {
    const TQStatus maskStatus = fpScoringEngine->SetScoreType(*mask);
    if (!maskStatus.IsOK()) {
      if (!fStatus.IsError()) fStatus = maskStatus;
      return maskStatus;
    }
  }
  TQStatus status;
  fpScoringEngine->ScoreRecord(status, record, scores);
  return status;
}

TQStatus GEEAlgorithm::ExportPMML(const TQVarList&, std::ostream&, bool, const TQApplicInfo4XML*) {
  // No document is written for a GEE model; the request only makes sure the output statistics
  // exist.
  if (!IsModelBuilt()) return TQStatus::Error(GZLStatusCode::ModelNotBuilt);
  const GZLOutputStats* stats = nullptr;
  if (!fpOutputStats) return GetOutputStats(stats);
  return TQStatus();
}

void GEEAlgorithm::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GEEAlgorithm display start");
  if (fpMarginals) fpMarginals->Display();
  DisplayText(1, "Effect info:");
  for (std::size_t i = 0; i < fEffectInfo.size(); ++i) {
    const GZLEffectInfo& info = fEffectInfo[i];
    DisplayI("info no.", static_cast<int>(i));
    DisplayI("index", info.fIndex);
    DisplayI("start", info.fStart);
    DisplayI("number of values", info.fNValues);
    DisplayText(1, "combinations:");
    for (const std::vector<int>& c : info.fCombinations) DisplayIV("", c);
  }
  DisplayText(1, "GEEAlgorithm display end");
}
