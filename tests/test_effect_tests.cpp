// Wald tests of model effects: type I and type III against the reference figures, the
// dependence of type I (and not type III) on the order of the effects, type III hypotheses of a
// balanced design against sum-to-zero coding, the F form, the scaled design, the multinomial
// layouts of L and the statuses of the model-test routine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "estimation/GZLOptimizer.h"
#include "inference/GZLInference.h"
#include "inference/GZLModelEffectTest.h"
#include "output_reference_models.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"
#include "support/TQModelTests.h"

using output_test::LoadCase;
using output_test::ReferenceCase;

namespace {

// Relative 1e-6, absolute 1e-9 near zero: the tolerance of the reference figures.
void ExpectClose(double expected, double actual, const std::string& what) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - expected), std::max(1e-9, 1e-6 * std::fabs(expected)))
      << what << ": engine " << actual << ", reference " << expected;
}

// The fit of a reference case with both types of Wald test.
struct EffectsFit {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<GZLAlgorithm> algorithm;
  const GZLOutputStats* stats = nullptr;
};

std::unique_ptr<EffectsFit> FitCase(std::unique_ptr<ReferenceCase> c) {
  auto f = std::make_unique<EffectsFit>();
  f->c = std::move(c);
  GZLSettings& s = f->c->settings;
  s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  s.SetEffectAnalysisStat(GZLConst_940::EffectStatWald);
  f->algorithm = std::make_unique<GZLAlgorithm>(s);
  const TQStatus st = f->algorithm->BuildModel(*f->c->source);
  EXPECT_FALSE(st.IsError()) << f->c->name << ": " << st.GetErrorCode();
  if (!st.IsError()) f->algorithm->GetOutputStats(f->stats);
  return f;
}

void ExpectTests(const nlohmann::json& expected, const TQModelTestStats& got, const std::string& what) {
  ASSERT_EQ(got.GetNumTests(), static_cast<int>(expected.size())) << what;
  for (int i = 0; i < got.GetNumTests(); ++i) {
    const auto& e = expected[static_cast<std::size_t>(i)];
    const TQModelTestStats::Test& t = got.GetTest(i);
    SCOPED_TRACE(what + " " + e["term"].get<std::string>());
    EXPECT_EQ(t.fEffect, i);
    if (e["chisq"].is_null()) {
      // No estimable column: no test and no status.
      EXPECT_FALSE(t.fbTested);
      EXPECT_EQ(t.fDF, 0.0);
      EXPECT_TRUE(TQMV::IsMissing(t.fChiSquare));
      EXPECT_TRUE(t.fStatus.IsOK());
      continue;
    }
    EXPECT_TRUE(t.fbTested);
    EXPECT_TRUE(t.fStatus.IsOK()) << t.fStatus.GetErrorCode();
    EXPECT_EQ(t.fDF, e["df"].get<double>());
    ExpectClose(e["chisq"], t.fChiSquare, "chi-square");
    ExpectClose(e["sig"], t.fSig, "significance");
    EXPECT_EQ(static_cast<double>(t.fRowIndices.size()), t.fDF);
    EXPECT_TRUE(TQMV::IsMissing(t.fF));  // no F form outside a mixed-model host
  }
}

}  // namespace

TEST(WaldEffectTests, ReferenceFigures) {
  int checked = 0;
  for (const std::string& file : output_test::CaseFiles("effects")) {
    auto f = FitCase(LoadCase(file));
    SCOPED_TRACE(f->c->name);
    ASSERT_TRUE(f->c->ok) << f->c->problem;
    ASSERT_NE(f->stats, nullptr);
    const auto& e = f->c->expected;
    ExpectClose(e["loglik"], f->stats->GetLogLikehoodScaleFixed(), "log-likelihood");
    ExpectTests(e["wald_type1"], f->stats->GetTypeITestStats(), "type I");
    ExpectTests(e["wald_type3"], f->stats->GetTypeIIITestStats(), "type III");
    EXPECT_TRUE(f->stats->GetEffectAnalysisWarnings().empty());
    ++checked;
  }
  EXPECT_EQ(checked, 10);
}

