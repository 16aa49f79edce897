// GEE models: the reference fits (estimates, robust and model-based standard errors, working
// correlation, scale, quasi-likelihood, QIC, QICu, subject counts), the subject-counting rules,
// the statuses of the setup pass, the initial values and the working correlation, and
// cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLProgress.h"
#include "GZLReporter.h"
#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEELLGradHessian.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEEQuasiLikelihood.h"
#include "gee/GEEScoreStats.h"
#include "gee/GEEWorkCorrelation.h"
#include "inference/GZLInference.h"
#include "inference/GZLModelEffectTest.h"
#include "inference/GZLScoringEngine.h"
#include "gee_fit.h"
#include "output_reference_models.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

using output_test::ApplyGeeKeys;
using output_test::LoadCase;
using output_test::ReferenceCase;

namespace {

std::string GeeDir() { return output_test::RefDir() + "/gee"; }

// The tolerance of the GEE references: relative 1e-6, absolute 1e-8 near zero.
void ExpectRel(double expected, double actual, const std::string& what) {
  output_test::ExpectRel(expected, actual, what, 1e-6, 1e-8);
}

using gee_test::Fit;
using gee_test::RunFit;

// Settings of a small normal model: response 0, subject 1, within-subject 2, covariate 3.
GZLSettings SmallModel(GZLConst_940::CorrType corr, bool sorted = false, bool within = true) {
  GZLSettings s;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetDistType(TQConst::DistNormal);
  s.SetLinkType(TQConst::LinkIdentity);
  s.SetScaleType(GZLConst_940::ScaleMLE);
  s.SetDependent(0);
  s.SetInterceptUse(true);
  s.AddCovariate(3);
  GZLModelEffect effect(0, 1, &s.GetCovariates());
  effect.AddCovariate(3);
  s.AddModelEffect(effect);
  s.AddGEESubjectVar(1, 200);
  if (within) s.AddGEEWSVar(2, 10);
  s.SetGEECorrType(corr);
  s.SetGEESortBySubjectWS(sorted);
  return s;
}

// Records y, subject, time, x for `subjects` subjects of `times` occasions.
std::vector<std::vector<double>> SmallData(int subjects, int times) {
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < subjects; ++i)
    for (int t = 0; t < times; ++t) {
      const double x = std::sin(1.7 * i + 0.9 * t);
      const double b = std::cos(2.3 * i);  // subject effect: correlated residuals
      rows.push_back({1.0 + 0.5 * x + b + 0.3 * std::sin(5.1 * i * t + t), double(i), double(t), x});
    }
  return rows;
}

class CancelAfter : public TQQueryCancel {
 public:
  explicit CancelAfter(int n) : fLeft(n) {}
  bool IsCancelled() override { return --fLeft < 0; }
  int Left() const { return fLeft; }

 private:
  int fLeft;
};

}  // namespace

TEST(GEE, ReferenceFits) {
  // The GEE cases, and the fit behind the GEE case of the scoring references.
  std::vector<std::string> files;
  // (The ordinal cases have tests of their own.)
  for (const auto& e : std::filesystem::directory_iterator(GeeDir() + "/expected"))
    if (output_test::ReadCase(e.path().string())["model"]["dist"] != "ordinal") files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  ASSERT_EQ(files.size(), 7u);
  files.push_back(std::string(GZL_TEST_DATA_DIR) + "/scoring/expected/ships_gee_poisson_independent.json");
  for (const std::string& file : files) {
    const bool ships = file.find("ships_gee") != std::string::npos;
    auto c = LoadCase(file, 1e-10, ships ? "" : GeeDir() + "/data");
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    ApplyGeeKeys(*c);
    Fit f = RunFit(c->settings, *c->source);
    ASSERT_TRUE(f.algorithm);
    ASSERT_FALSE(f.status.IsError()) << f.status.GetErrorCode();
    ASSERT_NE(f.stats, nullptr);
    const auto& e = ships ? c->expected["fit"] : c->expected;
    const auto* gee = dynamic_cast<const GEEAlgorithm*>(f.algorithm.get());
    ASSERT_NE(gee, nullptr);
    const GZLInference& inf = *gee->GetInference();
    const auto& rows = f.stats->GetParamStats();
    const auto& params = e["parameters"];
    ASSERT_GE(rows.size(), params.size());
    ASSERT_EQ(f.algorithm->GetRegrParameters().size(), params.size());
    for (size_t j = 0; j < params.size(); ++j) {
      const TQRegrParameter& rp = f.algorithm->GetRegrParameters()[j];
      // The reference numbers the intercept's effect -1.
      if (params[j]["effect"].get<int>() >= 0) {
        EXPECT_EQ(rp.GetEffectIndex(), params[j]["effect"].get<int>()) << j;
      }
      EXPECT_EQ(rp.GetTargetCategory(), -1) << j;
      EXPECT_EQ(rp.GetCategories(), params[j]["categories"].get<std::vector<int>>()) << j;
    }
    for (size_t j = 0; j < params.size(); ++j) {
      const auto& pj = params[j];
      SCOPED_TRACE("parameter " + pj["term"].get<std::string>());
      if (output_test::ExpectRedundancy(rows[j], pj)) continue;
      ExpectRel(pj["estimate"], rows[j].GetEstimate(), "estimate");
      ExpectRel(pj["se"], rows[j].GetStdError(), "standard error of the chosen covariance");
      if (pj.contains("se_robust")) {
        ExpectRel(pj["se_robust"], std::sqrt((*inf.GetRobustCovarianceMatrix())(int(j), int(j))), "robust SE");
        ExpectRel(pj["se_model"], std::sqrt((*inf.GetModelBasedCovarianceMatrix())(int(j), int(j))), "model SE");
      }
    }
    ExpectRel(e["scale"], f.algorithm->GetOptimizer()->GetPhi(), "scale");
    EXPECT_EQ(f.stats->GetNumOfRecords(), e["n_records"].get<int>());
    EXPECT_EQ(gee->GetGEEOptimizer()->GetFinalRedunInfo().Count(), e["n_nonredundant"].get<int>());
    if (ships) continue;
    const auto& R = e["working_correlation"];
    const TQSymMatrix& r = f.stats->GetWorkCorrelationMatrix();
    ASSERT_EQ(r.GetNumRows(), e["corr_dim"].get<int>());
    EXPECT_EQ(f.stats->GetMaxGroupSize(), e["corr_dim"].get<int>());
    for (int i = 0; i < r.GetNumRows(); ++i)
      for (int k = 0; k < r.GetNumRows(); ++k) ExpectRel(R[i][k], r(i, k), "R");
    ExpectRel(e["quasi_loglik"], f.stats->GetQBetaIValue(), "Q");
    ExpectRel(e["qic_trace"], inf.GetQICTrace(), "QIC trace");
    ExpectRel(e["qic"], f.stats->GetQICValue(), "QIC");
    ExpectRel(e["qicu"], f.stats->GetQICUValue(), "QICu");
    EXPECT_EQ(f.stats->GetNumberOfSubjects(), e["n_subjects"].get<int>());
    EXPECT_EQ(f.stats->GetMinMeasurePerSubject(), e["min_subject_size"].get<int>());
    EXPECT_EQ(f.stats->GetMaxMeasurePerSubject(), e["max_subject_size"].get<int>());
    if (e.contains("iterations")) {
      EXPECT_EQ(f.algorithm->GetOptimizer()->GetIterationNumber(), e["iterations"].get<int>());
      EXPECT_EQ(f.algorithm->GetOptimizer()->IsConverged(), e["converged"].get<bool>());
      const auto& w = f.algorithm->GetBuildModelWarnings();
      EXPECT_NE(std::find(w.begin(), w.end(), TQStatus::Warning(GZLStatusCode::LoopIterLargeMaxIter)), w.end());
    }
  }
}

