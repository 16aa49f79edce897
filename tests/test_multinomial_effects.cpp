// Tests of model effects and profile likelihood intervals of ordinal and nominal models, on the
// multinomial reference data, against checks that cannot pass by accident: the Wald statistic of
// an effect that no other effect contains against b' V^-1 b over its columns (every logit of a
// nominal model), its likelihood-ratio statistic against the model fitted directly without it,
// each profile end point against a constrained refit there; then an effect aliased with the
// effects before it, and a cancel during the refits.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <memory>
#include <string>
#include <vector>

#include "GZLOutputStats.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLSeqQuad.h"
#include "output_reference_models.h"
#include "support/TQDistFun.h"

namespace {

using nlohmann::json;

std::string MultinomialDir() { return std::string(GZL_TEST_DATA_DIR) + "/multinomial"; }

json ReadCase(const std::string& name) {
  return output_test::ReadCase(MultinomialDir() + "/expected/" + name + ".json");
}

const char* const kCases[] = {"housing_cumlogit_freq",
                              "wine_cumprobit_interaction",
                              "wine_cumnloglog_judge_nointercept",
                              "sim_cumcloglog_offset_newton",
                              "housing_nominal_type_reflast",
                              "sim_nominal_factor_by_covariate_reffirst"};

struct Fit {
  std::unique_ptr<output_test::ReferenceCase> c;
  std::unique_ptr<GZLAlgorithm> algorithm;
  const GZLOutputStats* out = nullptr;
  TQStatus status;
  bool HasThresholdOrInterceptTest() const {
    return c->settings.GetInterceptUse() || c->settings.GetDistType() == TQConst::DistOrdinalMultinomial;
  }
};

// Both types of tests with the likelihood-ratio statistic (the Wald tests come along), refits
// converged far below the tolerance of the comparisons.
void AskForTests(GZLSettings& s) {
  s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  s.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  s.SetTolLogLikeTypeIandIII(1e-12);
  s.SetLConvergeTypeTypeIandIII(TQConst::ConvRelative);
  s.SetMaxStepHalvingValue(20);
  s.SetModelFittingTest(false);
}

std::unique_ptr<Fit> FitCase(const json& j, void (*configure)(GZLSettings&)) {
  auto f = std::make_unique<Fit>();
  f->c = output_test::LoadCase(j, 1e-12, MultinomialDir() + "/data");
  if (configure != nullptr) configure(f->c->settings);
  f->algorithm = std::make_unique<GZLAlgorithm>(f->c->settings);
  f->status = f->algorithm->BuildModel(*f->c->source);
  if (!f->status.IsError()) f->algorithm->GetOutputStats(f->out);
  return f;
}

// Settings effects that no other effect contains.
std::vector<int> OutermostEffects(const GZLSettings& s) {
  const auto& effects = s.GetModelEffects();
  std::vector<int> out;
  for (std::size_t e = 0; e < effects.size(); ++e) {
    bool contained = false;
    for (std::size_t u = 0; u < effects.size(); ++u)
      if (u != e && effects[e].IsContainedIn(effects[u])) contained = true;
    if (!contained) out.push_back(static_cast<int>(e));
  }
  return out;
}

// (L b)' (L V L')^-1 (L b) at the fit's estimates and covariance, L given by its rows.
double Wald(const Fit& f, const std::vector<std::vector<double>>& L) {
  const auto& b = f.out->GetParamEstimates();
  const TQSymMatrix& V = f.out->GetCovarianceMatrix();
  const std::size_t n = L.size(), P = b.size();
  std::vector<double> lb(n, 0.0);
  // Gaussian elimination with partial pivoting on [L V L' | L b].
  std::vector<std::vector<double>> a(n, std::vector<double>(n + 1, 0.0));
  for (std::size_t r = 0; r < n; ++r) {
    for (std::size_t j = 0; j < P; ++j) lb[r] += L[r][j] * b[j];
    a[r][n] = lb[r];
    for (std::size_t c = 0; c < n; ++c)
      for (std::size_t j = 0; j < P; ++j)
        for (std::size_t k = 0; k < P; ++k)
          if (L[r][j] != 0.0 && L[c][k] != 0.0)
            a[r][c] += L[r][j] * V(static_cast<int>(j), static_cast<int>(k)) * L[c][k];
  }
  for (std::size_t k = 0; k < n; ++k) {
    std::size_t p = k;
    for (std::size_t r = k + 1; r < n; ++r)
      if (std::fabs(a[r][k]) > std::fabs(a[p][k])) p = r;
    std::swap(a[k], a[p]);
    for (std::size_t r = k + 1; r < n; ++r) {
      const double m = a[r][k] / a[k][k];
      for (std::size_t c = k; c <= n; ++c) a[r][c] -= m * a[k][c];
    }
  }
  std::vector<double> x(n);
  double q = 0.0;
  for (std::size_t k = n; k-- > 0;) {
    double s = a[k][n];
    for (std::size_t c = k + 1; c < n; ++c) s -= a[k][c] * x[c];
    x[k] = s / a[k][k];
    q += lb[k] * x[k];
  }
  return q;
}

// Unit rows on the parameters of settings effect e that are in the model (in every logit block
// of a nominal model): the hypothesis that all of them are 0.
std::vector<std::vector<double>> EffectRows(const Fit& f, int e) {
  const auto& params = f.algorithm->GetRegrParameters();
  std::vector<std::vector<double>> rows;
  for (std::size_t j = 0; j < params.size(); ++j)
    if (!params[j].IsIntercept() && params[j].GetEffectIndex() == e && !f.out->GetRedundancyIndicators()[j]) {
      rows.emplace_back(params.size(), 0.0);
      rows.back()[j] = 1.0;
    }
  return rows;
}

// The weighted (frequency weight) mean over the records of the data file of each parameter's
// design column (0 for thresholds and intercepts).
std::vector<double> ColumnMeans(const Fit& f, const std::string& file) {
  const auto& params = f.algorithm->GetRegrParameters();
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  const int weight = f.c->model.contains("freq_weight") ? f.c->source->Column(f.c->model["freq_weight"]) : -1;
  std::vector<double> sums(params.size(), 0.0);
  double total = 0.0;
  while (std::getline(in, line)) {
    std::vector<double> v;
    std::stringstream ss(line);
    std::string cell;
    while (std::getline(ss, cell, ',')) v.push_back(std::stod(cell));
    const double w = weight >= 0 ? v[static_cast<std::size_t>(weight)] : 1.0;
    total += w;
    for (std::size_t j = 0; j < params.size(); ++j) {
      const auto& p = params[j];
      if (p.IsIntercept()) continue;
      double x = 1.0;
      for (int i = 0; i < p.GetNFactors(); ++i)
        if (v[static_cast<std::size_t>(p.GetFactors()[i])] != p.GetCategories()[i]) x = 0.0;
      for (int i = 0; i < p.GetNCovariates(); ++i)
        x *= std::pow(v[static_cast<std::size_t>(p.GetCovariates()[i])], p.GetCovariateMultiplicities()[i]);
      sums[j] += w * x;
    }
  }
  for (double& s : sums) s /= total;
  return sums;
}

void ExpectRel(double expected, double actual, const std::string& what, double rel = 1e-6) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - expected), std::max(1e-9, rel * std::fabs(expected)))
      << what << ": engine " << actual << ", direct " << expected;
}

