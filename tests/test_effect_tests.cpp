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

std::vector<std::string> EffectCaseFiles() {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(output_test::RefDir() + "/effects"))
    files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

TEST(WaldEffectTests, ReferenceFigures) {
  int checked = 0;
  for (const std::string& file : EffectCaseFiles()) {
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
    for (int i = 0; i < m->GetNumRows(); ++i) both.AppendRow(std::vector<double>(m->Row(i), m->Row(i) + m->GetNumCols()));
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
    if (dist == TQConst::DistOrdinalMultinomial) s.SetLinkType(TQConst::LinkCumLogit);
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
  // X'X of the basic design: a column of ones (intercept or thresholds), f's three columns, x.
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

// A covariance of our making: positive definite, with blocks that do not talk to each other
// when `blocks` > 1.
TQSymMatrix MadeCovariance(int p, int blocks) {
  TQSymMatrix c(p);
  const int size = p / blocks;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j)
      if (i / size == j / size) c(i, j) = i == j ? 1.0 + 0.1 * i : 0.05 * (1 + (i + j) % 3);
  return c;
}

std::vector<double> MadeEstimates(int p) {
  std::vector<double> b(static_cast<std::size_t>(p));
  for (int j = 0; j < p; ++j) b[static_cast<std::size_t>(j)] = 0.3 * (j % 4) - 0.4 + 0.05 * j;
  return b;
}

}  // namespace

// Nominal response with three categories: two logits, the parameters logit-major. Each effect's
// hypothesis is that of one logit repeated for both: twice the rows of the binary case, and
// with a covariance that has no cross-logit terms the statistic is the sum of the two logits'.
TEST(WaldEffectTests, NominalLayoutRepeatsEachLogit) {
  TwoEffectModel m(TQConst::DistNominalMultinomial, 3);
  GZLAlgorithm a(m.s);
  ASSERT_TRUE(a.InitializeModel(m.source).IsOK());
  const int P = static_cast<int>(a.GetRegrParameters().size());
  ASSERT_EQ(P, 10);
  ASSERT_EQ(a.GetNominalTemplateSize(), 5);
  GZLModelEffectTestData data(m.s, a.GetEffectInfo(), P, m.BasicSSCP());
  ASSERT_TRUE(data.GetStatus().IsOK());
  const std::vector<double> b = MadeEstimates(P);
  const TQSymMatrix cov = MadeCovariance(P, 2);
  data.SetModelTests(std::make_unique<TQModelTests>(b, TQBitSet(P, true), cov));

  // One logit at a time: the same tests on the five parameters of its block.
  GZLSettings binarySettings(m.s);
  binarySettings.SetDistType(TQConst::DistPoisson);
  std::vector<std::unique_ptr<GZLModelEffectTestData>> logits;
  for (int block = 0; block < 2; ++block) {
    auto d = std::make_unique<GZLModelEffectTestData>(binarySettings, a.GetEffectInfo(), 5, m.BasicSSCP());
    TQSymMatrix c(5);
    for (int i = 0; i < 5; ++i)
      for (int j = 0; j <= i; ++j) c(i, j) = cov(5 * block + i, 5 * block + j);
    d->SetModelTests(std::make_unique<TQModelTests>(
        std::vector<double>(b.begin() + 5 * block, b.begin() + 5 * block + 5), TQBitSet(5, true), c));
    logits.push_back(std::move(d));
  }

  GZLModelEffectTestTypeI typeI;
  GZLModelEffectTestTypeIII typeIII;
  for (GZLDefaultModelEffectTest* test : std::vector<GZLDefaultModelEffectTest*>{&typeI, &typeIII}) {
    test->SetData(&data);
    TQStatus st;
    test->ComputeTests(st);
    ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
    const TQModelTestStats nominal = test->GetModelTestStats();
    ASSERT_EQ(nominal.GetNumTests(), 3);
    double single[2][3];
    for (int block = 0; block < 2; ++block) {
      test->SetData(logits[static_cast<std::size_t>(block)].get());
      TQStatus sb;
      test->ComputeTests(sb);
      for (int t = 0; t < 3; ++t) single[block][t] = test->GetModelTestStats().GetTest(t).fChiSquare;
      if (block == 0) {
        const double binaryDF[] = {1.0, 2.0, 1.0};
        for (int t = 0; t < 3; ++t) EXPECT_EQ(nominal.GetTest(t).fDF, 2.0 * binaryDF[t]);
      }
    }
    for (int t = 0; t < 3; ++t)
      EXPECT_NEAR(nominal.GetTest(t).fChiSquare, single[0][t] + single[1][t], 1e-10 * nominal.GetTest(t).fChiSquare);
  }
  // The rows of the second logit sit on the parameters of the second category's block.
  typeIII.SetData(&data);
  std::vector<TQRectMatrix> L;
  ASSERT_TRUE(typeIII.ComputeLMatrices(L).IsOK());
  const auto& params = a.GetRegrParameters();
  const TQRectMatrix& lx = L[2];  // x
  ASSERT_EQ(lx.GetNumRows(), 2);
  for (int r = 0; r < 2; ++r)
    for (int j = 0; j < P; ++j) {
      const bool own = params[static_cast<std::size_t>(j)].GetTargetCategory() == a.GetDependCategories()[r] &&
                       params[static_cast<std::size_t>(j)].GetCovariateMult(2) == 1;
      EXPECT_EQ(lx(r, j) != 0.0, own) << r << " " << j;
    }
}

