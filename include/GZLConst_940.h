#pragma once
// The library's enumerations and status codes. All values are plain 32-bit integers that hosts
// store and pass around: the numbers are part of the interface and must never change.
#include <cstdint>

namespace GZLConst_940 {

enum ModelType : int32_t { GZLM = 0, GEE = 1, GZLMMM = 2 };

enum DistParam : int32_t { DistParamMLE = 0, DistParamFixed = 1 };

enum ScaleMethod : int32_t { ScaleMLE = 0, ScaleDeviance = 1, ScalePearson = 2, ScaleFixed = 3 };

enum CIType : int32_t { Wald = 0, Profile = 1 };

enum CorrType : int32_t {
  Independent = 0,
  AR1 = 1,
  Exchangeable = 2,
  FixedCorr = 3,
  MDependent = 4,
  Unstructured = 5
};

enum EffectAnalysisStat : int32_t { EffectStatWald = 0, EffectStatLR = 1, EffectStatNone = 2 };

enum LLType : int32_t { LLFull = 0, LLKernel = 1 };

// Owned by the mixed-model host; the library only stores and copies it.
using ThetaEstTypeGZLMMM = int32_t;

enum StoppingCriteria : int32_t {
  NoCriterionSatisfied = 0,
  AllConverged = 1,
  StepHalvingExhausted = 2,
  ConvergedHessianNotPD = 3,
  UnexpectedSingularity = 4,
  ScaleParamSingularity = 5,
  PerfectFit = 6,
  MaxIterationsReached = 7,
  CompleteSeparation = 8,
  QuasiCompleteSeparation = 9,
  NoIterations = 10,
  HessianCriterionUnmet = 11
};

}  // namespace GZLConst_940

// Status codes carried in a TQStatus. 0 is success and 1 is cancellation by the host.
namespace GZLStatusCode {
enum : int32_t {
  NoError = 0,
  Cancelled = 1,
  NoValidTrainRecords = 130002,
  InvalidSettings = 130009,
  InvalidCatValue = 130010,
  NoValidRecords = 130011,
  CantBuildModel = 130018,
  StepHalvingProblem = 130024,
  InitialValueFailed = 130025,
  ModelNotBuilt = 130027,
  DivideByZero = 130028,
  GEFMatrixEmpty = 130030,
  LMatrixEmpty = 130032,
  OneCategCompareFactor = 130035,
  PolynShortMetric = 130036,
  PolynLongMetric = 130037,
  InvalidContrastCateg = 130038,
  InvalidEmmeansIndex = 130039,
  InvalidEmmeansTestIndex = 130040,
  OneCategCompareCombination = 130041,
  HiRefCatDifferent = 130042,
  IncompleteCompareFactor = 130043,
  CompleteSeparation = 130044,
  QuasiCompleteSeparation = 130045,
  NoScoreSettings = 130046,
  InvalidScoreType = 130047,
  ScoringFailed = 130048,
  RobustCovarianceFailed = 130050,  // raised, but deliberately without a display name
  LoopIterLargeMaxIter = 130051,
  InvalidRecords = 130053,
  CasesWithSameSubjWS = 130054,
  DegreeFreedomIsZero = 130056,
  DevianceChiSquareIsZero = 130057,
  PearsonChiSquareIsZero = 130058,
  CorrFixedNumberMismatch = 130059,
  CorrFixedNumberOutRange = 130060,
  InvalidCovarianceMatrix = 130061,
  NoMetadataForVar = 130062,
  NoFactorCategs = 130063,
  DeviancePearsonConstLikelihoodMissing = 130064,
  LogLikelihoodCovarianceNotSucceed = 130065,
  InitialParameterNumberInvalid = 130066,
  SingularHessian = 130069,
  HessianNotPositiveDefinite = 130070,
  InvalidRecordsForLinkFunction = 130072,
  AllInvalidRecordsForLinkFunction = 130073,
  ScaleIsZero = 130074,
  PerfectFit = 130075,
  OmnibusStatNegative = 130076,
  CasesWithDiffFW = 130077,
  CaseWithUnusedCategory = 130078,
  InvalidRecordsOverflow = 130079,
  ComputeInitialStepSize = 130080,
  ScaleAndKBothMle = 130081,
  KIsZero = 130082,
  LMatrixNotExist = 130083,
  LRStatisticProblem = 130085,
  NoValidLRTests = 130086,
  NoValidPLCIStats = 130087,
  HessianCriterionUnmet = 130088,  // raised, but deliberately without a display name
  NewPass = 130089,
  PostEstimation = 130090,
  OutputFileError = 130093,
  InternalError = 130094,
  AICCNotComputable = 130095  // raised, but deliberately without a display name
};
}  // namespace GZLStatusCode
