// Ordinal (cumulative links) and nominal (multinomial logit) responses: the reference fits end
// to end, the record steps against finite differences of the log-likelihood, extreme linear
// predictors, the statuses of unusable responses, a nominal model without parameters,
// separation, and the shared passes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignRow.h"
#include "datapass_helpers.h"
#include "estimation/GZLNomAccumStats.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLOrdAccumStats.h"
#include "inference/GZLOmnibusTest.h"
#include "output_reference_models.h"
#include "support/LinkFunctions.h"
#include "support/TQDisplay_940.h"

namespace {

std::string MultinomialDir() { return std::string(GZL_TEST_DATA_DIR) + "/multinomial"; }

void ExpectRel(double expected, double actual, const std::string& what, double rel = 1e-6) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  const double tol = std::fabs(expected) < 1e-3 ? 1e-9 : rel * std::fabs(expected);
  EXPECT_LE(std::fabs(actual - expected), tol) << what << ": engine " << actual << ", reference " << expected;
}

}  // namespace

// Every reference case through the algorithm interface: thresholds and parameters with their
// standard errors and aliasing, the parameter list (threshold categories, logit of each block),
// the response categories and counts, goodness of fit, log-likelihood, criteria and the omnibus
// test.
TEST(Multinomial, ReferenceFits) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(MultinomialDir() + "/expected"))
    files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  int checked = 0;
  for (const std::string& file : files) {
    auto c = output_test::LoadCase(file, 1e-10, MultinomialDir() + "/data");
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    GZLAlgorithm algorithm(c->settings);
    const TQStatus st = algorithm.BuildModel(*c->source);
    ASSERT_FALSE(st.IsError()) << st.GetErrorCode();
    ASSERT_TRUE(algorithm.IsModelBuilt());
    const GZLOutputStats* out = nullptr;
    ASSERT_TRUE(algorithm.GetOutputStats(out).IsOK());
    const auto& e = c->expected;
    const auto& params = e["parameters"];
    const bool nominal = c->model["dist"] == "nominal";

    // Parameters: the list, the estimates and their statistics.
    const auto& list = algorithm.GetRegrParameters();
    ASSERT_EQ(list.size(), params.size());
    ASSERT_EQ(out->GetParamEstimates().size(), params.size());
    for (size_t j = 0; j < params.size(); ++j) {
      const auto& pj = params[j];
      SCOPED_TRACE("parameter " + std::to_string(j) + " " + pj["term"].get<std::string>());
      if (nominal) {
        EXPECT_EQ(list[j].GetTargetCategory(), pj["logit"].get<int>());
      } else if (!pj.contains("effect")) {
        EXPECT_EQ(list[j].GetTargetCategory(), pj["categories"][0].get<int>());
      }
      EXPECT_EQ(out->GetRedundancyIndicators()[j], pj["redundant"].get<bool>());
      const TQRegrParameterStats& row = out->GetParamStats()[j];
      if (pj["redundant"].get<bool>()) {
        EXPECT_EQ(out->GetParamEstimates()[j], 0.0);
        EXPECT_TRUE(TQMV::IsMissing(row.GetStdError()));
        continue;
      }
      ExpectRel(pj["estimate"], out->GetParamEstimates()[j], "estimate");
      ExpectRel(pj["se"], row.GetStdError(), "standard error");
      const double z = 1.959963984540054 * pj["se"].get<double>();
      ExpectRel(pj["estimate"].get<double>() - z, row.GetLowerBound(), "lower Wald limit", 1e-5);
      ExpectRel(pj["estimate"].get<double>() + z, row.GetUpperBound(), "upper Wald limit", 1e-5);
    }

    // Response categories in the model's order and their weighted counts.
    std::vector<int> categories;
    for (const auto& k : e["depend_categories"]) categories.push_back(k.get<int>());
    EXPECT_EQ(algorithm.GetDependCategories(), categories);
    EXPECT_EQ(out->GetDependCategories(), categories);
    const auto* counts = out->GetFactorCounts().GetDependCountsPtr();
    ASSERT_NE(counts, nullptr);
    for (size_t k = 0; k < categories.size(); ++k)
      EXPECT_EQ((*counts)[static_cast<size_t>(categories[k])].first, e["response_counts"][k].get<double>());

    EXPECT_EQ(out->GetPopulationSize(), e["n_records"].get<double>());
    EXPECT_EQ(algorithm.GetGZLOptimizer()->GetNumNonRedundant(), e["n_nonredundant"].get<int>());
    EXPECT_EQ(out->GetNDegFreedom(), e["df_residual"].get<double>());
    ExpectRel(e["deviance"], out->GetDevianceValue(), "deviance");
    ExpectRel(e["pearson_chisq"], out->GetPearsonChiSquareValue(), "Pearson");
    ExpectRel(e["scaled_deviance"], out->GetScaledDevianceValue(), "scaled deviance");
    ExpectRel(e["scaled_pearson_chisq"], out->GetScaledPearsonChiSquareValue(), "scaled Pearson");
    ExpectRel(e["loglik"], out->GetLogLikehood(), "log-likelihood");
    ExpectRel(e["aic"], out->GetAIC(), "AIC");
    ExpectRel(e["aicc"], out->GetAICC(), "AICC");
    ExpectRel(e["bic"], out->GetBIC(), "BIC");
    ExpectRel(e["caic"], out->GetCAIC(), "CAIC");
    ExpectRel(e["scale"], out->GetParamStats()[params.size()].GetEstimate(), "scale");
    ExpectRel(e["omnibus"]["chisq"], out->GetOmnibusDist(), "omnibus chi-square");
    EXPECT_EQ(out->GetOmnibusDF(), e["omnibus"]["df"].get<double>());
    ASSERT_NE(algorithm.GetOmnibusTest(), nullptr);
    ExpectRel(e["omnibus"]["loglik_null"], algorithm.GetOmnibusTest()->GetNullLogLikelihood(), "null log-likelihood");
    EXPECT_FALSE(out->GetOmnibusFailedInitModel());
    // At these tolerances the last step may end in step-halving (the change of the
    // log-likelihood is below its rounding) rather than in the parameter criterion.
    const auto criterion = out->GetEstimStopCriterion();
    EXPECT_TRUE(criterion == GZLConst_940::AllConverged || criterion == GZLConst_940::StepHalvingExhausted)
        << criterion;
    // The centred and scaled design reaches the same estimates and standard errors.
    c->source->Rewind();
    GZLSettings scaled = c->settings;
    scaled.SetTransformEffects(true);
    GZLAlgorithm transformed(scaled);
    ASSERT_FALSE(transformed.BuildModel(*c->source).IsError());
    const GZLOutputStats* outScaled = nullptr;
    ASSERT_TRUE(transformed.GetOutputStats(outScaled).IsOK());
    for (size_t j = 0; j < params.size(); ++j) {
      if (params[j]["redundant"].get<bool>()) continue;
      ExpectRel(params[j]["estimate"], outScaled->GetParamEstimates()[j], "estimate, scaled design");
      ExpectRel(params[j]["se"], outScaled->GetParamStats()[j].GetStdError(), "standard error, scaled design");
    }
    ++checked;
  }
  EXPECT_EQ(checked, 6);
}

