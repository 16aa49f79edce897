// Estimated marginal means: means, contrasts, overall tests and pairwise comparisons against
// the reference cases; the statuses of requests and tables; an incomplete design (an
// empty cell); covariates at their means and at given values; the p-value adjustments on
// hand-checked significances; the contrast matrices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "GZLFactory.h"
#include "GZLMarginals.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "gee/GEEAlgorithm.h"
#include "inference/GZLInference.h"
#include "output_reference_models.h"
#include "support/ITQLinkFunc.h"
#include "support/TQContrasts.h"
#include "support/TQDistFun.h"

using output_test::LoadCase;
using output_test::ReferenceCase;

namespace {

std::string EmmDir() { return std::string(GZL_TEST_DATA_DIR) + "/emmeans"; }

// Relative 1e-6, absolute 1e-9 near zero: the tolerance of the reference figures.
void ExpectClose(const nlohmann::json& expected, double actual, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_TRUE(TQMV::IsMissing(actual)) << what << ": " << actual;
    return;
  }
  const double e = expected.get<double>();
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - e), std::max(1e-9, 1e-6 * std::fabs(e))) << what << ": engine " << actual
                                                                        << ", reference " << e;
}

TQConst::TQContrastType ContrastType(const std::string& name) {
  static const std::map<std::string, TQConst::TQContrastType> types{
      {"simple", TQConst::ContrastSimple},         {"deviation", TQConst::ContrastDeviation},
      {"helmert", TQConst::ContrastHelmert},       {"difference", TQConst::ContrastDifference},
      {"repeated", TQConst::ContrastRepeated},     {"polynomial", TQConst::ContrastPolynomial},
      {"pairwise", TQConst::ContrastPairwise}};
  return types.at(name);
}

TQConst::TQPAdjustMethod Adjustment(const std::string& name) {
  static const std::map<std::string, TQConst::TQPAdjustMethod> methods{
      {"none", TQConst::PAdjNone},       {"bonferroni", TQConst::PAdjBonferroni},
      {"seq_bonferroni", TQConst::PAdjSeqBonferroni}, {"sidak", TQConst::PAdjSidak},
      {"seq_sidak", TQConst::PAdjSeqSidak}};
  return methods.at(name);
}

// The reference model (GZLM, or GEE with the GEE keys) with its marginal-means requests as
// requests.
std::unique_ptr<ReferenceCase> LoadEmmeansCase(const nlohmann::json& j) {
  const bool gee = j["model"].value("model_type", std::string()) == "gee";
  auto c = LoadCase(j, 1e-10, gee ? output_test::RefDir() + "/gee/data" : "");
  if (gee) output_test::ApplyGeeKeys(*c);
  const auto& m = c->model;
  GZLSettings& s = c->settings;
  s.SetConfidenceLevel(m["confidence_level"].get<double>());
  s.SetTestType(m["test_type"] == "F" ? TQConst::TestType0 : TQConst::TestType2);
  std::vector<TQEmmeansSpec> specs;
  for (const auto& r : m["emmeans"]) {
    TQEmmeansSpec spec;
    for (const auto& f : r["factors"]) {
      spec.fFactors.push_back(c->source->Column(f));
      spec.fFactorsNestLevel.push_back(0);
    }
    spec.fCompareFactors = {c->source->Column(r["compare"])};
    spec.fContrastType = ContrastType(r["contrast"]);
    spec.fRefCateg = r["ref_category"];
    if (!r["metric"].is_null()) spec.fMetricValues = r["metric"].get<std::vector<double>>();
    spec.fEmmScaleType = r["scale"] == "response" ? TQConst::EmmScaleOriginal : TQConst::EmmScaleTransformed;
    spec.fPAdjust = Adjustment(r["p_adjust"]);
    for (const auto& [name, value] : r["covariate_values"].items())
      spec.fCovariates.emplace_back(c->source->Column(name), value.get<double>());
    specs.push_back(std::move(spec));
  }
  s.SetEmmeans(std::move(specs));
  return c;
}

struct EmmeansFit {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<IGZLAlgorithm> algorithm;
  const GZLOutputStats* stats = nullptr;
};

std::unique_ptr<EmmeansFit> Fit(std::unique_ptr<ReferenceCase> c) {
  auto f = std::make_unique<EmmeansFit>();
  f->c = std::move(c);
  f->algorithm.reset(GZLFactory::CreateAlgorithm(f->c->settings, false));
  if (!f->algorithm) return f;
  const TQStatus st = f->algorithm->BuildModel(*f->c->source);
  EXPECT_FALSE(st.IsError()) << f->c->name << ": " << st.GetErrorCode();
  if (!st.IsError()) f->algorithm->GetOutputStats(f->stats);
  return f;
}