TEST(GEE, SubjectCounting) {
  // Subject keys 1, 1, 2, 1 with within-subject values 0, 1, 0, 2.
  const std::vector<std::vector<double>> rows = {{1.0, 1, 0, 0.1}, {2.0, 1, 1, 0.7}, {1.5, 2, 0, 0.3}, {2.5, 1, 2, 0.9},
                                                 {0.5, 3, 0, 0.2}, {1.1, 3, 1, 0.5}, {1.9, 4, 0, 0.8}, {0.7, 4, 2, 0.4}};
  for (const bool sorted : {false, true}) {
    SCOPED_TRACE(sorted ? "sorted" : "unsorted");
    GZLSettings s = SmallModel(GZLConst_940::Exchangeable, sorted);
    GZLMemorySource source(rows);
    Fit f = RunFit(s, source);
    ASSERT_NE(f.stats, nullptr) << f.status.GetErrorCode();
    // Unsorted: a key seen again after another starts a subject (runs 2, 1, 1, 2, 2); sorted:
    // distinct keys (3, 1, 2, 2). The estimation passes take runs either way.
    EXPECT_EQ(f.stats->GetNumberOfSubjects(), sorted ? 4 : 5);
    EXPECT_EQ(f.stats->GetMinMeasurePerSubject(), 1);
    EXPECT_EQ(f.stats->GetMaxMeasurePerSubject(), sorted ? 3 : 2);
    EXPECT_EQ(f.stats->GetMaxGroupSize(), 3);  // within-subject values 0, 1, 2
    static double slope = 0.0;
    if (!sorted)
      slope = f.stats->GetParamEstimates()[1];
    else
      EXPECT_EQ(f.stats->GetParamEstimates()[1], slope);
  }
  // Repeated within-subject values fail the setup pass in either mode; so do different
  // frequency weights inside a subject.
  for (const bool sorted : {false, true}) {
    std::vector<std::vector<double>> repeated = rows;
    repeated[1][2] = 0.0;
    GZLSettings s = SmallModel(GZLConst_940::Exchangeable, sorted);
    GZLMemorySource source(repeated);
    EXPECT_EQ(RunFit(s, source).status.GetErrorCode(), GZLStatusCode::CasesWithSameSubjWS);
    std::vector<std::vector<double>> weighted = rows;
    for (auto& r : weighted) r.push_back(2.0);
    weighted[1][4] = 3.0;
    GZLSettings w = SmallModel(GZLConst_940::Exchangeable, sorted);
    ASSERT_TRUE(w.SetFrequencyWeightVar(4));
    GZLMemorySource wsource(weighted);
    const TQStatus st = RunFit(w, wsource).status;
    EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::CasesWithDiffFW);
    EXPECT_TRUE(st.IsError());
  }
  // A missing weight differs from any weight, another missing one included; equal weights never.
  for (const bool sorted : {false, true}) {
    auto counter = [&]() -> std::unique_ptr<IGEENumSubject> {
      if (sorted) return std::make_unique<GEENumSubjSorted>(std::vector<int>{0}, std::vector<int>{}, 1);
      return std::make_unique<GEENumSubjUnSorted>(std::vector<int>{0}, std::vector<int>{}, 1);
    };
    auto mixed = [&](double a, double b) {
      auto c = counter();
      const double r1[] = {1.0, a}, r2[] = {1.0, b};
      c->AddRecord(Record(r1, 2));
      c->AddRecord(Record(r2, 2));
      return c->IsMixedWeight();
    };
    EXPECT_TRUE(mixed(2.0, TQMV::Missing));
    EXPECT_TRUE(mixed(TQMV::Missing, TQMV::Missing));
    EXPECT_FALSE(mixed(2.0, 2.0));
  }
}