namespace {

GZLSettings OrdinalSettings(TQConst::LinkType link, int categories) {
  GZLSettings s;
  s.SetDistType(TQConst::DistOrdinalMultinomial);
  s.SetLinkType(link);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependentSize(categories);
  return s;
}

GZLDesignRow Row(std::vector<double> x, double y, double f = 1.0, double s = 1.0, double offset = 0.0) {
  GZLDesignRow r;
  r.fValues = std::move(x);
  r.fResponse = y;
  r.fFreqWeight = f;
  r.fScaleWeight = s;
  r.fOffset = offset;
  return r;
}

// Log-likelihood, gradient and information of an accumulator over rows.
struct Sums {
  double ll = 0.0;
  std::vector<double> gradient;
  TQSymMatrix information;
};

template <class Accum, class Clear>
Sums Accumulate(Accum& a, Clear clear, const std::vector<GZLDesignRow>& rows, const std::vector<double>& beta) {
  clear(a);
  for (const GZLDesignRow& r : rows) EXPECT_TRUE(a.UpdateForRow(r, beta));
  Sums s;
  s.ll = a.GetLogLikelihood();
  s.gradient = a.GetGradient();
  a.GetInformation(s.information);
  return s;
}

// The gradient against central differences of the log-likelihood, and (when `observed`) the
// information against central differences of minus the gradient.
template <class Eval>
void CheckDerivatives(Eval eval, const std::vector<double>& beta, bool observed) {
  const Sums at = eval(beta);
  ASSERT_TRUE(std::isfinite(at.ll));
  const int n = static_cast<int>(beta.size());
  for (int j = 0; j < n; ++j) {
    const double h = 1e-5;
    std::vector<double> up = beta, down = beta;
    up[j] += h;
    down[j] -= h;
    const Sums u = eval(up), d = eval(down);
    const double slope = (u.ll - d.ll) / (2.0 * h);
    EXPECT_NEAR(at.gradient[j], slope, 1e-6 * std::max(1.0, std::fabs(slope))) << "gradient " << j;
    if (!observed) continue;
    for (int i = 0; i < n; ++i) {
      const double curvature = -(u.gradient[i] - d.gradient[i]) / (2.0 * h);
      EXPECT_NEAR(at.information(std::max(i, j), std::min(i, j)), curvature, 1e-6 * std::max(1.0, std::fabs(curvature)))
          << "information " << i << ", " << j;
    }
  }
}

// Rows with two covariates, every category of C, weights and offsets.
std::vector<GZLDesignRow> OrdinalRows(int categories) {
  std::mt19937 rng(7);
  std::normal_distribution<double> z(0.0, 1.0);
  std::vector<GZLDesignRow> rows;
  for (int i = 0; i < 24; ++i)
    rows.push_back(Row({z(rng), i % 3 == 0 ? 0.0 : z(rng)}, i % categories, 1.0 + i % 2, 0.5 + 0.25 * (i % 3),
                       0.3 * z(rng)));
  return rows;
}

}  // namespace

