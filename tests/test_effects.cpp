#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLRegrParameter.h"
#include "support/TQDisplay_940.h"

namespace {
// Model variables: factors at fields 10, 11, 12; covariates at fields 20, 21.
const std::vector<int> kVars = {10, 11, 12, 20, 21};
constexpr int A = 10, B = 11, C = 12, X = 20, Z = 21;

GZLModelEffect Make() { return GZLModelEffect(3, 2, &kVars); }
}  // namespace

TEST(ModelEffect, ConstructionSetupAndReset) {
  GZLModelEffect empty;
  EXPECT_TRUE(empty.GetModelEffect().empty());
  EXPECT_TRUE(empty.IsIntercept());
  EXPECT_EQ(empty.GetVarIndices(), nullptr);

  GZLModelEffect e = Make();
  EXPECT_EQ(e.GetModelEffect(), (std::vector<int>{-1, -1, -1, 0, 0}));
  EXPECT_TRUE(e.IsIntercept());
  EXPECT_EQ(e.GetNLevels(), 0);

  ASSERT_TRUE(e.AddNewFactor(B, false));
  EXPECT_EQ(e.AddCovariate(Z), 1);
  // Setup on a used effect does not clear it; Reset does.
  e.Setup(3, 2, &kVars);
  EXPECT_EQ(e.GetModelEffect(), (std::vector<int>{-1, 0, -1, 0, 1}));
  EXPECT_EQ(e.GetNFactors(), 1);
  EXPECT_EQ(e.GetCovariateMult(Z), 1);
  const std::vector<int> wider = {10, 11, 12, 13, 20, 21, 22};
  e.Setup(4, 3, &wider);
  EXPECT_EQ(e.GetModelEffect(), (std::vector<int>{-1, 0, -1, -1, 0, 1, 0}));
  EXPECT_EQ(e.GetCovariateMult(Z), 1);
  e.SetFactorsInParens();
  e.Reset();
  EXPECT_EQ(e.GetModelEffect(), (std::vector<int>{-1, -1, -1, -1, 0, 0, 0}));
  EXPECT_FALSE(e.GetFactorsInParens());
  // Setup of an empty effect builds the vector the way the constructor does.
  GZLModelEffect later;
  later.Setup(2, 1, &kVars);
  EXPECT_EQ(later.GetModelEffect(), (std::vector<int>{-1, -1, 0}));
  EXPECT_EQ(later.GetVarIndices(), &kVars);
  EXPECT_EQ(e.GetNFactors(), 0);
  EXPECT_EQ(e.GetNCovariates(), 0);
  EXPECT_EQ(e.GetNLevels(), 0);
}

TEST(ModelEffect, NestingLevels) {
  GZLModelEffect e = Make();
  // Covariates and unknown fields are not factors; nothing changes.
  EXPECT_FALSE(e.AddNewFactor(X, false));
  EXPECT_FALSE(e.AddNewFactor(99, true));
  EXPECT_EQ(e.GetModelEffect(), (std::vector<int>{-1, -1, -1, 0, 0}));
  EXPECT_EQ(e.GetNFactors(), 0);

  ASSERT_TRUE(e.AddNewFactor(A, false));
  EXPECT_EQ(e.GetNLevels(), 1);
  ASSERT_TRUE(e.AddNewFactor(B, true));  // B within A
  EXPECT_EQ(e.ContainsFactor(A), 1);
  EXPECT_EQ(e.ContainsFactor(B), 0);
  EXPECT_EQ(e.GetNLevels(), 2);
  ASSERT_TRUE(e.AddNewFactor(C, true));
  EXPECT_EQ(e.ContainsFactor(A), 2);
  EXPECT_EQ(e.ContainsFactor(B), 1);
  EXPECT_EQ(e.ContainsFactor(C), 0);
  EXPECT_EQ(e.GetNLevels(), 3);
  EXPECT_FALSE(e.AddNewFactor(B, false));  // already in
  EXPECT_EQ(e.GetFactors(), (std::vector<int>{A, B, C}));
  EXPECT_EQ(e.GetFactorLevels(), (std::vector<int>{2, 1, 0}));
  EXPECT_EQ(e.ContainsFactor(X), -1);

  GZLModelEffect crossed = Make();
  ASSERT_TRUE(crossed.AddNewFactor(A, false));
  ASSERT_TRUE(crossed.AddNewFactor(B, false));
  EXPECT_EQ(crossed.GetFactorLevels(), (std::vector<int>{0, 0}));
  EXPECT_EQ(crossed.GetNLevels(), 1);

  // No model factors at all.
  const std::vector<int> onlyCovs = {20};
  GZLModelEffect covOnly(0, 1, &onlyCovs);
  EXPECT_FALSE(covOnly.AddNewFactor(20, false));
}

