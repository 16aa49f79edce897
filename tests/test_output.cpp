// Output statistics against the reference fits: standard errors, degrees of freedom, scaled
// deviance and Pearson, log-likelihood, information criteria and the omnibus test, plus the
// scale and k rows, redundant rows, the AICC warning and the null models of the omnibus test.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
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

using output_test::ExpectRel;
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
      if (output_test::ExpectRedundancy(rows[j], pj)) {
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
  EXPECT_EQ(checked, 21);
}

namespace {

// Small data sets of the edge cases: columns y, x.
std::unique_ptr<output_test::TableSource> SmallTable(std::vector<std::vector<double>> rows) {
  return std::make_unique<output_test::TableSource>(std::vector<std::string>{"y", "x"}, std::move(rows));
}

void PoissonSettings(GZLSettings& s, bool intercept, bool withCovariate, std::vector<int>& vars) {
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetInterceptUse(intercept);
  s.SetParamEstConCriterion(1e-10);
  s.SetModelFittingTest(true);
  if (withCovariate) {
    s.AddCovariate(1);
    vars = {1};
    GZLModelEffect x(0, 1, &vars);
    x.AddCovariate(1);
    s.AddModelEffect(x);
  }
}

}  // namespace

// The scale row of an ML-scale normal model: the curvature of the log-likelihood in log(phi) at
// its maximum is -n/2, so SE(phi) = phi sqrt(2/n) and the interval is phi exp(-/+ z sqrt(2/n)).
TEST(OutputStats, ScaleRowOfMLScale) {
  auto c = LoadCase(output_test::RefDir() + "/expected/mtcars_normal_identity.json");
  ASSERT_TRUE(c->ok) << c->problem;
  auto f = RunFit(c->settings, *c->source);
  ASSERT_TRUE(f->inference);
  const auto& rows = f->inference->GetParamStats();
  const int p = f->optimizer->GetNumParams();
  ASSERT_EQ(static_cast<int>(rows.size()), p + 1);  // no k row for a normal model
  const TQRegrParameterStats& scale = rows[p];
  const double phi = c->expected["scale"], n = 32.0, s = std::sqrt(2.0 / n);
  const double z = TQDistFun::IdfNorm(0.975, 0.0, 1.0);
  ExpectRel(phi, scale.GetEstimate(), "phi");
  ExpectRel(phi * s, scale.GetStdError(), "SE(phi)");
  ExpectRel(phi * std::exp(-s * z), scale.GetLowerBound(), "lower");
  ExpectRel(phi * std::exp(s * z), scale.GetUpperBound(), "upper");
  ExpectRel(1.0 / s, scale.GetWaldZ(), "Wald z");
  EXPECT_TRUE(TQMV::IsMissing(scale.GetWaldChiSquare()));
  EXPECT_TRUE(TQMV::IsMissing(scale.GetDF()));
  // The redundant last category of cyl: flagged, estimate 0, no statistics.
  EXPECT_TRUE(rows[5].IsRedundant());
  EXPECT_EQ(rows[5].GetEstimate(), 0.0);
  EXPECT_TRUE(TQMV::IsMissing(rows[5].GetLowerBound()));
  // Residual df: the ML scale counts in d (6) but not against the residual df (32 - 5).
  EXPECT_EQ(f->inference->GetNParameters(), 6);
  EXPECT_EQ(f->inference->GetNDegFreedom(), 27.0);

  // A fixed-scale model: SE 0 and the interval collapsed on phi.
  auto poisson = LoadCase(output_test::RefDir() + "/expected/warpbreaks_poisson_interaction.json");
  auto g = RunFit(poisson->settings, *poisson->source);
  ASSERT_TRUE(g->inference);
  const TQRegrParameterStats& fixed = g->inference->GetParamStats()[g->optimizer->GetNumParams()];
  EXPECT_EQ(fixed.GetEstimate(), 1.0);
  EXPECT_EQ(fixed.GetStdError(), 0.0);
  EXPECT_EQ(fixed.GetLowerBound(), 1.0);
  EXPECT_EQ(fixed.GetUpperBound(), 1.0);
}

