// `gzl fit` with subjects: the GEE reference cases reproduced through the command's JSON
// (estimates, both standard errors, working correlation, scale, QIC and its parts, subject
// counts), records that must be sorted by subject, the text tables and the options' checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/FitCommand.h"
#include "tools/GeeModel.h"

namespace {

using nlohmann::json;

const std::string kGee = std::string(GZL_TEST_DATA_DIR) + "/reference/gee";

int Lookup(std::span<const FitOptionName> names, const std::string& name) {
  for (const auto& n : names)
    if (name == n.name) return n.value;
  ADD_FAILURE() << "no option value " << name;
  return 0;
}

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("gzl_test_gee_" + std::to_string(::getpid()) + "_" + name))
      .string();
}

// The options of a reference model, with the convergence tightened as the references ask.
FitOptions FromModel(const json& m, const std::string& data) {
  FitOptions o;
  o.dataPath = data;
  o.response = m["response"];
  o.distribution = static_cast<TQConst::DistType>(Lookup(DistributionNames(), m["dist"]));
  o.link = static_cast<TQConst::LinkType>(Lookup(LinkNames(), m["link"]));
  o.scaleMethod = static_cast<GZLConst_940::ScaleMethod>(Lookup(ScaleMethodNames(), m["scale"]));
  o.offsetVariable = m.value("offset", std::string());
  o.factors = m["factors"].get<std::vector<std::string>>();
  o.covariates = m["covariates"].get<std::vector<std::string>>();
  for (const auto& e : m["effects"]) {
    std::vector<std::string> parts = e["factors"].get<std::vector<std::string>>();
    for (const auto& c : e["covariates"]) parts.push_back(c);
    std::string term;
    for (const auto& p : parts) term += (term.empty() ? "" : "*") + p;
    o.effects += (o.effects.empty() ? "" : " ") + term;
  }
  o.intercept = m.value("intercept", true);
  if (m.value("hessian", std::string()) == "fisher") o.hessianMethod = TQConst::HessianFisher;
  o.paramTolerance = 1e-10;
  o.maxIterations = 200;
  if (!m.contains("subjects")) return o;
  o.subjects = m["subjects"].get<std::vector<std::string>>();
  o.within = m.value("within", std::vector<std::string>());
  std::string corr = m["corr_type"];
  if (corr == "mdep") corr += ":" + std::to_string(m["corr_m"].get<double>());
  if (corr == "fixed") {
    const std::string file = TempPath("fixed.txt");
    std::ofstream out(file);
    for (double v : m["corr_matrix"]) out << v << '\n';
    corr += ":" + file;
  }
  std::string error;
  EXPECT_TRUE(ParseCorrelation(corr, o, error)) << error;
  o.covariance = static_cast<TQConst::TQCovbType>(Lookup(CovarianceNames(), m.value("covb", std::string("robust"))));
  o.adjustCorr = m.value("adjust_corr", true);
  o.updateCorr = m.value("update_corr", 1);
  if (m.contains("gee_max_iter")) o.geeMaxIterations = m["gee_max_iter"].get<int>();
  o.geeParamTolerance = m.value("gee_pconverge", 1e-10);
  return o;
}

struct ToolRun {
  int code = -1;
  std::string out, err;
};

ToolRun RunTool(const FitOptions& o) {
  std::ostringstream out, err;
  ToolRun r;
  r.code = RunFitCommand(o, {}, out, err);
  r.out = out.str();
  r.err = err.str();
  return r;
}

// Relative 1e-6, absolute 1e-8 near zero; null for null.
void ExpectRel(const json& expected, const json& actual, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_TRUE(actual.is_null()) << what << ": " << actual.dump();
    return;
  }
  ASSERT_TRUE(actual.is_number()) << what << " is " << actual.dump();
  const double e = expected.get<double>();
  EXPECT_NEAR(actual.get<double>(), e, std::max(1e-6 * std::fabs(e), 1e-8)) << what;
}

