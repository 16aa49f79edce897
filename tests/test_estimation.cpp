// Fits of the reference models (tests/data/reference) through the design matrix and the
// optimizer, compared with the reference figures: estimates, redundancy, standard errors,
// scale, k, deviance, Pearson chi-square and the full log-likelihood.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>

#include "GZLFactory.h"
#include "IGZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "output_reference_models.h"

namespace {

using output_test::LoadCase;
using output_test::ReferenceCase;

// Relative 1e-6, absolute 1e-9 near zero.
::testing::AssertionResult Near(double actual, double expected, const std::string& what) {
  const double diff = std::fabs(actual - expected);
  const double tol = std::max(1e-9, 1e-6 * std::fabs(expected));
  if (TQMV::IsMissing(actual) || !(diff <= tol))
    return ::testing::AssertionFailure() << what << ": got " << actual << ", expected " << expected;
  return ::testing::AssertionSuccess();
}

struct Fit {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLDesignRowSource> rows;
  std::unique_ptr<GZLOptimizerForGZLM> opt;
  TQStatus estimate;
  TQStatus post;
};

std::unique_ptr<Fit> RunFit(const std::string& jsonPath) {
  auto fit = std::make_unique<Fit>();
  fit->c = LoadCase(jsonPath, 1e-10);
  GZLSettings& s = fit->c->settings;
  fit->design = std::make_unique<GZLDesignMatrix>(s);
  TQStatus st;
  fit->design->RunDictionaryPass(st, *fit->c->source);
  EXPECT_FALSE(st.IsError()) << fit->c->name << " dictionary pass " << st.GetErrorCode();
  fit->design->SetRecordSource(fit->c->source.get());
  fit->rows = std::make_unique<GZLDesignRowSource>(*fit->design);
  fit->opt = std::make_unique<GZLOptimizerForGZLM>(*fit->rows, s);
  fit->estimate = fit->opt->Estimate();
  if (!fit->estimate.IsError()) fit->post = fit->opt->PostEstimation();
  return fit;
}

std::vector<std::string> ReferenceFiles() {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(output_test::RefDir() + "/expected"))
    if (e.path().extension() == ".json") files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

TEST(Estimation, ReferenceModelsAgree) {
  const auto files = ReferenceFiles();
  ASSERT_GE(files.size(), 21u);
  for (const auto& file : files) {
    auto fit = RunFit(file);
    const ReferenceCase& c = *fit->c;
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(c.ok) << c.problem;
    const GZLOptimizerForGZLM& opt = *fit->opt;
    ASSERT_FALSE(fit->estimate.IsError()) << fit->estimate.GetErrorCode();
    EXPECT_FALSE(fit->post.IsError()) << fit->post.GetErrorCode();
    EXPECT_TRUE(opt.IsEstimated());
    // With the parameter tolerance at 1e-10 a linearly converging fit (non-canonical link under
    // Fisher scoring, or an extra parameter) reaches steps whose log-likelihood gain is below
    // the rounding of the sum; the step is then refused and the previous, converged estimates
    // kept.
    const auto crit = opt.GetStoppingCriterion();
    if (crit == GZLConst_940::StepHalvingExhausted) {
      EXPECT_NE(std::find(opt.GetWarnings().begin(), opt.GetWarnings().end(),
                          TQStatus::Warning(GZLStatusCode::StepHalvingProblem)),
                opt.GetWarnings().end());
    } else {
      EXPECT_EQ(crit, GZLConst_940::AllConverged);
    }
    const auto& params = c.expected["parameters"];
    ASSERT_EQ(static_cast<int>(params.size()), opt.GetNumParams());
    const auto& b = opt.GetParamEstimates();
    const TQSymMatrix& inv = opt.GetInverseHessian();  // minus the covariance
    int nonRedundant = 0;
    for (int j = 0; j < opt.GetNumParams(); ++j) {
      const auto& p = params[static_cast<std::size_t>(j)];
      const bool redundant = p["redundant"].get<bool>();
      EXPECT_EQ(!opt.GetInitRedunInfo().Test(j), redundant) << "redundancy of " << p["term"];
      EXPECT_EQ(!opt.GetFinalRedunInfo().Test(j), redundant) << "final redundancy of " << p["term"];
      EXPECT_TRUE(Near(b[static_cast<std::size_t>(j)], p["estimate"].get<double>(), "estimate " + p["term"].get<std::string>()));
      if (!redundant) {
        ++nonRedundant;
        EXPECT_TRUE(Near(std::sqrt(-inv(j, j)), p["se"].get<double>(), "se " + p["term"].get<std::string>()));
      } else {
        EXPECT_EQ(inv(j, j), 0.0);
      }
    }
    EXPECT_EQ(nonRedundant, c.expected["n_nonredundant"].get<int>());
    EXPECT_TRUE(Near(opt.GetPhi(), c.expected["scale"].get<double>(), "scale"));
    if (!c.expected["k"].is_null()) {
      EXPECT_TRUE(Near(opt.GetK(), c.expected["k"].get<double>(), "k"));
    }
    EXPECT_TRUE(Near(opt.GetDeviance(), c.expected["deviance"].get<double>(), "deviance"));
    EXPECT_TRUE(Near(opt.GetPearson(), c.expected["pearson_chisq"].get<double>(), "Pearson"));
    EXPECT_TRUE(Near(opt.GetFullLogLikelihoodScaleFixed(), c.expected["loglik"].get<double>(), "loglik"));
    const auto method = c.settings.GetScaleType();
    if (method != GZLConst_940::ScaleDeviance && method != GZLConst_940::ScalePearson) {
      EXPECT_EQ(opt.GetFullLogLikelihood(), opt.GetFullLogLikelihoodScaleFixed());
    }
  }
}

// The same reference models through the algorithm interface: BuildModel initialises, fits and
// runs the post-estimation step; the optimizer is reachable and the fit is built.
TEST(Estimation, BuildModelEndToEnd) {
  for (const auto& file : ReferenceFiles()) {
    auto c = LoadCase(file, 1e-10);
    SCOPED_TRACE(c->name);
    std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(c->settings, false));
    ASSERT_NE(algorithm, nullptr);
    const TQStatus st = algorithm->BuildModel(*c->source);
    EXPECT_FALSE(st.IsError()) << st.GetErrorCode();
    ASSERT_TRUE(algorithm->IsModelBuilt());
    const auto* opt = dynamic_cast<const GZLOptimizerForGZLM*>(algorithm->GetOptimizer());
    ASSERT_NE(opt, nullptr);
    const auto& params = c->expected["parameters"];
    for (int j = 0; j < opt->GetNumParams(); ++j)
      EXPECT_TRUE(Near(opt->GetParamEstimates()[static_cast<std::size_t>(j)],
                       params[static_cast<std::size_t>(j)]["estimate"].get<double>(), "estimate"));
    EXPECT_TRUE(Near(opt->GetFullLogLikelihoodScaleFixed(), c->expected["loglik"].get<double>(), "loglik"));
    // Every optimizer warning reaches the build-model warnings, and a warning-only fit returns
    // the last of them.
    for (const TQStatus& w : opt->GetWarnings()) {
      const auto& list = algorithm->GetBuildModelWarnings();
      EXPECT_NE(std::find(list.begin(), list.end(), w), list.end());
    }
    if (!algorithm->GetBuildModelWarnings().empty() && !algorithm->GetStatus().IsError()) {
      EXPECT_EQ(st, algorithm->GetBuildModelWarnings().back());
    }
  }
}
