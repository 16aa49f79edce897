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
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLNomAccumStats.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLOrdAccumStats.h"
#include "inference/GZLOmnibusTest.h"
#include "output_reference_models.h"
#include "support/LinkFunctions.h"

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
    ++checked;
  }
  EXPECT_EQ(checked, 6);
}