// Ordinal response with four categories: three thresholds, then f and x. The thresholds are
// tested as the intercept (on the first threshold); the effects' rows are zero on every
// threshold and sit on their own parameters.
TEST(WaldEffectTests, OrdinalLayoutThresholdsFirst) {
  TwoEffectModel m(TQConst::DistOrdinalMultinomial, 4);
  GZLAlgorithm a(m.s);
  ASSERT_TRUE(a.InitializeModel(m.source).IsOK());
  const auto& params = a.GetRegrParameters();
  const int P = static_cast<int>(params.size());
  ASSERT_EQ(P, 7);
  GZLModelEffectTestData data(m.s, a.GetEffectInfo(), P, m.BasicSSCP());
  ASSERT_TRUE(data.GetStatus().IsOK());
  ASSERT_TRUE(data.HasInterceptTest());
  EXPECT_EQ(data.GetFirstColumn(1), 1);  // f after the one column of the thresholds
  EXPECT_EQ(data.GetFirstColumn(2), 4);
  GZLModelEffectTestTypeI typeI;
  GZLModelEffectTestTypeIII typeIII;
  for (GZLDefaultModelEffectTest* test : std::vector<GZLDefaultModelEffectTest*>{&typeI, &typeIII}) {
    test->SetData(&data);
    std::vector<TQRectMatrix> L;
    ASSERT_TRUE(test->ComputeLMatrices(L).IsOK());
    ASSERT_EQ(L.size(), 3u);
    EXPECT_EQ(L[0].GetNumRows(), 1);
    EXPECT_EQ(L[0](0, 0), 1.0);
    EXPECT_EQ(L[0](0, 1), 0.0);
    EXPECT_EQ(L[0](0, 2), 0.0);
    EXPECT_EQ(L[1].GetNumRows(), 2);
    EXPECT_EQ(L[2].GetNumRows(), 1);
    for (int t = 1; t < 3; ++t)
      for (int r = 0; r < L[static_cast<std::size_t>(t)].GetNumRows(); ++r)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(L[static_cast<std::size_t>(t)](r, j), 0.0);
  }
  // Type III of x: x's parameter alone.
  std::vector<TQRectMatrix> L;
  ASSERT_TRUE(typeIII.ComputeLMatrices(L).IsOK());
  for (int j = 0; j < P; ++j)
    EXPECT_EQ(L[2](0, j) != 0.0, params[static_cast<std::size_t>(j)].GetCovariateMult(2) == 1) << j;
}

