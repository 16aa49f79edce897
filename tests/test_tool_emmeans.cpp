// `gzl fit --emmeans`: the means, comparisons and tests of the tool against reference cases of
// marginal means (run on the reference data, whose factors are coded 0..K-1 like the tool's
// numeric labels), the text tables, and the refusal of options that do not fit together.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/FitCommand.h"

namespace {

using nlohmann::json;

struct ToolRun {
  int code = -1;
  std::string out;
  std::string err;
};

ToolRun RunTool(const FitOptions& options) {
  std::ostringstream out, err;
  ToolRun run;
  run.code = RunFitCommand(options, {}, out, err);
  run.out = out.str();
  run.err = err.str();
  return run;
}

json Expected(const std::string& name) {
  std::ifstream in(std::string(GZL_TEST_DATA_DIR) + "/emmeans/" + name + ".json");
  return json::parse(in)["expected"];
}

FitOptions Options(const std::string& file, const std::string& response, TQConst::DistType dist) {
  FitOptions o;
  o.dataPath = std::string(GZL_TEST_DATA_DIR) + "/reference/data/" + file;
  o.response = response;
  o.distribution = dist;
  o.paramTolerance = 1e-12;
  o.llTolerance = 0.0;
  o.maxIterations = 200;
  return o;
}

void ExpectRel(const json& actual, const json& expected, const std::string& what) {
  ASSERT_TRUE(actual.is_number()) << what << " is " << actual.dump();
  const double e = expected.get<double>();
  EXPECT_NEAR(actual.get<double>(), e, std::max(1e-9, 1e-6 * std::fabs(e))) << what;
}

// The tool's request against the reference request: cells by categories, tables by the other
// factors, and the pairwise records in order.
void ExpectRequest(const json& got, const json& want) {
  ASSERT_EQ(got["cells"].size(), want["cells"].size());
  for (const auto& w : want["cells"]) {
    const json* cell = nullptr;
    for (const auto& g : got["cells"])
      if (g["categories"] == w["categories"]) cell = &g;
    ASSERT_NE(cell, nullptr) << w["categories"].dump();
    for (const char* key : {"mean", "se", "lower", "upper"}) ExpectRel((*cell)[key], w[key], key);
  }
  ASSERT_EQ(got["tables"].size(), want["tables"].size());
  for (const auto& w : want["tables"]) {
    const json* table = nullptr;
    for (const auto& g : got["tables"])
      if (g["others"] == w["others"]) table = &g;
    ASSERT_NE(table, nullptr) << w["others"].dump();
    EXPECT_EQ((*table)["levels"], w["levels"]);
    for (const auto& [key, value] : w["overall"].items()) ExpectRel((*table)["overall"][key], value, "overall " + key);
    ASSERT_EQ((*table)["pairwise"].size(), w["pairwise"].size());
    for (std::size_t i = 0; i < w["pairwise"].size(); ++i) {
      const json& g = (*table)["pairwise"][i];
      for (const auto& [key, value] : w["pairwise"][i].items())
        if (value.is_number()) ExpectRel(g[key], value, "pairwise " + std::to_string(i) + " " + key);
    }
  }
}

}  // namespace

TEST(ToolEmmeans, ReferenceFiguresAndTables) {
  // Warpbreaks: tension compared within wool on the response scale, sequential Bonferroni.
  FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  o.factors = {"wool", "tension"};
  o.effects = "wool tension wool*tension";
  o.emmeans = {"tension|wool"};
  o.emmeansAdjust = TQConst::PAdjSeqBonferroni;
  o.json = true;
  ToolRun run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  json doc = json::parse(run.out);
  ASSERT_EQ(doc["emmeans"].size(), 1u);
  EXPECT_EQ(doc["emmeans"][0]["req"]["p_adjust"], "seq_bonferroni");
  ExpectRequest(doc["emmeans"][0], Expected("warpbreaks_poisson_interaction_emm")["emmeans"][1]);

  // The text tables of the same request.
  o.json = false;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  for (const char* text : {"Estimated marginal means of tension|wool (response scale, 95% interval)",
                           "Pairwise comparisons of tension within wool=0", "Pairwise comparisons of tension within wool=1",
                           "Overall test of equal means: Wald chi-square"})
    EXPECT_NE(run.out.find(text), std::string::npos) << text;

  // Mtcars: F tests with the residual degrees of freedom, wt held at 2.5, the linear predictor,
  // sequential Sidak.
  o = Options("mtcars.csv", "mpg", TQConst::DistNormal);
  o.factors = {"cyl"};
  o.covariates = {"wt"};
  o.effects = "cyl cyl*wt";
  o.scaleMethod = GZLConst_940::ScalePearson;
  o.emmeans = {"cyl"};
  o.emmeansAdjust = TQConst::PAdjSeqSidak;
  o.emmeansScale = TQConst::EmmScaleTransformed;
  o.emmeansAt = {"wt=2.5"};
  o.emmeansTest = TQConst::TestType0;
  o.json = true;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  doc = json::parse(run.out);
  EXPECT_EQ(doc["emmeans"][0]["req"]["covariate_values_used"]["wt"], 2.5);
  ExpectRequest(doc["emmeans"][0], Expected("mtcars_normal_factor_by_covariate_emm")["emmeans"][2]);
}

TEST(ToolEmmeans, OptionsThatDoNotFit) {
  FitOptions base = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  base.factors = {"wool", "tension"};
  auto error = [&](auto change) {
    FitOptions o = base;
    o.emmeans = {"tension"};
    change(o);
    const ToolRun run = RunTool(o);
    EXPECT_EQ(run.code, 1);
    return run.err;
  };
  EXPECT_NE(error([](FitOptions& o) { o.emmeans = {"speed"}; }).find("speed"), std::string::npos);
  EXPECT_NE(error([](FitOptions& o) { o.emmeans = {"tension|tension"}; }).find("named twice"), std::string::npos);
  EXPECT_NE(error([](FitOptions& o) { o.emmeansReference = "H"; }).find("simple contrast only"), std::string::npos);
  EXPECT_NE(error([](FitOptions& o) { o.emmeansMetric = {1, 2, 3}; }).find("polynomial"), std::string::npos);
  EXPECT_NE(error([](FitOptions& o) { o.emmeansAt = {"x=1"}; }).find("not a covariate"), std::string::npos);
  EXPECT_NE(error([](FitOptions& o) {
              o.emmeansContrast = TQConst::ContrastSimple;
              o.emmeansReference = "9";
            }).find("not a category of 'tension'"),
            std::string::npos);
  EXPECT_NE(error([](FitOptions& o) {
              o.emmeans.clear();
              o.emmeansScale = TQConst::EmmScaleTransformed;
            }).find("need at least one --emmeans"),
            std::string::npos);
  // A polynomial metric that does not fit the levels: the request says why, the rest is given.
  FitOptions o = base;
  o.emmeans = {"tension"};
  o.emmeansContrast = TQConst::ContrastPolynomial;
  o.emmeansMetric = {1, 2};
  const ToolRun run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.out.find("Not computed: the polynomial contrast needs one metric value"), std::string::npos);
}