// Type I hypotheses follow the order of the effects (each is adjusted for those before it);
// type III hypotheses adjust every effect for all the others and do not. The corrected model
// test is the joint test of all effects after the intercept: for a normal identity model the
// type I statistics add up to it.
TEST(WaldEffectTests, OrderOfEffectsAndCorrectedModel) {
  nlohmann::json spec = output_test::ReadCase(output_test::RefDir() + "/effects/warpbreaks_poisson_interaction.json");
  auto original = FitCase(LoadCase(spec));
  std::swap(spec["model"]["effects"][0], spec["model"]["effects"][1]);  // tension, wool, wool*tension
  auto swapped = FitCase(LoadCase(spec));
  ASSERT_NE(original->stats, nullptr);
  ASSERT_NE(swapped->stats, nullptr);
  // Test positions: 1 = wool, 2 = tension in the original order; swapped in the other.
  const int woolOriginal = 1, woolSwapped = 2, tensionOriginal = 2, tensionSwapped = 1;
  auto chi = [](const TQModelTestStats& t, int i) { return t.GetTest(i).fChiSquare; };
  const TQModelTestStats& o1 = original->stats->GetTypeITestStats();
  const TQModelTestStats& s1 = swapped->stats->GetTypeITestStats();
  const TQModelTestStats& o3 = original->stats->GetTypeIIITestStats();
  const TQModelTestStats& s3 = swapped->stats->GetTypeIIITestStats();
  EXPECT_GT(std::fabs(chi(o1, woolOriginal) - chi(s1, woolSwapped)), 1e-3 * chi(o1, woolOriginal));
  EXPECT_GT(std::fabs(chi(o1, tensionOriginal) - chi(s1, tensionSwapped)), 1e-3 * chi(o1, tensionOriginal));
  EXPECT_NEAR(chi(o3, woolOriginal), chi(s3, woolSwapped), 1e-9 * chi(o3, woolOriginal));
  EXPECT_NEAR(chi(o3, tensionOriginal), chi(s3, tensionSwapped), 1e-9 * chi(o3, tensionOriginal));
  for (int i : {0, 3}) {
    EXPECT_NEAR(chi(o1, i), chi(s1, i), 1e-9 * chi(o1, i));  // the intercept and the last effect
    EXPECT_NEAR(chi(o3, i), chi(s3, i), 1e-9 * chi(o3, i));
  }
  // The joint test of the model does not depend on the order either.
  const TQModelTestStats::Test& co = original->stats->GetCorrectedModelTest().GetTest(0);
  EXPECT_EQ(co.fDF, 5.0);
  EXPECT_NEAR(co.fChiSquare, swapped->stats->GetCorrectedModelTest().GetTest(0).fChiSquare, 1e-9 * co.fChiSquare);

  auto linear = FitCase(LoadCase(output_test::RefDir() + "/effects/mtcars_normal_identity.json"));
  ASSERT_NE(linear->stats, nullptr);
  const TQModelTestStats& t1 = linear->stats->GetTypeITestStats();
  double sum = 0.0, df = 0.0;
  for (int i = 1; i < t1.GetNumTests(); ++i) {
    sum += t1.GetTest(i).fChiSquare;
    df += t1.GetTest(i).fDF;
  }
  const TQModelTestStats::Test& corrected = linear->stats->GetCorrectedModelTest().GetTest(0);
  EXPECT_EQ(corrected.fDF, df);
  EXPECT_NEAR(corrected.fChiSquare, sum, 1e-9 * sum);
  EXPECT_NEAR(corrected.fSig, 1.0 - TQDistFun::CdfChi(sum, df), 1e-12);
}

namespace {

// Row spaces of a and b agree (both of full row rank).
void ExpectSameRowSpace(const TQRectMatrix& a, const TQRectMatrix& b, const std::string& what) {
  ASSERT_EQ(a.GetNumCols(), b.GetNumCols()) << what;
  TQRectMatrix both(0, a.GetNumCols());
  for (const TQRectMatrix* m : {&a, &b})
    for (int i = 0; i < m->GetNumRows(); ++i)
      both.AppendRow(std::vector<double>(m->Row(i), m->Row(i) + m->GetNumCols()));
  EXPECT_EQ(a.Rank(1e-16), b.GetNumRows()) << what;
  EXPECT_EQ(both.Rank(1e-16), b.GetNumRows()) << what;
}

}  // namespace

