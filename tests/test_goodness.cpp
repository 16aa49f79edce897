// Goodness-of-fit formulas: checked against values worked out here from first principles and
// against the information criteria of the reference fits (which pin down how d and n count the
// estimated scale, the estimated k and events/trials data).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "TQConst.h"
#include "inference/GZLGoodnessOfFit.h"
#include "support/TQMV.h"

using namespace GZLConst_940;

namespace {

std::string DataDir() { return std::string(GZL_TEST_DATA_DIR) + "/reference"; }

// Sum of one column of a reference CSV (header line, comma-separated numbers).
double ColumnSum(const std::string& file, const std::string& column) {
  std::ifstream in(DataDir() + "/data/" + file);
  std::string line;
  std::getline(in, line);
  std::vector<std::string> names;
  {
    std::stringstream ss(line);
    std::string name;
    while (std::getline(ss, name, ',')) names.push_back(name);
  }
  int index = -1;
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == column) index = static_cast<int>(i);
  if (index < 0) return TQMV::Missing;
  double sum = 0.0;
  while (std::getline(in, line)) {
    std::stringstream ss(line);
    std::string cell;
    for (int i = 0; std::getline(ss, cell, ','); ++i)
      if (i == index) sum += std::stod(cell);
  }
  return sum;
}

void ExpectRel(double expected, double actual, const std::string& what) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - expected), 1e-9 * std::max(1.0, std::fabs(expected))) << what << ": " << actual << " vs " << expected;
}

}  // namespace

TEST(GoodnessOfFit, FormulasAgainstHandValues) {
  // Gamma model fitted with an ML scale: 3 regression parameters plus the scale.
  const double D = 8.25, X = 9.5, phi = 0.25, L = -40.0, N = 20.0;
  GZLGoodnessOfFit g(D, X, phi, L, N, N, 4, TQConst::DistGamma, ScaleMLE, DistParamFixed, false);
  EXPECT_DOUBLE_EQ(g.GetResidualDF(), 17.0);  // 20 - 4 + 1
  EXPECT_DOUBLE_EQ(g.GetScaledDeviance(), 33.0);
  EXPECT_DOUBLE_EQ(g.GetScaledPearson(), 38.0);
  EXPECT_DOUBLE_EQ(g.GetDevianceByDF(), 8.25 / 17.0);
  EXPECT_DOUBLE_EQ(g.GetPearsonByDF(), 9.5 / 17.0);
  EXPECT_DOUBLE_EQ(g.GetAIC(), 88.0);
  EXPECT_DOUBLE_EQ(g.GetAICC(), 80.0 + 2.0 * 4.0 * 20.0 / 15.0);
  EXPECT_DOUBLE_EQ(g.GetBIC(), 80.0 + 4.0 * std::log(20.0));
  EXPECT_DOUBLE_EQ(g.GetCAIC(), 80.0 + 4.0 * (std::log(20.0) + 1.0));
  std::vector<TQStatus> warnings;
  g.AddWarnings(warnings);
  EXPECT_TRUE(warnings.empty());

  // An ML k counts against the residual degrees of freedom, unlike an ML scale.
  GZLGoodnessOfFit k(D, X, 1.0, L, N, N, 4, TQConst::DistNegBinomial, ScaleFixed, DistParamMLE, false);
  EXPECT_DOUBLE_EQ(k.GetResidualDF(), 16.0);
  EXPECT_DOUBLE_EQ(k.GetScaledDeviance(), D);

  // Scaled values need a positive scale; per-df values a positive df.
  GZLGoodnessOfFit zero(D, X, 0.0, L, 3.0, 3.0, 3, TQConst::DistPoisson, ScaleFixed, DistParamFixed, false);
  EXPECT_TRUE(TQMV::IsMissing(zero.GetScaledDeviance()));
  EXPECT_TRUE(TQMV::IsMissing(zero.GetScaledPearson()));
  EXPECT_EQ(zero.GetResidualDF(), 0.0);
  EXPECT_TRUE(TQMV::IsMissing(zero.GetDevianceByDF()));
  EXPECT_TRUE(TQMV::IsMissing(zero.GetPearsonByDF()));
  GZLGoodnessOfFit noDev(TQMV::Missing, TQMV::Missing, 1.0, TQMV::Missing, N, N, 2, TQConst::DistPoisson,
                         ScaleFixed, DistParamFixed, false);
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetScaledDeviance()));
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetDevianceByDF()));
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetAIC()));
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetAICC()));
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetBIC()));
  EXPECT_TRUE(TQMV::IsMissing(noDev.GetCAIC()));
  noDev.AddWarnings(warnings);
  EXPECT_TRUE(warnings.empty());  // no log-likelihood, no AICC warning
}

TEST(GoodnessOfFit, AICCNotComputableWarnsOnce) {
  // n - d - 1 = 0: AICC missing, the others still reported, warning 130095 listed once.
  GZLGoodnessOfFit g(1.0, 1.0, 1.0, -3.0, 5.0, 5.0, 4, TQConst::DistPoisson, ScaleFixed, DistParamFixed, false);
  EXPECT_TRUE(g.IsAICCNotComputable());
  EXPECT_TRUE(TQMV::IsMissing(g.GetAICC()));
  EXPECT_DOUBLE_EQ(g.GetAIC(), 14.0);
  EXPECT_DOUBLE_EQ(g.GetBIC(), 6.0 + 4.0 * std::log(5.0));
  EXPECT_DOUBLE_EQ(g.GetCAIC(), 6.0 + 4.0 * (std::log(5.0) + 1.0));
  std::vector<TQStatus> warnings{TQStatus::Warning(GZLStatusCode::ScaleIsZero)};
  g.AddWarnings(warnings);
  g.AddWarnings(warnings);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_TRUE(warnings[1].IsWarning());
  EXPECT_EQ(warnings[1].GetErrorCode(), 130095);
  // One observation more and it is computable again.
  GZLGoodnessOfFit h(1.0, 1.0, 1.0, -3.0, 6.0, 6.0, 4, TQConst::DistPoisson, ScaleFixed, DistParamFixed, false);
  EXPECT_FALSE(h.IsAICCNotComputable());
  EXPECT_DOUBLE_EQ(h.GetAICC(), 6.0 + 2.0 * 4.0 * 6.0 / 1.0);
}