// The k row of an ML-k negative binomial model against the curvature of its log-likelihood in
// log(k), by finite differences at the reference estimates.
TEST(OutputStats, KRowOfMLK) {
  auto c = LoadCase(output_test::RefDir() + "/expected/quine_negbin_k_estimated.json");
  ASSERT_TRUE(c->ok) << c->problem;
  auto f = RunFit(c->settings, *c->source);
  ASSERT_TRUE(f->inference);
  const auto& rows = f->inference->GetParamStats();
  const int p = f->optimizer->GetNumParams();
  ASSERT_EQ(static_cast<int>(rows.size()), p + 2);  // scale row, then k row

  // Linear predictors from the reference estimates (design: intercept, then one column per
  // category of each factor).
  output_test::TableSource& src = *c->source;
  const auto& params = c->expected["parameters"];
  const std::vector<std::string> factors{"eth", "sex", "age", "lrn"};
  std::vector<double> y, mu;
  src.Rewind();
  while (const Record* r = src.NextRecord()) {
    double eta = params[0]["estimate"];
    size_t j = 1;
    for (const std::string& name : factors) {
      const int col = src.Column(name);
      for (; j < params.size() && params[j]["term"].get<std::string>().rfind(name + "=", 0) == 0; ++j)
        if (params[j]["categories"][0].get<int>() == static_cast<int>((*r)[col])) eta += params[j]["estimate"].get<double>();
    }
    y.push_back((*r)[src.Column("days")]);
    mu.push_back(std::exp(eta));
  }
  auto ll = [&](double theta) {
    const double k = std::exp(theta);
    double sum = 0.0;
    for (size_t i = 0; i < y.size(); ++i)
      sum += std::lgamma(y[i] + 1.0 / k) - std::lgamma(1.0 / k) - std::lgamma(y[i] + 1.0) + y[i] * std::log(k * mu[i]) -
             (y[i] + 1.0 / k) * std::log(1.0 + k * mu[i]);
    return sum;
  };
  const double k = c->expected["k"], t = std::log(k), step = 1e-4;
  const double h = (ll(t + step) - 2.0 * ll(t) + ll(t - step)) / (step * step);
  ASSERT_LT(h, 0.0);
  const double s = std::sqrt(-1.0 / h);
  const double z = TQDistFun::IdfNorm(0.975, 0.0, 1.0);
  const TQRegrParameterStats& kRow = rows[p + 1];
  ExpectRel(k, kRow.GetEstimate(), "k");
  ExpectRel(k * s, kRow.GetStdError(), "SE(k)", 1e-5);
  ExpectRel(k * std::exp(-s * z), kRow.GetLowerBound(), "lower", 1e-5);
  ExpectRel(k * std::exp(s * z), kRow.GetUpperBound(), "upper", 1e-5);
  // The scale row of that model is fixed at 1.
  EXPECT_EQ(rows[p].GetEstimate(), 1.0);
  EXPECT_EQ(rows[p].GetStdError(), 0.0);
  // k counts against the residual df: 146 - 7 - 1.
  EXPECT_EQ(f->inference->GetNDegFreedom(), 138.0);
}

// n - d - 1 = 0: AICC missing with warning 130095, the other criteria reported.
TEST(OutputStats, AICCNotComputable) {
  std::vector<int> vars;
  GZLSettings s;
  PoissonSettings(s, true, true, vars);
  auto src = SmallTable({{2, 0.5}, {3, 1.0}, {7, 2.0}});
  auto f = RunFit(s, *src);
  ASSERT_TRUE(f->inference) << f->fitStatus.GetErrorCode();
  const GZLGoodnessOfFit& g = f->inference->GetGoodnessOfFit();
  EXPECT_EQ(f->inference->GetNParameters(), 2);
  EXPECT_TRUE(TQMV::IsMissing(g.GetAICC()));
  const double L = f->inference->GetLogLikelihood();
  ASSERT_FALSE(TQMV::IsMissing(L));
  EXPECT_DOUBLE_EQ(g.GetAIC(), -2.0 * L + 4.0);
  EXPECT_DOUBLE_EQ(g.GetBIC(), -2.0 * L + 2.0 * std::log(3.0));
  const auto& w = f->inference->GetStatComputeWarnings();
  ASSERT_EQ(w.size(), 1u);
  EXPECT_EQ(w[0].GetErrorCode(), 130095);
  EXPECT_TRUE(w[0].IsWarning());
}

