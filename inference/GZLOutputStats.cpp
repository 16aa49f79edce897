#include "GZLOutputStats.h"

#include "GZLDataStats.h"
#include "GZLEventsCount.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLOptimizer.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEEScoreStats.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEOptimizer.h"
#include "inference/GZLInference.h"
#include "inference/GZLLRStats.h"
#include "inference/GZLProfileLikelihoodCI.h"
#include "inference/GZLOmnibusTest.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

// Everything the host reads, copied from the algorithm and its fit objects at construction.
struct GZLOutputStats::Impl {
  const GZLAlgorithm* fpAlgorithm = nullptr;
  const GEEAlgorithm* fpGEEAlgorithm = nullptr;

  // estimates
  std::vector<double> fMeanValues;
  std::vector<double> fParamEstimates;
  std::vector<TQRegrParameter> fParameters;
  std::vector<TQRegrParameterStats> fParamStats;
  TQSymMatrix fCovariance;
  std::unique_ptr<TQSymMatrix> fpHessianMatrix;
  std::vector<double> fGradientVector;
  std::vector<bool> fRedundancy;
  double fNegBinK = TQMV::Missing;

  // data
  double fPopulationSize = TQMV::Missing;
  int fNumOfRecords = 0;
  double fNDegFreedom = TQMV::Missing;
  TQFactorCounts fFactorCounts;
  GZLEventsCount fEventsCount;
  GZLDataStats fDataStats;
  std::vector<int> fDependCategories;

  // fit
  double fDeviance = TQMV::Missing;
  double fScaleDeviance = TQMV::Missing;
  double fDevianceByDegFreedom = TQMV::Missing;
  double fPearsonChiSquare = TQMV::Missing;
  double fScalePearsonChiSquare = TQMV::Missing;
  double fPearsonChiSquareByDegFreedom = TQMV::Missing;
  double fLogLikehood = TQMV::Missing;
  double fLogLikehoodScaleFixed = TQMV::Missing;
  double fAIC = TQMV::Missing;
  double fAICC = TQMV::Missing;
  double fBIC = TQMV::Missing;
  double fCAIC = TQMV::Missing;
  double fPseudoR2 = 0.0;

  // tests
  double fLagrangeMultDist = TQMV::Missing;
  double fLagrangeMultDF = TQMV::Missing;
  double fLagrangeMultSig = TQMV::Missing;
  double fLagrangeSigLessZero = TQMV::Missing;
  double fLagrangeSigGreaterZero = TQMV::Missing;
  double fLagrangeSigNonDir = TQMV::Missing;
  double fOmnibusDist = TQMV::Missing;
  double fOmnibusDF = TQMV::Missing;
  double fOmnibusSig = TQMV::Missing;
  bool fbOmnibusFailedInitModel = false;
  TQStatus fPLCIStatus = TQStatus::Error(GZLStatusCode::NoValidPLCIStats);
  std::vector<std::pair<TQStatus, TQStatus>> fPLCIStatusForParam;
  std::vector<std::pair<GZLConst_940::StoppingCriteria, GZLConst_940::StoppingCriteria>> fPLCIStoppingCrits;
  // Likelihood-ratio tests of model effects (type I, type III)
  struct LRTests {
    std::vector<std::vector<double>> stats;
    TQStatus status = TQStatus::Error(GZLStatusCode::NoValidLRTests);
    std::vector<TQStatus> statusEff;
    std::vector<GZLConst_940::StoppingCriteria> criteria;
    // From the likelihood-ratio tests of a GLM or the generalized score tests of a GEE model.
    template <class Tests>
    void CopyFrom(const Tests* lr) {
      if (lr == nullptr) return;
      stats = lr->GetStats();
      status = lr->GetStatus();
      statusEff = lr->GetStatusEff();
      criteria = lr->GetStoppingCrits();
    }
  };
  LRTests fTypeILR, fTypeIIILR;
  // Wald tests of model effects (empty when not computed)
  TQModelTestStats fTypeIModelTestStats;
  TQModelTestStats fTypeIIIModelTestStats;
  TQModelTestStats fCorrectedModelTest;

  // state
  bool fbPerfectFit = false;

