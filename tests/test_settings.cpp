#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <vector>

#include "GZLSettings.h"
#include "support/TQDisplay_940.h"

using namespace TQConst;
namespace G = GZLConst_940;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A minimal valid model: normal response at field 0.
GZLSettings Normal() {
  GZLSettings s;
  s.SetDependent(0);
  return s;
}

struct Listener : ProgressListener {
  void OnProgress(const ProgressReport&) override {}
};
struct Cancel : TQQueryCancel {
  bool IsCancelled() override { return false; }
};

}  // namespace

TEST(Settings, ConstructorDefaults) {
  GZLSettings s;
  EXPECT_FALSE(s.GetInterceptUse());
  EXPECT_EQ(s.GetDependentNCategs(), 0);
  EXPECT_EQ(s.GetDependentRefCateg(), 0);
  EXPECT_EQ(s.GetLLConCriterion(), 1e-6);
  EXPECT_EQ(s.GetDependent(), -1);
  EXPECT_EQ(s.GetDependentType(), DependentNone);
  EXPECT_EQ(s.GetTrials(), -1);
  EXPECT_TRUE(TQMV::IsMissing(s.GetTrialsValue()));
  EXPECT_EQ(s.GetOffsetType(), OffsetNone);
  EXPECT_EQ(s.GetDistType(), DistNormal);
  EXPECT_EQ(s.GetLinkType(), LinkIdentity);
  EXPECT_EQ(s.GetDistParamType(), G::DistParamFixed);
  EXPECT_TRUE(TQMV::IsMissing(s.GetDistParam()));
  EXPECT_TRUE(TQMV::IsMissing(s.GetLinkParam()));
  EXPECT_EQ(s.GetScaleType(), G::ScaleMLE);
  EXPECT_EQ(s.GetScaleValue(), 1.0);
  EXPECT_EQ(s.GetCSIteration(), 0);
  EXPECT_EQ(s.GetFNIteration(), 1);
  EXPECT_EQ(s.GetToleranceHessian(), 1e-6);
  EXPECT_EQ(s.GetEffectAnalysisType(), EffectNone);
  EXPECT_EQ(s.GetEffectAnalysisStat(), G::EffectStatNone);
  EXPECT_TRUE(s.IsSorted());
  EXPECT_TRUE(s.IsAdjustCorr());
  EXPECT_EQ(s.GetGEECovbType(), CovbRobust);
  EXPECT_EQ(s.GetGEEHConverge(), 0.0);
  EXPECT_EQ(s.GetGEEPConverge(), 1e-6);
  EXPECT_EQ(s.GetGEEMaxIterations(), 100);
  EXPECT_EQ(s.GetUpdateCorr(), 1);
  EXPECT_EQ(s.GetCIConvProfile(), 1e-4);
  EXPECT_EQ(s.GetThetaEstTypeGZLMMM(), 1);
  EXPECT_EQ(s.GetMaxStepHalvingValue(), 5);
  EXPECT_EQ(s.GetMaxIterations(), 100);
  EXPECT_EQ(s.GetConfidenceLevel(), 0.95);
  EXPECT_EQ(s.GetTolerance(), 1e-12);
  EXPECT_TRUE(s.IsModelGZLM());
  EXPECT_EQ(s.GetCancelPointer(), nullptr);
  EXPECT_EQ(s.GetMaxIndex(), -1);
  EXPECT_TRUE(s.IsEmptyModel());
  EXPECT_FALSE(s.IsValid());  // no dependent
  EXPECT_TRUE(Normal().IsValid());
}