// The ordinal record step of every cumulative link: gradient and observed information are the
// derivatives of the log-likelihood; the expected information is the observed one averaged over
// the categories with their fitted probabilities.
TEST(Multinomial, OrdinalRecordStepDerivatives) {
  const TQConst::LinkType links[] = {TQConst::LinkCumLogit, TQConst::LinkCumProbit, TQConst::LinkCumCLogLog,
                                     TQConst::LinkCumNLogLog, TQConst::LinkCumCauchit};
  const int C = 4;
  const std::vector<GZLDesignRow> rows = OrdinalRows(C);
  const std::vector<double> beta{-0.8, 0.1, 0.9, 0.4, -0.7};
  for (TQConst::LinkType link : links) {
    SCOPED_TRACE(static_cast<int>(link));
    const GZLSettings s = OrdinalSettings(link, C);
    GZLOrdAccumStats accum(s, static_cast<int>(beta.size()));
    ASSERT_NE(accum.GetLink(), nullptr);
    auto eval = [&](bool expected) {
      return [&accum, &rows, expected](const std::vector<double>& b) {
        return Accumulate(accum, [expected](GZLOrdAccumStats& a) { a.Clear(1.5, expected); }, rows, b);
      };
    };
    CheckDerivatives(eval(false), beta, true);
    CheckDerivatives(eval(true), beta, false);
    // Expected information of each row = sum over categories k of P_k times the observed
    // information of the row with response k.
    const Sums expected = eval(true)(beta);
    std::vector<GZLDesignRow> spread;
    std::vector<double> pi;
    for (const GZLDesignRow& r : rows) {
      ASSERT_TRUE(accum.ComputeProbabilities(r.fValues.data(), r.fValues.size(), r.fOffset, beta.data(), pi));
      double total = 0.0;
      for (int k = 0; k < C; ++k) {
        total += pi[k];
        spread.push_back(Row(r.fValues, k, r.fFreqWeight * pi[k], r.fScaleWeight, r.fOffset));
      }
      EXPECT_NEAR(total, 1.0, 1e-15);
    }
    const Sums averaged = Accumulate(accum, [](GZLOrdAccumStats& a) { a.Clear(1.5, false); }, spread, beta);
    for (int i = 0; i < 5; ++i)
      for (int j = 0; j <= i; ++j)
        EXPECT_NEAR(expected.information(i, j), averaged.information(i, j), 1e-12 * (1.0 + std::fabs(averaged.information(i, j))));
  }
}