// The model-test routine: the Wald statistic, a generalized inverse for dependent rows, the F
// form, and its statuses.
TEST(WaldEffectTests, ModelTestRoutine) {
  TQSymMatrix cov(2);
  cov(0, 0) = 0.25;
  cov(1, 1) = 1.0;
  cov(1, 0) = 0.1;
  const TQModelTests tests({1.0, 2.0}, TQBitSet(2, true), cov, 10.0);
  TQModelTestStats result;
  TQStatus st;
  TQRectMatrix one(1, 2);
  one(0, 1) = 1.0;
  tests.ComputeModelTest(one, st, result, 0);
  EXPECT_TRUE(st.IsOK());
  const TQModelTestStats::Test& t = *result.FindEffect(0);
  EXPECT_DOUBLE_EQ(t.fChiSquare, 4.0);
  EXPECT_EQ(t.fDF, 1.0);
  EXPECT_NEAR(t.fSig, 1.0 - TQDistFun::CdfChi(4.0, 1.0), 1e-15);
  EXPECT_DOUBLE_EQ(t.fF, 4.0);
  EXPECT_EQ(t.fDF2, 10.0);
  EXPECT_NEAR(t.fFSig, 1.0 - TQDistFun::CdfF(4.0, 1.0, 10.0), 1e-15);

  // Both parameters, the second row given twice: counted once.
  TQRectMatrix both(3, 2);
  both(0, 0) = both(1, 1) = 1.0;
  both(2, 1) = 2.0;
  TQModelTestStats::Test joint;
  EXPECT_TRUE(tests.ComputeModelTest(both, joint).IsOK());
  const double det = 0.25 - 0.01;
  EXPECT_NEAR(joint.fChiSquare, (1.0 * 1.0 * 1.0 - 2 * 1.0 * 2.0 * 0.1 + 4.0 * 0.25) / det, 1e-12);
  EXPECT_EQ(joint.fDF, 2.0);

  TQModelTestStats::Test bad;
  EXPECT_EQ(tests.ComputeModelTest(TQRectMatrix(0, 2), bad).GetErrorCode(), GZLStatusCode::LMatrixEmpty);
  EXPECT_EQ(tests.ComputeModelTest(TQRectMatrix(1, 3, 1.0), bad).GetErrorCode(), GZLStatusCode::InternalError);
  TQSymMatrix missing(cov);
  missing(1, 1) = TQMV::Missing;
  const TQStatus m = TQModelTests({1.0, 2.0}, TQBitSet(2, true), missing).ComputeModelTest(one, bad);
  EXPECT_TRUE(m.IsWarning());
  EXPECT_EQ(m.GetErrorCode(), GZLStatusCode::LogLikelihoodCovarianceNotSucceed);
  EXPECT_TRUE(TQMV::IsMissing(bad.fChiSquare));
  const TQStatus z = TQModelTests({1.0, 2.0}, TQBitSet(2, true), TQSymMatrix(2)).ComputeModelTest(one, bad);
  EXPECT_TRUE(z.IsWarning());
  EXPECT_EQ(z.GetErrorCode(), GZLStatusCode::SingularHessian);
  EXPECT_TRUE(TQMV::IsMissing(bad.fChiSquare));
  EXPECT_TRUE(TQMV::IsMissing(TQModelTests({1.0, 2.0}, TQBitSet(2, true), cov).GetDF2()));
}