  // warnings
  std::vector<TQStatus> fBuildModelWarnings;
  std::vector<TQStatus> fEffectAnalysisWarnings;
  std::vector<TQStatus> fEmmeansWarnings;
  std::vector<TQStatus> fStatComputeWarnings;

  // GEE
  TQSymMatrix fWorkCorrelation;
  double fQIC = TQMV::Missing;
  double fQICu = TQMV::Missing;
  double fQBetaI = TQMV::Missing;
  std::vector<std::vector<int>> fWSInfo;
  TQFactorCounts fSubjectCounts;
  TQFactorCounts fWSCounts;
  int fNumberOfSubjects = 0;
  int fMinMeasurePerSubject = 0;
  int fMaxMeasurePerSubject = 0;
  int fMaxGroupSize = 0;
  TQSymMatrix fRobustCovariance;
  TQSymMatrix fModelCovariance;

  // What both kinds of algorithm hand over alike: the parameter list, counts and warnings, the
  // counts of the design's dictionary pass, and the estimates, gradient, Hessian and redundancy
  // of the optimizer.
  void CopyAlgorithm(const IGZLAlgorithm& algorithm);
  void CopyDesign(const GZLDesignMatrix& design);
  void CopyOptimizer(const GZLSettings& settings, const GZLOptimizer& opt);
  // The parameter statistics, covariance and fit figures of an inference object.
  void CopyInference(const GZLInference& inf);
};

void GZLOutputStats::Impl::CopyAlgorithm(const IGZLAlgorithm& algorithm) {
  fParameters = algorithm.GetRegrParameters();
  fFactorCounts = algorithm.GetFactorCounts();
  fDependCategories = algorithm.GetDependCategories();
  fBuildModelWarnings = algorithm.GetBuildModelWarnings();
  fEffectAnalysisWarnings = algorithm.GetEffectAnalysisWarnings();
  fEmmeansWarnings = algorithm.GetEmmeansWarnings();
}

void GZLOutputStats::Impl::CopyDesign(const GZLDesignMatrix& design) {
  fDataStats = design.GetDataStats();
  fEventsCount = design.GetEventsCount();
  fPopulationSize = design.GetSumFreqWeights();
  fNumOfRecords = design.GetNumCompleteRecords();
  for (const DataStat& s : fDataStats.GetCovariateStats()) fMeanValues.push_back(s.fMean);
}

void GZLOutputStats::Impl::CopyOptimizer(const GZLSettings& settings, const GZLOptimizer& opt) {
  fParamEstimates = opt.GetParamEstimates();
  fGradientVector = opt.GetGradient();
  if (opt.GetHessian().GetNumRows() > 0) fpHessianMatrix = std::make_unique<TQSymMatrix>(opt.GetHessian());
  const int p = opt.GetNumParams();
  fRedundancy.assign(p, false);
  for (int j = 0; j < p; ++j) fRedundancy[j] = !opt.GetInitRedunInfo().InSet(j);
  if (settings.GetDistType() == TQConst::DistNegBinomial) fNegBinK = opt.GetK();
}

void GZLOutputStats::Impl::CopyInference(const GZLInference& inf) {
  fParamStats = inf.GetParamStats();
  if (const TQSymMatrix* cov = inf.GetCovarianceMatrix()) fCovariance = *cov;
  const GZLGoodnessOfFit& gof = inf.GetGoodnessOfFit();
  fNDegFreedom = inf.GetNDegFreedom();
  fDeviance = gof.GetDeviance();
  fScaleDeviance = gof.GetScaledDeviance();
  fDevianceByDegFreedom = gof.GetDevianceByDF();
  fPearsonChiSquare = gof.GetPearson();
  fScalePearsonChiSquare = gof.GetScaledPearson();
  fPearsonChiSquareByDegFreedom = gof.GetPearsonByDF();
  fLogLikehood = inf.GetLogLikelihood();
  fLogLikehoodScaleFixed = inf.GetLogLikelihoodScaleFixed();
  fAIC = gof.GetAIC();
  fAICC = gof.GetAICC();
  fBIC = gof.GetBIC();
  fCAIC = gof.GetCAIC();
  fPseudoR2 = inf.GetPseudoR2();
  fStatComputeWarnings = inf.GetStatComputeWarnings();
  fPLCIStatus = inf.GetPLCIStatus();
  if (const TQModelTestStats* t = inf.GetTypeITestStats()) fTypeIModelTestStats = *t;
  if (const TQModelTestStats* t = inf.GetTypeIIITestStats()) fTypeIIIModelTestStats = *t;
  if (const TQModelTestStats* t = inf.GetCorrectedModelTest()) fCorrectedModelTest = *t;
}