// Omnibus test of a model without effects: the null model is the model itself.
TEST(OutputStats, OmnibusWithoutEffects) {
  const std::vector<std::vector<double>> data{{2, 0.5}, {3, 1.0}, {7, 2.0}, {4, 1.5}, {1, 0.2}};
  std::vector<int> vars;
  GZLSettings s;
  PoissonSettings(s, true, false, vars);
  auto src = SmallTable(data);
  auto f = RunFit(s, *src);
  ASSERT_TRUE(f->omnibus) << f->fitStatus.GetErrorCode();
  EXPECT_TRUE(f->omnibusStatus.IsOK()) << f->omnibusStatus.GetErrorCode();
  EXPECT_EQ(f->omnibus->GetDF(), 0.0);
  EXPECT_NEAR(f->omnibus->GetDist(), 0.0, 1e-9);
  // Intercept-only null model: the log-likelihood at the mean response.
  double l0 = 0.0;
  const double mean = 17.0 / 5.0;
  for (const auto& r : data) l0 += r[0] * std::log(mean) - mean - std::lgamma(r[0] + 1.0);
  ExpectRel(l0, f->omnibus->GetNullLogLikelihood(), "null log-likelihood", 1e-10);
  EXPECT_FALSE(f->design->IsReducedModel());
}

// Omnibus test of a model without intercept: the null model has no parameter, every mean is
// the inverse link of the offset (here of 0).
TEST(OutputStats, OmnibusWithoutIntercept) {
  const std::vector<std::vector<double>> data{{2, 0.5}, {3, 1.0}, {7, 2.0}, {4, 1.5}, {1, 0.2}};
  std::vector<int> vars;
  GZLSettings s;
  PoissonSettings(s, false, true, vars);
  auto src = SmallTable(data);
  auto f = RunFit(s, *src);
  ASSERT_TRUE(f->omnibus) << f->fitStatus.GetErrorCode();
  // The design is whole again afterwards, whatever the null fit did.
  EXPECT_FALSE(f->design->IsReducedModel());
  if (f->omnibusStatus.GetErrorCode() == GZLStatusCode::InternalError && f->omnibus->GetFailedInitModel())
    GTEST_SKIP() << "the optimizer cannot yet fit a model with no regression parameter";
  EXPECT_TRUE(f->omnibusStatus.IsOK()) << f->omnibusStatus.GetErrorCode();
  double l0 = 0.0;  // Poisson log-likelihood at mu = 1
  for (const auto& r : data) l0 += -1.0 - std::lgamma(r[0] + 1.0);
  ExpectRel(l0, f->omnibus->GetNullLogLikelihood(), "null log-likelihood", 1e-10);
  EXPECT_EQ(f->omnibus->GetDF(), 1.0);
  ExpectRel(2.0 * (f->optimizer->GetLogLikelihood() - l0), f->omnibus->GetDist(), "statistic", 1e-10);
}

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "IGZLAlgorithm.h"

