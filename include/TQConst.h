#pragma once
// Enumerations shared with the regression support layer. Values are part of the interface.
#include <cstdint>

namespace TQConst {

enum DistType : int32_t {
  DistNormal = 0,
  DistBinomial = 1,
  DistGamma = 2,
  DistInvGaussian = 3,
  DistNegBinomial = 4,
  DistPoisson = 5,
  DistOrdinalMultinomial = 6,
  DistTweedie = 7,
  DistNominalMultinomial = 8
};

enum LinkType : int32_t {
  LinkCLogLog = 0,
  LinkIdentity = 1,
  LinkLog = 2,
  LinkLogC = 3,
  LinkLogit = 4,
  LinkNegBinomial = 5,
  LinkNLogLog = 6,
  LinkOddsPower = 7,
  LinkPower = 8,
  LinkProbit = 9,
  LinkCumCauchit = 10,
  LinkCumCLogLog = 11,
  LinkCumLogit = 12,
  LinkCumNLogLog = 13,
  LinkCumProbit = 14,
  LinkCumDefault = 15  // only CheckDistLink gives it a meaning (cumulative logit)
};

enum TQDependentType : int32_t {
  DependentNone = 0,
  DependentSingle = 1,
  DependentEventsTrials = 2,
  DependentEventsConstTrials = 3
};

enum TQOffsetType : int32_t { OffsetNone = 0, OffsetVariable = 1, OffsetValue = 2 };

enum TQRegModelType : int32_t { RegModelOther = 0, RegModelBinaryOrNominal = 1, RegModelOrdinal = 2 };

enum TQEffectAnalysisType : int32_t { EffectTypeI = 0, EffectTypeIII = 1, EffectTypeIAndIII = 2, EffectNone = 3 };

enum TQConvType : int32_t { ConvAbsolute = 1, ConvRelative = 2 };

// 2 Newton-Raphson, 3 hybrid; every other value (the default 1 included) is Fisher scoring.
enum TQHessianCompMethod : int32_t { HessianFisher = 1, HessianNewtonRaphson = 2, HessianHybrid = 3 };

enum TQCovbType : int32_t { CovbModelBased = 0, CovbRobust = 1 };

// Passed through to the tests of effects and the marginal means. Test types 0 and 1 use t
// quantiles, 2 and 3 normal quantiles.
enum TQTestType : int32_t { TestType0 = 0, TestType1 = 1, TestType2 = 2, TestType3 = 3 };
enum TQPAdjustMethod : int32_t {
  PAdjNone = 0,
  PAdjBonferroni = 1,
  PAdjSeqBonferroni = 2,
  PAdjSidak = 3,
  PAdjSeqSidak = 4
};
enum TQContrastType : int32_t {
  ContrastSimple = 0,
  ContrastDeviation = 1,
  ContrastHelmert = 2,
  ContrastDifference = 3,
  ContrastRepeated = 4,
  ContrastPolynomial = 5,
  ContrastPairwise = 6,
  ContrastNone = 7
};
// 0: the response (mean) scale; 1: the scale of the linear predictor.
enum TQEmmScaleType : int32_t { EmmScaleOriginal = 0, EmmScaleTransformed = 1 };

}  // namespace TQConst