GZLOutputStats::GZLOutputStats(const GZLSettings& settings, const GZLAlgorithm& algorithm)
    : fpImpl(std::make_unique<Impl>()) {
  Impl& m = *fpImpl;
  m.fpAlgorithm = &algorithm;
  m.CopyAlgorithm(algorithm);
  if (const GZLDesignMatrix* design = algorithm.GetDesignMatrix()) m.CopyDesign(*design);

  if (const GZLOptimizer* opt = algorithm.GetOptimizer()) {
    m.CopyOptimizer(settings, *opt);
    m.fLagrangeMultDist = opt->GetLagrangeMultChiSquare();
    m.fLagrangeMultDF = opt->GetLagrangeMultDF();
    m.fLagrangeMultSig = opt->GetLagrangeMultSig();
    m.fLagrangeSigLessZero = opt->GetLagrangeSigLessZero();
    m.fLagrangeSigGreaterZero = opt->GetLagrangeSigGreaterZero();
    m.fLagrangeSigNonDir = opt->GetLagrangeSigNonDir();
    m.fbPerfectFit = opt->IsPerfectFit();
  }

  if (const GZLInference* inf = algorithm.GetInference()) m.CopyInference(*inf);
  if (const GZLProfileLikelihoodCI* profile = algorithm.GetProfileCI()) {
    m.fPLCIStatusForParam = profile->GetStatusForParam();
    m.fPLCIStoppingCrits = profile->GetStoppingCrits();
  }
  m.fTypeILR.CopyFrom(algorithm.GetTypeILRStats());
  m.fTypeIIILR.CopyFrom(algorithm.GetTypeIIILRStats());

  if (const GZLOmnibusTest* omnibus = algorithm.GetOmnibusTest()) {
    m.fOmnibusDist = omnibus->GetDist();
    m.fOmnibusDF = omnibus->GetDF();
    m.fOmnibusSig = omnibus->GetSig();
    m.fbOmnibusFailedInitModel = omnibus->GetFailedInitModel();
  }
}

GZLOutputStats::GZLOutputStats(const GZLSettings& settings, const GEEAlgorithm& algorithm)
    : fpImpl(std::make_unique<Impl>()) {
  Impl& m = *fpImpl;
  m.fpGEEAlgorithm = &algorithm;
  m.CopyAlgorithm(algorithm);
  if (const std::vector<std::vector<int>>* ws = algorithm.GetWSCombinations()) m.fWSInfo = *ws;

  if (const GEEDesignMatrix* design = algorithm.GetDesignMatrix()) {
    m.CopyDesign(*design);
    m.fSubjectCounts = design->GetSubjectCounts();
    m.fWSCounts = design->GetWSCounts();
    const IGEENumSubject& counter = design->GetSubjectCounter();
    m.fNumberOfSubjects = counter.GetNumSubjects();
    m.fMinMeasurePerSubject = counter.GetMinSubjectSize();
    m.fMaxMeasurePerSubject = counter.GetMaxSubjectSize();
  }

  if (const GEEOptimizer* opt = algorithm.GetGEEOptimizer()) {
    m.CopyOptimizer(settings, *opt);
    m.fWorkCorrelation = opt->GetWorkCorrelation();
    m.fTypeILR.CopyFrom(algorithm.GetTypeIScoreStats());
    m.fTypeIIILR.CopyFrom(algorithm.GetTypeIIIScoreStats());
    m.fMaxGroupSize = opt->GetCorrDimension();
  }

  if (const GZLInference* inf = algorithm.GetInference()) {
    m.CopyInference(*inf);
    m.fQIC = inf->GetQIC();
    m.fQICu = inf->GetQICu();
    m.fQBetaI = inf->GetQuasiLikelihood();
    if (const TQSymMatrix* robust = inf->GetRobustCovarianceMatrix()) m.fRobustCovariance = *robust;
    if (const TQSymMatrix* model = inf->GetModelBasedCovarianceMatrix()) m.fModelCovariance = *model;
  }
}

