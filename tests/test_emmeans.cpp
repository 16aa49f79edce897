// Estimated marginal means: means, contrasts, overall tests and pairwise comparisons against
// the reference cases; the statuses of specifications and tables; an incomplete design (an
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
#include "GZLMarginals.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "output_reference_models.h"
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

// The reference model with its marginal-means requests as specifications.
std::unique_ptr<ReferenceCase> LoadEmmeansCase(const nlohmann::json& j) {
  auto c = LoadCase(j);
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
  std::unique_ptr<GZLAlgorithm> algorithm;
  const GZLOutputStats* stats = nullptr;
};

std::unique_ptr<EmmeansFit> Fit(std::unique_ptr<ReferenceCase> c) {
  auto f = std::make_unique<EmmeansFit>();
  f->c = std::move(c);
  f->algorithm = std::make_unique<GZLAlgorithm>(f->c->settings);
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
    ExpectClose(ex["loglik"], f->stats->GetLogLikehoodScaleFixed(), "log-likelihood");
    EXPECT_TRUE(f->algorithm->GetEmmeansWarnings().empty());
    ASSERT_NE(f->algorithm->GetMarginals(), nullptr);
    EXPECT_TRUE(f->algorithm->GetMarginals()->IsDesignComplete());
    for (int i = 0; i < static_cast<int>(ex["emmeans"].size()); ++i) ExpectRequest(*f, i, ex["emmeans"][i]);
    ++checked;
  }
  EXPECT_EQ(checked, 5);
}
