// GEE for ordinal responses: the reference fits (thresholds first, block working correlation),
// the block estimators against a hand computation, one record per subject, the per-subject
// positive definite transform, the fixed structure and scoring.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEESubjectPass.h"
#include "gee/GEEWorkCorrForMultinomial.h"
#include "inference/GZLInference.h"
#include "inference/GZLScoringEngine.h"
#include "gee_fit.h"
#include "output_reference_models.h"

namespace {

std::string GeeDir() { return output_test::RefDir() + "/gee"; }

using gee_test::Fit;
using gee_test::RunFit;

// Columns subject, time, x, y (categories 0 .. C-1): cumulative logit on x, within time.
GZLSettings OrdinalModel(GZLConst_940::CorrType corr, int categories, bool adjust = true, double m = 2.0) {
  GZLSettings s;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetDistType(TQConst::DistOrdinalMultinomial);
  s.SetLinkType(TQConst::LinkCumLogit);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  EXPECT_TRUE(s.SetDependent(3));
  s.SetDependentSize(categories);
  s.AddCovariate(2);
  GZLModelEffect effect(0, 1, &s.GetCovariates());
  effect.AddCovariate(2);
  s.AddModelEffect(effect);
  s.AddGEESubjectVar(0, 1000);
  s.AddGEEWSVar(1, 10);
  s.SetGEECorrType(corr);
  s.SetAdjustCorr(adjust);
  s.SetGEEMDependentPar(m);
  EXPECT_TRUE(s.SetGEEPConverge(1e-10));
  return s;
}

// A design matrix after its setup pass over `source`, ready for the estimation passes.
std::unique_ptr<GEEDesignMatrix> SetUpDesign(const GZLSettings& s, GZLMemorySource& source) {
  auto design = std::make_unique<GEEDesignMatrix>(s);
  TQStatus status;
  source.Rewind();
  design->RunDictionaryPass(status, source);
  EXPECT_FALSE(status.IsError()) << status.GetErrorCode();
  design->NumberWSCombinations();
  design->SetRecordSource(&source);
  return design;
}

// Three subjects with 3 categories, positions 0..2: subject 0 at 0, 1, 2, subject 1 at 0 and 2
// (a gap), subject 2 at 1 only; `copies` copies of them as further subjects.
std::vector<std::vector<double>> TinyData(int copies) {
  const double base[6][4] = {{0, 0, 0.5, 0}, {0, 1, -1, 1}, {0, 2, 2, 2}, {1, 0, 1.5, 2}, {1, 2, 0, 0}, {2, 1, -0.5, 1}};
  std::vector<std::vector<double>> rows;
  for (int k = 0; k < copies; ++k)
    for (const auto& r : base) rows.push_back({r[0] + 3 * k, r[1], r[2], r[3]});
  return rows;
}

// 2 x 2 blocks, row by row.
using Block = std::array<double, 4>;
Block Outer(const std::vector<double>& a, const std::vector<double>& b) {
  return {a[0] * b[0], a[0] * b[1], a[1] * b[0], a[1] * b[1]};
}
Block Add(Block a, const Block& b, double f = 1.0) {
  for (int i = 0; i < 4; ++i) a[i] += f * b[i];
  return a;
}
Block Scaled(const Block& a, double f) { return Add(Block{}, a, f); }
Block Sym(const std::vector<double>& a, const std::vector<double>& b) { return Add(Scaled(Outer(a, b), 0.5), Outer(b, a), 0.5); }
Block Product(const Block& a, const Block& b) {
  return {a[0] * b[0] + a[1] * b[2], a[0] * b[1] + a[1] * b[3], a[2] * b[0] + a[3] * b[2], a[2] * b[1] + a[3] * b[3]};
}

// The 6 x 6 matrix of identity diagonal blocks and blocks (1,0), (2,0), (2,1).
void ExpectBlocks(const TQSymMatrix& R, const Block& b10, const Block& b20, const Block& b21) {
  ASSERT_EQ(R.GetNumRows(), 6);
  const Block* blocks[3][3] = {{nullptr, nullptr, nullptr}, {&b10, nullptr, nullptr}, {&b20, &b21, nullptr}};
  for (int k = 0; k < 3; ++k)
    for (int j = 0; j <= k; ++j)
      for (int a = 0; a < 2; ++a)
        for (int b = 0; b < 2; ++b) {
          const double expected = j == k ? (a == b ? 1.0 : 0.0) : (*blocks[k][j])[2 * a + b];
          EXPECT_NEAR(R(2 * k + a, 2 * j + b), expected, 1e-13) << k << j << a << b;
        }
}

}  // namespace