TEST(GEE, SingleRecordSubjectsAndMissingSubject) {
  // Every subject of one record: no pairs, R is the identity and the fit is the independence
  // fit. A record whose subject value is missing is left out.
  std::vector<std::vector<double>> rows;
  for (const auto& r : SmallData(30, 3))
    if (r[2] == 0.0) rows.push_back(r);
  rows.push_back({5.0, TQMV::Missing, 0.0, 0.2});
  GZLSettings exch = SmallModel(GZLConst_940::Exchangeable);
  GZLSettings indep = SmallModel(GZLConst_940::Independent);
  GZLMemorySource a(rows), b(rows);
  Fit fe = RunFit(exch, a), fi = RunFit(indep, b);
  ASSERT_NE(fe.stats, nullptr);
  ASSERT_NE(fi.stats, nullptr);
  EXPECT_EQ(fe.stats->GetNumOfRecords(), 30);
  EXPECT_EQ(fe.stats->GetWorkCorrelationMatrix().GetNumRows(), 1);
  for (int j = 0; j < 2; ++j) {
    EXPECT_NEAR(fe.stats->GetParamEstimates()[j], fi.stats->GetParamEstimates()[j], 1e-12);
    EXPECT_NEAR(fe.stats->GetParamStats()[j].GetStdError(), fi.stats->GetParamStats()[j].GetStdError(), 1e-12);
  }
  // One subject with a single record among full ones fits too.
  std::vector<std::vector<double>> mixedRows = SmallData(20, 4);
  mixedRows.push_back({1.2, 20, 1, 0.4});
  GZLSettings s = SmallModel(GZLConst_940::AR1);
  GZLMemorySource m(mixedRows);
  Fit fm = RunFit(s, m);
  ASSERT_NE(fm.stats, nullptr) << fm.status.GetErrorCode();
  EXPECT_EQ(fm.stats->GetNumberOfSubjects(), 21);
  EXPECT_EQ(fm.stats->GetMinMeasurePerSubject(), 1);
}

TEST(GEE, FixedCorrelation) {
  const auto rows = SmallData(25, 3);
  auto fit = [&](std::vector<double> values) {
    GZLSettings s = SmallModel(GZLConst_940::FixedCorr);
    s.SetWorkCorrMatrix(std::move(values));
    GZLMemorySource source(rows);
    Fit f = RunFit(s, source);
    return std::make_pair(f.status, f.stats != nullptr && f.stats->GetRTransformedIndicator());
  };
  // Not positive definite: used after the transform to a positive definite matrix.
  const auto [status, transformed] = fit({0.9, 0.9, 0.0});
  EXPECT_FALSE(status.IsError()) << status.GetErrorCode();
  EXPECT_TRUE(transformed);
  EXPECT_FALSE(fit({0.5, 0.4, 0.5}).second);
  EXPECT_EQ(fit({0.5, 0.4, 0.5, 0.1}).first.GetErrorCode(), GZLStatusCode::CorrFixedNumberMismatch);
  EXPECT_EQ(fit({0.5, -0.2, 0.5}).first.GetErrorCode(), GZLStatusCode::CorrFixedNumberOutRange);
}

TEST(GEE, ScoringRequests) {
  // Before a fit nothing is scored; a GEE fit has no leverage, nor what is built on it.
  GZLSettings s = SmallModel(GZLConst_940::Exchangeable);
  GZLMemorySource source(SmallData(10, 3));
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(s, false));
  const std::vector<double> values{1.0, 2.0, 1.0, 0.5};
  const Record record(values.data(), values.size());
  GZLScoreStats scores(GZLConst_940::GEE);
  const int predict = GZLScoringEngine::ScoreXBPRED | GZLScoringEngine::ScoreMEANPRED;
  EXPECT_EQ(a->Score(record, scores, &predict).GetErrorCode(), GZLStatusCode::ModelNotBuilt);
  ASSERT_FALSE(a->BuildModel(source).IsError());
  EXPECT_TRUE(a->Score(record, scores, &predict).IsOK());
  EXPECT_NEAR(scores.GetMEANPRED(), a->GetOptimizer()->GetParamEstimates()[0] + 0.5 * a->GetOptimizer()->GetParamEstimates()[1],
              1e-12);
  const int leverage = GZLScoringEngine::ScoreLEVERAGE;
  EXPECT_EQ(a->Score(record, scores, &leverage).GetErrorCode(), GZLStatusCode::InvalidScoreType);
}