GZLOutputStats::~GZLOutputStats() = default;

const GZLMarginals* GZLOutputStats::GetMarginals() const {
  if (fpImpl->fpGEEAlgorithm != nullptr) return fpImpl->fpGEEAlgorithm->GetMarginals();
  return fpImpl->fpAlgorithm != nullptr ? fpImpl->fpAlgorithm->GetMarginals() : nullptr;
}

TQStatus GZLOutputStats::GetEmmeansStats(int spec, const TQEmmeansSpec*& specOut, const TQRectMatrix*& L,
                                         std::vector<TQEmmeansStats>& stats) const {
  const GZLMarginals* m = GetMarginals();
  return m ? m->GetEmmeansStats(spec, specOut, L, stats) : TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
}

int GZLOutputStats::GetNEmmeansTests(int spec, TQStatus& status) const {
  const GZLMarginals* m = GetMarginals();
  if (m) return m->GetNEmmeansTests(spec, status);
  status = TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
  return 0;
}

TQStatus GZLOutputStats::GetEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                         std::vector<int>& levels, TQRectMatrix& contrast,
                                         std::vector<TQTestStats>& individual, TQTestStats& overall) const {
  const GZLMarginals* m = GetMarginals();
  return m ? m->GetEmmeansTests(spec, test, others, levels, contrast, individual, overall)
           : TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
}

int GZLOutputStats::GetNPairwiseEmmeansTests(int spec, int test) const {
  const GZLMarginals* m = GetMarginals();
  return m ? m->GetNPairwiseEmmeansTests(spec, test) : 0;
}

TQStatus GZLOutputStats::GetPairwiseEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                                 std::vector<int>& levels,
                                                 std::vector<GZLPairwiseRecord>& records) const {
  const GZLMarginals* m = GetMarginals();
  return m ? m->GetPairwiseEmmeansTests(spec, test, others, levels, records)
           : TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
}

TQStatus GZLOutputStats::GetPairwiseOverallTest(int spec, int test, std::vector<std::pair<int, int>>& others,
                                                TQTestStats& overall) const {
  const GZLMarginals* m = GetMarginals();
  return m ? m->GetPairwiseOverallTest(spec, test, others, overall)
           : TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
}

// ---- estimates ----
const std::vector<double>& GZLOutputStats::GetParamEstimates() const { return fpImpl->fParamEstimates; }
const std::vector<TQRegrParameter>& GZLOutputStats::GetParameters() const { return fpImpl->fParameters; }
const std::vector<TQRegrParameterStats>& GZLOutputStats::GetParamStats() const { return fpImpl->fParamStats; }
const TQSymMatrix& GZLOutputStats::GetCovarianceMatrix() const { return fpImpl->fCovariance; }
const TQSymMatrix* GZLOutputStats::GetHessianMatrixPtr() const { return fpImpl->fpHessianMatrix.get(); }
const std::vector<double>& GZLOutputStats::GetFullGradientVector() const { return fpImpl->fGradientVector; }
const std::vector<bool>& GZLOutputStats::GetRedundancyIndicators() const { return fpImpl->fRedundancy; }
const std::vector<double>& GZLOutputStats::GetMeanValues() const { return fpImpl->fMeanValues; }
double GZLOutputStats::GetNegBinK() const { return fpImpl->fNegBinK; }
bool GZLOutputStats::GetRTransformedIndicator() const {
  // A GEE fit: whether the working correlation had to be made positive definite.
  if (const GEEAlgorithm* g = fpImpl->fpGEEAlgorithm)
    return g->GetGEEOptimizer() != nullptr && g->GetGEEOptimizer()->IsRTransformed();
  const GZLAlgorithm* a = fpImpl->fpAlgorithm;
  if (a == nullptr || a->GetOptimizer() == nullptr || a->GetDesignMatrix() == nullptr) return false;
  return a->GetDesignMatrix()->IsScaledDesign();
}

// ---- data ----
double GZLOutputStats::GetPopulationSize() const { return fpImpl->fPopulationSize; }
int GZLOutputStats::GetNumOfRecords() const { return fpImpl->fNumOfRecords; }
double GZLOutputStats::GetNDegFreedom() const { return fpImpl->fNDegFreedom; }
const TQFactorCounts& GZLOutputStats::GetFactorCounts() const { return fpImpl->fFactorCounts; }
const GZLEventsCount& GZLOutputStats::GetEventsCount() const { return fpImpl->fEventsCount; }
const std::vector<int>& GZLOutputStats::GetDependCategories() const { return fpImpl->fDependCategories; }
const GZLDataStats& GZLOutputStats::GetDataStats() const { return fpImpl->fDataStats; }