TEST(Settings, ResponseSetters) {
  GZLSettings s;
  s.SetDistType(DistBinomial);
  ASSERT_TRUE(s.SetDependent(3));
  EXPECT_EQ(s.GetDependentType(), DependentSingle);
  EXPECT_EQ(s.GetEvents(), -1);
  EXPECT_TRUE(s.IsSingleDependentForBinomial());
  EXPECT_EQ(s.GetDependentSize(), 2);
  EXPECT_EQ(s.GetModelType(), RegModelBinaryOrNominal);

  // The current dependent can be named neither as events nor as trials.
  EXPECT_FALSE(s.SetEventsTrials(3, 4));
  EXPECT_FALSE(s.SetEventsTrials(5, 3));
  EXPECT_FALSE(s.SetEventsTrials(-1, 4));
  EXPECT_FALSE(s.SetEventsTrials(5, 5));
  EXPECT_EQ(s.GetDependent(), 3);
  EXPECT_EQ(s.GetDependentType(), DependentSingle);

  ASSERT_TRUE(s.SetEventsTrials(5, 6));
  EXPECT_EQ(s.GetDependent(), 5);
  EXPECT_EQ(s.GetEvents(), 5);
  EXPECT_EQ(s.GetTrials(), 6);
  EXPECT_EQ(s.GetDependentType(), DependentEventsTrials);
  EXPECT_EQ(s.GetVariableRole(3), 0);  // the old dependent is released
  EXPECT_EQ(s.GetVariableRole(6), 7);
  EXPECT_EQ(s.GetMaxIndex(), 6);
  EXPECT_TRUE(s.IsEventsTrialsForBinomial());
  EXPECT_EQ(s.GetModelType(), RegModelOther);
  EXPECT_EQ(s.GetDependentSize(), 0);
  EXPECT_TRUE(s.HasVariable(6));
  EXPECT_FALSE(s.HasVariable(3));
  EXPECT_FALSE(s.HasVariable(100));

  // Constant trials: a missing, zero, negative or NaN count is refused.
  EXPECT_FALSE(s.SetEventsConstTrials(7, 0.0));
  EXPECT_FALSE(s.SetEventsConstTrials(7, -2.0));
  EXPECT_FALSE(s.SetEventsConstTrials(7, TQMV::Missing));
  EXPECT_FALSE(s.SetEventsConstTrials(7, kNaN));
  EXPECT_FALSE(s.SetEventsConstTrials(6, 1.0));  // the trials field has a role
  EXPECT_EQ(s.GetDependentType(), DependentEventsTrials);
  ASSERT_TRUE(s.SetEventsConstTrials(7, 1.0));
  EXPECT_EQ(s.GetEvents(), 7);
  EXPECT_EQ(s.GetTrials(), -1);
  EXPECT_EQ(s.GetTrialsValue(), 1.0);
  EXPECT_EQ(s.GetDependentType(), DependentEventsConstTrials);
  EXPECT_TRUE(s.IsValidVariables());

  // Events and trials are for the binomial only.
  s.SetDistType(DistPoisson);
  EXPECT_FALSE(s.IsValidVariables());
  ASSERT_TRUE(s.SetDependent(7));
  EXPECT_EQ(s.GetDependentType(), DependentSingle);
  EXPECT_TRUE(TQMV::IsMissing(s.GetTrialsValue()));
  EXPECT_TRUE(s.IsValidVariables());

  // A subject variable (role 8) may serve as events.
  GZLSettings g;
  g.SetDistType(DistBinomial);
  ASSERT_TRUE(g.AddGEESubjectVar(2, 10));
  EXPECT_TRUE(g.SetEventsConstTrials(2, 5.0));

  EXPECT_FALSE(s.SetDependentRefCateg(-2));
  EXPECT_TRUE(s.SetDependentRefCateg(-1));
  EXPECT_EQ(s.GetDependentRefCateg(), -1);
}

TEST(Settings, DependentCategoryAndModelType) {
  GZLSettings s;
  s.SetDistType(DistBinomial);
  s.SetDependent(0);
  EXPECT_EQ(s.CheckDepCategory(1.0), 1.0);  // reference category 0: event value 1
  EXPECT_EQ(s.CheckDepCategory(0.0), 0.0);
  s.SetDependentRefCateg(1);
  EXPECT_EQ(s.CheckDepCategory(1.0), 0.0);
  EXPECT_EQ(s.CheckDepCategory(0.0), 1.0);

  s.SetDistType(DistOrdinalMultinomial);
  s.SetDependentSize(3);
  EXPECT_EQ(s.GetDependentSize(), 3);
  EXPECT_EQ(s.GetModelType(), RegModelOrdinal);
  EXPECT_EQ(s.CheckDepCategory(0.0), 1.0);
  EXPECT_EQ(s.CheckDepCategory(2.9), 1.0);
  EXPECT_EQ(s.CheckDepCategory(3.0), 0.0);
  EXPECT_EQ(s.CheckDepCategory(-0.5), 0.0);
  s.SetDistType(DistNominalMultinomial);
  EXPECT_EQ(s.GetModelType(), RegModelBinaryOrNominal);

  s.SetDistType(DistGamma);
  EXPECT_EQ(s.CheckDepCategory(4.25), 4.25);
  EXPECT_EQ(s.GetDependentSize(), 0);
  EXPECT_EQ(s.GetModelType(), RegModelOther);
}