json Case(const std::string& name) {
  std::ifstream in(kGee + "/expected/" + name + ".json");
  return json::parse(in);
}

// The figures of a GEE case in the document of a fit.
void ExpectCase(const json& c, const json& doc) {
  const json& e = c["expected"];
  const json& params = e["parameters"];
  ASSERT_EQ(doc["parameters"].size(), params.size());
  for (std::size_t j = 0; j < params.size(); ++j) {
    const json& want = params[j];
    const json& got = doc["parameters"][j];
    SCOPED_TRACE("parameter " + want["term"].get<std::string>());
    EXPECT_EQ(got["categories"], want["categories"]);
    EXPECT_EQ(got["redundant"], want["redundant"]);
    for (const char* key : {"estimate", "se", "se_robust", "se_model"}) ExpectRel(want[key], got[key], key);
  }
  const json& R = e["working_correlation"];
  ASSERT_EQ(doc["working_correlation"].size(), R.size());
  EXPECT_EQ(doc["corr_dim"], e["corr_dim"]);
  for (std::size_t i = 0; i < R.size(); ++i)
    for (std::size_t k = 0; k < R.size(); ++k) ExpectRel(R[i][k], doc["working_correlation"][i][k], "R");
  for (const char* key : {"scale", "quasi_loglik", "qic_trace", "qic", "qicu"}) ExpectRel(e[key], doc[key], key);
  for (const char* key : {"n_subjects", "min_subject_size", "max_subject_size", "n_records", "n_nonredundant"})
    EXPECT_EQ(doc[key], e[key]) << key;
}

}  // namespace

TEST(ToolGee, ReferenceCasesThroughJson) {
  std::vector<std::string> names;
  for (const auto& f : std::filesystem::directory_iterator(kGee + "/expected")) names.push_back(f.path().stem());
  std::sort(names.begin(), names.end());
  // The seven cases of scalar responses and the three of an ordinal one.
  ASSERT_EQ(names.size(), 10u);
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const json c = Case(name);
    FitOptions o = FromModel(c["model"], kGee + "/data/" + c["data"].get<std::string>());
    o.json = true;
    const ToolRun run = RunTool(o);
    ASSERT_EQ(run.code, 0) << run.err;
    const json doc = json::parse(run.out);
    ExpectCase(c, doc);
    if (c["expected"].contains("iterations")) {
      // Stopped by the iteration limit: the engine's warning says so.
      bool warned = false;
      for (const auto& w : doc["warnings"]) warned = warned || w["code"] == 130051;
      EXPECT_TRUE(warned);
    }
  }
}

TEST(ToolGee, SortedSubjectsAndTextTables) {
  // The ohio records ordered by age, then child: no child's records stand together.
  const json c = Case("ohio_binomial_exchangeable");
  const std::string shuffled = TempPath("ohio_by_age.csv");
  {
    std::ifstream in(kGee + "/data/ohio.csv");
    std::string header, line;
    std::getline(in, header);
    std::vector<std::vector<std::string>> rows;  // age line, then the line
    while (std::getline(in, line)) {
      std::vector<std::string> fields;
      std::stringstream split(line);
      for (std::string f; std::getline(split, f, ',');) fields.push_back(f);
      rows.push_back({fields[1], line});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a[0] < b[0]; });
    std::ofstream out(shuffled);
    out << header << '\n';
    for (const auto& r : rows) out << r[1] << '\n';
  }
  FitOptions o = FromModel(c["model"], shuffled);
  o.json = true;
  ToolRun run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  // As they stand, every record is a subject of its own.
  EXPECT_EQ(json::parse(run.out)["n_subjects"], 2148);
  o.sortSubjects = true;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  ExpectCase(c, json::parse(run.out));

  o.json = false;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  for (const char* text : {"Working correlation (exchangeable)", "QIC = 2 (T - Q)", "Subjects  ", "537",
                           "Standard errors of both covariances (inference uses the robust one)", "age=3"})
    EXPECT_NE(run.out.find(text), std::string::npos) << text;
  EXPECT_EQ(run.out.find("Omnibus test"), std::string::npos);

  // The likelihood-ratio analysis of a GEE model: generalized score tests, equal for the last
  // effect in both types.
  o.effectTests = TQConst::EffectTypeIAndIII;
  o.effectStatistic = GZLConst_940::EffectStatLR;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.out.find("Tests of model effects (generalized score, type III"), std::string::npos);
  o.json = true;
  run = RunTool(o);
  ASSERT_EQ(run.code, 0) << run.err;
  const json doc = json::parse(run.out);
  ASSERT_FALSE(doc["lr_type3"].empty());
  const json& last1 = doc["lr_type1"].back();
  const json& last3 = doc["lr_type3"].back();
  EXPECT_EQ(last3["status"], 0);
  EXPECT_GT(last3["chisq"].get<double>(), 0.0);
  EXPECT_NEAR(last1["chisq"].get<double>(), last3["chisq"].get<double>(), 1e-8 * last3["chisq"].get<double>());
  std::filesystem::remove(shuffled);
}