// ---- fit ----
double GZLOutputStats::GetDevianceValue() const { return fpImpl->fDeviance; }
double GZLOutputStats::GetScaledDevianceValue() const { return fpImpl->fScaleDeviance; }
double GZLOutputStats::GetDevianceValueByDegFreedom() const { return fpImpl->fDevianceByDegFreedom; }
double GZLOutputStats::GetPearsonChiSquareValue() const { return fpImpl->fPearsonChiSquare; }
double GZLOutputStats::GetScaledPearsonChiSquareValue() const { return fpImpl->fScalePearsonChiSquare; }
double GZLOutputStats::GetPearsonChiSquareValueByDegFreedom() const { return fpImpl->fPearsonChiSquareByDegFreedom; }
double GZLOutputStats::GetLogLikehood() const { return fpImpl->fLogLikehood; }
double GZLOutputStats::GetLogLikehoodScaleFixed() const { return fpImpl->fLogLikehoodScaleFixed; }
double GZLOutputStats::GetAIC() const { return fpImpl->fAIC; }
double GZLOutputStats::GetAICC() const { return fpImpl->fAICC; }
double GZLOutputStats::GetBIC() const { return fpImpl->fBIC; }
double GZLOutputStats::GetCAIC() const { return fpImpl->fCAIC; }
double GZLOutputStats::GetPseudoR2() const { return fpImpl->fPseudoR2; }

// ---- tests ----
double GZLOutputStats::GetOmnibusDist() const { return fpImpl->fOmnibusDist; }
double GZLOutputStats::GetOmnibusDF() const { return fpImpl->fOmnibusDF; }
double GZLOutputStats::GetOmnibusSig() const { return fpImpl->fOmnibusSig; }
bool GZLOutputStats::GetOmnibusFailedInitModel() const { return fpImpl->fbOmnibusFailedInitModel; }
double GZLOutputStats::GetLagrangeMultDist() const { return fpImpl->fLagrangeMultDist; }
double GZLOutputStats::GetLagrangeMultDF() const { return fpImpl->fLagrangeMultDF; }
double GZLOutputStats::GetLagrangeMultSig() const { return fpImpl->fLagrangeMultSig; }
double GZLOutputStats::GetLagrangeSigLessZero() const { return fpImpl->fLagrangeSigLessZero; }
double GZLOutputStats::GetLagrangeSigGreaterZero() const { return fpImpl->fLagrangeSigGreaterZero; }
double GZLOutputStats::GetLagrangeSigNonDir() const { return fpImpl->fLagrangeSigNonDir; }

const TQModelTestStats& GZLOutputStats::GetTypeITestStats() const { return fpImpl->fTypeIModelTestStats; }
const TQModelTestStats& GZLOutputStats::GetTypeIIITestStats() const { return fpImpl->fTypeIIIModelTestStats; }
const TQModelTestStats& GZLOutputStats::GetCorrectedModelTest() const { return fpImpl->fCorrectedModelTest; }

TQStatus GZLOutputStats::GetPLCIStatus() const { return fpImpl->fPLCIStatus; }
const std::vector<std::pair<TQStatus, TQStatus>>& GZLOutputStats::GetPLCIStatusForParam() const {
  return fpImpl->fPLCIStatusForParam;
}
const std::vector<std::pair<GZLConst_940::StoppingCriteria, GZLConst_940::StoppingCriteria>>&
GZLOutputStats::GetPLCIStoppingCrits() const {
  return fpImpl->fPLCIStoppingCrits;
}
const std::vector<std::vector<double>>& GZLOutputStats::GetTypeILRStats() const { return fpImpl->fTypeILR.stats; }
TQStatus GZLOutputStats::GetTypeILRStatus() const { return fpImpl->fTypeILR.status; }
const std::vector<TQStatus>& GZLOutputStats::GetTypeILRStatusEff() const { return fpImpl->fTypeILR.statusEff; }
const std::vector<GZLConst_940::StoppingCriteria>& GZLOutputStats::GetTypeILRStoppingCrits() const {
  return fpImpl->fTypeILR.criteria;
}
const std::vector<std::vector<double>>& GZLOutputStats::GetTypeIIILRStats() const { return fpImpl->fTypeIIILR.stats; }
TQStatus GZLOutputStats::GetTypeIIILRStatus() const { return fpImpl->fTypeIIILR.status; }
const std::vector<TQStatus>& GZLOutputStats::GetTypeIIILRStatusEff() const { return fpImpl->fTypeIIILR.statusEff; }
const std::vector<GZLConst_940::StoppingCriteria>& GZLOutputStats::GetTypeIIILRStoppingCrits() const {
  return fpImpl->fTypeIIILR.criteria;
}