TEST(GEEOrdinal, ReferenceFits) {
  int cases = 0;
  for (const auto& entry : std::filesystem::directory_iterator(GeeDir() + "/expected")) {
    const nlohmann::json j = output_test::ReadCase(entry.path().string());
    if (j["model"]["dist"] != "ordinal") continue;
    ++cases;
    auto c = output_test::LoadCase(j, 1e-10, GeeDir() + "/data");
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    output_test::ApplyGeeKeys(*c);
    c->settings.SetEffectAnalysisType(TQConst::EffectTypeIII);
    c->settings.SetEffectAnalysisStat(GZLConst_940::EffectStatWald);
    Fit f = RunFit(c->settings, *c->source);
    ASSERT_FALSE(f.status.IsError()) << f.status.GetErrorCode();
    ASSERT_NE(f.stats, nullptr);
    const auto& e = c->expected;
    const auto* gee = dynamic_cast<const GEEAlgorithm*>(f.algorithm.get());
    const GZLInference& inf = *gee->GetInference();
    EXPECT_EQ(f.algorithm->GetDependCategories(), e["depend_categories"].get<std::vector<int>>());
    const auto& params = e["parameters"];
    const auto& rows = f.stats->GetParamStats();
    ASSERT_EQ(f.algorithm->GetRegrParameters().size(), params.size());
    const int T = e["corr_block"].get<int>();
    for (size_t k = 0; k < params.size(); ++k) {
      const auto& pj = params[k];
      SCOPED_TRACE("parameter " + pj["term"].get<std::string>());
      const TQRegrParameter& rp = f.algorithm->GetRegrParameters()[k];
      EXPECT_EQ(rp.GetTargetCategory(), int(k) < T ? int(k) : -1);
      if (int(k) >= T) {
        EXPECT_EQ(rp.GetCategories(), pj["categories"].get<std::vector<int>>());
      }
      if (output_test::ExpectRedundancy(rows[k], pj)) continue;
      output_test::ExpectRel(pj["estimate"], rows[k].GetEstimate(), "estimate", 1e-6, 1e-8);
      output_test::ExpectRel(pj["se"], rows[k].GetStdError(), "SE", 1e-6, 1e-8);
      output_test::ExpectRel(pj["se_robust"], std::sqrt((*inf.GetRobustCovarianceMatrix())(int(k), int(k))), "robust",
                             1e-6, 1e-8);
      output_test::ExpectRel(pj["se_model"], std::sqrt((*inf.GetModelBasedCovarianceMatrix())(int(k), int(k))), "model",
                             1e-6, 1e-8);
    }
    const TQSymMatrix& R = f.stats->GetWorkCorrelationMatrix();
    ASSERT_EQ(R.GetNumRows(), e["corr_dim"].get<int>());
    for (int a = 0; a < R.GetNumRows(); ++a)
      for (int b = 0; b < R.GetNumRows(); ++b)
        output_test::ExpectRel(e["working_correlation"][a][b], R(a, b), "R", 1e-6, 1e-8);
    EXPECT_EQ(f.algorithm->GetOptimizer()->GetPhi(), 1.0);
    // No quasi-likelihood for a multinomial response, so no QIC either.
    EXPECT_TRUE(TQMV::IsMissing(f.stats->GetQBetaIValue()));
    EXPECT_TRUE(TQMV::IsMissing(f.stats->GetQICValue()));
    EXPECT_TRUE(TQMV::IsMissing(f.stats->GetQICUValue()));
    EXPECT_FALSE(f.stats->GetRTransformedIndicator());
    EXPECT_EQ(f.stats->GetNumOfRecords(), e["n_records"].get<int>());
    EXPECT_EQ(gee->GetGEEOptimizer()->GetFinalRedunInfo().Count(), e["n_nonredundant"].get<int>());
    // No effect here contains another: the type III hypothesis of an effect is its own
    // parameters (after the thresholds), and the Wald statistic is b' C^-1 b over its
    // non-redundant ones with the covariance chosen for inference.
    const std::vector<GZLEffectInfo>& effects = f.algorithm->GetEffectInfo();
    for (size_t i = 0; i < effects.size(); ++i) {
      std::vector<int> cols;
      for (int j = T + effects[i].fStart; j < T + effects[i].fStart + effects[i].fNValues; ++j)
        if (!f.stats->GetRedundancyIndicators()[static_cast<std::size_t>(j)]) cols.push_back(j);
      const int n = static_cast<int>(cols.size());
      TQSymMatrix block(n), inverse;
      for (int a = 0; a < n; ++a)
        for (int b = 0; b <= a; ++b) block(a, b) = f.stats->GetCovarianceMatrix()(cols[a], cols[b]);
      std::vector<double> diagonal, bJ;
      block.GetDiagonal(diagonal);
      TQBitSet set;
      ASSERT_EQ(block.CholInverse(diagonal, 1e-12, inverse, set), n);
      for (int j : cols) bJ.push_back(f.stats->GetParamEstimates()[static_cast<std::size_t>(j)]);
      const TQModelTestStats::Test* test = f.stats->GetTypeIIITestStats().FindEffect(static_cast<int>(i) + 1);
      ASSERT_NE(test, nullptr);
      EXPECT_EQ(test->fDF, n);
      EXPECT_NEAR(test->fChiSquare, inverse.ComputeVSV(bJ), 1e-8 * test->fChiSquare);
    }
    EXPECT_EQ(f.stats->GetNumberOfSubjects(), e["n_subjects"].get<int>());
    EXPECT_EQ(f.stats->GetMinMeasurePerSubject(), e["min_subject_size"].get<int>());
    EXPECT_EQ(f.stats->GetMaxMeasurePerSubject(), e["max_subject_size"].get<int>());
  }
  EXPECT_EQ(cases, 3);
}