// Sets the cancel flag when the refits report their first iteration.
struct CancelOnReport : ProgressListener, TQQueryCancel {
  void OnProgress(const ProgressReport&) override { cancelled = true; }
  bool IsCancelled() override { return cancelled; }
  bool cancelled = false;
};

}  // namespace

// Every reference case, every effect that no other contains: the type III Wald statistic is the
// quadratic form of the effect's estimates (all logits of a nominal model) with their
// covariance; the type III likelihood-ratio statistic is twice the log-likelihood that the
// model fitted without the effect loses; both with the degrees of freedom of the effect's
// parameters in the model. The last effect's type I tests are its type III tests.
TEST(MultinomialEffects, WaldAndLikelihoodRatioAgainstDirectFits) {
  for (const char* name : kCases) {
    SCOPED_TRACE(name);
    const json j = ReadCase(name);
    const auto full = FitCase(j, AskForTests);
    ASSERT_TRUE(full->c->ok) << full->c->problem;
    ASSERT_NE(full->out, nullptr) << full->status.GetErrorCode();
    const GZLOutputStats& out = *full->out;
    EXPECT_TRUE(out.GetTypeIIILRStatus().IsOK()) << out.GetTypeIIILRStatus().GetErrorCode();
    const int shift = full->HasThresholdOrInterceptTest() ? 1 : 0;
    const int nEffects = static_cast<int>(full->c->settings.GetModelEffects().size());
    ASSERT_EQ(out.GetTypeIIITestStats().GetNumTests(), nEffects + shift);
    ASSERT_EQ(static_cast<int>(out.GetTypeIIILRStats().size()), nEffects + shift);

    for (int e : OutermostEffects(full->c->settings)) {
      SCOPED_TRACE("effect " + std::to_string(e));
      const int t = e + shift;
      const auto rows = EffectRows(*full, e);
      const int df = static_cast<int>(rows.size());
      const double direct = Wald(*full, rows);
      const TQModelTestStats::Test& wald = out.GetTypeIIITestStats().GetTest(t);
      ASSERT_TRUE(wald.fbTested);
      EXPECT_EQ(wald.fDF, df);
      ExpectRel(direct, wald.fChiSquare, "type III Wald chi-square");

      json reduced = j;
      reduced["model"]["effects"].erase(static_cast<std::size_t>(e));
      const auto without = FitCase(reduced, [](GZLSettings& s) { s.SetModelFittingTest(false); });
      ASSERT_NE(without->out, nullptr) << without->status.GetErrorCode();
      const std::vector<double>& lr = out.GetTypeIIILRStats()[static_cast<std::size_t>(t)];
      EXPECT_FALSE(out.GetTypeIIILRStatusEff()[static_cast<std::size_t>(t)].IsError());
      ExpectRel(2.0 * (out.GetLogLikehood() - without->out->GetLogLikehood()), lr[0], "type III LR chi-square");
      EXPECT_EQ(lr[1], df);
      EXPECT_EQ(full->algorithm->GetGZLOptimizer()->GetNumNonRedundant() -
                    without->algorithm->GetGZLOptimizer()->GetNumNonRedundant(),
                df);
    }

    // The centred and scaled design gives the same tests.
    const auto scaled = FitCase(j, [](GZLSettings& s) {
      AskForTests(s);
      s.SetTransformEffects(true);
    });
    ASSERT_NE(scaled->out, nullptr) << scaled->status.GetErrorCode();
    EXPECT_TRUE(scaled->algorithm->GetGZLOptimizer()->IsRTransformed());
    for (int t = 0; t < nEffects + shift; ++t) {
      SCOPED_TRACE("scaled design, test " + std::to_string(t));
      const auto& a1 = out.GetTypeITestStats().GetTest(t);
      const auto& b1 = scaled->out->GetTypeITestStats().GetTest(t);
      const auto& a3 = out.GetTypeIIITestStats().GetTest(t);
      const auto& b3 = scaled->out->GetTypeIIITestStats().GetTest(t);
      EXPECT_EQ(a1.fDF, b1.fDF);
      EXPECT_EQ(a3.fDF, b3.fDF);
      if (a1.fbTested) ExpectRel(a1.fChiSquare, b1.fChiSquare, "type I Wald");
      if (a3.fbTested) ExpectRel(a3.fChiSquare, b3.fChiSquare, "type III Wald");
      ExpectRel(out.GetTypeIIILRStats()[static_cast<std::size_t>(t)][0],
                scaled->out->GetTypeIIILRStats()[static_cast<std::size_t>(t)][0], "type III LR", 1e-5);
    }

    const int last = nEffects + shift - 1;
    const auto& w1 = out.GetTypeITestStats().GetTest(last);
    const auto& w3 = out.GetTypeIIITestStats().GetTest(last);
    EXPECT_EQ(w1.fDF, w3.fDF);
    ExpectRel(w3.fChiSquare, w1.fChiSquare, "type I Wald of the last effect");
    ExpectRel(out.GetTypeIIILRStats()[static_cast<std::size_t>(last)][0],
              out.GetTypeILRStats()[static_cast<std::size_t>(last)][0], "type I LR of the last effect", 1e-5);
    // The type I test of the thresholds (intercepts): the first cumulative predictor (each
    // logit's predictor) is 0 at the weighted means of the design's columns.
    if (shift == 1) {
      const auto& params = full->algorithm->GetRegrParameters();
      const std::vector<double> m = ColumnMeans(*full, MultinomialDir() + "/data/" + j["data"].get<std::string>());
      const bool ordinal = full->c->settings.GetDistType() == TQConst::DistOrdinalMultinomial;
      std::vector<std::vector<double>> rows;
      for (std::size_t i = 0; i < params.size(); ++i) {
        if (!params[i].IsIntercept() || (ordinal && i > 0)) continue;
        std::vector<double> row(params.size(), 0.0);
        row[i] = 1.0;
        for (std::size_t k = 0; k < params.size(); ++k)
          if (!params[k].IsIntercept() && !out.GetRedundancyIndicators()[k] &&
              (ordinal || params[k].GetTargetCategory() == params[i].GetTargetCategory()))
            row[k] = ordinal ? -m[k] : m[k];
        rows.push_back(std::move(row));
      }
      const auto& first = out.GetTypeITestStats().GetTest(0);
      EXPECT_EQ(first.fDF, static_cast<double>(rows.size()));
      ExpectRel(Wald(*full, rows), first.fChiSquare, "type I Wald of the thresholds (intercepts)");
    }
    // The test of the model against the thresholds (intercepts) only has the degrees of freedom
    // of every effect parameter in the model.
    const auto& corrected = out.GetCorrectedModelTest();
    ASSERT_EQ(corrected.GetNumTests(), 1);
    int effectParams = 0;
    for (int e = 0; e < nEffects; ++e) effectParams += static_cast<int>(EffectRows(*full, e).size());
    EXPECT_EQ(corrected.GetTest(0).fDF, effectParams);
  }
}