TEST(Settings, OffsetAndRoles) {
  GZLSettings s = Normal();
  EXPECT_FALSE(s.SetOffsetValue(TQMV::Missing));
  ASSERT_TRUE(s.SetOffsetValue(0.5));
  EXPECT_EQ(s.GetOffsetType(), OffsetValue);
  EXPECT_FALSE(s.SetOffset(0));  // the dependent
  EXPECT_FALSE(s.SetOffset(-1));
  ASSERT_TRUE(s.SetOffset(4));
  EXPECT_EQ(s.GetOffsetType(), OffsetVariable);
  EXPECT_TRUE(TQMV::IsMissing(s.GetOffsetValue()));
  EXPECT_EQ(s.GetVariableRole(4), 6);
  EXPECT_FALSE(s.SetOffsetValue(1.0));  // no fixed offset once a variable was given
  ASSERT_TRUE(s.SetOffset(5));
  EXPECT_EQ(s.GetOffset(), 5);
  EXPECT_EQ(s.GetVariableRole(4), 6);  // the previous one keeps its role

  // Factors, covariates and weights cannot share a field.
  EXPECT_TRUE(s.AddFactor(1, 3));
  EXPECT_FALSE(s.AddFactor(1, 3));
  EXPECT_FALSE(s.AddCovariate(1));
  EXPECT_FALSE(s.AddFactor(2, 0));
  EXPECT_TRUE(s.AddCovariate(2));
  EXPECT_FALSE(s.SetFrequencyWeightVar(2));
  EXPECT_TRUE(s.SetFrequencyWeightVar(8));
  EXPECT_TRUE(s.SetRegrWeightVar(9));
  EXPECT_TRUE(s.SetFrequencyWeightVar(-1));
  EXPECT_EQ(s.GetVariableRole(8), 0);
  EXPECT_EQ(s.GetFrequencyWeightVar(), -1);
}

TEST(Settings, GEEStructure) {
  GZLSettings s = Normal();
  s.SetGZLModelType(G::GEE);
  EXPECT_TRUE(s.IsModelGEE());
  EXPECT_FALSE(s.IsValid());  // a GEE model needs a subject
  EXPECT_FALSE(s.AddGEESubjectVar(-1, 4));
  EXPECT_FALSE(s.AddGEESubjectVar(3, 0));
  ASSERT_TRUE(s.AddGEESubjectVar(3, 20));
  EXPECT_FALSE(s.AddGEESubjectVar(3, 20));
  EXPECT_FALSE(s.AddGEEWSVar(3, 4));  // already a grouping variable
  ASSERT_TRUE(s.AddGEEWSVar(4, 5));
  EXPECT_TRUE(s.IsValid());
  EXPECT_TRUE(s.HasSubjectVar(3));
  EXPECT_TRUE(s.HasSubjectVar(4));  // role 8 covers within-subject variables too
  EXPECT_TRUE(s.HasWSVar(4));
  EXPECT_FALSE(s.HasWSVar(3));
  EXPECT_FALSE(s.HasVariable(3));
  EXPECT_EQ(s.GetNumGEESubjectVars(), 1);
  EXPECT_EQ(s.GetGEEWSVarSizes(), std::vector<int>{5});

  // A grouping variable overwrites another role.
  ASSERT_TRUE(s.AddCovariate(6));
  ASSERT_TRUE(s.AddGEESubjectVar(6, 2));
  EXPECT_EQ(s.GetVariableRole(6), 8);
}

TEST(Settings, DistributionParameterAndNegativeBinomial) {
  GZLSettings s = Normal();
  EXPECT_FALSE(s.SetDistParam(1.5));  // no parameter for the normal
  s.SetDistType(DistTweedie);
  EXPECT_FALSE(s.SetDistParam(1.0));
  EXPECT_FALSE(s.SetDistParam(2.0));
  EXPECT_FALSE(s.SetDistParam(kNaN));
  EXPECT_TRUE(s.SetDistParam(1.5));
  EXPECT_EQ(s.GetDistParam(), 1.5);

  GZLSettings nb = Normal();
  nb.SetDistType(DistNegBinomial);
  EXPECT_EQ(nb.GetDistParam(), 1.0);  // k defaults to 1 when missing
  EXPECT_TRUE(TQMV::IsMissing(nb.GetLinkParam()));
  nb.SetLinkType(LinkNegBinomial);
  EXPECT_EQ(nb.GetLinkParam(), 1.0);
  EXPECT_FALSE(nb.SetDistParam(0.0));
  EXPECT_TRUE(nb.SetDistParam(2.5));
  EXPECT_EQ(nb.GetLinkParam(), 2.5);
  EXPECT_TRUE(nb.IsValidDistLink());
  nb.SetLinkParam(0.0);
  EXPECT_FALSE(nb.IsValidDistLink());  // k exactly 0
  nb.SetLinkParam(TQMV::Missing);
  EXPECT_TRUE(nb.IsValidDistLink());  // a missing k passes
  // A k given before the distribution is kept.
  GZLSettings nb2 = Normal();
  nb2.SetLinkType(LinkNegBinomial);
  nb2.SetDistType(DistNegBinomial);
  EXPECT_EQ(nb2.GetLinkParam(), 1.0);
  nb2.SetNegBin0(true);
  EXPECT_TRUE(nb2.IsNegBin0());
}

