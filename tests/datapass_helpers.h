#pragma once
// Helpers of the data-pass tests: the reference models of tests/data/reference as settings,
// their CSV data as an in-memory source, and a listener/cancel pair that record their calls.
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "GZLMemorySource.h"
#include "GZLModelEffect.h"
#include "GZLProgress.h"
#include "GZLReporter.h"
#include "GZLSettings.h"

namespace datapass_test {

inline std::string RefDir() { return std::string(GZL_TEST_DATA_DIR) + "/reference"; }

inline nlohmann::json ReadJson(const std::string& path) {
  std::ifstream in(path);
  return nlohmann::json::parse(in);
}

struct Table {
  std::vector<std::string> names;
  std::vector<std::vector<double>> rows;
  int Column(const std::string& name) const {
    for (std::size_t i = 0; i < names.size(); ++i)
      if (names[i] == name) return static_cast<int>(i);
    return -1;
  }
};

inline Table ReadCsv(const std::string& path) {
  Table t;
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  std::stringstream header(line);
  for (std::string name; std::getline(header, name, ',');) t.names.push_back(name);
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::stringstream ss(line);
    std::vector<double> row;
    for (std::string cell; std::getline(ss, cell, ',');) row.push_back(std::stod(cell));
    t.rows.push_back(std::move(row));
  }
  return t;
}

// A reference model as engine settings. The variable-index list of the effects lives here too,
// so the whole object must stay where it is (no copies).
struct ReferenceModel {
  std::string name;
  nlohmann::json spec;
  Table table;
  std::vector<int> varIndices;
  GZLSettings settings;
  bool ok = true;

  ReferenceModel(const ReferenceModel&) = delete;
  ReferenceModel& operator=(const ReferenceModel&) = delete;

  explicit ReferenceModel(const std::string& file) {
    spec = ReadJson(RefDir() + "/expected/" + file);
    name = spec["name"].get<std::string>();
    const std::string data = spec["data"].get<std::string>();
    table = ReadCsv(RefDir() + "/data/" + data);
    const nlohmann::json levels = ReadJson(RefDir() + "/data/levels.json");
    const std::string dataKey = data.substr(0, data.find('.'));
    const nlohmann::json& m = spec["model"];
    auto col = [&](const std::string& n) {
      const int c = table.Column(n);
      if (c < 0) ok = false;
      return c;
    };
    static const std::map<std::string, TQConst::DistType> dists = {
        {"normal", TQConst::DistNormal},       {"binomial", TQConst::DistBinomial}, {"gamma", TQConst::DistGamma},
        {"invgauss", TQConst::DistInvGaussian}, {"negbin", TQConst::DistNegBinomial}, {"poisson", TQConst::DistPoisson},
        {"tweedie", TQConst::DistTweedie}};
    static const std::map<std::string, TQConst::LinkType> links = {
        {"cloglog", TQConst::LinkCLogLog}, {"identity", TQConst::LinkIdentity}, {"log", TQConst::LinkLog},
        {"logc", TQConst::LinkLogC},       {"logit", TQConst::LinkLogit},       {"negbin", TQConst::LinkNegBinomial},
        {"loglog", TQConst::LinkNLogLog},  {"oddspower", TQConst::LinkOddsPower}, {"power", TQConst::LinkPower},
        {"probit", TQConst::LinkProbit}};
    settings.SetDistType(dists.at(m["dist"].get<std::string>()));
    settings.SetLinkType(links.at(m["link"].get<std::string>()));
    if (m.contains("link_param") && !m["link_param"].is_null()) settings.SetLinkParam(m["link_param"].get<double>());
    if (m.contains("dist_param") && !m["dist_param"].is_null()) ok &= settings.SetDistParam(m["dist_param"].get<double>());
    if (m.contains("k_method") && m["k_method"] == "mle") settings.SetDistParamType(GZLConst_940::DistParamMLE);
    const std::string scale = m["scale"].get<std::string>();
    settings.SetScaleType(scale == "mle"        ? GZLConst_940::ScaleMLE
                          : scale == "deviance" ? GZLConst_940::ScaleDeviance
                          : scale == "pearson"  ? GZLConst_940::ScalePearson
                                                : GZLConst_940::ScaleFixed);
    if (m.contains("response")) ok &= settings.SetDependent(col(m["response"].get<std::string>()));
    if (m.contains("ref_category")) ok &= settings.SetDependentRefCateg(m["ref_category"].get<int>());
    if (m.contains("events")) {
      if (m["trials"].is_string())
        ok &= settings.SetEventsTrials(col(m["events"].get<std::string>()), col(m["trials"].get<std::string>()));
      else
        ok &= settings.SetEventsConstTrials(col(m["events"].get<std::string>()), m["trials"].get<double>());
    }
    if (m.contains("offset")) ok &= settings.SetOffset(col(m["offset"].get<std::string>()));
    if (m.contains("freq_weight")) ok &= settings.SetFrequencyWeightVar(col(m["freq_weight"].get<std::string>()));
    if (m.contains("scale_weight")) ok &= settings.SetRegrWeightVar(col(m["scale_weight"].get<std::string>()));
    const std::vector<std::string> factors = m.value("factors", std::vector<std::string>{});
    const std::vector<std::string> covariates = m.value("covariates", std::vector<std::string>{});
    for (const std::string& f : factors) {
      const int size = static_cast<int>(levels.at(dataKey).at(f).size());
      ok &= settings.AddFactor(col(f), size);
      varIndices.push_back(col(f));
    }
    for (const std::string& c : covariates) {
      ok &= settings.AddCovariate(col(c));
      varIndices.push_back(col(c));
    }
    const int nf = static_cast<int>(factors.size());
    const int nc = static_cast<int>(covariates.size());
    for (const nlohmann::json& e : m["effects"]) {
      GZLModelEffect effect(nf, nc, &varIndices);
      const auto ef = e["factors"].get<std::vector<std::string>>();
      for (std::size_t i = 0; i < ef.size(); ++i) ok &= effect.AddNewFactor(col(ef[i]), e["nested"].get<bool>() && i > 0);
      for (const std::string& c : e["covariates"].get<std::vector<std::string>>()) ok &= effect.AddCovariate(col(c)) > 0;
      ok &= settings.AddModelEffect(effect);
    }
    settings.SetInterceptUse(m["intercept"].get<bool>());
  }

  GZLMemorySource Source(bool canRewind = true) const { return GZLMemorySource(table.rows, canRewind); }
};

// Records every report it receives.
struct RecordingListener : ProgressListener {
  std::vector<int> records;
  void OnProgress(const ProgressReport& report) override {
    const auto* r = dynamic_cast<const GZLReporter*>(&report);
    records.push_back(r != nullptr ? r->DiscreteMeasure("records") : -999);
  }
};

// Answers true from the n-th question on (1-based); counts the questions.
struct CountingCancel : TQQueryCancel {
  int cancelFrom;
  int asked = 0;
  explicit CountingCancel(int from) : cancelFrom(from) {}
  bool IsCancelled() override { return ++asked >= cancelFrom; }
};

}  // namespace datapass_test