TEST(GEE, InitialValues) {
  const auto rows = SmallData(25, 3);
  GZLSettings s = SmallModel(GZLConst_940::Exchangeable);
  GZLMemorySource source(rows);
  Fit reference = RunFit(s, source);
  ASSERT_NE(reference.stats, nullptr);
  // Without GZLM iterations, initial values or likelihood-ratio tests there is no inner fit
  // and no initial value.
  GZLSettings none = SmallModel(GZLConst_940::Exchangeable);
  ASSERT_TRUE(none.SetMaxIterations(0));
  EXPECT_EQ(RunFit(none, source).status.GetErrorCode(), GZLStatusCode::InitialValueFailed);
  // The host's values: P estimates and phi; one short fails.
  GZLSettings host = SmallModel(GZLConst_940::Exchangeable);
  ASSERT_TRUE(host.SetMaxIterations(0));
  host.SetInitParams({0.5, 0.1});
  EXPECT_EQ(RunFit(host, source).status.GetErrorCode(), GZLStatusCode::InitialValueFailed);
  host.SetInitParams({0.5, 0.1, 1.0});
  Fit f = RunFit(host, source);
  ASSERT_NE(f.stats, nullptr) << f.status.GetErrorCode();
  for (int j = 0; j < 2; ++j)
    EXPECT_NEAR(f.stats->GetParamEstimates()[j], reference.stats->GetParamEstimates()[j], 1e-6);
  // An initial phi of 0: no iterations, the scale-is-zero warning, a zero covariance.
  host.SetInitParams({0.5, 0.1, 0.0});
  Fit zero = RunFit(host, source);
  ASSERT_NE(zero.stats, nullptr) << zero.status.GetErrorCode();
  const auto& w = zero.stats->GetBuildModelWarnings();
  EXPECT_NE(std::find(w.begin(), w.end(), TQStatus::Warning(GZLStatusCode::ScaleIsZero)), w.end());
  EXPECT_EQ(zero.stats->GetCovarianceMatrix()(1, 1), 0.0);
  EXPECT_EQ(zero.algorithm->GetOptimizer()->GetIterationNumber(), 0);
  // No GEE iterations: one pass at the initial values.
  GZLSettings once = SmallModel(GZLConst_940::Exchangeable);
  ASSERT_TRUE(once.SetGEEMaxIterations(0));
  Fit g = RunFit(once, source);
  ASSERT_NE(g.stats, nullptr);
  EXPECT_EQ(g.stats->GetEstimStopCriterion(), GZLConst_940::NoIterations);
  EXPECT_EQ(g.algorithm->GetOptimizer()->GetIterationNumber(), 0);
}

TEST(GEE, SourcesThatCannotServe) {
  // An empty source; a source that cannot rewind: the inner fit finds no record (no initial
  // values), and without an inner fit the first GEE pass cannot start.
  GZLSettings s = SmallModel(GZLConst_940::Exchangeable);
  GZLMemorySource empty;
  EXPECT_EQ(RunFit(s, empty).status.GetErrorCode(), GZLStatusCode::NoValidRecords);
  GZLMemorySource once(SmallData(10, 3), false);
  Fit f = RunFit(s, once);
  EXPECT_EQ(f.status.GetErrorCode(), GZLStatusCode::InitialValueFailed);
  GZLSettings host = SmallModel(GZLConst_940::Exchangeable);
  ASSERT_TRUE(host.SetMaxIterations(0));
  host.SetInitParams({0.5, 0.1, 1.0});
  GZLMemorySource again(SmallData(10, 3), false);
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(host, false));
  EXPECT_EQ(a->BuildModel(again).GetErrorCode(), GZLStatusCode::NewPass);
  EXPECT_FALSE(a->IsModelBuilt());
}

TEST(GEE, CancelledDuringAPass) {
  const auto rows = SmallData(25, 3);
  // How often a whole fit asks; then cancels in the dictionary pass, the inner fit, and a
  // record of a late GEE pass.
  CancelAfter counter(1 << 30);
  GZLSettings counted = SmallModel(GZLConst_940::AR1);
  counted.SetCancelPointer(&counter);
  GZLMemorySource all(rows);
  ASSERT_TRUE(RunFit(counted, all).algorithm->IsModelBuilt());
  const int total = (1 << 30) - counter.Left();
  ASSERT_GT(total, 600);
  for (const int polls : {40, 120, total - 40}) {
    CancelAfter cancel(polls);
    GZLSettings s = SmallModel(GZLConst_940::AR1);
    s.SetCancelPointer(&cancel);
    GZLMemorySource source(rows);
    Fit f = RunFit(s, source);
    EXPECT_EQ(f.status.GetErrorCode(), GZLStatusCode::Cancelled) << polls;
    EXPECT_FALSE(f.algorithm->IsModelBuilt());
    const GZLOutputStats* stats = nullptr;
    EXPECT_EQ(f.algorithm->GetOutputStats(stats).GetErrorCode(), GZLStatusCode::ModelNotBuilt);
  }
}

TEST(GEE, QuasiLikelihoodTerms) {
  std::unique_ptr<IGEEQuasiLikeliHoodFunc> poisson(CreateGEEQuasiLikeliHoodFunc(TQConst::DistPoisson, 0.0));
  poisson->SetPhi(1.0);
  EXPECT_EQ(poisson->accumulate(0.0, 0.0, 1.0, 1.0, 1.0), 0.0);
  EXPECT_EQ(poisson->accumulate(2.0, 0.0, 1.0, 1.0, 1.0), 0.0);  // skipped
  std::unique_ptr<IGEEQuasiLikeliHoodFunc> tweedie(CreateGEEQuasiLikeliHoodFunc(TQConst::DistTweedie, 1.5));
  tweedie->SetPhi(1.0);
  EXPECT_DOUBLE_EQ(tweedie->accumulate(1.0, 1.0, 1.0, 1.0, 1.0), -4.0);
  std::unique_ptr<IGEEQuasiLikeliHoodFunc> binomial(CreateGEEQuasiLikeliHoodFunc(TQConst::DistBinomial, 0.0));
  binomial->SetPhi(1.0);
  EXPECT_TRUE(TQMV::IsMissing(binomial->accumulate(0.3, 1.0, 1.0, 1.0, 1.0)));
  EXPECT_EQ(binomial->GetSum(), 0.0);
  std::unique_ptr<IGEEQuasiLikeliHoodFunc> normal(CreateGEEQuasiLikeliHoodFunc(TQConst::DistNormal, 0.0));
  normal->SetPhi(2.0);
  EXPECT_DOUBLE_EQ(normal->accumulate(3.0, 1.0, 1.0, 1.0, 1.0), -1.0);
  EXPECT_EQ(CreateGEEQuasiLikeliHoodFunc(TQConst::DistOrdinalMultinomial, 0.0), nullptr);
}