TEST(ToolGee, OptionsThatDoNotFit) {
  const json c = Case("dietox_normal_ar1");
  const FitOptions base = FromModel(c["model"], kGee + "/data/dietox.csv");
  struct Bad {
    void (*change)(FitOptions&);
    const char* message;
  };
  const Bad cases[] = {
      {[](FitOptions& o) { o.subjects.clear(); }, "the GEE options need subject variables (--subject)"},
      {[](FitOptions& o) { o.subjects = {"weight"}; }, "'weight' cannot be both a subject variable and the response"},
      {[](FitOptions& o) { o.within = {"pig"}; },
       "'pig' cannot be both a subject variable and a within-subject variable"},
      {[](FitOptions& o) { o.updateCorr = -1; }, "--corr-update must be 0 or more"},
      {[](FitOptions& o) { o.pmmlPath = "/tmp/never.xml"; }, "--pmml: no PMML document is written for GEE models"},
      {[](FitOptions& o) { o.ciType = GZLConst_940::Profile; }, "--ci profile: GEE models have no likelihood"},
      {[](FitOptions& o) { o.subjects = {"nosuch"}; }, "unknown column 'nosuch'"},
      {[](FitOptions& o) {
         o.corrType = GZLConst_940::FixedCorr;
         o.corrFile = "/nonexistent/r.txt";
       },
       "--corr: cannot open '/nonexistent/r.txt'"},
  };
  for (const Bad& b : cases) {
    FitOptions o = base;
    b.change(o);
    const ToolRun run = RunTool(o);
    EXPECT_EQ(run.code, 1) << b.message;
    EXPECT_NE(run.err.find(b.message), std::string::npos) << run.err;
  }
  FitOptions o;
  std::string error;
  for (const char* bad : {"mdep", "mdep:0", "fixed:", "ar1:2", "toeplitz"}) {
    EXPECT_FALSE(ParseCorrelation(bad, o, error)) << bad;
    EXPECT_EQ(error.rfind("--corr: ", 0), 0u) << error;
  }
  ASSERT_TRUE(ParseCorrelation("mdep:2.5", o, error));
  EXPECT_EQ(o.corrType, GZLConst_940::MDependent);
  EXPECT_EQ(o.corrM, 2.5);

  // The fixed structure's values: the lower triangle as given, or taken from a whole matrix.
  const std::string file = TempPath("whole.txt");
  std::ofstream(file) << "1, 0.5, 0.25\n0.5 1 0.5\n0.25;0.5;1\n";
  std::vector<double> values;
  ASSERT_TRUE(ReadFixedCorrelation(file, values, error)) << error;
  EXPECT_EQ(values, (std::vector<double>{0.5, 0.25, 0.5}));
  std::ofstream(file) << "0.3 0.2 0.1 x\n";
  EXPECT_FALSE(ReadFixedCorrelation(file, values, error));
  std::filesystem::remove(file);
}