TEST(GEEOrdinal, BlockEstimatorsByHand) {
  // At thresholds (-0.4, 0.9) and slope 0.6 (p = 3), the standardized residuals of the six
  // records, then every block estimator from the pairs listed by hand.
  const std::vector<double> beta{-0.4, 0.9, 0.6};
  const double p = 3.0;
  const auto base = TinyData(1);
  std::vector<std::vector<double>> r;
  for (const auto& row : base) {
    auto F = [](double z) { return 1.0 / (1.0 + std::exp(-z)); };
    const double g0 = F(beta[0] - beta[2] * row[2]), g1 = F(beta[1] - beta[2] * row[2]);
    const double pi[2] = {g0, g1 - g0};
    std::vector<double> rr(2);
    for (int c = 0; c < 2; ++c) rr[c] = ((row[3] == c ? 1.0 : 0.0) - pi[c]) / std::sqrt(pi[c] * (1.0 - pi[c]));
    r.push_back(rr);
  }
  // Subject 0: records 0, 1, 2 at positions 0, 1, 2; subject 1: records 3, 4 at 0, 2.
  const Block sEx = Add(Add(Add(Sym(r[0], r[1]), Sym(r[0], r[2])), Sym(r[1], r[2])), Sym(r[3], r[4]));
  const Block sLag1 = Add(Sym(r[0], r[1]), Sym(r[1], r[2]));
  const Block sLag2 = Add(Sym(r[0], r[2]), Sym(r[3], r[4]));
  const Block s10 = Outer(r[1], r[0]), s20 = Add(Outer(r[2], r[0]), Outer(r[4], r[3])), s21 = Outer(r[2], r[1]);
  const Block zero{};

  for (const int n : {1, 4}) {
    GZLMemorySource source(TinyData(n));
    for (const bool adjust : {true, false}) {
      SCOPED_TRACE(std::to_string(n) + (adjust ? " copies, adjusted" : " copies, not adjusted"));
      auto R = [&](GZLConst_940::CorrType type, double m = 2.0) {
        GZLSettings s = OrdinalModel(type, 3, adjust, m);
        auto design = SetUpDesign(s, source);
        GEEWorkCorrForMultinomial corr(*design, s);
        TQStatus status;
        TQSymMatrix out;
        corr.Update(status, beta, 3, out);
        EXPECT_FALSE(status.IsError());
        return out;
      };
      auto one = [&](double c) { return adjust && n * c > p ? n * c - p : n * c; };
      const Block be = Scaled(sEx, n / one(4));
      ExpectBlocks(R(GZLConst_940::Exchangeable), be, be, be);
      const Block ba = Scaled(sLag1, n / one(2));
      ExpectBlocks(R(GZLConst_940::AR1), ba, Product(ba, ba), ba);
      const double dm = adjust && 2 * n > p ? 2 * n - p : 2 * n;  // both lags have 2n pairs
      ExpectBlocks(R(GZLConst_940::MDependent), Scaled(sLag1, n / dm), Scaled(sLag2, n / dm), Scaled(sLag1, n / dm));
      ExpectBlocks(R(GZLConst_940::MDependent, 1.9), Scaled(sLag1, n / dm), zero, Scaled(sLag1, n / dm));
      // Unstructured counts n, 2n, n: adjusted only when every one exceeds p.
      const double lose = adjust && n > p ? p : 0.0;
      ExpectBlocks(R(GZLConst_940::Unstructured), Scaled(s10, n / (n - lose)), Scaled(s20, n / (2 * n - lose)),
                   Scaled(s21, n / (n - lose)));
      ExpectBlocks(R(GZLConst_940::Independent), zero, zero, zero);
    }
  }

  // The fixed structure: three categories at three positions would read more values than the
  // list may hold, and are refused; two categories keep the last value read per position on the
  // diagonal.
  GZLMemorySource source(TinyData(1));
  auto fixed = [&](int categories, std::vector<double> values, TQStatus& status) {
    GZLSettings s = OrdinalModel(GZLConst_940::FixedCorr, categories);
    s.SetWorkCorrMatrix(values);
    auto design = SetUpDesign(s, source);
    GEEWorkCorrForMultinomial corr(*design, s);
    TQSymMatrix out;
    corr.Update(status, std::vector<double>(categories == 3 ? 3 : 2, 0.1), 3, out);
    return out;
  };
  TQStatus status;
  fixed(3, {0.2, 0.3, 0.4}, status);
  EXPECT_EQ(status.GetErrorCode(), GZLStatusCode::CorrFixedNumberMismatch);
  fixed(3, {0.2, -0.3, 0.4}, status);
  EXPECT_EQ(status.GetErrorCode(), GZLStatusCode::CorrFixedNumberOutRange);
  fixed(2, {0.2, 0.3}, status);
  EXPECT_EQ(status.GetErrorCode(), GZLStatusCode::CorrFixedNumberMismatch);
  const TQSymMatrix two = fixed(2, {0.2, 0.3, 0.4}, status);
  ASSERT_TRUE(status.IsOK());
  ASSERT_EQ(two.GetNumRows(), 3);
  EXPECT_EQ(two(0, 0), 1.0);
  EXPECT_EQ(two(1, 1), 0.2);
  EXPECT_EQ(two(2, 2), 0.4);
  EXPECT_EQ(two(1, 0), 0.0);
  EXPECT_EQ(two(2, 1), 0.0);
}