TEST(GoodnessOfFit, RestrictedCriteria) {
  // Normal identity model for a mixed-model host: 3 regression parameters + scale, n = 10.
  const double L = -12.5;
  GZLGoodnessOfFit g(4.0, 4.0, 0.5, L, 10.0, 10.0, 4, TQConst::DistNormal, ScaleMLE, DistParamFixed, true);
  const double m = 10.0 - 3.0;
  EXPECT_DOUBLE_EQ(g.GetAIC(), 25.0 + 2.0);
  EXPECT_DOUBLE_EQ(g.GetAICC(), 25.0 + 2.0 * m / (m - 2.0));
  EXPECT_DOUBLE_EQ(g.GetBIC(), 25.0 + std::log(m));
  EXPECT_DOUBLE_EQ(g.GetCAIC(), 25.0 + std::log(m) + 1.0);
  // m = 2: AICC missing (and warned), BIC and CAIC still there; m = 0: all three missing.
  GZLGoodnessOfFit two(4.0, 4.0, 0.5, L, 5.0, 5.0, 4, TQConst::DistNormal, ScaleMLE, DistParamFixed, true);
  EXPECT_TRUE(TQMV::IsMissing(two.GetAICC()));
  EXPECT_TRUE(two.IsAICCNotComputable());
  EXPECT_DOUBLE_EQ(two.GetBIC(), 25.0 + std::log(2.0));
  GZLGoodnessOfFit none(4.0, 4.0, 0.5, L, 3.0, 3.0, 4, TQConst::DistNormal, ScaleMLE, DistParamFixed, true);
  EXPECT_TRUE(TQMV::IsMissing(none.GetBIC()));
  EXPECT_TRUE(TQMV::IsMissing(none.GetCAIC()));
  EXPECT_DOUBLE_EQ(none.GetAIC(), 27.0);
}

TEST(GoodnessOfFit, PseudoR2) {
  GZLGoodnessOfFit g(18.0, 20.0, 1.0, -10.0, 10.0, 10.0, 2, TQConst::DistPoisson, ScaleFixed, DistParamFixed, false);
  EXPECT_DOUBLE_EQ(g.GetPseudoR2(6.0), 6.0 / (2.0 + 6.0));
  EXPECT_EQ(g.GetPseudoR2(0.0), 0.0);
  EXPECT_EQ(g.GetPseudoR2(TQMV::Missing), 0.0);
  GZLGoodnessOfFit one(18.0, 20.0, 1.0, -10.0, 1.0, 1.0, 1, TQConst::DistPoisson, ScaleFixed, DistParamFixed, false);
  EXPECT_EQ(one.GetPseudoR2(6.0), 0.0);  // fN - 1 = 0: no denominator
}

// Every reference fit: the criteria follow from its log-likelihood once d and n are counted
// the engine's way, and the residual degrees of freedom match.
TEST(GoodnessOfFit, ReferenceCriteria) {
  int checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator(DataDir() + "/expected")) {
    std::ifstream in(entry.path());
    const nlohmann::json j = nlohmann::json::parse(in);
    const auto& m = j["model"];
    const auto& e = j["expected"];
    const std::string name = j["name"];
    const std::map<std::string, int> dists{{"normal", 0}, {"binomial", 1}, {"gamma", 2}, {"invgauss", 3},
                                           {"negbin", 4},  {"poisson", 5},  {"tweedie", 7}};
    const std::map<std::string, int> scales{{"mle", ScaleMLE}, {"deviance", ScaleDeviance},
                                            {"pearson", ScalePearson}, {"fixed", ScaleFixed}};
    const int dist = dists.at(m["dist"]);
    const int scale = m.contains("scale") ? scales.at(m["scale"]) : ScaleFixed;
    const int kMethod = (m.contains("k_method") && m["k_method"] == "mle") ? DistParamMLE : DistParamFixed;
    const int nonRedundant = e["n_nonredundant"];
    const int d = nonRedundant + ((scale == ScaleMLE || kMethod == DistParamMLE) ? 1 : 0);
    const double nObs = e["n_records"];
    double n = nObs;
    if (m.contains("trials")) {
      n = m["trials"].is_string() ? ColumnSum(j["data"], m["trials"]) : nObs * m["trials"].get<double>();
    }
    GZLGoodnessOfFit g(e["deviance"], e["pearson_chisq"], e["scale"], e["loglik"], nObs, n, d, dist, scale,
                       kMethod, false);
    SCOPED_TRACE(name);
    EXPECT_EQ(g.GetResidualDF(), e["df_residual"].get<double>());
    ExpectRel(e["aic"], g.GetAIC(), "AIC");
    ExpectRel(e["aicc"], g.GetAICC(), "AICC");
    ExpectRel(e["bic"], g.GetBIC(), "BIC");
    ExpectRel(e["caic"], g.GetCAIC(), "CAIC");
    ExpectRel(e["scaled_deviance"], g.GetScaledDeviance(), "scaled deviance");
    ExpectRel(e["scaled_pearson_chisq"], g.GetScaledPearson(), "scaled Pearson");
    ++checked;
  }
  EXPECT_EQ(checked, 21);
}
