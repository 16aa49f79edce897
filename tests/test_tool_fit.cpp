// End-to-end tests of `gzl fit`: the whole command (options, CSV reading, effects, the fit and
// the output) run in-process on the bundled example data, with figures checked against reference
// fits of established software under the engine's conventions.
//
// The tool codes a factor's categories in sorted text order, so warpbreaks' tension is H, L, M
// where the reference fits code it L, M, H: figures that do not depend on the coding (deviance,
// log-likelihood, criteria, omnibus test) are compared directly, estimates through the change of
// reference category.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include "GZLConst_940.h"
#include "pmml_scorer.h"
#include "tools/FitCommand.h"
#include "tools/FitControl.h"
#include "tools/StatusText.h"

namespace {

using nlohmann::json;

const std::string kExamples = std::string(GZL_TEST_DATA_DIR) + "/../../examples/";

struct ToolRun {
  int code = -1;
  std::string out;
  std::string err;
};

ToolRun RunTool(const FitOptions& options, const FitHooks& hooks = {}) {
  std::ostringstream out;
  std::ostringstream err;
  ToolRun run;
  run.code = RunFitCommand(options, hooks, out, err);
  run.out = out.str();
  run.err = err.str();
  return run;
}

json RunJson(FitOptions options) {
  options.json = true;
  const ToolRun run = RunTool(options);
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  return run.code == 0 ? json::parse(run.out) : json::object();
}

// The options of a fit on a bundled data set, with the convergence tightened so that the fit
// matches reference figures computed at tolerances near 1e-13.
FitOptions Options(const std::string& file, const std::string& response, TQConst::DistType dist) {
  FitOptions o;
  o.dataPath = kExamples + file;
  o.response = response;
  o.distribution = dist;
  o.paramTolerance = 1e-12;
  o.llTolerance = 1e-14;
  o.maxIterations = 200;
  return o;
}

void ExpectRel(const json& actual, double expected, const std::string& what) {
  ASSERT_TRUE(actual.is_number()) << what << " is " << actual.dump();
  const double a = actual.get<double>();
  const double tolerance = std::fabs(expected) < 1e-3 ? 1e-9 : 1e-6 * std::fabs(expected);
  EXPECT_NEAR(a, expected, tolerance) << what;
}

const json& Param(const json& doc, const std::string& name) {
  static const json kNone;
  for (const auto& p : doc["parameters"])
    if (p["term"] == name) return p;
  ADD_FAILURE() << "no parameter " << name;
  return kNone;
}

struct FitFigures {
  double deviance, pearson, loglik, aic, aicc, bic, caic, omnibus, omnibusDF, df;
};

void ExpectFit(const json& doc, const FitFigures& f) {
  const json& g = doc["goodness_of_fit"];
  ExpectRel(g["deviance"]["value"], f.deviance, "deviance");
  ExpectRel(g["deviance"]["df"], f.df, "residual df");
  ExpectRel(g["pearson_chisq"]["value"], f.pearson, "Pearson chi-square");
  ExpectRel(g["loglik"], f.loglik, "log-likelihood");
  ExpectRel(g["aic"], f.aic, "AIC");
  ExpectRel(g["aicc"], f.aicc, "AICC");
  ExpectRel(g["bic"], f.bic, "BIC");
  ExpectRel(g["caic"], f.caic, "CAIC");
  ExpectRel(doc["omnibus"]["chisq"], f.omnibus, "omnibus chi-square");
  ExpectRel(doc["omnibus"]["df"], f.omnibusDF, "omnibus df");
  ExpectRel(doc["omnibus"]["loglik_null"], f.loglik - f.omnibus / 2.0, "null log-likelihood");
  // The same figures, flat, under the names of the published reference figures.
  ExpectRel(doc["deviance"], f.deviance, "flat deviance");
  ExpectRel(doc["pearson_chisq"], f.pearson, "flat Pearson chi-square");
  ExpectRel(doc["loglik"], f.loglik, "flat log-likelihood");
  ExpectRel(doc["bic"], f.bic, "flat BIC");
  ExpectRel(doc["df_residual"], f.df, "flat residual df");
}

TEST(ToolFit, WarpbreaksPoissonInteractionAgreesWithReference) {
  FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  o.link = TQConst::LinkLog;
  o.factors = {"wool", "tension"};
  o.effects = "wool tension wool*tension";
  const json doc = RunJson(o);
  ExpectFit(doc, {182.305131285847, 180.666303807796, -228.484604470675, 468.96920894135, 470.756442983904,
                  480.903113220736, 486.903113220736, 115.067080518759, 5, 48});
  EXPECT_EQ(doc["convergence"]["criterion"], "All convergence criteria are satisfied");
  EXPECT_EQ(doc["cases"]["included"], 54);
  EXPECT_EQ(doc["cases"]["excluded"], 0);

  // Reference coding (tension L, M, H; last categories aliased): intercept 2.93267413758686,
  // wool=A 0.26826398659468, tension=M 0.426929346776465 (SE 0.0988845975079913),
  // wool=A x tension=M -0.449813640610053. Here M is the last tension category, so the intercept
  // is the (B, M) cell, [tension=H] is the reference's tension=M with its sign changed, and
  // [wool=A] is the wool contrast at M.
  ExpectRel(Param(doc, "(Intercept)")["estimate"], 2.93267413758686 + 0.426929346776465, "intercept");
  ExpectRel(Param(doc, "[tension=H]")["estimate"], -0.426929346776465, "[tension=H]");
  ExpectRel(Param(doc, "[tension=H]")["se"], 0.0988845975079913, "SE [tension=H]");
  ExpectRel(Param(doc, "[wool=A]")["estimate"], 0.26826398659468 - 0.449813640610053, "[wool=A]");
  ExpectRel(Param(doc, "[tension=L]")["estimate"], 0.407435552095464 - 0.426929346776465, "[tension=L]");

  // Aliased columns: the last category of each factor and every interaction column with one.
  const json& aliased = Param(doc, "[wool=B]*[tension=L]");
  EXPECT_TRUE(aliased["redundant"].get<bool>());
  EXPECT_EQ(aliased["estimate"], 0.0);
  EXPECT_TRUE(aliased["se"].is_null());
  EXPECT_FALSE(Param(doc, "[wool=A]*[tension=H]")["redundant"].get<bool>());
  EXPECT_EQ(doc["parameters"].size(), 12u);
  EXPECT_TRUE(doc["scale_stats"]["fixed"].get<bool>());
  EXPECT_EQ(doc["scale"], 1.0);
  EXPECT_TRUE(doc["k"].is_null());

  // The model summary is part of the document, and the factor counts carry the original labels.
  EXPECT_EQ(doc["model"]["distribution"]["name"], "poisson");
  EXPECT_EQ(doc["model"]["factors"][1]["categories"], (json{"H", "L", "M"}));
  int tensionRows = 0;
  for (const auto& row : doc["categorical"]) {
    if (row["variable"] != "tension") continue;
    ++tensionRows;
    EXPECT_EQ(row["n"], 18.0);
  }
  EXPECT_EQ(tensionRows, 3);
  const json& breaks = doc["continuous"][0];
  EXPECT_EQ(breaks["variable"], "breaks");
  EXPECT_EQ(breaks["minimum"], 10.0);
  EXPECT_EQ(breaks["maximum"], 70.0);
  ExpectRel(breaks["mean"], 1520.0 / 54.0, "mean of breaks");
}

TEST(ToolFit, ShipsPoissonWithOffsetAgreesWithReference) {
  FitOptions o = Options("ships.csv", "incidents", TQConst::DistPoisson);
  o.factors = {"type", "year", "period"};
  o.offsetVariable = "logservice";
  const json doc = RunJson(o);
  ExpectFit(doc, {38.6950515355548, 42.2752531195299, -68.2807714295899, 154.56154285918, 162.06154285918,
                  168.298787580725, 177.298787580725, 107.633284996903, 8, 25});
  // Types A-E and the years 60-75 sort the same way in both codings.
  const struct {
    const char* name;
    double estimate, se;
  } expected[] = {
      {"(Intercept)", -5.24242850781232, 0.247307084895306}, {"[type=A]", -0.325579456223951, 0.235879402585492},
      {"[type=B]", -0.868923757417876, 0.198412698280065},   {"[type=C]", -1.01298110367377, 0.339452685507086},
      {"[type=D]", -0.401540878101083, 0.30711630077915},    {"[year=60]", -0.453426638800499, 0.233170477773651},
      {"[year=65]", 0.243713787900006, 0.208753161399773},   {"[year=70]", 0.364999938401247, 0.199465681266288},
      {"[period=60]", -0.384466958212073, 0.1182721626238},
  };
  for (const auto& e : expected) {
    ExpectRel(Param(doc, e.name)["estimate"], e.estimate, e.name);
    ExpectRel(Param(doc, e.name)["se"], e.se, std::string("SE ") + e.name);
  }
  EXPECT_TRUE(Param(doc, "[year=75]")["redundant"].get<bool>());
  bool offsetListed = false;
  for (const auto& row : doc["continuous"]) offsetListed |= row["variable"] == "logservice" && row["role"] == "offset";
  EXPECT_TRUE(offsetListed);

  // --pmml: the document of the same fit, with the file's category labels; it validates.
  o.pmmlPath = ::testing::TempDir() + "gzl_tool_ships.xml";
  const json again = RunJson(o);
  bool valid = false;
  EXPECT_TRUE(again == doc);
  const std::string output = pmml_test::ValidateWithXmllint({o.pmmlPath}, valid);
  EXPECT_TRUE(valid) << output;
  pugi::xml_document pmml;
  ASSERT_TRUE(pmml.load_file(o.pmmlPath.c_str()));
  const pugi::xml_node model = pmml.child("PMML").child("GeneralRegressionModel");
  EXPECT_STREQ(model.attribute("offsetVariable").value(), "logservice");
  EXPECT_STREQ(model.child("PPMatrix").child("PPCell").attribute("value").value(), "A");
  EXPECT_EQ(std::strtod(model.child("ParamMatrix").child("PCell").attribute("beta").value(), nullptr),
            Param(doc, "(Intercept)")["estimate"].get<double>());
  o.pmmlPath = "/nonexistent-dir/ships.xml";
  o.json = true;
  const ToolRun failed = RunTool(o);
  EXPECT_EQ(failed.code, 1);
  EXPECT_NE(failed.err.find("cannot write the PMML file /nonexistent-dir/ships.xml"), std::string::npos) << failed.err;
  EXPECT_EQ(failed.out, "");
}

TEST(ToolFit, QuineNegativeBinomialWithKEstimatedAgreesWithReference) {
  FitOptions o = Options("quine.csv", "days", TQConst::DistNegBinomial);
  o.estimateK = true;
  o.factors = {"eth", "sex", "age", "lrn"};
  const json doc = RunJson(o);
  ExpectFit(doc, {167.951800820576, 137.776036845647, -546.575509144992, 1109.15101828998, 1110.20211318049,
                  1133.01987126365, 1141.01987126365, 25.1159444078512, 6, 138});
  ExpectRel(doc["k_stats"]["estimate"], 0.784379770233912, "k");
  EXPECT_FALSE(doc["k_stats"]["fixed"].get<bool>());
  ASSERT_TRUE(doc["k_stats"]["se"].is_number());
  EXPECT_GT(doc["k_stats"]["se"].get<double>(), 0.0);
  ExpectRel(Param(doc, "(Intercept)")["estimate"], 3.05653870550416, "intercept");
  ExpectRel(Param(doc, "(Intercept)")["se"], 0.280176707042533, "SE intercept");
  ExpectRel(Param(doc, "[eth=A]")["estimate"], 0.569371697357511, "[eth=A]");
  ExpectRel(Param(doc, "[eth=A]")["se"], 0.153333497191391, "SE [eth=A]");
  ExpectRel(Param(doc, "[age=F1]")["estimate"], -0.805329121309883, "[age=F1]");
}

TEST(ToolFit, FrequencyWeightsDevianceScaleAndPowersAgreeWithReference) {
  {
    // Frequency weights with the scale computed from the deviance.
    FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
    o.factors = {"wool", "tension"};
    o.frequencyWeight = "fw";
    o.scaleMethod = GZLConst_940::ScaleDeviance;
    const json doc = RunJson(o);
    ExpectFit(doc, {450.192166377177, 467.906329245293, -114.789697751956, 237.579395503913, 237.967745018476,
                    248.30792041241, 252.30792041241, 35.0468025884474, 3, 104});
    EXPECT_EQ(doc["cases"]["included"], 54);
    EXPECT_EQ(doc["cases"]["weighted_included"], 108.0);
    EXPECT_EQ(doc["n_records"], 108.0);
    EXPECT_EQ(doc["n_nonredundant"], 4);
    ExpectRel(doc["scale"], 4.32877083054978, "scale");
    EXPECT_FALSE(doc["scale_stats"]["fixed"].get<bool>());
    ExpectRel(Param(doc, "[wool=A]")["estimate"], 0.157785103924062, "[wool=A]");
    ExpectRel(Param(doc, "[wool=A]")["se"], 0.0775645266387214, "SE [wool=A]");
    ExpectRel(Param(doc, "(Intercept)")["estimate"], 2.90815988203444 + 0.291167611010215, "intercept");
  }
  {
    // A covariate times itself is its square, named with a power.
    FitOptions o = Options("trees.csv", "volume", TQConst::DistNormal);
    o.covariates = {"girth"};
    o.effects = "girth girth*girth";
    const json doc = RunJson(o);
    ExpectFit(doc, {311.382107735639, 311.382107735639, -79.7461152637437, 167.492230527487, 169.030692065949,
                    173.228179345428, 177.228179345428, 101.039829963401, 2, 28});
    ExpectRel(Param(doc, "girth**2")["estimate"], 0.254537568021612, "girth**2");
    ExpectRel(Param(doc, "girth**2")["se"], 0.0552852411614869, "SE girth**2");
    EXPECT_EQ(Param(doc, "girth**2")["covariates"]["girth"], 2);
    ExpectRel(doc["scale"], 10.0445844065228, "scale");
  }
  {
    // A binary response: the second category (am = 1) is the event by default.
    FitOptions o = Options("mtcars.csv", "am", TQConst::DistBinomial);
    o.covariates = {"wt", "hp"};
    const json doc = RunJson(o);
    ExpectRel(doc["goodness_of_fit"]["deviance"]["value"], 10.059110472267, "deviance");
    ExpectRel(doc["omnibus"]["chisq"], 33.1706228045908, "omnibus");
    ExpectRel(Param(doc, "wt")["estimate"], -8.08347518244463, "wt");
    ExpectRel(Param(doc, "hp")["se"], 0.0177341543319472, "SE hp");
    bool eventMarked = false;
    for (const auto& row : doc["categorical"])
      eventMarked |= row["variable"] == "am" && row["category"] == "1" && row.value("note", "") == "event";
    EXPECT_TRUE(eventMarked);
  }
}

// Tests of effects with the effects entered so that wool and tension are aliased with the
// interaction before them: no type I test for them, type III tests as usual; Wald and
// likelihood-ratio statistics (the latter with the F form of the deviance scale).
TEST(ToolFit, EffectTestsAgreeWithReference) {
  std::ifstream in(std::string(GZL_TEST_DATA_DIR) + "/reference/effects/warpbreaks_poisson_aliased_deviance.json");
  const json expected = json::parse(in)["expected"];
  FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  o.factors = {"wool", "tension"};
  o.frequencyWeight = "fw";
  o.scaleMethod = GZLConst_940::ScaleDeviance;
  o.effects = "wool*tension wool tension";
  o.effectTests = TQConst::EffectTypeIAndIII;
  o.effectStatistic = GZLConst_940::EffectStatLR;
  o.refitTolerance = 1e-9;
  const json doc = RunJson(o);
  for (const char* key : {"wald_type1", "wald_type3", "lr_type1", "lr_type3"}) {
    const bool lr = key[0] == 'l';
    ASSERT_EQ(doc[key].size(), expected[key].size()) << key;
    for (std::size_t i = 0; i < doc[key].size(); ++i) {
      const json& e = expected[key][i];
      const json& a = doc[key][i];
      const std::string what = std::string(key) + " " + e["term"].get<std::string>();
      EXPECT_EQ(a["effect"], e["effect"]) << what;
      EXPECT_EQ(a["term"], e["term"]) << what;
      if (e["chisq"].is_null()) {
        // No hypothesis: no statistic (the likelihood-ratio df is missing too).
        EXPECT_TRUE(a["chisq"].is_null() && a["sig"].is_null()) << what;
        EXPECT_TRUE(lr ? a["df"].is_null() : a["df"] == 0) << what;
        continue;
      }
      EXPECT_EQ(a["df"], e["df"]) << what;
      for (const char* figure : {"chisq", "sig", "f", "df2", "f_sig", "deviance"}) {
        if (!lr && !e.contains(figure)) continue;
        if (e[figure].is_null())
          EXPECT_TRUE(a[figure].is_null()) << what << " " << figure;
        else
          ExpectRel(a[figure], e[figure].get<double>(), what + " " + figure);
      }
    }
  }
  o.effectStatistic.reset();
  o.effectTests = TQConst::EffectTypeI;
  const ToolRun text = RunTool(o);
  ASSERT_EQ(text.code, 0) << text.err;
  EXPECT_NE(text.out.find("Tests of model effects (Wald, type I"), std::string::npos);
  EXPECT_EQ(text.out.find("type III"), std::string::npos);
  EXPECT_NE(text.out.find("wool^a"), std::string::npos);
  EXPECT_NE(text.out.find("^a Not tested"), std::string::npos);
}

// Profile intervals in place of the Wald limits, the scale's too (maximum likelihood); the
// overdispersion test of a Poisson model that asks for it.
TEST(ToolFit, ProfileIntervalsAndLagrangeMultiplierTest) {
  std::ifstream in2(std::string(GZL_TEST_DATA_DIR) + "/reference/effects/mtcars_normal_identity.json");
  const json expected2 = json::parse(in2)["expected"];
  FitOptions m = Options("mtcars.csv", "mpg", TQConst::DistNormal);
  m.factors = {"cyl"};
  m.covariates = {"wt", "hp"};
  m.effects = "wt hp cyl";
  m.ciType = GZLConst_940::Profile;
  m.refitTolerance = 1e-9;
  const json profile = RunJson(m);
  ASSERT_EQ(profile["profile_ci"].size(), expected2["profile_ci"].size());
  for (std::size_t j = 0; j < profile["profile_ci"].size(); ++j) {
    const json& e = expected2["profile_ci"][j];
    const json& a = profile["profile_ci"][j];
    EXPECT_EQ(a["redundant"], e["redundant"]);
    for (const char* end : {"lower", "upper"}) {
      if (e[end].is_null())
        EXPECT_TRUE(a[end].is_null());
      else
        ExpectRel(a[end], e[end].get<double>(), std::string(end) + " " + std::to_string(j));
    }
  }
  for (const char* end : {"lower", "upper"})
    ExpectRel(profile["profile_ci_scale"][end], expected2["profile_ci_scale"][end].get<double>(), end);
  EXPECT_TRUE(profile["parameters"][0]["wald_lower"].is_null());
  EXPECT_TRUE(profile["lm_tests"].empty());

  FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  o.factors = {"wool", "tension"};
  o.effects = "wool*tension wool tension";
  o.effectTests = TQConst::EffectTypeI;
  o.effectStatistic = GZLConst_940::EffectStatLR;
  o.overdispersionTest = true;
  const ToolRun text = RunTool(o);
  ASSERT_EQ(text.code, 0) << text.err;
  for (const char* part : {"Tests of model effects (likelihood ratio, type I", "^1 Not tested: no estimable hypothesis",
                           "Wald confidence interval", "Lagrange multiplier test", "Poisson overdispersion"})
    EXPECT_NE(text.out.find(part), std::string::npos) << part;
}

TEST(ToolFit, TextOutputShowsTheTablesAndNamesTermsByLabel) {
  FitOptions o = Options("warpbreaks.csv", "breaks", TQConst::DistPoisson);
  o.factors = {"wool", "tension"};
  o.effects = "tension*wool";
  const ToolRun run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  for (const char* text :
       {"Model information", "Case processing summary", "Categorical variable information",
        "Continuous variable information", "Goodness of fit", "Scaled Pearson chi-square", "(AICC)",
        "Omnibus test", "Parameter estimates", "[tension=M]*[wool=B]", "[tension=H]*[wool=A]", "0^a", "Aliased",
        "(Scale)", "1^b", "Convergence: All convergence criteria are satisfied"}) {
    EXPECT_NE(run.out.find(text), std::string::npos) << "missing: " << text;
  }
  std::istringstream words(run.out);
  for (std::string word; words >> word;) {
    EXPECT_TRUE(word.find("nan") == std::string::npos && word != "inf" && word != "-inf") << word;
  }
  // The deviance of the saturated-by-cells model is the interaction model's.
  EXPECT_NE(run.out.find("182.305"), std::string::npos);

  // Nested effects: [inner=...]([outer=...]).
  o.effects = "wool tension(wool)";
  const ToolRun nested = RunTool(o);
  ASSERT_EQ(nested.code, 0) << nested.err;
  EXPECT_NE(nested.out.find("[tension=H]([wool=B])"), std::string::npos);
}

TEST(ToolFit, BadInputGivesOneLineMessageAndFailure) {
  const std::string dir = ::testing::TempDir();
  auto write = [&dir](const std::string& name, const std::string& text) {
    const std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  };
  auto expectFailure = [](const FitOptions& o, const std::string& fragment) {
    for (const bool json : {false, true}) {
      FitOptions options = o;
      options.json = json;
      const ToolRun run = RunTool(options);
      EXPECT_EQ(run.code, 1) << fragment;
      EXPECT_EQ(run.err.rfind("gzl: ", 0), 0u) << run.err;
      EXPECT_NE(run.err.find(fragment), std::string::npos) << run.err;
      EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "not one line: " << run.err;
      // No partial results: with JSON nothing at all is written.
      if (json) {
        EXPECT_EQ(run.out, "");
      }
      EXPECT_EQ(run.out.find("Parameter estimates"), std::string::npos);
    }
  };

  FitOptions o;
  o.response = "y";
  o.dataPath = dir + "/does-not-exist.csv";
  expectFailure(o, "cannot open");

  o = Options("trees.csv", "volume", TQConst::DistNormal);
  o.covariates = {"nope"};
  expectFailure(o, "unknown column 'nope'");

  o.dataPath = write("text.csv", "y,x\n1,2\n2,abc\n3,4\n");
  o.response = "y";
  o.covariates = {"x"};
  expectFailure(o, "line 3, column 'x': 'abc' is not a number");

  o.dataPath = write("empty.csv", "");
  expectFailure(o, "empty");

  o.dataPath = write("header.csv", "y,x\n");
  expectFailure(o, "no data records");

  // A response invalid for the distribution in every record.
  o.dataPath = write("nonpositive.csv", "y,x\n0,1\n-1,2\n-2.5,3\n0,4\n");
  o.distribution = TQConst::DistGamma;
  expectFailure(o, "the model cannot be fitted: no record can be used");
  o.distribution = TQConst::DistPoisson;
  o.dataPath = write("negative.csv", "y,x\n-1,1\n-2,2\n-3,3\n");
  expectFailure(o, "(");  // whichever status the engine gives, it comes with its name and code
  const ToolRun run = RunTool(o);
  EXPECT_TRUE(run.err.find("NoValidRecords") != std::string::npos ||
              run.err.find("AllInvalidRecordsForLinkFunction") != std::string::npos)
      << run.err;

  // Records left out are counted as excluded.
  o.distribution = TQConst::DistGamma;
  o.dataPath = write("mixed.csv", "y,x\n-1,1\n2,2\n3,3\n5,4\n4,5\n7,6\n");
  const json doc = RunJson(o);
  EXPECT_EQ(doc["cases"]["included"], 5);
  EXPECT_EQ(doc["cases"]["excluded"], 1);
  EXPECT_EQ(doc["continuous"][0]["minimum"], 2.0);
}

class CountingCancel : public TQQueryCancel {
 public:
  explicit CountingCancel(int allowed) : fAllowed(allowed) {}
  bool IsCancelled() override { return ++fCalls > fAllowed; }
  int Calls() const { return fCalls; }