TEST(Settings, DistLinkTable) {
  // Independent statement of the compatibility rules, per link, for the non-multinomial
  // distributions: 'a' always, 'b' binomial only, 'n' negative binomial only, '-' never.
  const char* const kRule = "baabbnbbab-----";  // links 0..14
  for (int d = 0; d <= 8; ++d) {
    for (int l = 0; l <= 17; ++l) {
      GZLSettings s = Normal();
      s.SetDistType(static_cast<DistType>(d));
      s.SetLinkType(static_cast<LinkType>(l));
      bool expected;
      if (d == DistOrdinalMultinomial)
        expected = l >= 10 && l <= 14;
      else if (d == DistNominalMultinomial)
        expected = true;
      else if (l > 14)
        expected = true;
      else
        switch (kRule[l]) {
          case 'a': expected = true; break;
          case 'b': expected = d == DistBinomial; break;
          case 'n': expected = d == DistNegBinomial; break;
          default: expected = false;
        }
      EXPECT_EQ(s.IsValidDistLink(), expected) << "dist " << d << " link " << l;
    }
  }
}

TEST(Settings, CheckDistLinkRepairsOrdinalLinks) {
  const std::pair<LinkType, LinkType> repairs[] = {{LinkCLogLog, LinkCumCLogLog},
                                                   {LinkLogit, LinkCumLogit},
                                                   {LinkNLogLog, LinkCumNLogLog},
                                                   {LinkProbit, LinkCumProbit},
                                                   {LinkCumDefault, LinkCumLogit}};
  for (const auto& [from, to] : repairs) {
    GZLSettings s = Normal();
    s.SetDistType(DistOrdinalMultinomial);
    s.SetScaleType(G::ScaleFixed);
    s.SetLinkType(from);
    EXPECT_FALSE(s.IsValidDistLink());
    EXPECT_FALSE(s.IsValid());
    EXPECT_TRUE(s.CheckDistLink());
    EXPECT_EQ(s.GetLinkType(), to);
    EXPECT_TRUE(s.IsValid());
  }
  GZLSettings s = Normal();
  s.SetDistType(DistOrdinalMultinomial);
  s.SetLinkType(LinkLog);
  EXPECT_FALSE(s.CheckDistLink());
  EXPECT_EQ(s.GetLinkType(), LinkLog);
  // Nothing to repair outside the ordinal model; a valid pair is simply accepted.
  GZLSettings p = Normal();
  p.SetLinkType(LinkLogit);
  EXPECT_FALSE(p.CheckDistLink());
  EXPECT_EQ(p.GetLinkType(), LinkLogit);
  p.SetLinkType(LinkLog);
  EXPECT_TRUE(p.CheckDistLink());
}