// The categories of a cell in the order of `factors`.
std::vector<int> Categories(const nlohmann::json& factors, const nlohmann::json& byName) {
  std::vector<int> out;
  for (const auto& f : factors)
    if (byName.contains(f.get<std::string>())) out.push_back(byName[f.get<std::string>()].get<int>());
  return out;
}

// The statistic of a test: chi-square with df, or F with df1 and df2.
void ExpectStatistic(const nlohmann::json& e, const TQTestStats& x, const std::string& what) {
  if (e.contains("wald_chisq")) {
    ExpectClose(e["wald_chisq"], x.GetWald(), what + " chi-square");
    EXPECT_EQ(x.GetDF(), e["df"].get<double>()) << what;
    EXPECT_TRUE(TQMV::IsMissing(x.GetDF2())) << what;
  } else {
    ExpectClose(e["F"], x.GetWald(), what + " F");
    EXPECT_EQ(x.GetDF(), e.value("df1", 1.0)) << what;
    ExpectClose(e["df2"], x.GetDF2(), what + " df2");
  }
}

// The expected table whose other factors take these categories.
const nlohmann::json* FindTable(const ReferenceCase& c, const nlohmann::json& tables,
                                const std::vector<std::pair<int, int>>& others) {
  for (const auto& candidate : tables) {
    bool same = others.size() == candidate["others"].size();
    for (const auto& [name, code] : candidate["others"].items())
      same = same && std::find(others.begin(), others.end(), std::make_pair(c.source->Column(name), code.get<int>())) !=
                         others.end();
    if (same) return &candidate;
  }
  return nullptr;
}

void ExpectRequest(const EmmeansFit& f, int i, const nlohmann::json& em) {
  const ReferenceCase& c = *f.c;
  const GZLOutputStats& stats = *f.stats;
  const auto& req = em["req"];
  SCOPED_TRACE(c.name + " request " + std::to_string(i));
  const TQEmmeansSpec* spec = nullptr;
  const TQRectMatrix* L = nullptr;
  std::vector<TQEmmeansStats> means;
  ASSERT_TRUE(stats.GetEmmeansStats(i, spec, L, means).IsOK());
  // Covariates named by the request are held at their values, the others at their means.
  const std::vector<std::string> covariates = c.model["covariates"].get<std::vector<std::string>>();
  for (const auto& [name, value] : req["covariate_values_used"].items()) {
    const int column = c.source->Column(name);
    double used = stats.GetMeanValues()[std::find(covariates.begin(), covariates.end(), name) - covariates.begin()];
    for (const auto& [v, x] : spec->GetCovariates())
      if (v == column) used = x;
    ExpectClose(value, used, "covariate " + name);
  }
  ASSERT_EQ(means.size(), em["cells"].size());
  for (const auto& cell : em["cells"]) {
    const std::vector<int> want = Categories(req["factors"], cell["categories"]);
    const auto it = std::find_if(means.begin(), means.end(), [&](const TQEmmeansStats& m) { return m.fLevels == want; });
    ASSERT_NE(it, means.end());
    ExpectClose(cell["mean"], it->fEstimate, "mean");
    ExpectClose(cell["se"], it->fStdError, "se");
    ExpectClose(cell["lower"], it->fLower, "lower");
    ExpectClose(cell["upper"], it->fUpper, "upper");
  }

  TQStatus status;
  ASSERT_EQ(stats.GetNEmmeansTests(i, status), static_cast<int>(em["tables"].size()));
  const bool pairwise = req["contrast"] == "pairwise";
  const int compare = c.source->Column(req["compare"]);
  for (int t = 0; t < static_cast<int>(em["tables"].size()); ++t) {
    const std::string what = "table " + std::to_string(t);
    std::vector<std::pair<int, int>> others;
    std::vector<int> levels;
    TQRectMatrix contrast;
    std::vector<TQTestStats> individual;
    TQTestStats overall;
    ASSERT_TRUE(stats.GetEmmeansTests(i, t, others, levels, contrast, individual, overall).IsOK()) << what;
    const nlohmann::json* found = FindTable(c, em["tables"], others);
    ASSERT_NE(found, nullptr) << what;
    const nlohmann::json& table = *found;
    EXPECT_EQ(levels, table["levels"].get<std::vector<int>>()) << what;
    for (const auto& [v, category] : others) EXPECT_NE(v, compare);
    const auto& ov = table["overall"];
    ExpectStatistic(ov, overall, what + " overall");
    ExpectClose(ov["sig"], overall.GetSig(), what + " overall sig");
    TQTestStats pairOverall;
    ASSERT_TRUE(stats.GetPairwiseOverallTest(i, t, others, pairOverall).IsOK());
    ExpectClose(ov["sig"], pairOverall.GetSig(), what + " pairwise overall sig");

    if (!pairwise) {
      ASSERT_EQ(individual.size(), table["contrasts"].size()) << what;
      for (std::size_t r = 0; r < individual.size(); ++r) {
        const auto& e = table["contrasts"][r];
        const std::string w = what + " contrast " + std::to_string(r);
        for (int k = 0; k < contrast.GetNumCols(); ++k) ExpectClose(e["coefficients"][k], contrast(static_cast<int>(r), k), w);
        ExpectClose(e["estimate"], individual[r].GetContrastEstimate(), w + " estimate");
        ExpectClose(e["se"], individual[r].GetStandardError(), w + " se");
        ExpectClose(e["lower"], individual[r].GetLowerConfidenceInterval(), w + " lower");
        ExpectClose(e["upper"], individual[r].GetUpperConfidenceInterval(), w + " upper");
        ExpectStatistic(e, individual[r], w);
        ExpectClose(e["sig"], individual[r].GetSig(), w + " sig");
      }
      continue;
    }
    std::vector<GZLPairwiseRecord> records;
    ASSERT_TRUE(stats.GetPairwiseEmmeansTests(i, t, others, levels, records).IsOK()) << what;
    ASSERT_EQ(records.size(), table["pairwise"].size()) << what;
    EXPECT_EQ(stats.GetNPairwiseEmmeansTests(i, t), static_cast<int>(records.size()));
    for (std::size_t r = 0; r < records.size(); ++r) {
      const auto& e = table["pairwise"][r];
      const std::string w = what + " pair " + std::to_string(e["a"].get<int>()) + "-" + std::to_string(e["b"].get<int>());
      EXPECT_EQ(records[r].fLevels, (std::vector<int>{e["a"].get<int>(), e["b"].get<int>()})) << w;
      ExpectClose(e["estimate"], records[r].fEstimate, w + " estimate");
      ExpectClose(e["se"], records[r].fStdError, w + " se");
      ExpectClose(e["lower"], records[r].fLower, w + " lower");
      ExpectClose(e["upper"], records[r].fUpper, w + " upper");
      ExpectClose(e.contains("wald_chisq") ? e["wald_chisq"] : e["F"], records[r].fWald, w + " statistic");
      ExpectClose(e["raw_sig"], records[r].fRawSig, w + " raw sig");
      ExpectClose(e["sig"], records[r].fSig, w + " sig");
    }
  }
}

}  // namespace

