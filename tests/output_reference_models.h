#pragma once
// Test helper: the reference models of tests/data/reference as engine settings, and their data
// as an in-memory record source.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "GZLSettings.h"
#include "support/TQMV.h"
#include "support/TQRegrParameterStats.h"

namespace output_test {

inline std::string RefDir() { return std::string(GZL_TEST_DATA_DIR) + "/reference"; }

// The case files of a reference folder, in name order.
inline std::vector<std::string> CaseFiles(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(RefDir() + "/" + folder)) files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

// Agreement with a reference figure: to a relative `rel`, or to an absolute `nearZero` for
// figures below 1e-3 in size.
inline void ExpectRel(double expected, double actual, const std::string& what, double rel = 1e-6,
                      double nearZero = 1e-9) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  const double tol = std::fabs(expected) < 1e-3 ? nearZero : rel * std::fabs(expected);
  EXPECT_LE(std::fabs(actual - expected), tol) << what << ": engine " << actual << ", reference " << expected;
}

// A CSV table held in memory, served record by record.
class TableSource : public IGZLRecordSource {
 public:
  explicit TableSource(const std::string& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    std::stringstream header(line);
    std::string name;
    while (std::getline(header, name, ',')) fNames.push_back(name);
    while (std::getline(in, line)) {
      if (line.empty()) continue;
      std::stringstream ss(line);
      std::string cell;
      std::vector<double> row;
      // An empty field is a missing value (a trailing one shortens the record).
      while (std::getline(ss, cell, ',')) row.push_back(cell.empty() ? TQMV::Missing : std::stod(cell));
      fRows.push_back(row);
    }
  }
  TableSource(std::vector<std::string> names, std::vector<std::vector<double>> rows)
      : fNames(std::move(names)), fRows(std::move(rows)) {}

  const std::vector<std::string>& Names() const { return fNames; }
  int Column(const std::string& name) const {
    for (size_t i = 0; i < fNames.size(); ++i)
      if (fNames[i] == name) return static_cast<int>(i);
    return -1;
  }
  int Levels(int column) const {
    double mx = 0.0;
    for (const auto& r : fRows) mx = std::max(mx, r[column]);
    return static_cast<int>(mx) + 1;
  }
  double Sum(int column) const {
    double s = 0.0;
    for (const auto& r : fRows) s += r[column];
    return s;
  }
  size_t NumRows() const { return fRows.size(); }
  const std::vector<std::vector<double>>& Rows() const { return fRows; }
  int fRewinds = 0;

  bool HasMoreRecords() override { return fNext < fRows.size(); }
  const Record* NextRecord() override {
    if (fNext >= fRows.size()) return nullptr;
    const auto& r = fRows[fNext++];
    fRecord.Reset(r.data(), r.size());
    return &fRecord;
  }
  int Rewind() override {
    ++fRewinds;
    fNext = 0;
    return 0;
  }

 private:
  std::vector<std::string> fNames;
  std::vector<std::vector<double>> fRows;
  size_t fNext = 0;
  Record fRecord;
};

// The redundancy of a parameter row against the reference entry; true, after the checks of an
// aliased row (estimate 0, no standard error), when the reference marks it redundant.
inline bool ExpectRedundancy(const TQRegrParameterStats& row, const nlohmann::json& reference) {
  EXPECT_EQ(row.IsRedundant(), reference["redundant"].get<bool>());
  if (!reference["redundant"].get<bool>()) return false;
  EXPECT_EQ(row.GetEstimate(), 0.0);
  EXPECT_TRUE(TQMV::IsMissing(row.GetStdError()));
  return true;
}

// One reference case: the expected figures, the data and the engine settings built from the
// model description.
struct ReferenceCase {
  std::string name;
  nlohmann::json model;
  nlohmann::json expected;
  std::unique_ptr<TableSource> source;
  GZLSettings settings;
  std::vector<int> modelVars;  // factors then covariates, shared by the effects
  bool ok = true;
  std::string problem;
};

