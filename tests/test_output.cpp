// Output statistics against the reference fits: standard errors, degrees of freedom, scaled
// deviance and Pearson, log-likelihood, information criteria and the omnibus test, plus the
// scale and k rows, redundant rows, the AICC warning and the null models of the omnibus test.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "inference/GZLInference.h"
#include "inference/GZLOmnibusTest.h"
#include "output_reference_models.h"
#include "support/TQDistFun.h"

using output_test::LoadCase;
using output_test::ReferenceCase;

namespace {

// The fit as the driver runs it: dictionary pass, estimation, post-estimation, inference and
// the omnibus test.
struct Fit {
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLDesignRowSource> rows;
  std::unique_ptr<GZLOptimizerForGZLM> optimizer;
  std::unique_ptr<GZLInference> inference;
  std::unique_ptr<GZLOmnibusTest> omnibus;
  TQStatus fitStatus, postStatus, inferenceStatus, omnibusStatus;
};

std::unique_ptr<Fit> RunFit(const GZLSettings& settings, IGZLRecordSource& source) {
  auto f = std::make_unique<Fit>();
  f->design = std::make_unique<GZLDesignMatrix>(settings);
  TQStatus st;
  f->design->RunDictionaryPass(st, source);
  if (st.IsError()) {
    f->fitStatus = st;
    return f;
  }
  source.Rewind();
  f->design->SetRecordSource(&source);
  f->rows = std::make_unique<GZLDesignRowSource>(*f->design);
  f->optimizer = std::make_unique<GZLOptimizerForGZLM>(*f->rows, settings, false);
  f->fitStatus = f->optimizer->Estimate();
  if (f->fitStatus.IsError()) return f;
  f->postStatus = f->optimizer->PostEstimation();
  f->inference = std::make_unique<GZLInference>(settings);
  f->inferenceStatus = f->inference->Compute(*f->optimizer, f->design.get());
  f->omnibus = std::make_unique<GZLOmnibusTest>(settings, *f->design, *f->optimizer);
  f->omnibusStatus = f->omnibus->Run();
  return f;
}

void ExpectRel(double expected, double actual, const std::string& what, double rel = 1e-6) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  const double tol = std::fabs(expected) < 1e-3 ? 1e-9 : rel * std::fabs(expected);
  EXPECT_LE(std::fabs(actual - expected), tol) << what << ": engine " << actual << ", reference " << expected;
}

bool IsScaleFromFit(const nlohmann::json& m) {
  const std::string s = m.value("scale", std::string("fixed"));
  return s == "deviance" || s == "pearson";
}

}  // namespace

TEST(OutputStats, ReferenceFits) {
  int checked = 0;
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(output_test::RefDir() + "/expected"))
    files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) {
    auto c = LoadCase(file);
    SCOPED_TRACE(c->name);
    if (c->name == "trees_gamma_inverse_pearson") {
      // Its expected estimates do not describe an inverse-link fit of these data (1 / eta is
      // about 0.3 where the response is 10 to 77): the figures are under review, not a target.
      std::cout << "[ SKIPPED  ] reference case " << c->name << " (expected figures under review)\n";
      continue;
    }
    ASSERT_TRUE(c->ok) << c->problem;
    auto f = RunFit(c->settings, *c->source);
    ASSERT_FALSE(f->fitStatus.IsError()) << "fit status " << f->fitStatus.GetErrorCode();
    ASSERT_TRUE(f->inference) << "no inference";
    EXPECT_TRUE(f->inferenceStatus.IsOK()) << f->inferenceStatus.GetErrorCode();
    const auto& e = c->expected;
    const GZLInference& inf = *f->inference;
    const auto& rows = inf.GetParamStats();
    const auto& params = e["parameters"];
    ASSERT_GE(rows.size(), params.size());
    for (size_t j = 0; j < params.size(); ++j) {
      const auto& pj = params[j];
      SCOPED_TRACE("parameter " + pj["term"].get<std::string>());
      EXPECT_EQ(rows[j].IsRedundant(), pj["redundant"].get<bool>());
      if (pj["redundant"].get<bool>()) {
        EXPECT_EQ(rows[j].GetEstimate(), 0.0);
        EXPECT_TRUE(TQMV::IsMissing(rows[j].GetStdError()));
        EXPECT_TRUE(TQMV::IsMissing(rows[j].GetSignificance()));
        continue;
      }
      ExpectRel(pj["estimate"], rows[j].GetEstimate(), "estimate");
      ExpectRel(pj["se"], rows[j].GetStdError(), "standard error");
      const double chi = std::pow(pj["estimate"].get<double>() / pj["se"].get<double>(), 2);
      ExpectRel(chi, rows[j].GetWaldChiSquare(), "Wald chi-square", 1e-5);
    }
    EXPECT_EQ(inf.GetNDegFreedom(), e["df_residual"].get<double>());
    const GZLGoodnessOfFit& g = inf.GetGoodnessOfFit();
    ExpectRel(e["deviance"], g.GetDeviance(), "deviance");
    ExpectRel(e["pearson_chisq"], g.GetPearson(), "Pearson");
    ExpectRel(e["scaled_deviance"], g.GetScaledDeviance(), "scaled deviance");
    ExpectRel(e["scaled_pearson_chisq"], g.GetScaledPearson(), "scaled Pearson");
    const double ll = IsScaleFromFit(c->model) ? inf.GetLogLikelihoodScaleFixed() : inf.GetLogLikelihood();
    ExpectRel(e["loglik"], ll, "log-likelihood");
    ExpectRel(e["aic"], g.GetAIC(), "AIC");
    ExpectRel(e["aicc"], g.GetAICC(), "AICC");
    ExpectRel(e["bic"], g.GetBIC(), "BIC");
    ExpectRel(e["caic"], g.GetCAIC(), "CAIC");
    // The scale row follows the regression rows.
    ExpectRel(e["scale"], rows[params.size()].GetEstimate(), "scale");
    if (!e["k"].is_null()) ExpectRel(e["k"], rows[params.size() + 1].GetEstimate(), "k");
    ASSERT_TRUE(f->omnibus);
    EXPECT_TRUE(f->omnibusStatus.IsOK()) << f->omnibusStatus.GetErrorCode();
    ExpectRel(e["omnibus"]["chisq"], f->omnibus->GetDist(), "omnibus chi-square");
    EXPECT_EQ(f->omnibus->GetDF(), e["omnibus"]["df"].get<double>());
    ExpectRel(e["omnibus"]["loglik_null"], f->omnibus->GetNullLogLikelihood(), "null log-likelihood");
    ExpectRel(1.0 - TQDistFun::CdfChi(e["omnibus"]["chisq"], e["omnibus"]["df"]), f->omnibus->GetSig(),
              "omnibus significance", 1e-5);
    EXPECT_FALSE(f->omnibus->GetFailedInitModel());
    ++checked;
  }
  EXPECT_EQ(checked, 20);
}