TEST(GEE, CorrelationSumsScaleFree) {
  // The factor is a power of 16 picked from the largest residual; sums gathered at different
  // factors merge into exactly the sums at the common one.
  EXPECT_EQ(GEEWorkCorrelation::ScaleFactor(1.0), 1.0);
  EXPECT_EQ(GEEWorkCorrelation::ScaleFactor(20.0), 1.0 / 256.0);
  EXPECT_EQ(GEEWorkCorrelation::ScaleFactor(0.5), 16.0);
  EXPECT_EQ(GEEWorkCorrelation::ScaleFactor(1e200), std::ldexp(1.0, -160));
  EXPECT_EQ(GEEWorkCorrelation::Correlation(3.0, 1.0, 2.0), 0.9999);
  EXPECT_EQ(GEEWorkCorrelation::Correlation(3.0, 0.0, 2.0), 0.0);
  for (const double size : {1e200, 1.0, 1e-200}) {
    const double r[] = {0.7 * size, -0.2 * size, 1.3 * size, 0.4 * size};
    auto add = [&](GEECorrelationMoments& m, int from, int to) {
      double largest = 0.0;
      for (int k = from; k < to; ++k) largest = std::max(largest, std::fabs(r[k]));
      m.Rescale(largest);
      for (int k = from; k + 1 < to; ++k) {
        m.fSP[0] += (r[k] * m.fFactor) * (r[k + 1] * m.fFactor);
        m.fS2 += (r[k] * m.fFactor) * (r[k] * m.fFactor);
      }
    };
    GEECorrelationMoments whole, first, second;
    whole.Reset(1);
    first.Reset(1);
    second.Reset(1);
    add(whole, 0, 2);
    add(whole, 2, 4);
    add(first, 0, 2);
    add(second, 2, 4);
    first.Merge(second);
    EXPECT_EQ(first.fSP[0], whole.fSP[0]);
    EXPECT_EQ(first.fS2, whole.fS2);
    EXPECT_NEAR(whole.fSP[0] / whole.fS2, (0.7 * -0.2 + 1.3 * 0.4) / (0.49 + 1.69), 1e-15);
  }
}

TEST(GEE, EstimatingEquationsInterface) {
  // At the solution of a reference fit: the step is nil, the information's inverse is the
  // model-based covariance, and there is no likelihood.
  auto c = LoadCase(GeeDir() + "/expected/dietox_normal_ar1.json", 1e-10, GeeDir() + "/data");
  ApplyGeeKeys(*c);
  Fit f = RunFit(c->settings, *c->source);
  ASSERT_TRUE(f.algorithm->IsModelBuilt());
  auto* gee = dynamic_cast<GEEAlgorithm*>(f.algorithm.get());
  GEELLGradHessian equations(*gee->GetGEEOptimizer());
  TQStatus st;
  double ll = 0.0;
  std::vector<double> gradient;
  TQSymMatrix hessian;
  equations.ComputeLLGradHessian(st, gee->GetGEEOptimizer()->GetParamEstimates(), 0.0, 0.0, ll, gradient, hessian,
                                 false);
  ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
  EXPECT_TRUE(TQMV::IsMissing(ll));
  EXPECT_LT(hessian(0, 0), 0.0);
  equations.ComputeInverse(st);
  ASSERT_TRUE(st.IsOK());
  const TQSymMatrix& model = *gee->GetInference()->GetModelBasedCovarianceMatrix();
  for (int j = 0; j < model.GetNumRows(); ++j) {
    EXPECT_NEAR(equations.GetDirection()[j], 0.0, 1e-9);
    EXPECT_NEAR(equations.GetInverse()(j, j), model(j, j), 1e-9 * model(j, j) + 1e-15);
  }
}

TEST(GEE, FrequencyWeightsCountAsCopiesOfSubjects) {
  // A subject of weight 2 is two identical subjects: same estimates, standard errors, R, phi
  // and QIC; Q doubles with the data.
  const auto base = SmallData(15, 4);
  std::vector<std::vector<double>> copies = base, weighted = base;
  for (const auto& r : base) {
    auto c = r;
    c[1] += 100.0;
    copies.push_back(c);
  }
  for (auto& r : weighted) r.push_back(2.0);
  GZLSettings a = SmallModel(GZLConst_940::Exchangeable);
  GZLSettings b = SmallModel(GZLConst_940::Exchangeable);
  ASSERT_TRUE(b.SetFrequencyWeightVar(4));
  GZLMemorySource sa(copies), sb(weighted);
  Fit fa = RunFit(a, sa);
  ASSERT_NE(fa.stats, nullptr) << fa.status.GetErrorCode();
  Fit fb = RunFit(b, sb);
  ASSERT_NE(fb.stats, nullptr) << fb.status.GetErrorCode();
  for (int j = 0; j < 2; ++j) {
    EXPECT_NEAR(fa.stats->GetParamEstimates()[j], fb.stats->GetParamEstimates()[j], 1e-10);
    EXPECT_NEAR(fa.stats->GetParamStats()[j].GetStdError(), fb.stats->GetParamStats()[j].GetStdError(), 1e-10);
    EXPECT_NEAR(fa.stats->GetModelBasedCovarianceMatrix()(j, j), fb.stats->GetModelBasedCovarianceMatrix()(j, j),
                1e-12);
  }
  EXPECT_NEAR(fa.stats->GetWorkCorrelationMatrix()(1, 0), fb.stats->GetWorkCorrelationMatrix()(1, 0), 1e-10);
  EXPECT_NEAR(fa.algorithm->GetOptimizer()->GetPhi(), fb.algorithm->GetOptimizer()->GetPhi(), 1e-10);
  EXPECT_NEAR(fa.stats->GetQICValue(), fb.stats->GetQICValue(), 1e-8);
  EXPECT_NEAR(fa.stats->GetQBetaIValue(), fb.stats->GetQBetaIValue(), 1e-8);
  EXPECT_EQ(fa.stats->GetNumberOfSubjects(), 2 * fb.stats->GetNumberOfSubjects());
}

