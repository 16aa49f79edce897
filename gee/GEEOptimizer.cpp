#include "gee/GEEOptimizer.h"

#include <algorithm>
#include <cmath>

#include "GZLProgress.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEWorkCorrForMultinomial.h"
#include "support/TQDisplay_940.h"

namespace {

// The Hessian quantity U' H^- U above which a fit that meets the parameter criterion, with the
// Hessian criterion switched off, still warns (130088).
constexpr double kHessianQuantityWarning = 0.0001;

bool ScaleIsEstimated(const GZLSettings& s) {
  const TQConst::DistType d = s.GetDistType();
  return s.GetScaleType() == GZLConst_940::ScaleMLE &&
         (d == TQConst::DistNormal || d == TQConst::DistGamma || d == TQConst::DistInvGaussian);
}

// The block estimators of an ordinal response, else those of one value per record.
std::unique_ptr<GEEWorkCorrelation> MakeCorrelation(GEEDesignMatrix& design, const GZLSettings& s) {
  if (s.GetDistType() == TQConst::DistOrdinalMultinomial)
    return std::make_unique<GEEWorkCorrForMultinomial>(design, s);
  return std::make_unique<GEEWorkCorrelation>(design, s);
}

}  // namespace

GEEOptimizer::GEEOptimizer(GEEDesignMatrix& design, const GZLSettings& settings)
    : GZLOptimizer(settings),
      fpDesign(&design),
      fpCorrelation(MakeCorrelation(design, settings)),
      fPass(settings),
      fbScaleEstimated(ScaleIsEstimated(settings)),
      fUpdateCorr(settings.GetUpdateCorr()),
      fN(design.GetSumFreqWeights()),
      fbAdjust(settings.IsAdjustCorr()) {
  // The scale and k are not parameters of the estimating equations.
  fbUpdatePhi = false;
  fbUpdateK = false;
  fMaxIter = settings.GetGEEMaxIterations();
  fNParams = design.GetNumOfParams();
  fParamEstimates.assign(static_cast<std::size_t>(fNParams), 0.0);
  fPrevParamEstimates = fParamEstimates;
  fInitRedunInfo = TQBitSet(fNParams, true);
  fFinalRedunInfo = fInitRedunInfo;
  fNNonRedundant = fNParams;
  fpListener = settings.GetIterProgressListener();
}

GEEOptimizer::~GEEOptimizer() = default;

bool GEEOptimizer::SetInitialParameters(const std::vector<double>& v, int p) {
  const std::size_t P = static_cast<std::size_t>(fNParams);
  if (v.size() != P + 1) return false;
  fParamEstimates.assign(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(P));
  fPrevParamEstimates = fParamEstimates;
  fInitialEstimates = fParamEstimates;
  fPhi = fPrevPhi = v[P];
  fNNonRedundant = p;
  fInitialPhi = fPhi;
  fInitialK = fK;
  return true;
}

void GEEOptimizer::SetInitialRedundancy(const TQBitSet& inModel) {
  if (inModel.Size() != fNParams) return;
  fInitRedunInfo = inModel;
  fFinalRedunInfo = inModel;
}

void GEEOptimizer::SetReportProgress(bool on) { fpListener = on ? fpSettings->GetIterProgressListener() : nullptr; }

TQStatus GEEOptimizer::SubjectPass() {
  bool transformed = false;
  const TQStatus st = fPass.Run(*fpDesign, fParamEstimates, fR, fPhi, false, transformed);
  if (transformed) fbRTransformed = true;
  fNBadRecords = fPass.GetNumInvalid();
  fNValid = fPass.GetNumValid();
  if (fNBadRecords > 0) fbInvalidForLink = true;
  if (st.IsError()) return st;
  fPass.GetGradient(fGradient);
  fPass.GetHessian(fHessian);
  fX2 = fPass.GetPearson();
  return st;
}

void GEEOptimizer::InvertAndTrack() {
  TQBitSet set;
  CholInverse(fHessian, fInverseHessian, set);
  set.Resize(fNParams, false);
  if (fbFirstInversion) {
    fInitRedunInfo = set;
    fbFirstInversion = false;
    fPass.SetActive(fInitRedunInfo);
  } else if (set.IsNewFalse(fInitRedunInfo, fNParams)) {
    fbSingular = true;
  }
  fFinalRedunInfo = set;
  fInverseHessian.ComputeSV(fGradient, fDirection);
}