TEST(ModelEffect, Covariates) {
  GZLModelEffect e = Make();
  EXPECT_EQ(e.AddCovariate(A), -1);  // a factor is not a covariate
  EXPECT_EQ(e.AddCovariate(X), 1);
  EXPECT_EQ(e.AddCovariate(X), 2);
  EXPECT_EQ(e.GetNCovariates(), 1);
  EXPECT_EQ(e.AddCovariate(Z), 1);
  EXPECT_EQ(e.GetNCovariates(), 2);
  EXPECT_EQ(e.GetCovariates(), (std::vector<int>{X, Z}));
  EXPECT_EQ(e.GetCovMultiplicities(), (std::vector<int>{2, 1}));
  EXPECT_EQ(e.GetNCovariateMult(), 3);
  EXPECT_EQ(e.GetCovariateMult(X), 2);
  EXPECT_EQ(e.GetCovariateMult(A), -1);
  EXPECT_FALSE(e.IsIntercept());
}

TEST(ModelEffect, ContainmentAndEquality) {
  GZLModelEffect a = Make(), ab = Make(), ax = Make();
  a.AddNewFactor(A, false);
  ab.AddNewFactor(A, false);
  ab.AddNewFactor(B, false);
  ax.AddNewFactor(A, false);
  ax.AddCovariate(X);
  EXPECT_TRUE(a.IsContainedIn(ab));
  EXPECT_FALSE(a.IsContainedIn(a));
  EXPECT_FALSE(ab.IsContainedIn(a));
  EXPECT_FALSE(a.IsContainedIn(ax));  // covariates differ and factor count not smaller

  GZLModelEffect bx = Make(), abx = Make();
  bx.AddNewFactor(B, false);
  bx.AddCovariate(X);
  abx.AddNewFactor(A, false);
  abx.AddNewFactor(B, false);
  abx.AddCovariate(X);
  EXPECT_TRUE(bx.IsContainedIn(abx));
  abx.AddCovariate(X);  // X*X: powers differ
  EXPECT_FALSE(bx.IsContainedIn(abx));

  // Different variable lists are never compared as containing.
  const std::vector<int> other = kVars;
  GZLModelEffect ab2(3, 2, &other);
  ab2.AddNewFactor(A, false);
  ab2.AddNewFactor(B, false);
  EXPECT_FALSE(a.IsContainedIn(ab2));
  EXPECT_FALSE(ab == ab2);  // same content, different index list

  GZLModelEffect copy = ab;
  EXPECT_TRUE(copy == ab);
  copy.SetFactorsInParens();
  EXPECT_TRUE(copy.GetFactorsInParens());
  EXPECT_FALSE(copy == ab);
}