// Warpbreaks is balanced (9 records in each wool-by-tension cell): the type III hypotheses are
// those of the sum-to-zero coded model, written here over the cell means mu_ij of the
// over-parameterised design (intercept, wool A B, tension H L M, the six cells).
TEST(WaldEffectTests, BalancedTypeIIIIsSumToZero) {
  auto f = FitCase(LoadCase(output_test::RefDir() + "/effects/warpbreaks_poisson_interaction.json"));
  ASSERT_NE(f->stats, nullptr);
  const GZLModelEffectTestData* data = f->algorithm->GetInference()->GetEffectTestData();
  ASSERT_NE(data, nullptr);
  GZLModelEffectTestTypeIII typeIII;
  typeIII.SetData(data);
  std::vector<TQRectMatrix> L;
  ASSERT_TRUE(typeIII.ComputeLMatrices(L).IsOK());
  ASSERT_EQ(L.size(), 4u);

  // Cell (i, j) in terms of the parameters.
  TQRectMatrix cells(6, 12);
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < 3; ++j) {
      const int c = 3 * i + j;
      cells(c, 0) = cells(c, 1 + i) = cells(c, 3 + j) = cells(c, 6 + c) = 1.0;
    }
  auto hypothesis = [&](std::vector<std::vector<double>> overCells) {
    TQRectMatrix k(0, 6);
    for (const auto& row : overCells) k.AppendRow(row);
    TQRectMatrix out;
    k.Multiply(cells, out);
    return out;
  };
  const double a = 1.0 / 3.0, b = 1.0 / 2.0, g = 1.0 / 6.0;
  ExpectSameRowSpace(L[0], hypothesis({{g, g, g, g, g, g}}), "intercept");
  ExpectSameRowSpace(L[1], hypothesis({{a, a, a, -a, -a, -a}}), "wool");
  ExpectSameRowSpace(L[2], hypothesis({{b, -b, 0, b, -b, 0}, {b, 0, -b, b, 0, -b}}), "tension");
  ExpectSameRowSpace(L[3], hypothesis({{1, -1, 0, -1, 1, 0}, {1, 0, -1, -1, 0, 1}}), "wool*tension");
}

// A mixed-model host gets the F form (F = chi-square / df on the residual degrees of freedom of
// its t statistics); the scaled design it may ask for leaves every statistic as it is.
TEST(WaldEffectTests, FFormAndScaledDesign) {
  const std::string file = output_test::RefDir() + "/effects/mtcars_normal_factor_by_covariate.json";
  auto plain = LoadCase(file);
  plain->settings.SetGZLModelType(GZLConst_940::GZLMMM);
  auto scaled = LoadCase(file);
  scaled->settings.SetGZLModelType(GZLConst_940::GZLMMM);
  scaled->settings.SetTransformEffects(true);
  auto p = FitCase(std::move(plain));
  auto s = FitCase(std::move(scaled));
  ASSERT_NE(p->stats, nullptr);
  ASSERT_NE(s->stats, nullptr);
  ASSERT_TRUE(s->algorithm->GetDesignMatrix()->IsScaledDesign());
  const double df2 = p->algorithm->GetInference()->GetDFForT();
  EXPECT_EQ(df2, 32.0 - 6.0);
  using Getter = const TQModelTestStats& (GZLOutputStats::*)() const;
  for (Getter which : {&GZLOutputStats::GetTypeITestStats, &GZLOutputStats::GetTypeIIITestStats}) {
    const TQModelTestStats& tp = (p->stats->*which)();
    const TQModelTestStats& ts = (s->stats->*which)();
    ASSERT_EQ(tp.GetNumTests(), 3);
    ASSERT_EQ(ts.GetNumTests(), 3);
    for (int i = 0; i < 3; ++i) {
      const TQModelTestStats::Test& t = tp.GetTest(i);
      SCOPED_TRACE(i);
      EXPECT_NEAR(t.fF, t.fChiSquare / t.fDF, 1e-12 * t.fF);
      EXPECT_EQ(t.fDF2, df2);
      EXPECT_NEAR(t.fFSig, 1.0 - TQDistFun::CdfF(t.fF, t.fDF, df2), 1e-14);
      EXPECT_EQ(ts.GetTest(i).fDF, t.fDF);
      EXPECT_NEAR(ts.GetTest(i).fChiSquare, t.fChiSquare, 1e-7 * t.fChiSquare);
    }
  }
}