// The nominal record step (canonical: one information): gradient and information against the
// derivatives of the log-likelihood, three logits of an intercept and a covariate, rows in every
// category and a response map that puts the reference last.
TEST(Multinomial, NominalRecordStepDerivatives) {
  GZLNomAccumStats accum(2, 4);
  accum.SetResponseMap({3, 0, 1, 2});  // code 0 is the reference
  std::vector<GZLDesignRow> rows;
  std::mt19937 rng(3);
  std::normal_distribution<double> z(0.0, 1.0);
  for (int i = 0; i < 20; ++i) rows.push_back(Row({1.0, z(rng)}, i % 4, 1.0 + i % 3, 0.8, 0.2 * z(rng)));
  const std::vector<double> beta{0.3, -0.5, -0.2, 0.8, 0.1, 0.05};
  auto eval = [&](const std::vector<double>& b) {
    return Accumulate(accum, [](GZLNomAccumStats& a) { a.Clear(); }, rows, b);
  };
  CheckDerivatives(eval, beta, true);
  // A record of the reference category adds w log pi_ref and only negative gradient terms.
  GZLNomAccumStats one(2, 4);
  one.SetResponseMap({3, 0, 1, 2});
  const Sums ref = Accumulate(one, [](GZLNomAccumStats& a) { a.Clear(); }, {Row({1.0, 0.5}, 0, 2.0)}, beta);
  std::vector<double> pi;
  ASSERT_TRUE(one.ComputeProbabilities(std::vector<double>{1.0, 0.5}.data(), 2, 0.0, beta.data(), pi));
  EXPECT_NEAR(ref.ll, 2.0 * std::log(pi[3]), 1e-14);
  EXPECT_LT(ref.gradient[0], 0.0);
  EXPECT_LT(ref.gradient[2], 0.0);
  EXPECT_LT(ref.gradient[4], 0.0);
}