TEST(ModelEffect, MaskUseAndUsedVariables) {
  GZLModelEffect e1 = Make(), e2 = Make();
  e1.AddNewFactor(C, false);
  e1.AddCovariate(Z);
  e2.AddNewFactor(A, false);
  e2.AddNewFactor(C, false);
  const std::vector<GZLModelEffect> effects = {e1, e2};

  const std::vector<bool> used = GZLModelEffect::CheckVariableUse(effects);
  EXPECT_EQ(used, (std::vector<bool>{true, false, true, false, true}));
  EXPECT_TRUE(GZLModelEffect::CheckVariableUse({}).empty());

  std::vector<int> factors = {99}, covariates = {98};
  GZLModelEffect::GetUsedVariables({}, factors, covariates);
  EXPECT_EQ(factors, (std::vector<int>{99}));  // untouched for an empty list
  GZLModelEffect::GetUsedVariables(effects, factors, covariates);
  EXPECT_EQ(factors, (std::vector<int>{C, A}));  // order of first use
  EXPECT_EQ(covariates, (std::vector<int>{Z}));

  // Dropping the unused variables B and X keeps the effect intact.
  GZLModelEffect m = e2;
  EXPECT_TRUE(m.ApplyMask(used));
  EXPECT_EQ(m.GetModelEffect(), (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(m.GetNModelFactors(), 2);
  EXPECT_EQ(m.GetNModelCovariates(), 1);
  EXPECT_EQ(m.GetNFactors(), 2);

  // Dropping a used variable is reported.
  GZLModelEffect u = e1;
  EXPECT_FALSE(u.ApplyMask({true, true, true, true, false}));
  EXPECT_EQ(u.GetNModelCovariates(), 1);
  EXPECT_EQ(u.GetModelEffect(), (std::vector<int>{-1, -1, 0, 0}));
}

TEST(RegrParameter, FactorsOrderedByNestLevel) {
  GZLRegrParameter p;
  EXPECT_TRUE(p.IsIntercept());
  EXPECT_EQ(p.GetTargetCategory(), 0);
  ASSERT_TRUE(p.AddFactor(A, 3, 2));
  ASSERT_TRUE(p.AddFactor(B, 1, 0));
  ASSERT_TRUE(p.AddFactor(C, 0, 1));
  EXPECT_EQ(p.GetFactors(), (std::vector<int>{B, C, A}));
  EXPECT_EQ(p.GetFactorNestLevels(), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(p.GetCategories(), (std::vector<int>{1, 0, 3}));
  EXPECT_FALSE(p.AddFactor(A, 0, 0));  // already present
  EXPECT_FALSE(p.AddFactor(-1, 0, 0));
  EXPECT_FALSE(p.AddFactor(50, -1, 0));
  EXPECT_FALSE(p.AddFactor(50, 0, -1));
  // Equal levels keep insertion order.
  ASSERT_TRUE(p.AddFactor(13, 5, 1));
  EXPECT_EQ(p.GetFactors(), (std::vector<int>{B, C, 13, A}));
  EXPECT_EQ(p.ContainsFactor(A), 3);
  EXPECT_EQ(p.ContainsFactor(X), -1);
  p.GetCategories()[0] = 4;
  EXPECT_EQ(p.ContainsFactor(B), 4);

  EXPECT_EQ(p.AddCovariate(X, 0), 0);
  EXPECT_EQ(p.AddCovariate(-1, 1), 0);
  EXPECT_EQ(p.AddCovariate(X, 1), 1);
  EXPECT_EQ(p.AddCovariate(X, 2), 3);
  EXPECT_EQ(p.AddCovariate(Z, 1), 1);
  EXPECT_EQ(p.GetCovariateMult(X), 3);
  EXPECT_EQ(p.GetCovariateMult(99), 0);  // 0 here, -1 in the effect class
  EXPECT_EQ(p.GetNCovariateMult(), 4);

  p.SetEffectIndex(4);
  p.SetEffectIndex(-2);  // ignored
  EXPECT_EQ(p.GetEffectIndex(), 4);
  GZLRegrParameter q = p;
  EXPECT_TRUE(q == p);
  q.SetTargetCategory(-1);
  EXPECT_FALSE(q == p);
}

TEST(RegrParameter, SetupFromEffect) {
  GZLRegrParameter p;
  p.AddFactor(A, 2, 0);
  p.SetTargetCategory(7);
  const GZLRegrParameter before = p;

  GZLModelEffect intercept = Make();
  EXPECT_FALSE(p.SetupFromEffect(intercept, 0));
  EXPECT_TRUE(p == before);

  GZLModelEffect e = Make();
  e.AddNewFactor(A, false);
  e.AddNewFactor(C, true);  // A(1) C(0)
  e.AddCovariate(Z);
  e.AddCovariate(Z);
  EXPECT_FALSE(p.SetupFromEffect(e, -1));
  EXPECT_TRUE(p == before);

  ASSERT_TRUE(p.SetupFromEffect(e, 3));
  EXPECT_EQ(p.GetEffectIndex(), 3);
  EXPECT_EQ(p.GetFactors(), (std::vector<int>{C, A}));  // ordered by nest level
  EXPECT_EQ(p.GetFactorNestLevels(), (std::vector<int>{0, 1}));
  EXPECT_EQ(p.GetCategories(), (std::vector<int>{0, 0}));
  EXPECT_EQ(p.GetCovariates(), (std::vector<int>{Z}));
  EXPECT_EQ(p.GetCovariateMultiplicities(), (std::vector<int>{2}));
  EXPECT_EQ(p.GetTargetCategory(), 7);  // untouched
}

TEST(RegrParameter, DisplayLabels) {
  std::ostringstream out;
  TQDisplay_940::ScopedStream redirect(out);
  GZLRegrParameter p;
  p.Display();
  p.AddFactor(A, 1, 0);
  p.AddCovariate(X, 2);
  p.SetEffectIndex(2);
  p.Display();
  EXPECT_EQ(out.str(),
            "Begin GZLRegrParameter object display.\n"
            "No factors are present.\n"
            "No covariates are present.\n"
            "Index of the effect: 0\n"
            "Target category: 0\n"
            "End GZLRegrParameter object display.\n"
            "\n"
            "Begin GZLRegrParameter object display.\n"
            "The factors: 10\n"
            "Categories: 1\n"
            "Factor nesting levels: 0\n"
            "Covariates: 20\n"
            "Covariate multiplicities: 2\n"
            "Index of the effect: 2\n"
            "Target category: 0\n"
            "End GZLRegrParameter object display.\n"
            "\n");
}