// ---- state: read from the algorithm's current optimizer ----
namespace {
// The optimizer of the GEE fit when there is one, else that of the GZLM fit.
const GZLOptimizer* CurrentOptimizer(const GZLAlgorithm* a, const GEEAlgorithm* g) {
  if (g != nullptr) return g->GetOptimizer();
  return a != nullptr ? a->GetOptimizer() : nullptr;
}
}  // namespace
GZLConst_940::StoppingCriteria GZLOutputStats::GetEstimStopCriterion() const {
  const GZLOptimizer* o = CurrentOptimizer(fpImpl->fpAlgorithm, fpImpl->fpGEEAlgorithm);
  return o != nullptr ? o->GetStoppingCriterion() : GZLConst_940::NoCriterionSatisfied;
}
bool GZLOutputStats::IsSingularHessian() const {
  const GZLOptimizer* o = CurrentOptimizer(fpImpl->fpAlgorithm, fpImpl->fpGEEAlgorithm);
  return o != nullptr && o->IsSingularHessian();
}
bool GZLOutputStats::IsPerfectFit() const { return fpImpl->fbPerfectFit; }

// ---- warnings ----
const std::vector<TQStatus>& GZLOutputStats::GetBuildModelWarnings() const { return fpImpl->fBuildModelWarnings; }
const std::vector<TQStatus>& GZLOutputStats::GetEffectAnalysisWarnings() const {
  return fpImpl->fEffectAnalysisWarnings;
}
const std::vector<TQStatus>& GZLOutputStats::GetEmmeansWarnings() const { return fpImpl->fEmmeansWarnings; }
const std::vector<TQStatus>& GZLOutputStats::GetStatComputeWarnings() const { return fpImpl->fStatComputeWarnings; }

// ---- GEE: a GZLM fit has none of these ----
const TQSymMatrix& GZLOutputStats::GetWorkCorrelationMatrix() const { return fpImpl->fWorkCorrelation; }
double GZLOutputStats::GetQICValue() const { return fpImpl->fQIC; }
double GZLOutputStats::GetQICUValue() const { return fpImpl->fQICu; }
double GZLOutputStats::GetQBetaIValue() const { return fpImpl->fQBetaI; }
const std::vector<std::vector<int>>& GZLOutputStats::GetWSInfo() const { return fpImpl->fWSInfo; }
const TQFactorCounts& GZLOutputStats::GetSubjectCounts() const { return fpImpl->fSubjectCounts; }
const TQFactorCounts& GZLOutputStats::GetWSCounts() const { return fpImpl->fWSCounts; }
int GZLOutputStats::GetNumberOfSubjects() const { return fpImpl->fNumberOfSubjects; }
int GZLOutputStats::GetMinMeasurePerSubject() const { return fpImpl->fMinMeasurePerSubject; }
int GZLOutputStats::GetMaxMeasurePerSubject() const { return fpImpl->fMaxMeasurePerSubject; }
int GZLOutputStats::GetMaxGroupSize() const { return fpImpl->fMaxGroupSize; }
const TQSymMatrix& GZLOutputStats::GetRobustCovarianceMatrix() const { return fpImpl->fRobustCovariance; }
const TQSymMatrix& GZLOutputStats::GetModelBasedCovarianceMatrix() const { return fpImpl->fModelCovariance; }

