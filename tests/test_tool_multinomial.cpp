// `gzl fit` with ordinal and nominal responses on the bundled wine and housing data (the
// reference cases' data with their labels): thresholds and logit blocks in the JSON and text
// output, the response categories in the model's order, and the options that do not apply.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/FitCommand.h"

namespace {

using nlohmann::json;

const std::string kExamples = std::string(GZL_TEST_DATA_DIR) + "/../../examples/";
const std::string kExpected = std::string(GZL_TEST_DATA_DIR) + "/multinomial/expected/";

json Expected(const std::string& name) {
  std::ifstream in(kExpected + name + ".json");
  return json::parse(in)["expected"];
}

FitOptions Options(const std::string& file, const std::string& response, TQConst::DistType dist) {
  FitOptions o;
  o.dataPath = kExamples + file;
  o.response = response;
  o.distribution = dist;
  o.paramTolerance = 1e-12;
  o.maxIterations = 200;
  return o;
}

int RunCommand(const FitOptions& o, std::string& out, std::string& err) {
  std::ostringstream os, es;
  const int code = RunFitCommand(o, FitHooks{}, os, es);
  out = os.str();
  err = es.str();
  return code;
}

json RunJson(FitOptions o) {
  o.json = true;
  std::string out, err;
  EXPECT_EQ(RunCommand(o, out, err), 0) << err;
  return out.empty() ? json::object() : json::parse(out);
}

void ExpectRel(const json& actual, const json& expected, const std::string& what) {
  ASSERT_TRUE(actual.is_number()) << what << " is " << actual.dump();
  const double e = expected.get<double>();
  EXPECT_NEAR(actual.get<double>(), e, std::fabs(e) < 1e-3 ? 1e-9 : 1e-6 * std::fabs(e)) << what;
}

void ExpectHeadline(const json& doc, const json& e) {
  for (const char* key : {"loglik", "aic", "aicc", "bic", "caic", "deviance", "pearson_chisq", "df_residual"})
    ExpectRel(doc[key], e[key], key);
  ExpectRel(doc["omnibus"]["chisq"], e["omnibus"]["chisq"], "omnibus chi-square");
  ExpectRel(doc["omnibus"]["df"], e["omnibus"]["df"], "omnibus df");
  ExpectRel(doc["omnibus"]["loglik_null"], e["omnibus"]["loglik_null"], "null log-likelihood");
  EXPECT_EQ(doc["depend_categories"], e["depend_categories"]);
  EXPECT_EQ(doc["response_counts"], e["response_counts"]);
  EXPECT_EQ(doc["n_nonredundant"], e["n_nonredundant"]);
}

}  // namespace

// Ordinal (cumulative probit) on the wine ratings: the tool's coding of the labels is the
// reference's, so every threshold and parameter compares directly.
TEST(ToolMultinomial, OrdinalThresholdsAgreeWithReference) {
  FitOptions o = Options("wine.csv", "rating", TQConst::DistOrdinalMultinomial);
  o.link = TQConst::LinkCumProbit;
  o.factors = {"temp", "contact"};
  o.effects = "temp contact temp*contact";
  const json doc = RunJson(o);
  const json e = Expected("wine_cumprobit_interaction");
  ExpectHeadline(doc, e);
  EXPECT_EQ(doc["depend_category_labels"], json({"1", "2", "3", "4", "5"}));
  ASSERT_EQ(doc["parameters"].size(), e["parameters"].size());
  for (std::size_t j = 0; j < e["parameters"].size(); ++j) {
    const json& p = doc["parameters"][j];
    const json& r = e["parameters"][j];
    SCOPED_TRACE(p["term"].get<std::string>());
    EXPECT_EQ(p["kind"], j < 4 ? "threshold" : "effect");
    EXPECT_EQ(p["categories"], r["categories"]);
    EXPECT_EQ(p["redundant"], r["redundant"]);
    ExpectRel(p["estimate"], r["estimate"], "estimate");
    if (!r["redundant"].get<bool>()) ExpectRel(p["se"], r["se"], "se");
  }
  EXPECT_EQ(doc["parameters"][0]["term"], "Threshold [rating=1]");

  std::string out, err;
  o.json = false;
  ASSERT_EQ(RunCommand(o, out, err), 0) << err;
  EXPECT_NE(out.find("Threshold [rating=4]"), std::string::npos);
  EXPECT_NE(out.find("(Thresholds)"), std::string::npos);
  EXPECT_EQ(out.find("(reference)"), std::string::npos) << "an ordinal response has no reference category";
}