TEST(Emmeans, ReferenceCases) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(EmmDir())) files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  int checked = 0;
  for (const std::string& file : files) {
    auto f = Fit(LoadEmmeansCase(output_test::ReadCase(file)));
    SCOPED_TRACE(f->c->name);
    ASSERT_TRUE(f->c->ok) << f->c->problem;
    ASSERT_NE(f->stats, nullptr);
    const auto& ex = f->c->expected;
    if (ex.contains("loglik")) ExpectClose(ex["loglik"], f->stats->GetLogLikehoodScaleFixed(), "log-likelihood");
    const std::vector<TQRegrParameterStats>& rows = f->stats->GetParamStats();
    for (std::size_t j = 0; j < ex["parameters"].size(); ++j)
      ExpectClose(ex["parameters"][j]["estimate"], rows[j].GetEstimate(), "estimate " + std::to_string(j));
    EXPECT_TRUE(f->algorithm->GetEmmeansWarnings().empty());
    ASSERT_NE(f->stats->GetMarginals(), nullptr);
    EXPECT_TRUE(f->stats->GetMarginals()->IsDesignComplete());
    for (int i = 0; i < static_cast<int>(ex["emmeans"].size()); ++i) ExpectRequest(*f, i, ex["emmeans"][i]);
    ++checked;
  }
  EXPECT_EQ(checked, 7);
}

namespace {

// A Poisson log model of y on factors a (2 levels), b (4 levels) and c (declared with 2 levels,
// only the first observed) and a covariate x, with the effects given as (factors, covariates).
// Fields: y, a, b, c, x. `skip` leaves out the records of one (a, b) cell.
struct SmallModel {
  using Effects = std::vector<std::pair<std::vector<int>, std::vector<int>>>;
  static Effects MainEffects() { return {{{1}, {}}, {{2}, {}}, {{}, {4}}}; }
  static Effects WithInteraction() { return {{{1}, {}}, {{2}, {}}, {{1, 2}, {}}, {{}, {4}}}; }