// Linear predictors far beyond the range of exp(): probabilities at 0 or 1 without overflow,
// every sum finite; an ordinal record in an end category has no threshold below (or above) it.
TEST(Multinomial, ExtremeLinearPredictors) {
  for (double big : {50.0, 1e3, 1e6, 1e100}) {
    SCOPED_TRACE(big);
    GZLNomAccumStats nominal(2, 3);
    nominal.Clear();
    for (double x : {-1.0, 1.0})
      for (int y = 0; y < 3; ++y) EXPECT_TRUE(nominal.UpdateForRow(Row({1.0, x}, y), {0.0, big, 0.0, -big}));
    EXPECT_TRUE(std::isfinite(nominal.GetLogLikelihood()));
    for (double g : nominal.GetGradient()) EXPECT_TRUE(std::isfinite(g));
    TQSymMatrix info;
    nominal.GetInformation(info);
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j <= i; ++j) EXPECT_TRUE(std::isfinite(info(i, j)));
    EXPECT_EQ(nominal.GetTally().valid, 6);
    EXPECT_GE(nominal.GetTally().minPi, 0.0);
    EXPECT_EQ(nominal.GetTally().maxP, 1.0);

    for (TQConst::LinkType link : {TQConst::LinkCumLogit, TQConst::LinkCumProbit, TQConst::LinkCumCLogLog,
                                   TQConst::LinkCumNLogLog, TQConst::LinkCumCauchit}) {
      SCOPED_TRACE(static_cast<int>(link));
      const GZLSettings s = OrdinalSettings(link, 3);
      GZLOrdAccumStats ordinal(s, 3);
      for (bool expected : {true, false}) {
        ordinal.Clear(1.0, expected);
        for (double x : {-1.0, 1.0})
          for (int y = 0; y < 3; ++y) EXPECT_TRUE(ordinal.UpdateForRow(Row({x}, y), {-0.5, 0.5, big}));
        EXPECT_TRUE(std::isfinite(ordinal.GetLogLikelihood()));
        for (double g : ordinal.GetGradient()) EXPECT_TRUE(std::isfinite(g));
        ordinal.GetInformation(info);
        for (int i = 0; i < 3; ++i)
          for (int j = 0; j <= i; ++j) EXPECT_TRUE(std::isfinite(info(i, j)));
      }
    }
  }
  // Lowest category: no gradient on the upper threshold's neighbour below; highest: none on
  // the last threshold from above.
  const GZLSettings s = OrdinalSettings(TQConst::LinkCumLogit, 3);
  GZLOrdAccumStats ordinal(s, 3);
  ordinal.Clear(1.0, true);
  ordinal.UpdateForRow(Row({0.0}, 0), {-0.5, 0.5, 1.0});
  EXPECT_GT(ordinal.GetGradient()[0], 0.0);
  EXPECT_EQ(ordinal.GetGradient()[1], 0.0);
  ordinal.Clear(1.0, true);
  ordinal.UpdateForRow(Row({0.0}, 2), {-0.5, 0.5, 1.0});
  EXPECT_EQ(ordinal.GetGradient()[0], 0.0);
  EXPECT_LT(ordinal.GetGradient()[1], 0.0);
  // Responses outside the categories and rows of the wrong length are refused and counted.
  ordinal.Clear(1.0, true);
  EXPECT_FALSE(ordinal.UpdateForRow(Row({0.0}, 3), {-0.5, 0.5, 1.0}));
  EXPECT_FALSE(ordinal.UpdateForRow(Row({0.0, 1.0}, 1), {-0.5, 0.5, 1.0}));
  EXPECT_FALSE(ordinal.UpdateForRow(Row({0.0}, TQMV::Missing), {-0.5, 0.5, 1.0}));
  EXPECT_EQ(ordinal.GetTally().invalid, 3);
  EXPECT_EQ(ordinal.GetTally().valid, 0);
}

namespace {

// Settings over a table y, x, g (g a factor of two levels): the response y with `categories`
// declared categories, effects x and g as asked.
GZLSettings TableSettings(TQConst::DistType dist, int categories, bool intercept, bool withX, bool withG,
                          std::vector<int>& vars) {
  GZLSettings s;
  s.SetDistType(dist);
  s.SetLinkType(dist == TQConst::DistOrdinalMultinomial ? TQConst::LinkCumLogit : TQConst::LinkLogit);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetDependentSize(categories);
  s.SetDependentRefCateg(dist == TQConst::DistNominalMultinomial ? categories - 1 : 0);
  s.SetInterceptUse(intercept);
  s.SetParamEstConCriterion(1e-10);
  s.SetModelFittingTest(true);
  vars.clear();
  if (withG) {
    s.AddFactor(2, 2);
    vars.push_back(2);
  }
  if (withX) {
    s.AddCovariate(1);
    vars.push_back(1);
  }
  const int nf = withG ? 1 : 0, nc = withX ? 1 : 0;
  if (withX) {
    GZLModelEffect x(nf, nc, &vars);
    x.AddCovariate(1);
    s.AddModelEffect(x);
  }
  if (withG) {
    GZLModelEffect g(nf, nc, &vars);
    g.AddNewFactor(2, false);
    s.AddModelEffect(g);
  }
  return s;
}

std::unique_ptr<output_test::TableSource> Table(std::vector<std::vector<double>> rows) {
  return std::make_unique<output_test::TableSource>(std::vector<std::string>{"y", "x", "g"}, std::move(rows));
}

}  // namespace