// dataDir: the folder of the case's data file (the reference data folder when empty); a
// levels.json there gives the number of categories of a multinomial response.
inline std::unique_ptr<ReferenceCase> LoadCase(const nlohmann::json& j, double tolerance = 1e-10,
                                               const std::string& dataDir = "") {
  auto c = std::make_unique<ReferenceCase>();
  c->name = j["name"];
  c->model = j["model"];
  c->expected = j["expected"];
  const std::string dataFolder = dataDir.empty() ? RefDir() + "/data" : dataDir;
  const std::string dataFile = j["data"].get<std::string>();
  c->source = std::make_unique<TableSource>(dataFolder + "/" + dataFile);
  const auto& m = c->model;
  TableSource& src = *c->source;
  GZLSettings& s = c->settings;
  auto fail = [&](const std::string& what) {
    c->ok = false;
    c->problem += what + "; ";
  };
  auto col = [&](const std::string& name) {
    const int k = src.Column(name);
    if (k < 0) fail("no column " + name);
    return k;
  };

  static const std::map<std::string, TQConst::DistType> dists{
      {"normal", TQConst::DistNormal},       {"binomial", TQConst::DistBinomial}, {"gamma", TQConst::DistGamma},
      {"invgauss", TQConst::DistInvGaussian}, {"negbin", TQConst::DistNegBinomial}, {"poisson", TQConst::DistPoisson},
      {"tweedie", TQConst::DistTweedie},    {"ordinal", TQConst::DistOrdinalMultinomial},
      {"nominal", TQConst::DistNominalMultinomial}};
  static const std::map<std::string, TQConst::LinkType> links{
      {"cloglog", TQConst::LinkCLogLog}, {"identity", TQConst::LinkIdentity}, {"log", TQConst::LinkLog},
      {"logc", TQConst::LinkLogC},       {"logit", TQConst::LinkLogit},       {"negbin", TQConst::LinkNegBinomial},
      {"loglog", TQConst::LinkNLogLog},  {"oddspower", TQConst::LinkOddsPower}, {"power", TQConst::LinkPower},
      {"probit", TQConst::LinkProbit},   {"cumcauchit", TQConst::LinkCumCauchit},
      {"cumcloglog", TQConst::LinkCumCLogLog}, {"cumlogit", TQConst::LinkCumLogit},
      {"cumnloglog", TQConst::LinkCumNLogLog}, {"cumprobit", TQConst::LinkCumProbit}};
  static const std::map<std::string, GZLConst_940::ScaleMethod> scales{
      {"mle", GZLConst_940::ScaleMLE},
      {"deviance", GZLConst_940::ScaleDeviance},
      {"pearson", GZLConst_940::ScalePearson},
      {"fixed", GZLConst_940::ScaleFixed}};

  s.SetDistType(dists.at(m["dist"]));
  s.SetLinkType(links.at(m["link"]));
  if (m.contains("link_param")) s.SetLinkParam(m["link_param"].get<double>());
  if (m.contains("dist_param")) {
    if (!s.SetDistParam(m["dist_param"].get<double>())) fail("dist_param refused");
    s.SetInitDistParam(m["dist_param"].get<double>());
  }
  s.SetDistParamType((m.contains("k_method") && m["k_method"] == "mle") ? GZLConst_940::DistParamMLE
                                                                         : GZLConst_940::DistParamFixed);
  s.SetScaleType(scales.at(m.value("scale", std::string("fixed"))));
  if (m.value("hessian", std::string("fisher")) == "newton") s.SetHessianCompMethod(TQConst::HessianNewtonRaphson);
  if (m.contains("scale_value")) s.SetScaleValue(m["scale_value"].get<double>());

  if (m.contains("response")) {
    if (!s.SetDependent(col(m["response"]))) fail("dependent refused");
    if (m["dist"] == "binomial" || m["dist"] == "nominal") s.SetDependentRefCateg(m.value("ref_category", 0));
    if (s.IsMultinomial()) {
      // The declared categories: from levels.json when it names them, else the codes seen.
      int levels = src.Levels(col(m["response"]));
      std::ifstream levelsIn(dataFolder + "/levels.json");
      if (levelsIn) {
        const nlohmann::json l = nlohmann::json::parse(levelsIn);
        const std::string table = dataFile.substr(0, dataFile.find('.'));
        if (l.contains(table) && l[table].contains(m["response"].get<std::string>()))
          levels = static_cast<int>(l[table][m["response"].get<std::string>()].size());
      }
      s.SetDependentSize(levels);
    }
  } else if (m.contains("events")) {
    if (m["trials"].is_string()) {
      if (!s.SetEventsTrials(col(m["events"]), col(m["trials"]))) fail("events/trials refused");
    } else if (!s.SetEventsConstTrials(col(m["events"]), m["trials"].get<double>())) {
      fail("events/constant trials refused");
    }
  }
  if (m.contains("offset") && !s.SetOffset(col(m["offset"]))) fail("offset refused");
  if (m.contains("freq_weight") && !s.SetFrequencyWeightVar(col(m["freq_weight"]))) fail("frequency weight refused");
  if (m.contains("scale_weight") && !s.SetRegrWeightVar(col(m["scale_weight"]))) fail("scale weight refused");

  std::vector<int> factors, covariates;
  for (const auto& f : m.value("factors", nlohmann::json::array())) factors.push_back(col(f));
  for (const auto& v : m.value("covariates", nlohmann::json::array())) covariates.push_back(col(v));
  for (int f : factors)
    if (!s.AddFactor(f, src.Levels(f))) fail("factor refused");
  for (int v : covariates)
    if (!s.AddCovariate(v)) fail("covariate refused");
  c->modelVars = factors;
  c->modelVars.insert(c->modelVars.end(), covariates.begin(), covariates.end());
  const int nf = static_cast<int>(factors.size()), nc = static_cast<int>(covariates.size());
  for (const auto& e : m["effects"]) {
    GZLModelEffect effect(nf, nc, &c->modelVars);
    bool first = true;
    const bool nested = e.value("nested", false);
    for (const auto& f : e["factors"]) {
      if (!effect.AddNewFactor(col(f), nested && !first)) fail("effect factor refused");
      first = false;
    }
    for (const auto& v : e["covariates"])
      if (effect.AddCovariate(col(v)) < 1) fail("effect covariate refused");
    if (!s.AddModelEffect(effect)) fail("effect refused");
  }
  s.SetInterceptUse(m.value("intercept", true));
  if (m.value("negbin0", false)) s.SetNegBin0(true);
  if (m.contains("confidence_level")) s.SetConfidenceLevel(m["confidence_level"].get<double>());

  // Tight convergence so that the figures can be compared to a relative 1e-6.
  s.SetLLConCriterion(0.0);
  s.SetParamEstConCriterion(tolerance);
  s.SetToleranceHessian(0.0);
  s.SetMaxIterations(200);
  s.SetModelFittingTest(true);
  if (!s.IsValid()) fail("settings not valid");
  return c;
}