 private:
  int fAllowed;
  int fCalls = 0;
};

TEST(ToolFit, ProgressAndCancellation) {
  // A data set large enough for record reports (every 1000 records at least).
  const std::string path = ::testing::TempDir() + "/progress.csv";
  {
    std::ofstream out(path);
    out << "y,x\n";
    for (int i = 0; i < 3000; ++i) out << (i * 7 % 11) << ',' << (i % 10) * 0.1 << '\n';
  }
  FitOptions o;
  o.dataPath = path;
  o.response = "y";
  o.distribution = TQConst::DistPoisson;
  o.covariates = {"x"};
  o.json = true;

  std::ostringstream progress;
  FitHooks hooks;
  hooks.progress = &progress;
  const ToolRun run = RunTool(o, hooks);
  ASSERT_EQ(run.code, 0) << run.err;
  const json doc = json::parse(run.out);
  const std::string lines = progress.str();
  EXPECT_NE(lines.find("gzl: records read: 1000\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("gzl: records read: 3000\n"), std::string::npos) << lines;
  const int iterations = doc["convergence"]["iterations"].get<int>();
  ASSERT_GT(iterations, 0);
  EXPECT_NE(lines.find("gzl: iteration " + std::to_string(iterations) + ", log-likelihood "), std::string::npos)
      << lines;
  EXPECT_EQ(lines.find("gzl: iteration " + std::to_string(iterations + 1) + ","), std::string::npos);

  // Without a progress stream nothing is written anywhere but the results.
  const ToolRun quiet = RunTool(o);
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, run.out);

  // Cancelled in the middle of the first pass, and after the first pass.
  for (const int allowed : {10, 3100}) {
    CountingCancel cancel(allowed);
    FitHooks stop;
    stop.cancel = &cancel;
    const ToolRun cancelled = RunTool(o, stop);
    EXPECT_EQ(cancelled.code, 1);
    EXPECT_EQ(cancelled.err, "gzl: the fit was cancelled\n");
    EXPECT_EQ(cancelled.out, "");
    EXPECT_GT(cancel.Calls(), allowed);
  }

  // Ctrl-C: the handler only sets the flag that the cancel query reads.
  ASSERT_TRUE(InterruptFlag::Install());
  FlagCancel flag(InterruptFlag::Pointer());
  EXPECT_FALSE(flag.IsCancelled());
  std::raise(SIGINT);
  EXPECT_TRUE(InterruptFlag::IsSet());
  EXPECT_TRUE(flag.IsCancelled());
  FitHooks interrupted;
  interrupted.cancel = &flag;
  EXPECT_EQ(RunTool(o, interrupted).err, "gzl: the fit was cancelled\n");
  InterruptFlag::Clear();
  EXPECT_FALSE(flag.IsCancelled());
  std::signal(SIGINT, SIG_DFL);
}

TEST(ToolFit, StatusCodesInWords) {
  const std::string all = DescribeStatusCode(GZLStatusCode::AllInvalidRecordsForLinkFunction);
  EXPECT_NE(all.find("no record can be used"), std::string::npos);
  EXPECT_NE(all.find("(AllInvalidRecordsForLinkFunction, 130073)"), std::string::npos);
  EXPECT_EQ(DescribeStatus(TQStatus::Error(GZLStatusCode::Cancelled)), "the fit was cancelled (1)");
  // A code with a sentence but no display name, and one without either.
  EXPECT_NE(DescribeStatusCode(GZLStatusCode::AICCNotComputable).find("AICC"), std::string::npos);
  EXPECT_EQ(DescribeStatusCode(424242), "Unrecognized error code (424242)");
  EXPECT_EQ(StatusSentence(0), nullptr);
}

}  // namespace