// A declared response category that never occurs: the ordinal thresholds and the nominal
// logits cannot be fitted (130018), with or without an intercept or the host's starting
// values; the parameter list still names the observed categories.
TEST(Multinomial, CategoryNeverObserved) {
  std::vector<int> vars;
  auto data = Table({{0, 0.1, 0}, {1, 0.4, 1}, {3, -0.2, 0}, {0, 1.0, 1}, {3, 0.3, 1}, {1, -0.8, 0}});
  for (int variant = 0; variant < 6; ++variant) {
    const TQConst::DistType dist = variant % 2 ? TQConst::DistNominalMultinomial : TQConst::DistOrdinalMultinomial;
    SCOPED_TRACE(variant);
    GZLSettings s = TableSettings(dist, 4, variant < 4, true, false, vars);
    const std::size_t P = dist == TQConst::DistOrdinalMultinomial ? 4 : 6;
    if (variant >= 2 && variant < 4) s.SetInitParams(std::vector<double>(P, 0.1));
    data->Rewind();
    GZLAlgorithm algorithm(s);
    EXPECT_EQ(algorithm.BuildModel(*data).GetErrorCode(), GZLStatusCode::CantBuildModel);
    EXPECT_FALSE(algorithm.IsModelBuilt());
    EXPECT_EQ(algorithm.GetDependCategories(), (std::vector<int>{0, 1, 3}));
  }
  // With the category gone from the declaration the same data fit.
  const GZLSettings s = TableSettings(TQConst::DistOrdinalMultinomial, 3, true, true, false, vars);
  auto recoded = Table({{0, 0.1, 0}, {1, 0.4, 1}, {2, -0.2, 0}, {0, 1.0, 1}, {2, 0.3, 1}, {1, -0.8, 0}});
  GZLAlgorithm algorithm(s);
  EXPECT_FALSE(algorithm.BuildModel(*recoded).IsError());
  EXPECT_TRUE(algorithm.IsModelBuilt());
}