  std::vector<int> vars{1, 2, 3, 4};
  GZLSettings settings;
  GZLMemorySource source;
  explicit SmallModel(const Effects& effects = MainEffects(), std::pair<int, int> skip = {-1, -1}) {
    for (int i = 0; i < 96; ++i) {
      const int a = i % 2, b = (i / 2) % 4;
      if (a == skip.first && b == skip.second) continue;
      const double x = 0.5 + 0.25 * (i % 7);
      const double y = std::round(std::exp(1.0 + 0.4 * a - 0.2 * b + 0.3 * x + (a == 1 && b == 2 ? 0.5 : 0.0)) *
                                  (1.0 + 0.3 * std::sin(i)));
      source.AddRow({y, double(a), double(b), 0.0, x});
    }
    settings.SetDistType(TQConst::DistPoisson);
    settings.SetLinkType(TQConst::LinkLog);
    settings.SetScaleType(GZLConst_940::ScaleFixed);
    settings.SetDependent(0);
    settings.SetInterceptUse(true);
    settings.AddFactor(1, 2);
    settings.AddFactor(2, 4);
    settings.AddFactor(3, 2);
    settings.AddCovariate(4);
    for (const auto& [factors, covariates] : effects) {
      GZLModelEffect e(3, 1, &vars);
      for (int f : factors) e.AddNewFactor(f, false);
      for (int v : covariates) e.AddCovariate(v);
      settings.AddModelEffect(e);
    }
    settings.SetTestType(TQConst::TestType2);
    settings.SetParamEstConCriterion(1e-10);
  }
  static TQEmmeansSpec Spec(std::vector<int> factors, int compare, TQConst::TQContrastType type,
                            TQConst::TQEmmScaleType scale = TQConst::EmmScaleTransformed) {
    TQEmmeansSpec s;
    s.fFactors = std::move(factors);
    s.fFactorsNestLevel.assign(s.fFactors.size(), 0);
    if (compare >= 0) s.fCompareFactors = {compare};
    s.fContrastType = type;
    s.fEmmScaleType = scale;
    return s;
  }
};

class AlwaysCancel : public TQQueryCancel {
 public:
  bool IsCancelled() override { return true; }
};

bool Listed(const std::vector<TQStatus>& list, int code) {
  return std::any_of(list.begin(), list.end(), [code](const TQStatus& s) { return s.GetErrorCode() == code; });
}

}  // namespace