// Through the algorithm interface: results before a fit are refused (and the refusal is the
// stored status), after a fit the output statistics carry the figures of the fit.
TEST(OutputStats, AlgorithmGetOutputStats) {
  auto c = LoadCase(output_test::RefDir() + "/expected/quine_negbin_k_estimated.json");
  ASSERT_TRUE(c->ok) << c->problem;
  std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(c->settings, false));
  ASSERT_TRUE(algorithm);

  const GZLOutputStats* sentinel = reinterpret_cast<const GZLOutputStats*>(&c);
  const GZLOutputStats* out = sentinel;
  TQStatus st = algorithm->GetOutputStats(out);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::ModelNotBuilt);
  EXPECT_TRUE(st.IsError());
  EXPECT_EQ(out, sentinel);
  EXPECT_EQ(algorithm->GetStatus().GetErrorCode(), GZLStatusCode::ModelNotBuilt);

  st = algorithm->BuildModel(*c->source);
  ASSERT_FALSE(st.IsError()) << st.GetErrorCode();
  ASSERT_TRUE(algorithm->IsModelBuilt());
  st = algorithm->GetOutputStats(out);
  ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
  ASSERT_NE(out, sentinel);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(algorithm->GetStatus().IsOK());
  const GZLOutputStats* again = nullptr;
  algorithm->GetOutputStats(again);
  EXPECT_EQ(again, out);  // created once

  const auto& e = c->expected;
  const auto& params = e["parameters"];
  ASSERT_EQ(out->GetParamEstimates().size(), params.size());
  ASSERT_EQ(out->GetParamStats().size(), params.size() + 2);
  ASSERT_EQ(out->GetRedundancyIndicators().size(), params.size());
  ASSERT_EQ(out->GetCovarianceMatrix().GetNumRows(), static_cast<int>(params.size()));
  for (size_t j = 0; j < params.size(); ++j) {
    EXPECT_EQ(out->GetRedundancyIndicators()[j], params[j]["redundant"].get<bool>());
    if (params[j]["redundant"].get<bool>()) continue;
    ExpectRel(params[j]["se"], out->GetParamStats()[j].GetStdError(), "SE");
    ExpectRel(std::pow(params[j]["se"].get<double>(), 2), out->GetCovarianceMatrix().Get(j, j), "variance");
  }
  ExpectRel(e["k"], out->GetNegBinK(), "k");
  EXPECT_EQ(out->GetNDegFreedom(), e["df_residual"].get<double>());
  EXPECT_EQ(out->GetNumOfRecords(), 146);
  EXPECT_EQ(out->GetPopulationSize(), 146.0);
  ExpectRel(e["deviance"], out->GetDevianceValue(), "deviance");
  ExpectRel(e["scaled_deviance"], out->GetScaledDevianceValue(), "scaled deviance");
  ExpectRel(e["deviance"].get<double>() / 138.0, out->GetDevianceValueByDegFreedom(), "deviance / df");
  ExpectRel(e["pearson_chisq"], out->GetPearsonChiSquareValue(), "Pearson");
  ExpectRel(e["scaled_pearson_chisq"], out->GetScaledPearsonChiSquareValue(), "scaled Pearson");
  ExpectRel(e["loglik"], out->GetLogLikehood(), "log-likelihood");
  ExpectRel(e["loglik"], out->GetLogLikehoodScaleFixed(), "log-likelihood, scale fixed");
  ExpectRel(e["aic"], out->GetAIC(), "AIC");
  ExpectRel(e["aicc"], out->GetAICC(), "AICC");
  ExpectRel(e["bic"], out->GetBIC(), "BIC");
  ExpectRel(e["caic"], out->GetCAIC(), "CAIC");
  ExpectRel(e["omnibus"]["chisq"], out->GetOmnibusDist(), "omnibus");
  EXPECT_EQ(out->GetOmnibusDF(), e["omnibus"]["df"].get<double>());
  EXPECT_FALSE(out->GetOmnibusFailedInitModel());
  // State read from the fit's optimizer (at such tight tolerances the last step may end in
  // step-halving rather than in the parameter criterion).
  ASSERT_NE(algorithm->GetOptimizer(), nullptr);
  EXPECT_EQ(out->GetEstimStopCriterion(), algorithm->GetOptimizer()->GetStoppingCriterion());
  EXPECT_NE(out->GetEstimStopCriterion(), GZLConst_940::NoCriterionSatisfied);
  EXPECT_FALSE(out->IsSingularHessian());
  EXPECT_FALSE(out->IsPerfectFit());
  EXPECT_TRUE(out->GetStatComputeWarnings().empty());
  EXPECT_EQ(out->GetPLCIStatus().GetErrorCode(), GZLStatusCode::NoValidPLCIStats);
  ASSERT_NE(out->GetHessianMatrixPtr(), nullptr);
  EXPECT_EQ(out->GetHessianMatrixPtr()->GetNumRows(), static_cast<int>(params.size()) + 1);
  EXPECT_EQ(out->GetFullGradientVector().size(), params.size() + 1);
  EXPECT_TRUE(TQMV::IsMissing(out->GetQICValue()));
}