bool GEEOptimizer::TestConvergence() {
  const GZLSettings& s = *fpSettings;
  const double epsP = s.GetGEEPConverge();
  const double epsH = s.GetGEEHConverge();
  if (epsP != 0.0) {
    const bool relative = s.GetGEEPConvergeType() == TQConst::ConvRelative;
    double delta = 0.0;
    for (int j = 0; j < fNParams; ++j) {
      const std::size_t k = static_cast<std::size_t>(j);
      double change = std::fabs(fParamEstimates[k] - fPrevParamEstimates[k]);
      if (relative) change /= std::fabs(fPrevParamEstimates[k]) + 1e-6;
      delta = std::max(delta, change);
    }
    if (!(epsP > delta)) return false;
  }
  const double z = fInverseHessian.ComputeVSV(fGradient);
  if (epsH == 0.0) {
    if (!TQMV::IsMissing(z) && z > kHessianQuantityWarning) {
      AddWarning(TQStatus::Warning(GZLStatusCode::HessianCriterionUnmet));
      fStopCriterion = GZLConst_940::HessianCriterionUnmet;
    }
    return true;
  }
  return !TQMV::IsMissing(z) && epsH > z;
}

void GEEOptimizer::ReportProgress(bool allInvalid) {
  if (fpListener == nullptr) return;
  fReporter.SetInfo(&fParamEstimates, fPhi, fK, fIterNum, GZLReporter::Clock(), fNBadRecords, allInvalid ? 0 : 1);
  fpListener->OnProgress(fReporter);
}

TQStatus GEEOptimizer::Run() {
  if (fpListener != nullptr) {
    fStartTime = GZLReporter::Clock();
    fReporter.SetStartTime(fStartTime);
  }
  fStatus = TQStatus();
  fWarnings.clear();
  fbFailure = false;
  fbEstimated = false;
  fbConverged = false;
  fbSingular = false;
  fbFirstInversion = true;
  fIterNum = 0;
  fStopCriterion = GZLConst_940::NoCriterionSatisfied;
  if (fpSettings->GetDistType() == TQConst::DistNegBinomial) {
    fPass.SetDistParam(fK);
    fpCorrelation->SetDistParam(fK);
  }
  fPass.SetActive(fInitRedunInfo);

  fpCorrelation->Update(fStatus, fPrevParamEstimates, fNNonRedundant, fR);
  if (!fStatus.IsError()) {
    fStatus = SubjectPass();
    if (!fStatus.IsError() && fPhi > 0.0) {
      InvertAndTrack();
      fNNonRedundant = fFinalRedunInfo.Count();
      ReportProgress(fStatus.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction);
    }
  }
  if (fStatus.IsError()) {
    fbFailure = true;
  } else if (fPhi > 0.0 && fMaxIter != 0) {
    IterationLoop();
    if (fStatus.IsError()) fbFailure = true;
  } else if (fMaxIter == 0) {
    fStopCriterion = GZLConst_940::NoIterations;
  }
  if (!fStatus.IsError() && fPhi > 0.0) {
    fHessian.ChangeSign();
    fInverseHessian.ChangeSign();
  }
  if (fbInvalidForLink) {
    const TQStatus warning = TQStatus::Warning(GZLStatusCode::InvalidRecordsForLinkFunction);
    if (!fStatus.IsError()) fStatus = warning;
    AddWarning(warning);
  }
  if (fStatus.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction) {
    fStatus = TQStatus::Warning(GZLStatusCode::AllInvalidRecordsForLinkFunction);
    AddWarning(fStatus);
  }
  if (!fStatus.IsError() && !(fPhi > 0.0)) ScaleIsZero();
  fbEstimated = !fStatus.IsError();
  return fStatus;
}