TEST(Settings, CanonicalLinks) {
  auto canonical = [](DistType d, LinkType l, double linkParam, double distParam = TQMV::Missing) {
    GZLSettings s;
    s.SetDistType(d);
    if (!TQMV::IsMissing(distParam)) s.SetDistParam(distParam);
    s.SetLinkType(l);
    s.SetLinkParam(linkParam);
    return s.IsCanonicalLink();
  };
  const double M = TQMV::Missing;
  EXPECT_TRUE(canonical(DistNormal, LinkIdentity, M));
  EXPECT_TRUE(canonical(DistNormal, LinkPower, 1.0));
  EXPECT_FALSE(canonical(DistNormal, LinkPower, M));
  EXPECT_FALSE(canonical(DistNormal, LinkLog, M));
  EXPECT_TRUE(canonical(DistBinomial, LinkLogit, M));
  EXPECT_FALSE(canonical(DistBinomial, LinkProbit, M));
  EXPECT_TRUE(canonical(DistGamma, LinkPower, -1.0));
  EXPECT_FALSE(canonical(DistGamma, LinkPower, -2.0));
  EXPECT_TRUE(canonical(DistInvGaussian, LinkPower, -2.0));
  EXPECT_TRUE(canonical(DistPoisson, LinkLog, M));
  EXPECT_FALSE(canonical(DistPoisson, LinkIdentity, M));
  EXPECT_TRUE(canonical(DistTweedie, LinkPower, 1.0 - 1.5, 1.5));
  EXPECT_FALSE(canonical(DistTweedie, LinkPower, -0.4, 1.5));
  EXPECT_TRUE(canonical(DistOrdinalMultinomial, LinkCumLogit, M));
  EXPECT_FALSE(canonical(DistOrdinalMultinomial, LinkCumProbit, M));
  EXPECT_TRUE(canonical(DistNominalMultinomial, LinkProbit, M));
  GZLSettings nb;
  nb.SetDistType(DistNegBinomial);
  nb.SetLinkType(LinkNegBinomial);
  EXPECT_TRUE(nb.IsCanonicalLink());
}

TEST(Settings, ScaleToleranceAndIterationRules) {
  // The ML scale only for normal, gamma, inverse Gaussian and Tweedie.
  for (int d = 0; d <= 8; ++d) {
    GZLSettings s;
    s.SetDistType(static_cast<DistType>(d));
    s.SetDependent(0);
    s.SetLinkType(d == DistOrdinalMultinomial ? LinkCumLogit : LinkLog);
    const bool mleAllowed = d == DistNormal || d == DistGamma || d == DistInvGaussian || d == DistTweedie;
    EXPECT_EQ(s.IsValidScaleType(), mleAllowed) << d;
    EXPECT_EQ(s.IsValid(), mleAllowed) << d;
    s.SetScaleType(G::ScalePearson);
    EXPECT_TRUE(s.IsValidScaleType());
    EXPECT_TRUE(s.IsValid()) << d;
  }

  GZLSettings t = Normal();
  ASSERT_TRUE(t.SetLLConCriterion(0.0));
  ASSERT_TRUE(t.SetParamEstConCriterion(0.0));
  ASSERT_TRUE(t.SetToleranceHessian(0.0));
  EXPECT_FALSE(t.IsValidTolerance());
  EXPECT_FALSE(t.IsValid());
  EXPECT_EQ(t.IsValidSettings(false).GetErrorCode(), GZLStatusCode::InvalidSettings);
  ASSERT_TRUE(t.SetToleranceHessian(1e-8));
  EXPECT_TRUE(t.IsValidTolerance());
  EXPECT_TRUE(t.IsValid());
  EXPECT_TRUE(t.IsValidSettings(true).IsOK());
  EXPECT_FALSE(t.SetLLConCriterion(-1e-6));
  EXPECT_FALSE(t.SetParamEstConCriterion(kNaN));

  GZLSettings h = Normal();
  ASSERT_TRUE(h.SetMaxStepHalvingValue(0));
  EXPECT_FALSE(h.IsValidIterations());
  EXPECT_FALSE(h.IsValid());
  EXPECT_TRUE(h.IsValidTolerance());
  h.SetMaxStepHalvingValue(1);
  EXPECT_TRUE(h.IsValid());

  // The base check runs first: no dependent at all is refused there.
  GZLSettings none;
  EXPECT_TRUE(none.IsValidSettings(true).IsError());
  EXPECT_EQ(none.IsValidSettings(false).GetErrorCode(), GZLStatusCode::InvalidSettings);
}