TEST(GEE, IterationProgress) {
  // A report at the start and after every iteration that does not end the fit: the iteration
  // number, the estimates and the scale; a GEE model has no log-likelihood.
  struct Listener : ProgressListener {
    std::vector<int> iterations;
    bool estimates = true, noLikelihood = true;
    void OnProgress(const ProgressReport& report) override {
      const auto& r = static_cast<const GZLReporter&>(report);
      iterations.push_back(r.DiscreteMeasure("iterNum"));
      estimates = estimates && r.VectorMeasure("paramEstim") != nullptr && r.VectorMeasure("paramEstim")->size() == 2;
      noLikelihood = noLikelihood && TQMV::IsMissing(r.ScaleMeasure("loglike"));
    }
  } listener;
  GZLSettings s = SmallModel(GZLConst_940::AR1);
  s.SetIterProgressListener(&listener);
  GZLMemorySource source(SmallData(20, 4));
  Fit f = RunFit(s, source);
  ASSERT_NE(f.stats, nullptr);
  const int n = f.algorithm->GetOptimizer()->GetIterationNumber();
  ASSERT_EQ(static_cast<int>(listener.iterations.size()), n);
  for (int i = 0; i < n; ++i) EXPECT_EQ(listener.iterations[static_cast<std::size_t>(i)], i);
  EXPECT_TRUE(listener.estimates);
  EXPECT_TRUE(listener.noLikelihood);
}

TEST(GEE, DiagnosticDisplay) {
  GZLSettings s = SmallModel(GZLConst_940::Exchangeable);
  GZLMemorySource source(SmallData(10, 3));
  Fit f = RunFit(s, source);
  ASSERT_NE(f.stats, nullptr);
  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    f.algorithm->Display();
    f.algorithm->GetOptimizer()->Display();
  }
  const std::string text = out.str();
  for (const char* label : {"GEEAlgorithm display start", "Effect info:", "info no.", "combinations:",
                            "GEEAlgorithm display end", "GEEOptimizer display start", "Model convergence indicator",
                            "Stopping criteria = All convergence criteria are satisfied", "Phi value",
                            "R transformed indicator", "The workCorrelation matrix start",
                            "Start of GEEWorkCorrelation display.", "Correlation type = Exchangeable",
                            "GEEScaleParameter display start", "GEEOptimizer display end"})
    EXPECT_NE(text.find(label), std::string::npos) << label;
}

TEST(GEE, WaldTestsOfEffectsOnTheChosenCovariance) {
  // Without interactions, the type III hypothesis of an effect is its own parameters: the
  // statistic is b' C^-1 b over its non-redundant columns, with C the covariance chosen for
  // inference (robust here).
  auto c = LoadCase(GeeDir() + "/expected/dietox_normal_ar1_maxiter2.json", 1e-10, GeeDir() + "/data");
  ApplyGeeKeys(*c);
  c->settings.SetEffectAnalysisType(TQConst::EffectTypeIII);
  c->settings.SetEffectAnalysisStat(GZLConst_940::EffectStatWald);
  Fit f = RunFit(c->settings, *c->source);
  ASSERT_NE(f.stats, nullptr);
  const auto* gee = dynamic_cast<const GEEAlgorithm*>(f.algorithm.get());
  const GZLModelEffectTestData* data = gee->GetInference()->GetEffectTestData();
  ASSERT_NE(data, nullptr);
  const TQModelTestStats& tests = f.stats->GetTypeIIITestStats();
  const TQSymMatrix& C = f.stats->GetCovarianceMatrix();
  const std::vector<double>& b = f.stats->GetParamEstimates();
  int checked = 0;
  for (int t = 0; t < data->GetNumTests(); ++t) {
    if (data->GetSettingsEffect(t) < 0) continue;
    std::vector<int> cols;
    for (int j = data->GetFirstColumn(t); j < data->GetFirstColumn(t) + data->GetNumColumns(t); ++j)
      if (!f.stats->GetRedundancyIndicators()[static_cast<std::size_t>(j)]) cols.push_back(j);
    const int n = static_cast<int>(cols.size());
    TQSymMatrix block(n), inverse;
    for (int i = 0; i < n; ++i)
      for (int k = 0; k <= i; ++k) block(i, k) = C(cols[static_cast<std::size_t>(i)], cols[static_cast<std::size_t>(k)]);
    std::vector<double> diagonal;
    block.GetDiagonal(diagonal);
    TQBitSet set;
    ASSERT_EQ(block.CholInverse(diagonal, 1e-12, inverse, set), n);
    std::vector<double> bJ;
    for (int j : cols) bJ.push_back(b[static_cast<std::size_t>(j)]);
    const TQModelTestStats::Test* test = tests.FindEffect(t);
    ASSERT_NE(test, nullptr);
    EXPECT_EQ(test->fDF, n);
    EXPECT_NEAR(test->fChiSquare, inverse.ComputeVSV(bJ), 1e-8 * test->fChiSquare);
    ++checked;
  }
  EXPECT_EQ(checked, 2);
}