// The statuses of requests, tables and indices; a request in error has no results
// while the others keep theirs.
TEST(Emmeans, RequestStatuses) {
  using S = SmallModel;
  SmallModel m;
  std::vector<TQEmmeansSpec> specs;
  specs.push_back(S::Spec({2}, 2, TQConst::ContrastSimple));  // reference 7: not observed
  specs.back().fRefCateg = 7;
  for (std::vector<double> metric : {std::vector<double>{1, 2, 3}, {1, 2, 3, 4, 5}, {}, {1, 1, 2, 3}}) {
    specs.push_back(S::Spec({2}, 2, TQConst::ContrastPolynomial));
    specs.back().fMetricValues = metric;
  }
  specs.push_back(S::Spec({3}, 3, TQConst::ContrastPairwise));  // c: one observed category
  specs.push_back(S::Spec({2}, 1, TQConst::ContrastPairwise));  // compare factor not among the factors
  specs.push_back(S::Spec({4}, -1, TQConst::ContrastNone));     // a covariate as a factor
  specs.push_back(S::Spec({1}, -1, TQConst::ContrastNone));     // means only
  specs.back().fCovariates = {{1, 2.0}};                        // a factor as a covariate
  specs.push_back(S::Spec({1, 2}, -1, TQConst::ContrastNone));
  m.settings.SetEmmeans(specs);
  GZLAlgorithm alg(m.settings);
  ASSERT_FALSE(alg.BuildModel(m.source).IsError());
  const GZLMarginals& mm = *alg.GetMarginals();
  const int expected[] = {130038, 130036, 130037, 0, 130036, 130035, 130039, 130039, 130039, 0};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(mm.GetSpecStatus(i).GetErrorCode(), expected[i]) << i;
  EXPECT_TRUE(mm.GetSpecStatus(0).IsWarning());
  EXPECT_EQ(mm.GetSpecStatus(0).GetDiscreteData(0), 0);
  EXPECT_TRUE(mm.GetSpecStatus(1).IsError());
  EXPECT_TRUE(mm.GetSpecStatus(5).IsWarning());
  EXPECT_EQ(mm.GetSpecStatus(5).GetDiscreteData(0), 5);
  // The algorithm lists the warnings, each once.
  for (int code : {130038, 130037, 130035}) EXPECT_TRUE(Listed(alg.GetEmmeansWarnings(), code)) << code;
  EXPECT_FALSE(Listed(alg.GetEmmeansWarnings(), 130036));

  const GZLOutputStats* stats = nullptr;
  ASSERT_TRUE(alg.GetOutputStats(stats).IsOK());
  const TQEmmeansSpec* spec = nullptr;
  const TQRectMatrix* L = nullptr;
  std::vector<TQEmmeansStats> means;
  EXPECT_EQ(stats->GetEmmeansStats(1, spec, L, means).GetErrorCode(), 130036);
  EXPECT_TRUE(means.empty());
  EXPECT_EQ(stats->GetEmmeansStats(10, spec, L, means).GetErrorCode(), 130039);
  // The metric as used: the first K values of a long list, 1 .. K when none is given.
  ASSERT_TRUE(stats->GetEmmeansStats(2, spec, L, means).IsWarning());
  EXPECT_EQ(spec->GetMetricValueList(), (std::vector<double>{1, 2, 3, 4}));
  ASSERT_TRUE(stats->GetEmmeansStats(3, spec, L, means).IsOK());
  EXPECT_EQ(spec->GetMetricValueList(), (std::vector<double>{1, 2, 3, 4}));
  EXPECT_EQ(means.size(), 4u);
  // The two-factor means: every cell of a by b, b varying fastest.
  ASSERT_TRUE(stats->GetEmmeansStats(9, spec, L, means).IsOK());
  ASSERT_EQ(means.size(), 8u);
  EXPECT_EQ(means[1].fLevels, (std::vector<int>{0, 1}));

  // An unobserved reference category: the last level is the reference.
  std::vector<std::pair<int, int>> others;
  std::vector<int> levels;
  TQRectMatrix contrast;
  std::vector<TQTestStats> individual;
  TQTestStats overall;
  EXPECT_TRUE(stats->GetEmmeansTests(0, 0, others, levels, contrast, individual, overall).IsWarning());
  ASSERT_EQ(contrast.GetNumRows(), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(contrast(i, 3), -1.0);
  EXPECT_EQ(stats->GetEmmeansTests(0, 1, others, levels, contrast, individual, overall).GetErrorCode(), 130040);
  // No compare factor, or a compare factor with a single category: no tables.
  TQStatus status;
  EXPECT_EQ(stats->GetNEmmeansTests(5, status), 0);
  EXPECT_EQ(stats->GetNEmmeansTests(9, status), 0);
  EXPECT_EQ(stats->GetEmmeansTests(9, 0, others, levels, contrast, individual, overall).GetErrorCode(), 130094);
  EXPECT_EQ(alg.GetPWCombinations(5)->size(), 0u);
  EXPECT_EQ(alg.GetPWCombinations(6), nullptr);
  EXPECT_EQ(alg.GetPWCombinations(99), nullptr);
  EXPECT_EQ(*alg.GetPWCombinations(0), (std::vector<std::vector<int>>{{-1}}));

  // Without a covariance there are no tests; a cancelled host stops the means.
  GZLCancelInfo cancelInfo;
  GZLMarginals fresh(m.settings, alg, *alg.GetDesignMatrix(), cancelInfo);
  EXPECT_EQ(fresh.SetEmmeansTesting(nullptr, *stats).GetErrorCode(), 130094);
  AlwaysCancel cancel;
  cancelInfo.fpCancel = &cancel;
  EXPECT_EQ(fresh.ComputeEmmeans().GetErrorCode(), 1);
}

// An empty cell makes the design incomplete: the cell has no mean, the other means weight the
// levels of the other factors by their frequencies, and the tables lacking a level warn.
TEST(Emmeans, IncompleteDesignEmptyCell) {
  using S = SmallModel;
  SmallModel m(SmallModel::WithInteraction(), {1, 3});  // no record with a = 1, b = 3
  m.settings.SetEmmeans({S::Spec({1, 2}, 2, TQConst::ContrastPairwise), S::Spec({1, 2}, 1, TQConst::ContrastHelmert),
                         S::Spec({1, 2}, 1, TQConst::ContrastPairwise), S::Spec({1}, 1, TQConst::ContrastPairwise)});
  GZLAlgorithm alg(m.settings);
  ASSERT_FALSE(alg.BuildModel(m.source).IsError());
  const GZLMarginals& mm = *alg.GetMarginals();
  EXPECT_FALSE(mm.IsDesignComplete());
  for (int code : {130043, 130041}) EXPECT_TRUE(Listed(alg.GetEmmeansWarnings(), code)) << code;

  // The cells: seven means, none for (1, 3). The covariate x enters at its mean (its column
  // holds the mean in every row), so the linear predictor of a cell is the frequency-weighted
  // average of the rows of its records with x replaced by its mean.
  const TQEmmeansSpec* spec = nullptr;
  const TQRectMatrix* L = nullptr;
  std::vector<TQEmmeansStats> cells;
  ASSERT_TRUE(mm.GetEmmeansStats(0, spec, L, cells).IsOK());
  ASSERT_EQ(cells.size(), 7u);
  EXPECT_TRUE(std::none_of(cells.begin(), cells.end(), [](const TQEmmeansStats& c) { return c.fLevels == std::vector<int>{1, 3}; }));

  // The mean of a: over the records of each level of a, the cells of b weighted by their counts.
  std::vector<TQEmmeansStats> byA;
  ASSERT_TRUE(mm.GetEmmeansStats(3, spec, L, byA).IsOK());
  ASSERT_EQ(byA.size(), 2u);
  for (int a = 0; a < 2; ++a) {
    double sum = 0.0, n = 0.0;
    for (const auto& row : m.source.GetRows())
      if (row[1] == a) {
        const auto cell = std::find_if(cells.begin(), cells.end(), [&](const TQEmmeansStats& c) {
          return c.fLevels == std::vector<int>{a, static_cast<int>(row[2])};
        });
        sum += cell->fEstimate;
        n += 1.0;
      }
    EXPECT_NEAR(byA[static_cast<std::size_t>(a)].fEstimate, sum / n, 1e-10) << a;
  }

  // Compare b within a: the table of a = 1 lacks b = 3 and compares three levels.
  std::vector<std::pair<int, int>> others;
  std::vector<int> levels;
  std::vector<GZLPairwiseRecord> records;
  EXPECT_TRUE(mm.GetPairwiseEmmeansTests(0, 1, others, levels, records).IsOK());
  EXPECT_EQ(others, (std::vector<std::pair<int, int>>{{1, 1}}));
  EXPECT_EQ(levels, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(records.size(), 6u);
  // Compare a within b: b = 3 has a single level, an error for a contrast, a warning (and no
  // records) for pairwise comparisons.
  TQRectMatrix contrast;
  std::vector<TQTestStats> individual;
  TQTestStats overall;
  EXPECT_TRUE(mm.GetEmmeansTests(1, 2, others, levels, contrast, individual, overall).IsOK());
  EXPECT_EQ(mm.GetEmmeansTests(1, 3, others, levels, contrast, individual, overall).GetErrorCode(), 130041);
  EXPECT_TRUE(mm.GetEmmeansTests(1, 3, others, levels, contrast, individual, overall).IsError());
  EXPECT_EQ(levels, (std::vector<int>{0}));
  const TQStatus few = mm.GetPairwiseEmmeansTests(2, 3, others, levels, records);
  EXPECT_TRUE(few.IsWarning());
  EXPECT_EQ(few.GetErrorCode(), GZLMarginals::kTooFewPairwiseRecords);
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(*alg.GetPWCombinations(2), (std::vector<std::vector<int>>{{-1, 0}, {-1, 1}, {-1, 2}, {-1, 3}}));

  // The frequencies come from a pass over the data: a source that cannot be read again ends it.
  m.source.SetCanRewind(false);
  GZLCancelInfo cancelInfo;
  GZLMarginals again(m.settings, alg, *alg.GetDesignMatrix(), cancelInfo);
  EXPECT_EQ(again.ComputeEmmeans().GetErrorCode(), GZLStatusCode::NewPass);
}

// Covariates: at their means unless the request gives a value; a factor-by-covariate
// effect takes the value too.
TEST(Emmeans, CovariatesAtMeansOrGivenValues) {
  using S = SmallModel;
  SmallModel m({{{1}, {}}, {{}, {4}}, {{1}, {4}}});  // a, x, a*x
  std::vector<TQEmmeansSpec> specs(3, S::Spec({1}, 1, TQConst::ContrastSimple));
  specs[1].fCovariates = {{4, 2.0}};
  specs[2].fCovariates = {{4, TQMV::Missing}};
  m.settings.SetEmmeans(specs);
  GZLAlgorithm alg(m.settings);
  ASSERT_FALSE(alg.BuildModel(m.source).IsError());
  const GZLOutputStats* stats = nullptr;
  ASSERT_TRUE(alg.GetOutputStats(stats).IsOK());
  const std::vector<double>& b = stats->GetParamEstimates();  // 1, a0, a1, x, a0*x, a1*x
  ASSERT_EQ(b.size(), 6u);
  double mean = 0.0;
  for (const auto& row : m.source.GetRows()) mean += row[4] / m.source.GetNumRows();

  const TQEmmeansSpec* spec = nullptr;
  const TQRectMatrix* L = nullptr;
  std::vector<TQEmmeansStats> atMean, atTwo, missing;
  ASSERT_TRUE(stats->GetEmmeansStats(0, spec, L, atMean).IsOK());
  ASSERT_TRUE(stats->GetEmmeansStats(1, spec, L, atTwo).IsOK());
  ASSERT_TRUE(stats->GetEmmeansStats(2, spec, L, missing).IsOK());
  ASSERT_EQ(spec->GetCovariates().size(), 1u);
  EXPECT_NEAR(spec->GetCovariates()[0].second, mean, 1e-12);  // the missing value became the mean
  for (int level = 0; level < 2; ++level) {
    const auto at = [&](double v) { return b[0] + b[1 + level] + (b[3] + b[4 + level]) * v; };
    EXPECT_NEAR(atMean[level].fEstimate, at(mean), 1e-10);
    EXPECT_NEAR(atTwo[level].fEstimate, at(2.0), 1e-10);
    EXPECT_EQ(missing[level].fEstimate, atMean[level].fEstimate);
    EXPECT_EQ(missing[level].fStdError, atMean[level].fStdError);
  }
}

// The adjustments of the model-test routine (single step) and of the pairwise tables
// (sequential), on significances checked by hand.
TEST(Emmeans, Adjustments) {
  // Two means with estimates 1 and 0 and variances 0.04: the difference 1 has standard error
  // sqrt(0.08), Wald 12.5, p = 4.0695e-4.
  TQSymMatrix cov(2);
  cov(0, 0) = cov(1, 1) = 0.04;
  TQRectMatrix identity(2, 2);
  identity(0, 0) = identity(1, 1) = 1.0;
  TQRectMatrix difference(1, 2);
  difference(0, 0) = 1.0;
  difference(0, 1) = -1.0;
  TQModelTests tests({1.0, 0.0}, TQBitSet(2, true), cov, 10.0);
  tests.SetTestType(TQConst::TestType2);
  const double p = TQDistFun::SfChi(12.5, 1.0);
  EXPECT_NEAR(p, 4.0695e-4, 1e-8);
  std::vector<TQTestStats> t;
  const std::pair<TQConst::TQPAdjustMethod, double> adjusted[] = {
      {TQConst::PAdjNone, p},
      {TQConst::PAdjBonferroni, 3 * p},
      {TQConst::PAdjSeqBonferroni, 3 * p},
      {TQConst::PAdjSidak, 1 - std::pow(1 - p, 3)},
      {TQConst::PAdjSeqSidak, 1 - std::pow(1 - p, 3)}};
  for (const auto& [method, value] : adjusted) {
    tests.SetPAdjustment(method);
    ASSERT_TRUE(tests.ComputeOvAndIndTests(difference, identity, 3, 2.0, nullptr, &t).IsOK());
    EXPECT_NEAR(t[0].GetAdjSig(), value, 1e-12) << method;
    EXPECT_NEAR(t[0].GetSig(), p, 1e-15);
  }
  EXPECT_NEAR(t[0].GetLowerConfidenceInterval(), 1.0 - 2.0 * std::sqrt(0.08), 1e-14);
  EXPECT_NEAR(t[0].GetWald(), 12.5, 1e-12);
  EXPECT_TRUE(TQMV::IsMissing(t[0].GetDF2()));
  // The F form (test type 0) with the denominator degrees of freedom.
  tests.SetTestType(TQConst::TestType0);
  ASSERT_TRUE(tests.ComputeOvAndIndTests(difference, identity, 1, 2.0, nullptr, &t).IsOK());
  EXPECT_EQ(t[0].GetDF2(), 10.0);
  EXPECT_NEAR(t[0].GetSig(), TQDistFun::SfF(12.5, 1, 10), 1e-15);
  // On the original scale of a log link: exp(1) - exp(0), variance by the delta method.
  std::unique_ptr<ITQLinkFunc> log(CreateLinkFunction(TQConst::LinkLog, 0.0));
  tests.SetLinkFunction(log.get());
  ASSERT_TRUE(tests.ComputeOriginalOvAndIndTests(difference, identity, 1, 2.0, nullptr, &t).IsOK());
  EXPECT_NEAR(t[0].GetContrastEstimate(), std::exp(1.0) - 1.0, 1e-14);
  EXPECT_NEAR(t[0].GetStandardError(), std::sqrt(0.04 * std::exp(2.0) + 0.04), 1e-14);

  // Sequential adjustments of a table of three levels: records (0,1) (0,2) (1,0) (1,2) (2,0)
  // (2,1), the pairs a < b at 0, 1 and 3. Significances 0.01, 0.04, 0.03: sequential Bonferroni
  // gives 3(0.01), 2(0.03) and, for 0.04 ranked third, max(0.06, 0.04).
  using S = SmallModel;
  SmallModel m;
  m.settings.SetEmmeans({S::Spec({2}, 2, TQConst::ContrastPairwise)});
  GZLAlgorithm alg(m.settings);
  ASSERT_FALSE(alg.BuildModel(m.source).IsError());
  const GZLMarginals& mm = *alg.GetMarginals();
  auto table = [](std::vector<double> sigs) {
    std::vector<GZLPairwiseRecord> records(6);
    for (std::size_t i = 0; i < 6; ++i) {
      records[i].fEstimate = 0.0;
      records[i].fStdError = 1.0;
      records[i].fSig = sigs[i];
    }
    return records;
  };
  const double alpha = 0.05;
  auto z = [](double prob) { return TQDistFun::IdfStdNorm(prob); };
  std::vector<GZLPairwiseRecord> r = table({0.01, 0.04, 0.01, 0.03, 0.04, 0.03});
  mm.ProcessSequentialAdjustment(r, 3, TQConst::PAdjSeqBonferroni);
  const double bonferroni[] = {0.03, 0.06, 0.03, 0.06, 0.06, 0.06};
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(r[i].fSig, bonferroni[i], 1e-15) << i;
  EXPECT_NEAR(r[0].fUpper, z(1 - alpha / 6), 1e-12);               // m_1 = 3
  EXPECT_NEAR(r[3].fUpper, z(1 - alpha / 4), 1e-12);               // m_2 = 2
  EXPECT_NEAR(r[1].fUpper, z(1 - alpha / (2 * 0.06 / 0.04)), 1e-12);  // carried
  EXPECT_EQ(r[2].fLower, -r[0].fUpper);                            // the mirror of (0, 1)
  // Sequential Sidak: 1 - 0.99^3, 1 - 0.97^2, then 0.0591 carried over 0.04.
  r = table({0.01, 0.04, 0.01, 0.03, 0.04, 0.03});
  mm.ProcessSequentialAdjustment(r, 3, TQConst::PAdjSeqSidak);
  EXPECT_NEAR(r[0].fSig, 1 - std::pow(0.99, 3), 1e-15);
  EXPECT_NEAR(r[3].fSig, 1 - std::pow(0.97, 2), 1e-15);
  EXPECT_NEAR(r[1].fSig, 1 - std::pow(0.97, 2), 1e-15);
  EXPECT_NEAR(r[1].fUpper, z(1 - 0.5 * alpha * std::log(0.96) / std::log(std::pow(0.97, 2))), 1e-12);
  // Equal significances keep the order of the table: the first pair takes m_1, the others the
  // carried value.
  r = table({0.02, 0.02, 0.02, 0.02, 0.02, 0.02});
  mm.ProcessSequentialAdjustment(r, 3, TQConst::PAdjSeqSidak);
  EXPECT_NEAR(r[0].fUpper, z(0.5 * std::pow(0.95, 1.0 / 3) + 0.5), 1e-12);
  EXPECT_NEAR(r[1].fUpper, z(1 - 0.5 * alpha / 3), 1e-12);
  EXPECT_NEAR(r[3].fUpper, z(1 - 0.5 * alpha / 3), 1e-12);
  // A missing significance is left out of the ranking, and its record is left as it is.
  r = table({TQMV::Missing, 0.04, TQMV::Missing, 0.03, 0.04, 0.03});
  mm.ProcessSequentialAdjustment(r, 3, TQConst::PAdjSeqBonferroni);
  EXPECT_TRUE(TQMV::IsMissing(r[0].fSig));
  EXPECT_NEAR(r[3].fSig, 0.09, 1e-15);
}

// A GEE fit hands the marginal means the covariance its settings choose: the means' standard
// errors are sqrt(l' C l) with C the robust covariance, or the model-based one.
TEST(Emmeans, GeeCovarianceChosenBySettings) {
  std::vector<double> first;
  for (const char* covb : {"robust", "model"}) {
    nlohmann::json j = output_test::ReadCase(EmmDir() + "/ohio_binomial_exchangeable_emm.json");
    j["model"]["covb"] = covb;
    auto f = Fit(LoadEmmeansCase(j));
    ASSERT_NE(f->stats, nullptr);
    const auto* gee = dynamic_cast<const GEEAlgorithm*>(f->algorithm.get());
    ASSERT_NE(gee, nullptr);
    const TQSymMatrix* chosen = std::string(covb) == "robust" ? gee->GetInference()->GetRobustCovarianceMatrix()
                                                              : gee->GetInference()->GetModelBasedCovarianceMatrix();
    ASSERT_NE(chosen, nullptr);
    const TQEmmeansSpec* spec = nullptr;
    const TQRectMatrix* L = nullptr;
    std::vector<TQEmmeansStats> means;
    ASSERT_TRUE(f->stats->GetEmmeansStats(2, spec, L, means).IsOK());  // smoke, linear scale
    for (int r = 0; r < L->GetNumRows(); ++r) {
      const std::vector<double> l(L->Row(r), L->Row(r) + L->GetNumCols());
      EXPECT_NEAR(means[static_cast<std::size_t>(r)].fStdError, std::sqrt(chosen->ComputeVSV(l)), 1e-12) << covb;
    }
    first.push_back(means[0].fStdError);
  }
  EXPECT_GT(std::fabs(first[0] - first[1]), 1e-3 * first[0]);
}