// When tests are run and when not: no analysis asked for, records refused for the link, a
// model without parameters; a test object without data or model tests; and the displays.
TEST(WaldEffectTests, StatusesAndDisplay) {
  TwoEffectModel asked(TQConst::DistPoisson, 5);
  GZLSettings none(asked.s);
  none.SetEffectAnalysisType(TQConst::EffectNone);
  GZLAlgorithm quiet(none);
  ASSERT_FALSE(quiet.BuildModel(asked.source).IsError()) << quiet.GetStatus().GetErrorCode();
  EXPECT_EQ(quiet.GetInference()->GetEffectTestData(), nullptr);
  EXPECT_EQ(quiet.GetInference()->GetTypeITestStats(), nullptr);

  GZLAlgorithm tested(asked.s);
  asked.source.Rewind();
  ASSERT_FALSE(tested.BuildModel(asked.source).IsError());
  const GZLInference& inf = *tested.GetInference();
  ASSERT_NE(inf.GetTypeITestStats(), nullptr);
  EXPECT_EQ(inf.GetTypeITestStats()->GetNumTests(), 3);
  // A second computation of the tests of the same fit is refused.
  std::vector<TQStatus> warnings;
  EXPECT_EQ(const_cast<GZLInference&>(inf)
                .ComputeEffectTests({}, TQBitSet(), inf.GetCovarianceMatrix(), TQMV::Missing, warnings)
                .GetErrorCode(),
            GZLStatusCode::InternalError);

  // Poisson identity from a start where one record's mean is negative: that record is refused
  // and no test is made.
  GZLSettings link(asked.s);
  link.SetLinkType(TQConst::LinkIdentity);
  link.SetInitParams({-1.0, 0.0, 0.0, 0.0, 1.5});
  link.SetMaxIterations(1);
  GZLMemorySource positive;
  for (int r = 0; r < 12; ++r) positive.AddRow({double(r % 5 + 1), double(r % 3), double(r % 4)});
  GZLAlgorithm refused(link);
  refused.BuildModel(positive);
  ASSERT_TRUE(refused.GetOptimizer() != nullptr);
  ASSERT_TRUE(refused.GetGZLOptimizer()->IsInvalidForLink());
  if (refused.GetInference() != nullptr) {
    EXPECT_EQ(refused.GetInference()->GetTypeITestStats(), nullptr);
  }

  // No parameter at all: nothing is estimable.
  GZLSettings empty;
  empty.SetDistType(TQConst::DistPoisson);
  empty.SetLinkType(TQConst::LinkLog);
  empty.SetDependent(0);
  empty.SetInterceptUse(false);
  empty.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  GZLModelEffectTestData nothing(empty, {}, 0, TQSymMatrix());
  EXPECT_EQ(nothing.GetStatus().GetErrorCode(), GZLStatusCode::GEFMatrixEmpty);
  GZLModelEffectTestTypeI typeI;
  TQStatus st;
  typeI.ComputeTests(st);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::InternalError);  // no data
  typeI.SetData(&nothing);
  typeI.ComputeTests(st);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::GEFMatrixEmpty);
  GZLModelEffectTestData layout(asked.s, tested.GetEffectInfo(), 5, asked.BasicSSCP());
  typeI.SetData(&layout);
  typeI.ComputeTests(st);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::InternalError);  // no model tests
  GZLModelEffectTestData misfit(asked.s, tested.GetEffectInfo(), 6, asked.BasicSSCP());
  EXPECT_EQ(misfit.GetStatus().GetErrorCode(), GZLStatusCode::InternalError);

  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    inf.Display();
    GZLModelEffectTestTypeIII typeIII;
    typeIII.SetData(inf.GetEffectTestData());
    typeIII.Display();
    typeI.Display();
  }
  for (const char* line :
       {"GZLModelEffectTestData display start", "GZLModelEffectTestData display end", "TQModelTests display start",
        "TQModelTestStats display start", "TQModelTestStats display end", "GZLModelEffectTestTypeI display start",
        "GZLModelEffectTestTypeIII display end", "The original SSCP matrix X'*W*X"})
    EXPECT_NE(out.str().find(line), std::string::npos) << line;
}