namespace {

// Poisson counts y, subject, time, a three-level factor, a covariate x and 2x, for `subjects`
// subjects of four occasions, with a subject effect that correlates each subject's counts.
std::vector<std::vector<double>> CountData(int subjects) {
  std::vector<std::vector<double>> rows;
  unsigned state = 12345u;
  for (int i = 0; i < subjects; ++i)
    for (int t = 0; t < 4; ++t) {
      const int a = (i + t) % 3;
      const double x = std::sin(1.3 * i + 0.7 * t);
      const double mu = std::exp(0.4 + 0.3 * (a == 1) + 0.25 * x + 0.3 * std::cos(2.1 * i));
      // Poisson by inversion of the cdf.
      state = state * 1103515245u + 12345u;
      const double u = ((state >> 8) & 0xFFFFFF) / double(1 << 24);
      double p = std::exp(-mu), cdf = p;
      int y = 0;
      while (u > cdf && y < 100) cdf += (p *= mu / ++y);
      rows.push_back({double(y), double(i), double(t), double(a), x, 2.0 * x});
    }
  return rows;
}

// A Poisson GEE with the independence structure: effects of the given variables (3 the factor,
// 4 and 5 covariates) in order, generalized score tests of type I and III.
GZLSettings CountModel(const std::vector<int>& effects, const std::vector<int>& vars) {
  GZLSettings s;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetInterceptUse(true);
  s.AddFactor(3, 3);
  s.AddCovariate(4);
  s.AddCovariate(5);
  for (int v : effects) {
    GZLModelEffect e(1, 2, &vars);
    if (v == 3) e.AddNewFactor(3, false); else e.AddCovariate(v);
    s.AddModelEffect(e);
  }
  s.AddGEESubjectVar(1, 200);
  s.AddGEEWSVar(2, 10);
  s.SetGEECorrType(GZLConst_940::Independent);
  s.SetGEEPConverge(1e-12);
  s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  s.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  return s;
}

// The generalized score statistic from its parts, computed here at b0 (the full model's
// layout, columns intercept, a0, a1, a2, x, 2x): U, A and the subject sums M of the Poisson log
// model under independence over the non-redundant columns `cols`, and S = u' V^- u with
// u = L A^- U and V = L A^- M A^- L', L selecting the columns `tested`.
double ScoreFromParts(const std::vector<std::vector<double>>& rows, const std::vector<double>& b0,
                      const std::vector<int>& cols, const std::vector<int>& tested) {
  const int n = static_cast<int>(cols.size());
  std::vector<double> U(n, 0.0), subject(n, 0.0);
  TQSymMatrix A(n, 0.0), M(n, 0.0);
  auto flush = [&]() {
    for (int i = 0; i < n; ++i)
      for (int k = 0; k <= i; ++k) M(i, k) += subject[i] * subject[k];
    std::fill(subject.begin(), subject.end(), 0.0);
  };
  for (std::size_t r = 0; r < rows.size(); ++r) {
    const auto& row = rows[r];
    if (r > 0 && row[1] != rows[r - 1][1]) flush();
    const double full[] = {1.0, double(row[3] == 0), double(row[3] == 1), double(row[3] == 2), row[4], row[5]};
    std::vector<double> x(n);
    double eta = 0.0;
    for (int i = 0; i < n; ++i) {
      x[i] = full[cols[i]];
      eta += x[i] * b0[static_cast<std::size_t>(cols[i])];
    }
    const double mu = std::exp(eta);
    for (int i = 0; i < n; ++i) {
      U[i] += x[i] * (row[0] - mu);
      subject[i] += x[i] * (row[0] - mu);
      for (int k = 0; k <= i; ++k) A(i, k) += mu * x[i] * x[k];
    }
  }
  flush();
  std::vector<double> diagonal;
  A.GetDiagonal(diagonal);
  TQSymMatrix Ainv, sigma, V, Vinv;
  TQBitSet set;
  EXPECT_EQ(A.CholInverse(diagonal, 1e-12, Ainv, set), n);
  TQRectMatrix L(static_cast<int>(tested.size()), n, 0.0), LA;
  for (std::size_t i = 0; i < tested.size(); ++i)
    L(static_cast<int>(i), static_cast<int>(std::find(cols.begin(), cols.end(), tested[i]) - cols.begin())) = 1.0;
  std::vector<double> u;
  EXPECT_TRUE(Ainv.ComputeGMG(M, sigma) && sigma.ComputeRSRTrans(L, V) && Ainv.ComputeRS(L, LA) &&
              LA.ComputeRV(U, u));
  V.GetDiagonal(diagonal);
  EXPECT_EQ(V.CholInverse(diagonal, 1e-12, Vinv, set), static_cast<int>(tested.size()));
  return Vinv.ComputeVSV(u);
}

}  // namespace