namespace {

// A factor f of three categories and a covariate x, main effects f and x; records (y, f, x).
struct TwoEffectModel {
  std::vector<int> vars{1, 2};
  GZLSettings s;
  GZLMemorySource source;
  explicit TwoEffectModel(TQConst::DistType dist, int categories) {
    s.SetDistType(dist);
    if (dist == TQConst::DistPoisson) s.SetLinkType(TQConst::LinkLog);
    s.SetScaleType(GZLConst_940::ScaleFixed);
    s.SetDependent(0);
    s.SetDependentSize(categories);
    s.SetInterceptUse(true);
    s.AddFactor(1, 3);
    s.AddCovariate(2);
    GZLModelEffect f(1, 1, &vars);
    f.AddNewFactor(1, false);
    GZLModelEffect x(1, 1, &vars);
    x.AddCovariate(2);
    s.AddModelEffect(f);
    s.AddModelEffect(x);
    s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
    s.SetEffectAnalysisStat(GZLConst_940::EffectStatWald);
    const double xs[] = {0.5, 1.7, 2.2, 3.1, 0.9, 2.8, 1.1, 3.6, 2.4, 0.3, 1.9, 2.9};
    for (int r = 0; r < 12; ++r) source.AddRow({double(r % categories), double(r % 3), xs[r]});
  }
  // X'X of the basic design: the intercept's column of ones, f's three columns, x.
  TQSymMatrix BasicSSCP() const {
    const double xs[] = {0.5, 1.7, 2.2, 3.1, 0.9, 2.8, 1.1, 3.6, 2.4, 0.3, 1.9, 2.9};
    TQSymMatrix sscp(5);
    for (int r = 0; r < 12; ++r) {
      std::vector<double> row(5, 0.0);
      row[0] = 1.0;
      row[1 + r % 3] = 1.0;
      row[4] = xs[r];
      sscp.UpdateXX(row, 1.0);
    }
    return sscp;
  }
};

// A positive definite covariance of our making, block diagonal in blocks of `size`.
TQSymMatrix MadeCovariance(int p, int size) {
  TQSymMatrix c(p);
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j)
      if (i / size == j / size) c(i, j) = i == j ? 1.0 + 0.1 * i : 0.05 * (1 + (i + j) % 3);
  return c;
}

// Type I and type III tests of the data's effects.
std::vector<TQModelTestStats> RunBoth(const GZLModelEffectTestData& data) {
  GZLModelEffectTestTypeI typeI;
  GZLModelEffectTestTypeIII typeIII;
  std::vector<TQModelTestStats> out;
  for (GZLDefaultModelEffectTest* test : std::vector<GZLDefaultModelEffectTest*>{&typeI, &typeIII}) {
    test->SetData(&data);
    TQStatus st;
    test->ComputeTests(st);
    EXPECT_TRUE(st.IsOK()) << st.GetErrorCode();
    out.push_back(test->GetModelTestStats());
  }
  return out;
}

}  // namespace