inline nlohmann::json ReadCase(const std::string& jsonPath) {
  std::ifstream in(jsonPath);
  return nlohmann::json::parse(in);
}

inline std::unique_ptr<ReferenceCase> LoadCase(const std::string& jsonPath, double tolerance = 1e-10,
                                               const std::string& dataDir = "") {
  return LoadCase(ReadCase(jsonPath), tolerance, dataDir);
}

// The GEE part of a reference model (keys of the GEE references) on top of the settings
// LoadCase made: subjects, within-subject variables, working correlation, covariance, the GEE
// iteration controls; no omnibus test.
inline void ApplyGeeKeys(ReferenceCase& c) {
  const nlohmann::json& m = c.model;
  GZLSettings& s = c.settings;
  auto& src = *c.source;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetModelFittingTest(false);
  for (const auto& v : m["subjects"]) ASSERT_TRUE(s.AddGEESubjectVar(src.Column(v), src.Levels(src.Column(v))));
  for (const auto& v : m.value("within", nlohmann::json::array()))
    ASSERT_TRUE(s.AddGEEWSVar(src.Column(v), src.Levels(src.Column(v))));
  static const std::map<std::string, GZLConst_940::CorrType> corr{
      {"independent", GZLConst_940::Independent}, {"exchangeable", GZLConst_940::Exchangeable},
      {"ar1", GZLConst_940::AR1},                 {"mdep", GZLConst_940::MDependent},
      {"unstructured", GZLConst_940::Unstructured}, {"fixed", GZLConst_940::FixedCorr}};
  s.SetGEECorrType(corr.at(m["corr_type"]));
  if (m.contains("corr_m")) s.SetGEEMDependentPar(m["corr_m"].get<double>());
  if (m.contains("corr_matrix")) s.SetWorkCorrMatrix(m["corr_matrix"].get<std::vector<double>>());
  const auto covb = m.value("covb", std::string("robust")) == "robust" ? TQConst::CovbRobust : TQConst::CovbModelBased;
  s.SetCovbType(covb);
  s.SetGEECovbType(covb);
  s.SetAdjustCorr(m.value("adjust_corr", true));
  ASSERT_TRUE(s.SetUpdateCorr(m.value("update_corr", 1)));
  ASSERT_TRUE(s.SetGEEMaxIterations(m.value("gee_max_iter", 100)));
  ASSERT_TRUE(s.SetGEEPConverge(m.value("gee_pconverge", 1e-10)));
  s.SetGEEPConvergeType(TQConst::ConvAbsolute);
  ASSERT_TRUE(s.IsValid());
}

}  // namespace output_test