// Nominal on the housing types with the last type as reference: one block per logit, each
// parameter with the response category it belongs to; the figures that do not depend on the
// coding of the factors agree with the reference.
TEST(ToolMultinomial, NominalBlocksPerLogit) {
  FitOptions o = Options("housing.csv", "Type", TQConst::DistNominalMultinomial);
  o.factors = {"Infl", "Cont"};
  o.frequencyWeight = "Freq";
  o.referenceCategory = "Tower";
  const json doc = RunJson(o);
  ExpectHeadline(doc, Expected("housing_nominal_type_reflast"));
  EXPECT_EQ(doc["depend_category_labels"], json({"Apartment", "Atrium", "Terrace", "Tower"}));
  const json& params = doc["parameters"];
  ASSERT_EQ(params.size(), 18u);
  for (std::size_t j = 0; j < params.size(); ++j) {
    EXPECT_EQ(params[j]["logit"], static_cast<int>(j / 6));
    EXPECT_EQ(params[j]["response_category"], doc["depend_category_labels"][j / 6]);
  }
  EXPECT_EQ(params[6]["term"], "(Intercept)");

  std::string out, err;
  o.json = false;
  ASSERT_EQ(RunCommand(o, out, err), 0) << err;
  for (const char* type : {"Apartment", "Atrium", "Terrace"})
    EXPECT_NE(out.find(std::string("Parameter estimates for [Type=") + type + "] against the reference [Type=Tower]"),
              std::string::npos)
        << type;
  EXPECT_NE(out.find("Tower (reference)"), std::string::npos);
}

// Options that do not fit a multinomial response end with a one-line message.
TEST(ToolMultinomial, OptionsThatDoNotApply) {
  auto failure = [](FitOptions o) {
    std::string out, err;
    EXPECT_EQ(RunCommand(o, out, err), 1);
    EXPECT_EQ(out, "");
    return err;
  };
  FitOptions o = Options("wine.csv", "rating", TQConst::DistOrdinalMultinomial);
  o.factors = {"temp"};
  o.referenceCategory = "last";
  EXPECT_NE(failure(o).find("--ref-category applies to a binary (single binomial) or nominal response only"),
            std::string::npos);
  o.referenceCategory.clear();
  o.link = TQConst::LinkLogit;
  EXPECT_NE(failure(o).find("use a cumulative link"), std::string::npos);
  o.link = TQConst::LinkCumLogit;
  o.scaleMethod = GZLConst_940::ScaleMLE;
  EXPECT_NE(failure(o).find("cannot be estimated by maximum likelihood"), std::string::npos);
}

// Tests of effects and profile intervals of both kinds of response: a nominal effect is tested
// over all logits (df: its columns times the logits; its likelihood-ratio statistic is what the
// fit without it loses), the ordinal thresholds come first, the profile limits of every
// parameter surround its estimate, and the text says how a nominal model's tests read.
TEST(ToolMultinomial, EffectTestsAndProfileIntervals) {
  FitOptions o = Options("housing.csv", "Type", TQConst::DistNominalMultinomial);
  o.factors = {"Infl", "Cont"};
  o.effects = "Infl Cont";
  o.frequencyWeight = "Freq";
  o.referenceCategory = "Tower";
  o.effectTests = TQConst::EffectTypeIAndIII;
  o.effectStatistic = GZLConst_940::EffectStatLR;
  o.ciType = GZLConst_940::Profile;
  o.refitTolerance = 1e-10;
  const json doc = RunJson(o);
  ASSERT_EQ(doc["lr_type3"].size(), 3u);
  ASSERT_EQ(doc["wald_type3"].size(), 3u);
  EXPECT_EQ(doc["lr_type3"][1]["term"], "Infl");
  EXPECT_EQ(doc["lr_type3"][1]["df"], 6);
  EXPECT_EQ(doc["wald_type3"][2]["df"], 3);
  FitOptions reduced = o;
  reduced.effects = "Infl";
  reduced.effectTests.reset();
  reduced.ciType.reset();
  const json without = RunJson(reduced);
  ExpectRel(doc["lr_type3"][2]["chisq"], json(2.0 * (doc["loglik"].get<double>() - without["loglik"].get<double>())),
            "LR chi-square of Cont");
  ASSERT_EQ(doc["profile_ci"].size(), 18u);
  for (const json& p : doc["profile_ci"]) {
    EXPECT_TRUE(p.contains("logit"));
    if (p["redundant"].get<bool>()) continue;
    EXPECT_LT(p["lower"].get<double>(), p["estimate"].get<double>());
    EXPECT_GT(p["upper"].get<double>(), p["estimate"].get<double>());
  }
  std::string out, err;
  o.json = false;
  ASSERT_EQ(RunCommand(o, out, err), 0) << err;
  EXPECT_NE(out.find("Each test covers all logits at once"), std::string::npos);

  FitOptions ord = Options("wine.csv", "rating", TQConst::DistOrdinalMultinomial);
  ord.factors = {"temp", "contact"};
  ord.effectTests = TQConst::EffectTypeI;
  ord.effectStatistic = GZLConst_940::EffectStatLR;
  ord.ciType = GZLConst_940::Profile;
  const json od = RunJson(ord);
  ASSERT_EQ(od["lr_type1"].size(), 3u);
  EXPECT_EQ(od["wald_type1"][0]["term"], "(Thresholds)");
  EXPECT_EQ(od["lr_type1"][2]["df"], 1);
  EXPECT_EQ(od["profile_ci"][0]["kind"], "threshold");
  EXPECT_LT(od["profile_ci"][0]["lower"].get<double>(), od["profile_ci"][0]["estimate"].get<double>());
  ASSERT_EQ(RunCommand(ord, out, err), 0) << err;
  EXPECT_EQ(out.find("Each test covers all logits"), std::string::npos);
}