// The multinomial layouts of L, from the parameter lists of InitializeModel and estimates and
// covariances of our making. Nominal, three categories: two logits, logit-major; each effect's
// hypothesis is repeated for both, so it has twice the rows of one logit, and with no covariance
// between the logits the statistic is the sum of the two logits' own. (The ordinal layout is
// checked on fitted models against direct statistics in the multinomial effect tests.)
TEST(WaldEffectTests, MultinomialLayouts) {
  TwoEffectModel nominal(TQConst::DistNominalMultinomial, 3);
  GZLAlgorithm a(nominal.s);
  ASSERT_TRUE(a.InitializeModel(nominal.source).IsOK());
  ASSERT_EQ(a.GetRegrParameters().size(), 10u);
  std::vector<double> b(10);
  for (int j = 0; j < 10; ++j) b[static_cast<std::size_t>(j)] = 0.3 * (j % 4) - 0.4 + 0.05 * j;
  const TQSymMatrix cov = MadeCovariance(10, 5);
  GZLModelEffectTestData data(nominal.s, a.GetEffectInfo(), 10, nominal.BasicSSCP());
  data.SetModelTests(std::make_unique<TQModelTests>(b, TQBitSet(10, true), cov));
  const std::vector<TQModelTestStats> both = RunBoth(data);
  GZLSettings oneLogit(nominal.s);
  oneLogit.SetDistType(TQConst::DistPoisson);
  double sums[2][3] = {};
  for (int block = 0; block < 2; ++block) {
    GZLModelEffectTestData d(oneLogit, a.GetEffectInfo(), 5, nominal.BasicSSCP());
    TQSymMatrix c(5);
    for (int i = 0; i < 5; ++i)
      for (int j = 0; j <= i; ++j) c(i, j) = cov(5 * block + i, 5 * block + j);
    const std::vector<double> bb(b.begin() + 5 * block, b.begin() + 5 * block + 5);
    d.SetModelTests(std::make_unique<TQModelTests>(bb, TQBitSet(5, true), c));
    const std::vector<TQModelTestStats> single = RunBoth(d);
    for (int type = 0; type < 2; ++type)
      for (int t = 0; t < 3; ++t) {
        sums[type][t] += single[static_cast<std::size_t>(type)].GetTest(t).fChiSquare;
        EXPECT_EQ(both[static_cast<std::size_t>(type)].GetTest(t).fDF,
                  2.0 * single[static_cast<std::size_t>(type)].GetTest(t).fDF);
      }
  }
  for (int type = 0; type < 2; ++type)
    for (int t = 0; t < 3; ++t)
      EXPECT_NEAR(both[static_cast<std::size_t>(type)].GetTest(t).fChiSquare, sums[type][t], 1e-10 * sums[type][t]);
}

// The model-test routine: the Wald statistic, a generalized inverse for dependent rows, the F
// form, and its statuses.
TEST(WaldEffectTests, ModelTestRoutine) {
  TQSymMatrix cov(2);
  cov(0, 0) = 0.25;
  cov(1, 1) = 1.0;
  cov(1, 0) = 0.1;
  const std::vector<double> b{1.0, 2.0};
  const TQModelTests tests(b, TQBitSet(2, true), cov, 10.0);
  TQRectMatrix one(1, 2);
  one(0, 1) = 1.0;
  TQModelTestStats result;
  TQStatus st;
  tests.ComputeModelTest(one, st, result, 0);
  const TQModelTestStats::Test& t = *result.FindEffect(0);
  EXPECT_TRUE(st.IsOK() && t.fStatus.IsOK());
  EXPECT_DOUBLE_EQ(t.fChiSquare, 4.0);
  EXPECT_EQ(t.fDF, 1.0);
  EXPECT_NEAR(t.fSig, 1.0 - TQDistFun::CdfChi(4.0, 1.0), 1e-15);
  EXPECT_DOUBLE_EQ(t.fF, 4.0);
  EXPECT_EQ(t.fDF2, 10.0);
  EXPECT_NEAR(t.fFSig, 1.0 - TQDistFun::CdfF(4.0, 1.0, 10.0), 1e-15);

  // Both parameters, the second row given twice: counted once; b' C^-1 b.
  TQRectMatrix both(3, 2);
  both(0, 0) = both(1, 1) = 1.0;
  both(2, 1) = 2.0;
  TQModelTestStats::Test joint;
  EXPECT_TRUE(tests.ComputeModelTest(both, joint).IsOK());
  EXPECT_NEAR(joint.fChiSquare, (1.0 - 2.0 * 2.0 * 0.1 + 4.0 * 0.25) / (0.25 - 0.01), 1e-12);
  EXPECT_EQ(joint.fDF, 2.0);

  TQModelTestStats::Test bad;
  EXPECT_EQ(tests.ComputeModelTest(TQRectMatrix(0, 2), bad).GetErrorCode(), GZLStatusCode::LMatrixEmpty);
  EXPECT_EQ(tests.ComputeModelTest(TQRectMatrix(1, 3, 1.0), bad).GetErrorCode(), GZLStatusCode::InternalError);
  TQSymMatrix missing(cov);
  missing(1, 1) = TQMV::Missing;
  EXPECT_EQ(TQModelTests(b, TQBitSet(2, true), missing).ComputeModelTest(one, bad),
            TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed));
  EXPECT_TRUE(TQMV::IsMissing(bad.fChiSquare));
  EXPECT_EQ(TQModelTests(b, TQBitSet(2, true), TQSymMatrix(2)).ComputeModelTest(one, bad),
            TQStatus::Warning(GZLStatusCode::SingularHessian));
  EXPECT_TRUE(TQMV::IsMissing(bad.fChiSquare));
}