TEST(GEEOrdinal, OneRecordPerSubjectIsTheIndependenceFit) {
  // The first record of each subject of the reference data: no pairs, so every structure gives
  // R = I and the estimates and standard errors of the independence fit.
  auto c = output_test::LoadCase(GeeDir() + "/expected/simord_cumlogit_independent.json", 1e-10, GeeDir() + "/data");
  output_test::ApplyGeeKeys(*c);
  std::vector<std::vector<double>> rows;
  double last = -1.0;
  for (const auto& row : c->source->Rows())
    if (row[0] != last) {
      rows.push_back(row);
      last = row[0];
    }
  auto fit = [&](GZLConst_940::CorrType type) {
    GZLSettings s = c->settings;
    s.SetGEECorrType(type);
    s.SetGEEMDependentPar(2.0);
    GZLMemorySource source(rows);
    Fit f = RunFit(s, source);
    EXPECT_FALSE(f.status.IsError()) << f.status.GetErrorCode();
    return f;
  };
  Fit independent = fit(GZLConst_940::Independent);
  ASSERT_NE(independent.stats, nullptr);
  const int P = static_cast<int>(independent.stats->GetParamEstimates().size());
  for (const auto type : {GZLConst_940::Exchangeable, GZLConst_940::AR1, GZLConst_940::MDependent,
                          GZLConst_940::Unstructured}) {
    SCOPED_TRACE(type);
    Fit f = fit(type);
    ASSERT_NE(f.stats, nullptr);
    const TQSymMatrix& R = f.stats->GetWorkCorrelationMatrix();
    ASSERT_EQ(R.GetNumRows() % 3, 0);
    for (int a = 0; a < R.GetNumRows(); ++a)
      for (int b = 0; b <= a; ++b) EXPECT_EQ(R(a, b), a == b ? 1.0 : 0.0);
    for (int j = 0; j < P; ++j) {
      EXPECT_NEAR(f.stats->GetParamEstimates()[j], independent.stats->GetParamEstimates()[j], 1e-10);
      EXPECT_NEAR(f.stats->GetParamStats()[j].GetStdError(), independent.stats->GetParamStats()[j].GetStdError(),
                  1e-10);
    }
  }
}