// Nominal models without covariates: with intercepts the fit reproduces the category
// proportions at once (log-likelihood sum c_k log(c_k / N), omnibus statistic 0 on 0 degrees of
// freedom); without intercept there is no parameter and every category has probability 1/C.
TEST(Multinomial, NominalWithoutCovariates) {
  std::vector<int> vars;
  auto data = Table({{0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {2, 0, 0}, {2, 0, 0}, {2, 0, 0}, {0, 0, 0}});
  const double N = 7.0;
  const double ll = 2.0 * std::log(2.0 / N) + 2.0 * std::log(2.0 / N) + 3.0 * std::log(3.0 / N);
  {
    const GZLSettings s = TableSettings(TQConst::DistNominalMultinomial, 3, true, false, false, vars);
    GZLAlgorithm algorithm(s);
    ASSERT_FALSE(algorithm.BuildModel(*data).IsError());
    const GZLOutputStats* out = nullptr;
    ASSERT_TRUE(algorithm.GetOutputStats(out).IsOK());
    ASSERT_EQ(out->GetParamEstimates().size(), 2u);
    EXPECT_NEAR(out->GetParamEstimates()[0], std::log(2.0 / 3.0), 1e-12);
    EXPECT_NEAR(out->GetParamEstimates()[1], std::log(2.0 / 3.0), 1e-12);
    EXPECT_NEAR(out->GetLogLikehood(), ll, 1e-12);
    EXPECT_NEAR(out->GetOmnibusDist(), 0.0, 1e-12);
    EXPECT_EQ(out->GetOmnibusDF(), 0.0);
    EXPECT_NEAR(out->GetDevianceValue(), 0.0, 1e-12);
  }
  {
    const GZLSettings s = TableSettings(TQConst::DistNominalMultinomial, 3, false, false, false, vars);
    data->Rewind();
    GZLAlgorithm algorithm(s);
    ASSERT_FALSE(algorithm.BuildModel(*data).IsError());
    const GZLOutputStats* out = nullptr;
    ASSERT_TRUE(algorithm.GetOutputStats(out).IsOK());
    EXPECT_TRUE(out->GetParamEstimates().empty());
    EXPECT_NEAR(out->GetLogLikehood(), N * std::log(1.0 / 3.0), 1e-12);
    EXPECT_NEAR(out->GetAIC(), -2.0 * N * std::log(1.0 / 3.0), 1e-11);
  }
}

// Separation: a covariate that orders the categories perfectly makes the fitted probability of
// every observed category approach 1 (complete separation, 130044, criterion 8), for the
// ordinal and the nominal model alike; the estimates are still reported.
TEST(Multinomial, Separation) {
  std::vector<int> vars;
  auto data = Table({{0, -3.0, 0}, {0, -2.5, 1}, {0, -2.0, 0}, {1, -0.5, 1}, {1, 0.0, 0}, {1, 0.5, 1},
                     {2, 2.0, 0}, {2, 2.5, 1}, {2, 3.0, 0}});
  for (TQConst::DistType dist : {TQConst::DistOrdinalMultinomial, TQConst::DistNominalMultinomial}) {
    SCOPED_TRACE(static_cast<int>(dist));
    GZLSettings s = TableSettings(dist, 3, true, true, false, vars);
    s.SetCSIteration(1);
    s.SetMaxIterations(100);
    data->Rewind();
    GZLAlgorithm algorithm(s);
    const TQStatus st = algorithm.BuildModel(*data);
    EXPECT_FALSE(st.IsError()) << st.GetErrorCode();
    ASSERT_NE(algorithm.GetGZLOptimizer(), nullptr);
    const auto criterion = algorithm.GetGZLOptimizer()->GetStoppingCriterion();
    EXPECT_TRUE(criterion == GZLConst_940::CompleteSeparation || criterion == GZLConst_940::QuasiCompleteSeparation)
        << criterion;
    const auto& warnings = algorithm.GetBuildModelWarnings();
    const bool warned = std::any_of(warnings.begin(), warnings.end(), [](const TQStatus& w) {
      return w.GetErrorCode() == GZLStatusCode::CompleteSeparation ||
             w.GetErrorCode() == GZLStatusCode::QuasiCompleteSeparation;
    });
    EXPECT_TRUE(warned);
    EXPECT_TRUE(algorithm.IsModelBuilt());
  }
}

// Progress reports and cancellation as for the other models, and the diagnostic display of the
// accumulators within the optimizer's.
TEST(Multinomial, ProgressCancellationAndDisplay) {
  auto c = output_test::LoadCase(MultinomialDir() + "/expected/sim_nominal_factor_by_covariate_reffirst.json", 1e-10,
                                 MultinomialDir() + "/data");
  datapass_test::RecordingListener listener;
  c->settings.SetIterProgressListener(&listener);
  {
    GZLAlgorithm algorithm(c->settings);
    ASSERT_FALSE(algorithm.BuildModel(*c->source).IsError());
    EXPECT_EQ(static_cast<int>(listener.records.size()), algorithm.GetGZLOptimizer()->GetIterationNumber());
    std::ostringstream out;
    {
      TQDisplay_940::ScopedStream redirect(out);
      algorithm.GetGZLOptimizer()->Display();
    }
    const std::string text = out.str();
    for (const char* label : {"GZLNomAccumStats display start", "Accumulated log-likelihood", "Accumulated Hessian:",
                              "Number of invalid calls to UpdateForRow()", "GZLNomAccumStats display end"})
      EXPECT_NE(text.find(label), std::string::npos) << label;
  }
  // Cancelled in the middle of a pass (240 records, a poll per record): status 1, no model.
  for (int polls : {100, 700}) {
    datapass_test::CountingCancel cancel(polls);
    c->settings.SetCancelPointer(&cancel);
    c->source->Rewind();
    GZLAlgorithm algorithm(c->settings);
    EXPECT_EQ(algorithm.BuildModel(*c->source).GetErrorCode(), 1) << polls;
    EXPECT_FALSE(algorithm.IsModelBuilt());
  }
  c->settings.SetCancelPointer(nullptr);

  const GZLSettings s = OrdinalSettings(TQConst::LinkCumCLogLog, 3);
  GZLOrdAccumStats ordinal(s, 3);
  ordinal.Clear(1.0, false);
  ordinal.UpdateForRow(Row({0.5}, 1), {-0.5, 0.5, 1.0});
  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    ordinal.Display();
  }
  EXPECT_EQ(out.str().rfind("GZLOrdAccumStats display start", 0), 0u);
  EXPECT_NE(out.str().find("Index of the first covariate parameter: 2"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("GZLOrdAccumStats display end"), std::string::npos);
}