TEST(Settings, RefusedControlValues) {
  GZLSettings s;
  EXPECT_FALSE(s.SetScaleValue(0.0));
  EXPECT_FALSE(s.SetScaleValue(-1.0));
  EXPECT_FALSE(s.SetScaleValue(kNaN));
  EXPECT_TRUE(s.SetScaleValue(2.0));
  EXPECT_TRUE(s.SetToleranceHessian(0.0));
  EXPECT_FALSE(s.SetToleranceHessian(-1.0));
  EXPECT_FALSE(s.SetCSIteration(0));  // although 0 is the default
  EXPECT_TRUE(s.SetCSIteration(3));
  EXPECT_FALSE(s.SetFNIteration(0));
  EXPECT_EQ(s.GetFNIteration(), 1);
  EXPECT_FALSE(s.SetNSkippedReports(-1));
  EXPECT_TRUE(s.SetNSkippedReports(0));
  EXPECT_FALSE(s.SetGEEHConverge(-1e-3));
  EXPECT_FALSE(s.SetGEEPConverge(-1e-3));
  EXPECT_FALSE(s.SetGEEMaxIterations(-1));
  EXPECT_TRUE(s.SetGEEMaxIterations(0));
  EXPECT_FALSE(s.SetUpdateCorr(-1));
  EXPECT_FALSE(s.SetCIConvProfile(-1.0));
  EXPECT_FALSE(s.SetMaxIterationsPLCI(-1));
  EXPECT_FALSE(s.SetToleranceLogLikePLCI(-1.0));
  EXPECT_FALSE(s.SetToleranceHessianPLCI(-1.0));
  EXPECT_FALSE(s.SetMaxIterationsSQP(-1));
  EXPECT_FALSE(s.SetToleranceLogLikeSQP(-1.0));
  EXPECT_FALSE(s.SetToleranceParamSQP(-1.0));
  EXPECT_FALSE(s.SetToleranceHessianSQP(-1.0));
  EXPECT_FALSE(s.SetTolLogLikeTypeIandIII(-1.0));
  EXPECT_FALSE(s.SetConfidenceLevel(95.0));  // a fraction
  EXPECT_TRUE(s.SetConfidenceLevel(0.9));
  // Refused values leave the defaults in place.
  EXPECT_EQ(s.GetScaleValue(), 2.0);
  EXPECT_EQ(s.GetCSIteration(), 3);
  EXPECT_EQ(s.GetGEEPConverge(), 1e-6);
  EXPECT_EQ(s.GetCIConvProfile(), 1e-4);
  EXPECT_EQ(s.GetToleranceParamSQP(), 1e-4);
  EXPECT_EQ(s.GetConfidenceLevel(), 0.9);
}

TEST(Settings, EffectsAndIntercept) {
  GZLSettings s = Normal();
  EXPECT_TRUE(s.IsEmptyModel());
  s.SetInterceptUse(true);
  EXPECT_FALSE(s.IsEmptyModel());  // the intercept alone is a model

  const std::vector<int> vars = {5, 6, 7, 8};  // factors 5, 6; covariates 7, 8
  GZLModelEffect a(2, 2, &vars), ba(2, 2, &vars), x(2, 2, &vars);
  a.AddNewFactor(5, false);
  ba.AddNewFactor(6, false);
  ba.AddNewFactor(5, false);
  ba.AddCovariate(8);
  x.AddCovariate(7);

  // Factor 5 is not registered yet: refused, nothing changes.
  EXPECT_FALSE(s.AddModelEffect(a));
  EXPECT_EQ(s.GetNumOfModelEffects(), 0);
  ASSERT_TRUE(s.AddFactor(5, 3));
  ASSERT_TRUE(s.AddFactor(6, 4));
  ASSERT_TRUE(s.AddCovariate(7));
  ASSERT_TRUE(s.AddCovariate(8));
  EXPECT_TRUE(s.AddModelEffect(x));
  EXPECT_TRUE(s.AddModelEffect(ba));
  EXPECT_TRUE(s.AddModelEffect(a));
  EXPECT_EQ(s.GetNumOfModelEffects(), 3);
  EXPECT_EQ(s.GetNumOfFactors(), 2);
  EXPECT_EQ(s.GetNumOfCovariates(), 2);
  // Effect factors in order of first use (within an effect, model-factor order).
  EXPECT_EQ(s.GetEffectFactors(), (std::vector<int>{5, 6}));
  EXPECT_EQ(s.GetEffectFactorSizes(), (std::vector<int>{3, 4}));
  EXPECT_EQ(s.GetEffectCovariates(), (std::vector<int>{7, 8}));
  EXPECT_EQ(s.GetNumOfEffectFactors(), 2);
  EXPECT_EQ(s.GetNumOfEffectCovariates(), 2);
  EXPECT_TRUE(s.GetModelEffects()[1] == ba);
  EXPECT_TRUE(s.IsValidModelEffects());

  // An effect naming a field without a role still leaves the settings valid.
  const std::vector<int> stray = {30};
  GZLModelEffect c(0, 1, &stray);
  c.AddCovariate(30);
  EXPECT_TRUE(s.AddModelEffect(c));
  EXPECT_TRUE(s.IsValid());
}