void GEEOptimizer::IterationLoop() {
  const GZLSettings& s = *fpSettings;
  const int frequency = std::max(s.GetIterationFrequency(), 1);
  fReportCountdown = frequency;
  const std::size_t P = static_cast<std::size_t>(fNParams);
  while (true) {
    if (IsCancelled()) {
      fStatus = TQStatus::Error(GZLStatusCode::Cancelled);
      break;
    }
    ++fIterNum;
    for (std::size_t j = 0; j < P && j < fDirection.size(); ++j) fParamEstimates[j] = fPrevParamEstimates[j] + fDirection[j];
    fNNonRedundant = fFinalRedunInfo.Count();
    if (fbScaleEstimated) {
      // phi from the Pearson sum of the previous pass.
      const double denominator = fbAdjust ? fN - fNNonRedundant : fN;
      if (denominator == 0.0) {
        fStatus = TQStatus::Error(GZLStatusCode::CantBuildModel);
        break;
      }
      fPhi = fX2 / denominator;
    }
    if (fUpdateCorr > 0 && fIterNum % fUpdateCorr == 0) {
      fpCorrelation->Update(fStatus, fParamEstimates, fNNonRedundant, fR);
      if (fStatus.IsError()) break;
    }
    fStatus = SubjectPass();
    if (fStatus.IsError() || !(fPhi > 0.0)) break;
    InvertAndTrack();
    if (TestConvergence()) {
      fbConverged = true;
      if (fStopCriterion != GZLConst_940::HessianCriterionUnmet) fStopCriterion = GZLConst_940::AllConverged;
      break;
    }
    fPrevParamEstimates = fParamEstimates;
    fPrevPhi = fPhi;
    if (--fReportCountdown < 1) {
      ReportProgress(false);
      fReportCountdown = frequency;
    }
    if (StopsAfterIteration()) break;
  }
  if (IsCancelled()) fStatus = TQStatus::Error(GZLStatusCode::Cancelled);
  if (fReportCountdown != frequency) ReportProgress(false);
  if (!fStatus.IsError()) {
    fPrevParamEstimates = fParamEstimates;
    fPrevPhi = fPhi;
  }
  if (fbSingular) {
    if (fbConverged) {
      AddWarning(TQStatus::Warning(GZLStatusCode::HessianNotPositiveDefinite));
      fStopCriterion = GZLConst_940::ConvergedHessianNotPD;
    } else {
      AddWarning(TQStatus::Warning(GZLStatusCode::SingularHessian));
    }
  }
}

void GEEOptimizer::ScaleIsZero() {
  const int n = fNParams;
  fGradient.assign(static_cast<std::size_t>(n), TQMV::Missing);
  fHessian = TQSymMatrix(n, TQMV::Missing);
  fInverseHessian = TQSymMatrix(n, TQMV::Missing);
  AddWarning(TQStatus::Warning(GZLStatusCode::ScaleIsZero));
}

TQStatus GEEOptimizer::ComputeRobustCovariance() {
  if (fpSettings->GetDistType() == TQConst::DistNegBinomial) fPass.SetDistParam(fK);
  bool transformed = false;
  const TQStatus st = fPass.Run(*fpDesign, fParamEstimates, fR, fPhi, true, transformed);
  if (st.GetErrorCode() == GZLStatusCode::NewPass || st.GetErrorCode() == GZLStatusCode::Cancelled) return st;
  if (st.IsError()) return TQStatus::Error(GZLStatusCode::PostEstimation);
  fPass.GetMiddleMatrix(fM);
  fQ = fPass.GetQuasiLikelihood();
  fPass.GetIndependenceInformation(fIndependenceInfo);
  return st;
}

TQStatus GEEOptimizer::EvaluateEstimatingFunction(const std::vector<double>& beta, double phi, std::vector<double>& U,
                                                  TQSymMatrix& H, double& pearson, int& invalid) {
  if (beta.size() < static_cast<std::size_t>(fNParams)) return TQStatus::Error(GZLStatusCode::InternalError);
  bool transformed = false;
  const TQStatus st = fPass.Run(*fpDesign, beta, fR, phi, false, transformed);
  invalid = fPass.GetNumInvalid();
  if (st.IsError()) return st;
  fPass.GetGradient(U);
  fPass.GetHessian(H);
  pearson = fPass.GetPearson();
  return st;
}

TQStatus GEEOptimizer::EvaluateMiddleMatrix(const std::vector<double>& beta, double phi, TQSymMatrix& M) {
  if (beta.size() < static_cast<std::size_t>(fNParams)) return TQStatus::Error(GZLStatusCode::InternalError);
  bool transformed = false;
  const TQStatus st = fPass.Run(*fpDesign, beta, fR, phi, true, transformed);
  if (st.IsError()) return st;
  fPass.GetMiddleMatrix(M);
  return st;
}

void GEEOptimizer::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GEEOptimizer display start");
  DisplayB("Model convergence indicator", fbConverged);
  GZLComponentDisplay_940::DisplayC("Stopping criteria", fStopCriterion);
  DisplayI("The step of iterator (mainloop) is", fIterNum);
  DisplayDV("Parameter estimates", fParamEstimates, false);
  DisplayD("Phi value", fPhi);
  DisplayText(1, "Redundancy indicators: " + fFinalRedunInfo.ToString());
  DisplayB("R transformed indicator", fbRTransformed);
  DisplayDV("The vector of gradient", fGradient, false);
  DisplayText(1, "The hessian matrix display start");
  fHessian.Display();
  DisplayText(1, "The hessian matrix display end");
  DisplayText(1, "The workCorrelation matrix start");
  fR.Display();
  DisplayText(1, "The workCorrelation matrix end");
  fPass.GetScaleParameter().Display();
  fpCorrelation->Display();
  DisplayText(1, "GEEOptimizer display end");
}