// A normal identity model fitted for a mixed-model host: t-based parameter rows on
// fN - (parameters in the model) degrees of freedom, the scale interval on the normal quantile,
// and the restricted information criteria.
TEST(OutputStats, MixedModelHostTBased) {
  auto c = LoadCase(output_test::RefDir() + "/expected/mtcars_normal_identity.json");
  ASSERT_TRUE(c->ok) << c->problem;
  c->settings.SetGZLModelType(GZLConst_940::GZLMMM);
  c->settings.SetThetaEstTypeGZLMMM(1);
  auto f = RunFit(c->settings, *c->source);
  ASSERT_TRUE(f->inference) << f->fitStatus.GetErrorCode();
  const GZLInference& inf = *f->inference;
  EXPECT_TRUE(inf.IsTBased());
  EXPECT_EQ(inf.GetDFForT(), 27.0);  // 32 observations, 5 parameters in the model
  const double t = TQDistFun::IdfT(0.975, 27.0);
  EXPECT_DOUBLE_EQ(inf.GetCriticalValue(), t);
  const auto& rows = inf.GetParamStats();
  for (int j = 0; j < 5; ++j) {
    const TQRegrParameterStats& r = rows[j];
    SCOPED_TRACE(j);
    ASSERT_FALSE(TQMV::IsMissing(r.GetStdError()));
    EXPECT_DOUBLE_EQ(r.GetTValue(), r.GetEstimate() / r.GetStdError());
    EXPECT_EQ(r.GetDF(), 27.0);
    EXPECT_TRUE(TQMV::IsMissing(r.GetWaldChiSquare()));
    EXPECT_NEAR(r.GetSignificance(), 2.0 * (1.0 - TQDistFun::CdfT(std::fabs(r.GetTValue()), 27.0)), 1e-14);
    EXPECT_NEAR(r.GetUpperBound() - r.GetLowerBound(), 2.0 * t * r.GetStdError(), 1e-12 * std::fabs(r.GetEstimate()) + 1e-14);
  }
  // Scale row: symmetric on the log scale with the normal quantile, not the t quantile.
  const TQRegrParameterStats& scale = rows[6];
  const double phi = scale.GetEstimate(), s = scale.GetStdError() / phi;
  const double z = TQDistFun::IdfNorm(0.975, 0.0, 1.0);
  EXPECT_NEAR(scale.GetLowerBound(), phi * std::exp(-s * z), 1e-12 * phi);
  EXPECT_NEAR(scale.GetUpperBound(), phi * std::exp(s * z), 1e-12 * phi);
  // Restricted criteria: d = 6, m = n - (d - 1) = 27.
  const GZLGoodnessOfFit& g = inf.GetGoodnessOfFit();
  EXPECT_TRUE(g.IsRestricted());
  const double L = inf.GetLogLikelihood();
  EXPECT_DOUBLE_EQ(g.GetAIC(), -2.0 * L + 2.0);
  EXPECT_DOUBLE_EQ(g.GetAICC(), -2.0 * L + 2.0 * 27.0 / 25.0);
  EXPECT_DOUBLE_EQ(g.GetBIC(), -2.0 * L + std::log(27.0));
  EXPECT_DOUBLE_EQ(g.GetCAIC(), -2.0 * L + std::log(27.0) + 1.0);
}