TEST(Settings, CopyForTheInterceptOnlyModel) {
  const std::vector<int> vars = {1, 2};
  GZLSettings s;
  s.SetDistType(DistGamma);
  s.SetLinkType(LinkLog);
  s.SetDependent(0);
  s.AddFactor(1, 3);
  s.AddCovariate(2);
  GZLModelEffect f(1, 1, &vars), x(1, 1, &vars);
  f.AddNewFactor(1, false);
  x.AddCovariate(2);
  s.AddModelEffect(f);
  s.AddModelEffect(x);
  s.SetInterceptUse(true);
  s.SetInitParams({0.5, 1.0, 2.0, -1.0, 0.25});  // intercept, 3 levels, covariate... scale last
  Listener listener;
  Cancel cancel;
  s.SetIterProgressListener(&listener);
  s.SetCancelPointer(&cancel);

  // A plain copy keeps everything, pointers shared.
  GZLSettings full;
  full.Copy(s, false);
  EXPECT_EQ(full.GetInitParams(), s.GetInitParams());
  EXPECT_EQ(full.GetNumOfModelEffects(), 2);
  EXPECT_EQ(full.GetIterProgressListener(), &listener);
  EXPECT_EQ(full.GetCancelPointer(), &cancel);

  GZLSettings null;
  null.Copy(s, true);
  EXPECT_EQ(null.GetInitParams(), (std::vector<double>{0.5, 0.25}));  // intercept and scale
  EXPECT_EQ(null.GetNumOfModelEffects(), 0);
  EXPECT_TRUE(null.GetEffectFactors().empty());
  EXPECT_TRUE(null.GetEffectFactorSizes().empty());
  EXPECT_TRUE(null.GetEffectCovariates().empty());
  EXPECT_EQ(null.GetFactors(), std::vector<int>{1});  // the variables stay
  EXPECT_EQ(null.GetCovariates(), std::vector<int>{2});
  EXPECT_EQ(null.GetDistType(), DistGamma);
  EXPECT_EQ(null.GetCancelPointer(), &cancel);
  EXPECT_EQ(s.GetNumOfModelEffects(), 2);  // the source is untouched

  // A fixed scale: only the intercept's value remains.
  s.SetScaleType(G::ScaleFixed);
  null.Copy(s, true);
  EXPECT_EQ(null.GetInitParams(), std::vector<double>{0.5});
  // No intercept and the ML scale: only the scale's value.
  s.SetScaleType(G::ScaleMLE);
  s.SetInterceptUse(false);
  null.Copy(s, true);
  EXPECT_EQ(null.GetInitParams(), std::vector<double>{0.25});
  // Neither: no starting values at all.
  s.SetScaleType(G::ScaleDeviance);
  null.Copy(s, true);
  EXPECT_TRUE(null.GetInitParams().empty());
  // As many values as the null model has: kept as they are.
  s.SetInterceptUse(true);
  s.SetScaleType(G::ScaleMLE);
  s.SetInitParams({3.0, 4.0});
  null.Copy(s, true);
  EXPECT_EQ(null.GetInitParams(), (std::vector<double>{3.0, 4.0}));
}