// When tests are run and when not: no analysis asked for, records refused for the link, a second
// run on the same fit, data that do not fit, nothing estimable; and the displays.
TEST(WaldEffectTests, StatusesAndDisplay) {
  TwoEffectModel asked(TQConst::DistPoisson, 5);
  GZLSettings none(asked.s);
  none.SetEffectAnalysisType(TQConst::EffectNone);
  GZLAlgorithm quiet(none);
  ASSERT_FALSE(quiet.BuildModel(asked.source).IsError());
  EXPECT_EQ(quiet.GetInference()->GetEffectTestData(), nullptr);
  EXPECT_EQ(quiet.GetInference()->GetTypeITestStats(), nullptr);

  GZLAlgorithm tested(asked.s);
  asked.source.Rewind();
  ASSERT_FALSE(tested.BuildModel(asked.source).IsError());
  GZLInference& inf = const_cast<GZLInference&>(*tested.GetInference());
  ASSERT_NE(inf.GetTypeITestStats(), nullptr);
  EXPECT_EQ(inf.GetTypeITestStats()->GetNumTests(), 3);
  std::vector<TQStatus> warnings;
  EXPECT_EQ(inf.ComputeEffectTests({}, TQBitSet(), inf.GetCovarianceMatrix(), TQMV::Missing, warnings),
            TQStatus::Error(GZLStatusCode::InternalError));

  // Poisson identity from a start where a record's mean is negative: it is refused, no tests.
  GZLSettings link(asked.s);
  link.SetLinkType(TQConst::LinkIdentity);
  link.SetInitParams({-1.0, 0.0, 0.0, 0.0, 1.5});
  link.SetMaxIterations(1);
  GZLMemorySource positive;
  for (int r = 0; r < 12; ++r) positive.AddRow({double(r % 5 + 1), double(r % 3), double(r % 4)});
  GZLAlgorithm refused(link);
  refused.BuildModel(positive);
  ASSERT_TRUE(refused.GetGZLOptimizer() != nullptr && refused.GetGZLOptimizer()->IsInvalidForLink());
  EXPECT_TRUE(refused.GetInference() == nullptr || refused.GetInference()->GetTypeITestStats() == nullptr);

  GZLModelEffectTestTypeI typeI;
  TQStatus st;
  typeI.ComputeTests(st);
  EXPECT_EQ(st, TQStatus::Error(GZLStatusCode::InternalError));  // no data
  GZLModelEffectTestData layout(asked.s, tested.GetEffectInfo(), 5, asked.BasicSSCP());
  typeI.SetData(&layout);
  typeI.ComputeTests(st);
  EXPECT_EQ(st, TQStatus::Error(GZLStatusCode::InternalError));  // no model tests
  EXPECT_EQ(GZLModelEffectTestData(asked.s, tested.GetEffectInfo(), 6, asked.BasicSSCP()).GetStatus(),
            TQStatus::Error(GZLStatusCode::InternalError));
  GZLSettings empty(asked.s);
  empty.ClearModelEffects();
  empty.SetInterceptUse(false);
  GZLModelEffectTestData nothing(empty, {}, 0, TQSymMatrix());
  typeI.SetData(&nothing);
  typeI.ComputeTests(st);
  EXPECT_EQ(st, TQStatus::Error(GZLStatusCode::GEFMatrixEmpty));

  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    inf.Display();
    GZLModelEffectTestTypeIII typeIII;
    typeIII.SetData(inf.GetEffectTestData());
    typeIII.Display();
  }
  for (const char* line : {"GZLModelEffectTestData display start", "GZLModelEffectTestData display end",
                           "TQModelTests display start", "TQModelTestStats display end",
                           "GZLModelEffectTestTypeIII display start", "The original SSCP matrix X'*W*X"})
    EXPECT_NE(out.str().find(line), std::string::npos) << line;
}