TEST(GEEOrdinal, SubjectBlockNotPositiveDefiniteIsTransformed) {
  // One subject at positions 0 and 1 whose 4 x 4 block of R is indefinite: the pass uses the
  // block made positive definite (the same U and H as with that block given directly), and the
  // subject still counts.
  const std::vector<std::vector<double>> rows{{0, 0, 0.3, 0}, {0, 1, -0.7, 2}, {1, 0, 1.1, 1}};
  GZLSettings s = OrdinalModel(GZLConst_940::Exchangeable, 3);
  GZLMemorySource source(rows);
  auto design = SetUpDesign(s, source);
  TQSymMatrix bad(4, 0.0);
  for (int i = 0; i < 4; ++i) bad(i, i) = 1.0;
  for (int a = 2; a < 4; ++a)
    for (int b = 0; b < 2; ++b) bad(a, b) = 0.9;
  TQSymMatrix good = bad;
  ASSERT_TRUE(good.TransformToPositiveDefinite(1e-12));
  const std::vector<double> beta{-0.2, 0.8, 0.4};
  GEESubjectPass pass(s);
  pass.SetActive(TQBitSet(3, true));
  auto run = [&](const TQSymMatrix& R, bool& transformed, std::vector<double>& U, TQSymMatrix& H) {
    ASSERT_TRUE(pass.Run(*design, beta, R, 1.0, false, transformed).IsOK());
    EXPECT_EQ(pass.GetNumValid(), 3);
    pass.GetGradient(U);
    pass.GetHessian(H);
  };
  bool tBad = false, tGood = true;
  std::vector<double> uBad, uGood;
  TQSymMatrix hBad, hGood;
  run(bad, tBad, uBad, hBad);
  run(good, tGood, uGood, hGood);
  EXPECT_TRUE(tBad);
  EXPECT_FALSE(tGood);
  // (The transform lifts the negative eigenvalue to 1e-12: the block is nearly singular, so
  // the sums are large and agree to a relative 1e-9.)
  for (int a = 0; a < 3; ++a) {
    EXPECT_NEAR(uBad[a], uGood[a], 1e-9 * std::fabs(uGood[a]));
    for (int b = 0; b <= a; ++b) EXPECT_NEAR(hBad(a, b), hGood(a, b), 1e-9 * std::fabs(hGood(a, b)));
  }
}