TEST(GEE, GeneralizedScoreTestsOfEffects) {
  const auto rows = CountData(40);
  const std::vector<int> vars{3, 4, 5};
  GZLMemorySource source(rows);
  Fit f = RunFit(CountModel({3, 4}, vars), source);
  ASSERT_TRUE(f.algorithm->IsModelBuilt());
  ASSERT_NE(f.stats, nullptr);
  const auto* gee = dynamic_cast<const GEEAlgorithm*>(f.algorithm.get());
  const GZLModelEffectTestData* data = gee->GetInference()->GetEffectTestData();
  ASSERT_NE(data, nullptr);
  const auto& type1 = f.stats->GetTypeILRStats();
  const auto& type3 = f.stats->GetTypeIIILRStats();
  ASSERT_EQ(type3.size(), static_cast<std::size_t>(data->GetNumTests()));
  EXPECT_TRUE(f.stats->GetTypeIIILRStatus().IsOK());
  EXPECT_TRUE(f.stats->GetTypeILRStatus().IsOK());

  // Each effect against the reduced model fitted directly as a GEE: its estimates are the
  // constrained ones (the dropped columns at 0), and S follows from U, A and M there.
  struct Case { int effect, keep; std::vector<int> tested, cols; double df; };
  const Case cases[] = {{0, 4, {1, 2}, {0, 1, 2, 4}, 2.0}, {1, 3, {4}, {0, 1, 2, 4}, 1.0}};
  for (const Case& c : cases) {
    int t = 0;
    while (t < data->GetNumTests() && data->GetSettingsEffect(t) != c.effect) ++t;
    ASSERT_LT(t, data->GetNumTests());
    GZLMemorySource reducedSource(rows);
    Fit reduced = RunFit(CountModel({c.keep}, vars), reducedSource);
    ASSERT_TRUE(reduced.algorithm->IsModelBuilt());
    const std::vector<double>& r = reduced.stats->GetParamEstimates();
    std::vector<double> b0(6, 0.0);
    if (c.keep == 4) {
      b0[0] = r[0];
      b0[4] = r[1];
    } else {
      for (int j = 0; j < 4; ++j) b0[static_cast<std::size_t>(j)] = r[static_cast<std::size_t>(j)];
    }
    const std::vector<double>& constrained =
        gee->GetTypeIIIScoreStats()->GetConstrainedEstimates()[static_cast<std::size_t>(t)];
    for (int j = 0; j < 5; ++j) EXPECT_NEAR(constrained[static_cast<std::size_t>(j)], b0[static_cast<std::size_t>(j)], 1e-7) << j;
    const double S = ScoreFromParts(rows, b0, c.cols, c.tested);
    const auto& v = type3[static_cast<std::size_t>(t)];
    EXPECT_NEAR(v[0], S, 1e-6 * S) << c.effect;
    EXPECT_EQ(v[1], c.df);
    EXPECT_NEAR(v[2], 1.0 - TQDistFun::CdfChi(S, c.df), 1e-9);
    for (int j = 3; j < 7; ++j) EXPECT_TRUE(TQMV::IsMissing(v[static_cast<std::size_t>(j)]));
    EXPECT_TRUE(f.stats->GetTypeIIILRStatusEff()[static_cast<std::size_t>(t)].IsOK());
    // The last effect's sequential hypothesis is its type III one.
    if (c.effect == 1) {
      EXPECT_NEAR(type1[static_cast<std::size_t>(t)][0], v[0], 1e-8 * v[0]);
    }
  }

  // 2x after x adds nothing: no hypothesis, 130083, while x keeps its test.
  GZLMemorySource aliasedSource(rows);
  Fit aliased = RunFit(CountModel({3, 4, 5}, vars), aliasedSource);
  ASSERT_NE(aliased.stats, nullptr);
  const auto* ag = dynamic_cast<const GEEAlgorithm*>(aliased.algorithm.get());
  const GZLModelEffectTestData* ad = ag->GetInference()->GetEffectTestData();
  for (int t = 0; t < ad->GetNumTests(); ++t) {
    const int e = ad->GetSettingsEffect(t);
    if (e < 0) continue;
    const TQStatus s1 = aliased.stats->GetTypeILRStatusEff()[static_cast<std::size_t>(t)];
    if (e == 2) {
      EXPECT_EQ(s1.GetErrorCode(), GZLStatusCode::LMatrixNotExist);
    } else {
      EXPECT_FALSE(s1.IsError()) << e;
    }
  }
}

TEST(GEE, GeneralizedScoreTestsCancelled) {
  const auto rows = CountData(30);
  const std::vector<int> vars{3, 4, 5};
  // Polls of a fit with Wald tests only, then of one with the score tests: a cancel among the
  // latter's extra polls falls in the refits.
  auto polls = [&](GZLConst_940::EffectAnalysisStat stat) {
    CancelAfter counter(1 << 30);
    GZLSettings s = CountModel({3, 4}, vars);
    s.SetEffectAnalysisStat(stat);
    s.SetCancelPointer(&counter);
    GZLMemorySource source(rows);
    EXPECT_TRUE(RunFit(s, source).algorithm->IsModelBuilt());
    return (1 << 30) - counter.Left();
  };
  const int wald = polls(GZLConst_940::EffectStatWald), score = polls(GZLConst_940::EffectStatLR);
  ASSERT_GT(score, wald + 100);
  CancelAfter cancel((wald + score) / 2);
  GZLSettings s = CountModel({3, 4}, vars);
  s.SetCancelPointer(&cancel);
  GZLMemorySource source(rows);
  Fit f = RunFit(s, source);
  EXPECT_EQ(f.status.GetErrorCode(), GZLStatusCode::Cancelled);
  EXPECT_FALSE(f.algorithm->IsModelBuilt());
}