void GZLOutputStats::Display() const {
  using namespace TQDisplay_940;
  const Impl& m = *fpImpl;
  DisplayText(1, "GZLOutputStats display start");
  DisplayDV("fMeanValues", m.fMeanValues, true);
  DisplayDV("fParamEstimates", m.fParamEstimates, true);
  DisplayI("fParameters", static_cast<int>(m.fParameters.size()));
  for (const TQRegrParameterStats& row : m.fParamStats) row.Display();
  DisplayDF("fPopulationSize", m.fPopulationSize);
  DisplayI("fNumOfRecords", m.fNumOfRecords);
  DisplayDF("fNDegFreedom", m.fNDegFreedom);
  m.fCovariance.Display("Covariance matrix of the parameter estimates");
  DisplayDF("fDeviance", m.fDeviance);
  DisplayDF("fScaleDeviance", m.fScaleDeviance);
  DisplayDF("fDevianceByDegFreedom", m.fDevianceByDegFreedom);
  DisplayDF("fPearsonChiSquare", m.fPearsonChiSquare);
  DisplayDF("fScalePearsonChiSquare", m.fScalePearsonChiSquare);
  DisplayDF("fPearsonChiSquareByDegFreedom", m.fPearsonChiSquareByDegFreedom);
  DisplayDF("fLogLikehood", m.fLogLikehood);
  DisplayDF("fLogLikehoodScaleFixed", m.fLogLikehoodScaleFixed);
  DisplayDF("fAIC", m.fAIC);
  DisplayDF("fAICC", m.fAICC);
  DisplayDF("fBIC", m.fBIC);
  DisplayDF("fCAIC", m.fCAIC);
  DisplayDF("Pseudo R-squared", m.fPseudoR2);
  if (m.fpHessianMatrix)
    m.fpHessianMatrix->Display("fpHessianMatrix");
  else
    DisplayText(1, "fpHessianMatrix is not defined");
  DisplayDV("fGradientVector", m.fGradientVector, true);
  DisplayBV("fRedundancy", m.fRedundancy);
  m.fFactorCounts.Display();
  m.fEventsCount.Display();
  m.fDataStats.Display();
  DisplayIV("Dependent categories", m.fDependCategories);
  DisplayDF("fLagrangeMultDist", m.fLagrangeMultDist);
  DisplayDF("fLagrangeMultDF", m.fLagrangeMultDF);
  DisplayDF("fLagrangeMultSig", m.fLagrangeMultSig);
  DisplayDF("fOmnibusDist", m.fOmnibusDist);
  DisplayDF("fOmnibusDF", m.fOmnibusDF);
  DisplayDF("fOmnibusSig", m.fOmnibusSig);
  DisplayB("fbOmnibusFailedInitModel", m.fbOmnibusFailedInitModel);
  m.fTypeIModelTestStats.Display("fpTypeIModelTestStats");
  m.fTypeIIIModelTestStats.Display("fpTypeIIIModelTestStats");
  m.fCorrectedModelTest.Display("fpCorrectedModelTest");
  DisplayDF("Negative binomial k", m.fNegBinK);
  DisplayB("Perfect fit indicator", m.fbPerfectFit);
  DisplayB("Singular Hessian indicator", IsSingularHessian());
  DisplayI("Stopping criterion", static_cast<int>(GetEstimStopCriterion()));
  DisplayI("Number of model building warnings", static_cast<int>(m.fBuildModelWarnings.size()));
  DisplayI("Number of effect analysis warnings", static_cast<int>(m.fEffectAnalysisWarnings.size()));
  DisplayI("Number of marginal means warnings", static_cast<int>(m.fEmmeansWarnings.size()));
  DisplayI("Number of statistics computation warnings", static_cast<int>(m.fStatComputeWarnings.size()));
  if (m.fpGEEAlgorithm != nullptr) {
    m.fWorkCorrelation.Display("Working correlation matrix");
    DisplayDF("QIC", m.fQIC);
    DisplayDF("QICu", m.fQICu);
    DisplayDF("Quasi-likelihood under independence", m.fQBetaI);
    DisplayI("Number of subjects", m.fNumberOfSubjects);
    DisplayI("Minimum number of measurements per subject", m.fMinMeasurePerSubject);
    DisplayI("Maximum number of measurements per subject", m.fMaxMeasurePerSubject);
    DisplayI("Dimension of the working correlation matrix", m.fMaxGroupSize);
  }
  DisplayText(1, "GZLOutputStats display end");
}