TEST(GEEOrdinal, ScoringAndNominalRefusal) {
  auto c = output_test::LoadCase(GeeDir() + "/expected/simord_cumlogit_exchangeable.json", 1e-10, GeeDir() + "/data");
  output_test::ApplyGeeKeys(*c);
  Fit f = RunFit(c->settings, *c->source);
  ASSERT_NE(f.stats, nullptr);
  // A record is scored with the GEE estimates and the covariance chosen for inference (robust):
  // predictor j is theta_j - x'b with standard error sqrt(a'Ca), a = (e_j, -x); the category
  // probabilities are the differences of F at the predictors.
  const std::vector<double>& record = c->source->Rows().front();  // subject, time, grp, x, y
  GZLScoreStats scores(GZLConst_940::GEE);
  const int mask = GZLScoringEngine::ScoreXBPRED | GZLScoringEngine::ScoreXBSTDERROR | GZLScoringEngine::ScoreMEANPRED;
  const TQStatus st = f.algorithm->Score(Record(record.data(), record.size()), scores, &mask);
  ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
  const std::vector<double>& b = f.stats->GetParamEstimates();
  const TQSymMatrix& C = f.stats->GetCovarianceMatrix();
  // Columns after the 3 thresholds: grp=0, grp=1, grp=2 (aliased), time, x.
  const std::vector<double> x{record[2] == 0 ? 1.0 : 0.0, record[2] == 1 ? 1.0 : 0.0, record[2] == 2 ? 1.0 : 0.0,
                              record[1], record[3]};
  double previous = 0.0;
  ASSERT_EQ(scores.GetXBPREDMULTINOMIAL().size(), 3u);
  ASSERT_EQ(scores.GetMEANPREDMULTINOMIAL().size(), 4u);
  for (int t = 0; t < 3; ++t) {
    std::vector<double> a(8, 0.0);
    a[t] = 1.0;
    double eta = b[t];
    for (int k = 0; k < 5; ++k) {
      a[3 + k] = -x[k];
      eta -= x[k] * b[3 + k];
    }
    EXPECT_NEAR(scores.GetXBPREDMULTINOMIAL()[t], eta, 1e-12);
    EXPECT_NEAR(scores.GetXBSTDERRORMULTINOMIAL()[t], std::sqrt(C.ComputeVSV(a)), 1e-12);
    const double F = 1.0 / (1.0 + std::exp(-eta));
    EXPECT_NEAR(scores.GetMEANPREDMULTINOMIAL()[t], F - previous, 1e-12);
    previous = F;
  }
  // A nominal response has no estimating equations here.
  GZLSettings nominal = c->settings;
  nominal.SetDistType(TQConst::DistNominalMultinomial);
  nominal.SetLinkType(TQConst::LinkLogit);
  Fit n = RunFit(nominal, *c->source);
  EXPECT_EQ(n.status.GetErrorCode(), GZLStatusCode::CantBuildModel);
}

