#include "diagnostics/GZLComponentDisplay_940.h"

#include <cstdio>

#include "support/TQDisplay_940.h"

namespace GZLComponentDisplay_940 {
namespace {

constexpr const char* kUnrecognized = " = unrecognized";
constexpr const char* kTypeUnrecognized = " = Type unrecognized";

template <std::size_t N>
const char* Lookup(const char* const (&texts)[N], int value, const char* fallback) noexcept {
  if (value < 0 || static_cast<std::size_t>(value) >= N || texts[value] == nullptr) return fallback;
  return texts[value];
}

void Line(const std::string& label, const char* text) { TQDisplay_940::DisplayText(1, label + text); }

std::string SizeHeader(const std::string& label, std::size_t n) {
  char buf[32];
  std::snprintf(buf, sizeof buf, " %d", static_cast<int>(n));
  return label + " (size =" + buf + ")";
}

void StatusLines(const TQStatus& status) {
  TQDisplay_940::DisplayB("IsError", status.IsError());
  TQDisplay_940::DisplayI("error code", status.GetErrorCode());
  TQDisplay_940::DisplayText(1, StatusCodeName(status.GetErrorCode()));
}

}  // namespace

const char* EnumText(GZLConst_940::StoppingCriteria value) noexcept {
  // 5 and 11 have no text on purpose: they display as unrecognized.
  static const char* const kTexts[] = {
      " = None of the stopping criteria satisfied",
      " = All convergence criteria are satisfied",
      " = The maximum number of step-halvings was reached, but the log likelihood value cannot be further "
      "improved",
      " = All convergence criteria are satisfied, but the final Hessian matrix is not positive definite",
      " = An unexpected singularity in the Hessian matrix was encountered. There may be undetected complete "
      "or quasi-complete separation in the data",
      nullptr,
      " = This model has perfect fit. The log likelihood is missing because the scale parameter is zero",
      " = The maximum number of iterations was reached, but convergence was not achieved",
      " = The log likelihood value is approaching zero. There may be a complete separation in the data",
      " = A quasi-complete separation may exist in the data. Some parameter estimates will tend to infinity",
      " = No iterations performed"};
  return Lookup(kTexts, value, kUnrecognized);
}

const char* EnumText(GZLConst_940::DistParam value) noexcept {
  static const char* const kTexts[] = {" = Maximum likelihood estimate", " = Fixed value"};
  return Lookup(kTexts, value, kTypeUnrecognized);
}

const char* EnumText(GZLConst_940::ScaleMethod value) noexcept {
  static const char* const kTexts[] = {" = MLE (Maximum likelihood estimate)", " = Deviance", " = Pearson chi-square",
                                       " = Fixed value"};
  return Lookup(kTexts, value, kTypeUnrecognized);
}

const char* EnumText(GZLConst_940::CIType value) noexcept {
  static const char* const kTexts[] = {" = Wald", " = Profile"};
  return Lookup(kTexts, value, kUnrecognized);
}

const char* EnumText(GZLConst_940::CorrType value) noexcept {
  static const char* const kTexts[] = {" = Independent", " = AR(1)", " = Exchangeable", " = Fixed", " = M-dependent",
                                       " = Unstructured"};
  return Lookup(kTexts, value, kUnrecognized);
}

const char* EnumText(GZLConst_940::EffectAnalysisStat value) noexcept {
  static const char* const kTexts[] = {" = Wald", " = Likelihood Ratio", " = None (undefined)"};
  return Lookup(kTexts, value, kUnrecognized);
}

const char* EnumText(GZLConst_940::LLType value) noexcept {
  static const char* const kTexts[] = {" = Full", " = Kernel"};
  return Lookup(kTexts, value, kUnrecognized);
}

const char* EnumText(GZLConst_940::ModelType value) noexcept {
  static const char* const kTexts[] = {" = GZLM", " = GEE", " = GZLM called from GLMM"};
  return Lookup(kTexts, value, kUnrecognized);
}

void DisplayC(std::string label, GZLConst_940::StoppingCriteria value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::DistParam value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::ScaleMethod value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::CIType value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::CorrType value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::EffectAnalysisStat value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::LLType value) { Line(label, EnumText(value)); }
void DisplayC(std::string label, GZLConst_940::ModelType value) { Line(label, EnumText(value)); }

const char* StatusCodeName(int code) noexcept {
  namespace C = GZLStatusCode;
  switch (code) {
    case C::NoError: return "No error";
    case C::NoValidTrainRecords: return "NoValidTrainRecords";
    case C::InvalidSettings: return "InvalidSettings";
    case C::InvalidCatValue: return "InvalidCatValue";
    case C::NoValidRecords: return "NoValidRecords";
    case C::CantBuildModel: return "CantBuildModel";
    case C::StepHalvingProblem: return "StepHalvingProblem";
    case C::InitialValueFailed: return "InitialValueFailed";
    case C::ModelNotBuilt: return "ModelNotBuilt";
    case C::DivideByZero: return "DivideByZero";
    case C::GEFMatrixEmpty: return "GEFMatrixEmpty";
    case C::LMatrixEmpty: return "LMatrixEmpty";
    case C::OneCategCompareFactor: return "OneCategCompareFactor";
    case C::PolynShortMetric: return "PolynShortMetric";
    case C::PolynLongMetric: return "PolynLongMetric";
    case C::InvalidContrastCateg: return "InvalidContrastCateg";
    case C::InvalidEmmeansIndex: return "InvalidEmmeansIndex";
    case C::InvalidEmmeansTestIndex: return "InvalidEmmeansTestIndex";
    case C::OneCategCompareCombination: return "OneCategCompareCombination";
    case C::HiRefCatDifferent: return "HiRefCatDifferent";
    case C::IncompleteCompareFactor: return "IncompleteCompareFactor";
    case C::CompleteSeparation: return "CompleteSeparation";
    case C::QuasiCompleteSeparation: return "QuasiCompleteSeparation";
    case C::NoScoreSettings: return "NoScoreSettings";
    case C::InvalidScoreType: return "InvalidScoreType";
    case C::ScoringFailed: return "ScoringFailed";
    case C::LoopIterLargeMaxIter: return "LoopIterLargeMaxIter";
    case C::InvalidRecords: return "InvalidRecords";
    case C::CasesWithSameSubjWS: return "CasesWithSameSubjWS";
    case C::DegreeFreedomIsZero: return "DegreeFreedomIsZero";
    case C::DevianceChiSquareIsZero: return "DevianceChiSquareIsZero";
    case C::PearsonChiSquareIsZero: return "PearsonChiSquareIsZero";
    case C::CorrFixedNumberMismatch: return "CorrFixedNumberMismatch";
    case C::CorrFixedNumberOutRange: return "CorrFixedNumberOutRange";
    case C::InvalidCovarianceMatrix: return "InvalidCovarianceMatrix";
    case C::NoMetadataForVar: return "NoMetadataForVar";
    case C::NoFactorCategs: return "NoFactorCategs";
    case C::DeviancePearsonConstLikelihoodMissing: return "DeviancePearsonConstLikelihoodMissing";
    case C::LogLikelihoodCovarianceNotSucceed: return "LogLikelihoodCovarianceNotSucceed";
    case C::InitialParameterNumberInvalid: return "InitialParameterNumberInvalid";
    case C::SingularHessian: return "SingularHessian";
    case C::HessianNotPositiveDefinite: return "HessianNotPositiveDefinite";
    case C::InvalidRecordsForLinkFunction: return "InvalidRecordsForLinkFunction";
    case C::AllInvalidRecordsForLinkFunction: return "AllInvalidRecordsForLinkFunction";
    case C::ScaleIsZero: return "ScaleIsZero";
    case C::PerfectFit: return "PerfectFit";
    case C::OmnibusStatNegative: return "OmnibusStatNegative";
    case C::CasesWithDiffFW: return "CasesWithDiffFW";
    case C::CaseWithUnusedCategory: return "CaseWithUnusedCategory";
    case C::InvalidRecordsOverflow: return "InvalidRecordsOverflow";
    case C::ComputeInitialStepSize: return "ComputeInitialStepSize";
    case C::ScaleAndKBothMle: return "ScaleAndKBothMle";
    case C::KIsZero: return "KIsZero";
    case C::LMatrixNotExist: return "LMatrixNotExist";
    case C::LRStatisticProblem: return "LRStatisticProblem";
    case C::NoValidLRTests: return "NoValidLRTests";
    case C::NoValidPLCIStats: return "NoValidPLCIStats";
    case C::NewPass: return "NewPass";
    case C::PostEstimation: return "PostEstimation";
    case C::OutputFileError: return "OutputFileError";
    case C::InternalError: return "InternalError";
    // 130050, 130088 and 130095 are raised but deliberately have no name.
    default: return "Unrecognized error code";
  }
}

void DisplayStatus(std::string label, const TQStatus& status) {
  TQDisplay_940::DisplayText(1, label);
  StatusLines(status);
}

void DisplayVStatus(std::string label, const std::vector<TQStatus>& statuses) {
  TQDisplay_940::DisplayText(1, SizeHeader(label, statuses.size()));
  for (std::size_t i = 0; i < statuses.size(); ++i) {
    TQDisplay_940::DisplayText(1, "");
    TQDisplay_940::DisplayI("index", static_cast<int>(i));
    StatusLines(statuses[i]);
  }
}

void DisplayVCrit(std::string label, const std::vector<GZLConst_940::StoppingCriteria>& criteria) {
  TQDisplay_940::DisplayText(1, SizeHeader(label, criteria.size()));
  for (std::size_t i = 0; i < criteria.size(); ++i) {
    TQDisplay_940::DisplayText(1, "");
    TQDisplay_940::DisplayI("index", static_cast<int>(i));
    DisplayC("Stopping criterion", criteria[i]);
  }
}

void DisplayVResults(std::string label, const std::vector<std::vector<double>>& results) {
  TQDisplay_940::DisplayText(1, SizeHeader(label, results.size()));
  for (std::size_t i = 0; i < results.size(); ++i) {
    TQDisplay_940::DisplayText(1, "");
    TQDisplay_940::DisplayI("index", static_cast<int>(i));
    TQDisplay_940::DisplayDV("vResults", results[i], false);
  }
}

}  // namespace GZLComponentDisplay_940