// Profile intervals of an ordinal (thresholds included) and a nominal model: each end point is
// where a constrained refit that holds the parameter there loses half the chi-square quantile
// of the log-likelihood, and the interval lies around the Wald interval.
TEST(MultinomialEffects, ProfileIntervalsMeetTheirTarget) {
  const double target = TQDistFun::IdfChi(0.95, 1.0);
  for (const char* name : {"housing_cumlogit_freq", "housing_nominal_type_reflast"}) {
    SCOPED_TRACE(name);
    const auto f = FitCase(ReadCase(name), [](GZLSettings& s) {
      s.SetCIType(GZLConst_940::Profile);
      s.SetMaxIterationsPLCI(100);
      s.SetToleranceLogLikePLCI(1e-10);
      s.SetToleranceHessianPLCI(1e-9);
      s.SetMaxStepHalvingValue(20);
      s.SetModelFittingTest(false);
      s.SetTolLogLikeTypeIandIII(1e-13);
      s.SetLConvergeTypeTypeIandIII(TQConst::ConvAbsolute);
    });
    ASSERT_NE(f->out, nullptr) << f->status.GetErrorCode();
    const GZLOutputStats& out = *f->out;
    EXPECT_TRUE(out.GetPLCIStatus().IsOK()) << out.GetPLCIStatus().GetErrorCode();
    GZLOptimizerForGZLM& opt = *f->algorithm->GetGZLOptimizer();
    const auto& b = out.GetParamEstimates();
    const int P = static_cast<int>(b.size());
    GZLLLGradHessian model(f->c->settings, opt, opt.GetSource());
    int refits = 0;
    for (int j = 0; j < P; ++j) {
      const TQRegrParameterStats& row = out.GetParamStats()[static_cast<std::size_t>(j)];
      if (row.IsRedundant()) continue;
      SCOPED_TRACE("parameter " + std::to_string(j));
      const double lo = row.GetLowerBound(), hi = row.GetUpperBound(), se = row.GetStdError();
      ASSERT_FALSE(TQMV::IsMissing(lo) || TQMV::IsMissing(hi));
      const double half = 1.959963984540054 * se;
      EXPECT_LT(lo, b[j]);
      EXPECT_GT(hi, b[j]);
      EXPECT_LT(std::fabs(lo - (b[j] - half)), 0.25 * half);
      EXPECT_LT(std::fabs(hi - (b[j] + half)), 0.25 * half);
      // Refits at the end points of the first parameter (a threshold of the ordinal model, the
      // intercept of the first logit), the first effect parameter and the last parameter.
      const bool checked = j == 0 || j == P - 1 || !f->algorithm->GetRegrParameters()[j].IsIntercept();
      if (!checked || refits >= 6) continue;
      for (double end : {lo, hi}) {
        TQRectMatrix L(1, P, 0.0);
        L(0, j) = 1.0;
        GZLSeqQuad sqp(f->c->settings, model, L, {end}, opt.GetParamEstimates(), opt.GetPhi(), opt.GetK());
        ASSERT_TRUE(sqp.IsValidLMatrix());
        sqp.ComputeInitial();
        ASSERT_FALSE(sqp.Estimate().IsError());
        EXPECT_NEAR(2.0 * (out.GetLogLikehood() - sqp.GetLogLikelihood()), target, 1e-6) << end;
        ++refits;
      }
    }
    EXPECT_EQ(refits, 6);
  }
}