TEST(Settings, DisplayWholeBlock) {
  GZLSettings s;
  s.SetDistType(DistPoisson);
  s.SetLinkType(LinkLog);
  s.SetScaleType(G::ScaleDeviance);
  s.SetDependent(0);
  s.AddFactor(1, 3);
  s.AddCovariate(2);
  s.SetFrequencyWeightVar(3);
  s.SetOffsetValue(0.5);
  s.SetInterceptUse(true);
  const std::vector<int> vars = {1, 2};
  GZLModelEffect f(1, 1, &vars);
  f.AddNewFactor(1, false);
  s.AddModelEffect(f);
  Listener listener;
  s.SetRecProgressListener(&listener);
  s.SetInitParams({0.5, -1.25});

  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    s.Display();
  }
  const std::string text = out.str();
  // Spot checks of the enumeration labels before the whole block.
  EXPECT_NE(text.find("Scale parameter type = Deviance\n"), std::string::npos);
  EXPECT_NE(text.find("GZLM model type = GZLM\n"), std::string::npos);
  EXPECT_EQ(text,
            "GZLSettings display start\n"
            "Iteration progress listener for model building is not defined\n"
            "Iteration progress listener for PLCI is not defined\n"
            "Iteration progress listener for Type I tests is not defined\n"
            "Iteration progress listener for Type III tests is not defined\n"
            "Record progress listener is defined\n"
            "Number of progress reports to skip: 0\n"
            "Cancel object is not defined\n"
            "Temporary file directory: \n"
            "Factors: 1\n"
            "Factors sizes: 3\n"
            "Covariates: 2\n"
            "Dependent type = Single dependent\n"
            "Dependent index: 0\n"
            "Dependent number of categories: 0\n"
            "Dependent reference category: 0\n"
            "Frequency weight index: 3\n"
            "Offset type = Offset value\n"
            "Offset value: 0.5\n"
            "Intercept in the model indicator: true\n"
            "Probability distribution type = Poisson\n"
            "Distribution parameter type = Fixed value\n"
            "Distribution parameter value: missing\n"
            "Negative binomial with k=0 indicator: false\n"
            "Link function type = Log\n"
            "Link function parameter: missing\n"
            "Number of model effects: 1\n"
            "Begin GZLModelEffect object display.\n"
            "Factors in model: 1\n"
            "Factors in effect: 1\n"
            "Nesting levels: 1\n"
            "Covariates in model: 1\n"
            "Covariate(s) nested within factor(s) e.g. cov(fac) indicator: false\n"
            "Covariates in effect: 0\n"
            "The main vector: 0 0\n"
            "End GZLModelEffect object display.\n"
            "Hessian computing method type = Fisher scoring\n"
            "Scale parameter type = Deviance\n"
            "Scale parameter value: 1\n"
            "Iteration number for checking cs/qcs: 0\n"
            "Max steps in step-halving method: 5\n"
            "Iteration number for switch from Fisher scoring to Newton-Raphson: 1\n"
            "Max number of iterations: 100\n"
            "Loglikelihood convergence tolerance: 1e-06\n"
            "Parameter convergence tolerance: 1e-06\n"
            "Hessian convergence tolerance: 1e-06\n"
            "Computational tolerance: 1e-12\n"
            "GZLM model type = GZLM\n"
            "The initial parameters: 0.5 -1.25\n"
            "The initial value of the estimated distribution parameter: missing\n"
            "Subject variables sizes for GEE model:\n"
            "Subject variables for GEE model:\n"
            "Within subject variables sizes for GEE model:\n"
            "Within subject variables for GEE model:\n"
            "Type of analysis for each model effect = None\n"
            "Type of chi-square statistic in analyses of model effects = None (undefined)\n"
            "Working correlation matrix:\n"
            "Estimator type of parameter estimate covariance matrix = Model-based\n"
            "Need sort or not: true\n"
            "Need adjust working correlation matrix or not: true\n"
            "GEE estimator type of parameter estimate covariance matrix = Robust\n"
            "Hessian convergence criteria for GEE model: 0\n"
            "Parameter convergence criteria for GEE model: 1e-06\n"
            "Parameter convergence criteria type for GEE model = Absolute\n"
            "Max number of iterations for GEE model: 100\n"
            "Number of iterations between updates of working correlation matrix: 1\n"
            "Value for 'Sort case by subject and within subject variables' indicator: false\n"
            "Type of the working correlation matrix for GEE = Independent\n"
            "Parameter for m-dependent working correlation matrix: 0\n"
            "Confidence interval level: 0.95\n"
            "Confidence interval type = Wald\n"
            "Confidence interval convergence criterion: 0.0001\n"
            "Hessian convergence type for GZLM model = Absolute\n"
            "Loglikelihood convergence type for GZLM model = Absolute\n"
            "Parameter convergence type for GZLM model = Absolute\n"
            "Loglikehood function computation type = Full\n"
            "Number of marginal means : 0\n"
            "Frequency of showing iteration history: 1\n"
            "Max number of iterations for PLCI: 0\n"
            "Loglikelihood convergence tolerance for PLCI: 0.0001\n"
            "Hessian convergence tolerance for PLCI: 0.0001\n"
            "Max number of iterations in SQP: 0\n"
            "Hessian convergence tolerance in SQP: 0.0001\n"
            "Loglikelihood convergence tolerance in SQP: 0.0001\n"
            "Parameter convergence tolerance in SQP: 0.0001\n"
            "Tolerance in convergence for Type I and III: 0.0001\n"
            "Hessian convergence type in SQP = Absolute\n"
            "Loglikelihood convergence type in SQP = Absolute\n"
            "Parameter convergence type in SQP = Absolute\n"
            "Convergence type for Type I and III = Absolute\n"
            "GZLSettings display end\n");
}