TEST(GEEOrdinal, FrequencyWeightsAndHostInitialValues) {
  // The reference records (subject, time, x, y): a subject of weight 2 is two identical
  // subjects, in the estimates, their standard errors and the blocks of R.
  auto c = output_test::LoadCase(GeeDir() + "/expected/simord_cumlogit_exchangeable.json", 1e-10, GeeDir() + "/data");
  std::vector<std::vector<double>> copies, weighted;
  for (const auto& r : c->source->Rows()) {
    copies.push_back({r[0], r[1], r[3], r[4]});
    weighted.push_back({r[0], r[1], r[3], r[4], 2.0});
  }
  for (const auto& r : c->source->Rows()) copies.push_back({r[0] + 500, r[1], r[3], r[4]});
  GZLSettings a = OrdinalModel(GZLConst_940::Exchangeable, 4);
  GZLSettings b = OrdinalModel(GZLConst_940::Exchangeable, 4);
  ASSERT_TRUE(b.SetFrequencyWeightVar(4));
  GZLMemorySource sa(copies), sb(weighted);
  Fit fa = RunFit(a, sa), fb = RunFit(b, sb);
  ASSERT_NE(fa.stats, nullptr) << fa.status.GetErrorCode();
  ASSERT_NE(fb.stats, nullptr) << fb.status.GetErrorCode();
  const std::vector<double>& estimates = fa.stats->GetParamEstimates();
  for (int j = 0; j < 4; ++j) {
    EXPECT_NEAR(estimates[j], fb.stats->GetParamEstimates()[j], 1e-9);
    EXPECT_NEAR(fa.stats->GetParamStats()[j].GetStdError(), fb.stats->GetParamStats()[j].GetStdError(), 1e-9);
  }
  const TQSymMatrix& Ra = fa.stats->GetWorkCorrelationMatrix();
  ASSERT_EQ(Ra.GetNumRows(), 12);
  for (int i = 0; i < 12; ++i)
    for (int k = 0; k <= i; ++k) EXPECT_NEAR(Ra(i, k), fb.stats->GetWorkCorrelationMatrix()(i, k), 1e-9);

  // The host's initial values (thresholds and effects; the fixed scale is the settings')
  // without an inner fit lead to the same solution, whatever value an aliased column is given;
  // one value short fails.
  output_test::ApplyGeeKeys(*c);
  GZLSettings host = c->settings;
  ASSERT_TRUE(host.SetMaxIterations(0));
  std::vector<double> init;
  for (const auto& pj : c->expected["parameters"]) init.push_back(pj["redundant"].get<bool>() ? 0.7 : 0.0);
  host.SetInitParams(std::vector<double>(init.begin(), init.end() - 1));
  EXPECT_EQ(RunFit(host, *c->source).status.GetErrorCode(), GZLStatusCode::InitialValueFailed);
  init[0] = -0.5;
  init[2] = 0.5;
  host.SetInitParams(init);
  Fit h = RunFit(host, *c->source);
  ASSERT_NE(h.stats, nullptr) << h.status.GetErrorCode();
  for (size_t j = 0; j < init.size(); ++j)
    output_test::ExpectRel(c->expected["parameters"][j]["estimate"], h.stats->GetParamEstimates()[j], "estimate", 1e-6,
                           1e-8);
}

TEST(GEEOrdinal, GeneralizedScoreTestsOfEffects) {
  // The tests run on the ordinal contrasts: each effect gets a statistic with the full-rank
  // hypothesis's rows as df, and the last effect's type I test is its type III test.
  auto c = output_test::LoadCase(GeeDir() + "/expected/simord_cumlogit_independent.json", 1e-10, GeeDir() + "/data");
  output_test::ApplyGeeKeys(*c);
  c->settings.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  c->settings.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  Fit f = RunFit(c->settings, *c->source);
  ASSERT_NE(f.stats, nullptr);
  const auto& type1 = f.stats->GetTypeILRStats();
  const auto& type3 = f.stats->GetTypeIIILRStats();
  ASSERT_FALSE(type3.empty());
  ASSERT_EQ(type1.size(), type3.size());
  EXPECT_TRUE(f.stats->GetTypeIIILRStatus().IsOK());
  for (std::size_t e = 0; e < type3.size(); ++e) {
    EXPECT_TRUE(f.stats->GetTypeIIILRStatusEff()[e].IsOK()) << e;
    EXPECT_GT(type3[e][0], 0.0);
    EXPECT_GE(type3[e][1], 1.0);
  }
  EXPECT_NEAR(type1.back()[0], type3.back()[0], 1e-8 * type3.back()[0]);
}