// Effects listed after an effect that spans them: the wine interaction before its main effects
// (ordinal), the covariate after its products with a factor (nominal). Their columns are all
// aliased with the effects before them, so they have no type I test (Wald: untested; likelihood
// ratio: LMatrixNotExist and no value); the type III tests do not depend on the order.
TEST(MultinomialEffects, EffectsAliasedWithThoseBefore) {
  struct Order {
    const char* name;
    std::vector<int> order;     // the reference's effects in this order
    std::vector<int> untested;  // positions (in the new order) without a type I test
  };
  for (const Order& o : {Order{"wine_cumprobit_interaction", {2, 0, 1}, {1, 2}},
                         Order{"sim_nominal_factor_by_covariate_reffirst", {2, 0, 1}, {2}}}) {
    SCOPED_TRACE(o.name);
    const json j = ReadCase(o.name);
    json reordered = j;
    reordered["model"]["effects"] = json::array();
    for (int e : o.order) reordered["model"]["effects"].push_back(j["model"]["effects"][static_cast<std::size_t>(e)]);
    const auto original = FitCase(j, AskForTests);
    const auto f = FitCase(reordered, AskForTests);
    ASSERT_NE(original->out, nullptr);
    ASSERT_NE(f->out, nullptr);
    const GZLOutputStats& out = *f->out;
    const int shift = f->HasThresholdOrInterceptTest() ? 1 : 0;
    for (std::size_t k = 0; k < o.order.size(); ++k) {
      SCOPED_TRACE("effect " + std::to_string(k));
      const int t = static_cast<int>(k) + shift;
      const bool untested = std::find(o.untested.begin(), o.untested.end(), static_cast<int>(k)) != o.untested.end();
      EXPECT_EQ(out.GetTypeITestStats().GetTest(t).fbTested, !untested);
      const std::vector<double>& lr1 = out.GetTypeILRStats()[static_cast<std::size_t>(t)];
      if (untested) {
        EXPECT_EQ(out.GetTypeILRStatusEff()[static_cast<std::size_t>(t)].GetErrorCode(), GZLStatusCode::LMatrixNotExist);
        for (double v : lr1) EXPECT_TRUE(TQMV::IsMissing(v));
      } else {
        EXPECT_FALSE(TQMV::IsMissing(lr1[0]));
      }
      const int before = o.order[k] + shift;
      ExpectRel(original->out->GetTypeIIITestStats().GetTest(before).fChiSquare,
                out.GetTypeIIITestStats().GetTest(t).fChiSquare, "type III Wald in another order");
      ExpectRel(original->out->GetTypeIIILRStats()[static_cast<std::size_t>(before)][0],
                out.GetTypeIIILRStats()[static_cast<std::size_t>(t)][0], "type III LR in another order", 1e-5);
    }
    EXPECT_FALSE(out.GetTypeILRStatus().IsError());
  }
}

// A cancel during the refits of the likelihood-ratio tests or of the profile intervals ends the
// fit with status 1 and no model.
TEST(MultinomialEffects, CancelDuringRefits) {
  for (const char* name : {"wine_cumprobit_interaction", "housing_nominal_type_reflast"}) {
    for (int which = 0; which < 2; ++which) {
      SCOPED_TRACE(std::string(name) + (which == 0 ? " type III" : " profile"));
      CancelOnReport cancel;
      auto c = output_test::LoadCase(ReadCase(name), 1e-10, MultinomialDir() + "/data");
      GZLSettings& s = c->settings;
      AskForTests(s);
      s.SetCIType(GZLConst_940::Profile);
      s.SetMaxIterationsPLCI(50);
      s.SetCancelPointer(&cancel);
      if (which == 0) s.SetIterProgressListenerTypeIII(&cancel);
      if (which == 1) s.SetIterProgressListenerPLCI(&cancel);
      GZLAlgorithm algorithm(s);
      EXPECT_EQ(algorithm.BuildModel(*c->source).GetErrorCode(), 1);
      EXPECT_TRUE(cancel.cancelled);
      EXPECT_FALSE(algorithm.IsModelBuilt());
    }
  }
}
