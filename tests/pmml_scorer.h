#pragma once
// Test helper: scores records from a PMML 4.3 GeneralRegressionModel document alone, by the
// standard's semantics (generalizedLinear regression and binary classification,
// multinomialLogistic, ordinalMultinomial), independently of the engine. Also runs the schema
// validation of written documents with xmllint.
#include <cmath>
#include <cstdio>
#include <map>
#include <numbers>
#include <stdexcept>
#include <string>
#include <vector>

#include <pugixml.hpp>

namespace pmml_test {

// Runs xmllint on the files against the schema; returns its output, and sets ok when every file
// validates. A missing xmllint fails (exit status 127 of the shell).
inline std::string ValidateWithXmllint(const std::vector<std::string>& files, bool& ok) {
  std::string command = "xmllint --noout --schema '" + std::string(GZL_TEST_DATA_DIR) + "/pmml/pmml-4-3.xsd'";
  for (const std::string& f : files) command += " '" + f + "'";
  command += " 2>&1";
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ok = false;
    return "cannot run xmllint";
  }
  char buf[512];
  while (std::fgets(buf, sizeof buf, pipe) != nullptr) output += buf;
  ok = pclose(pipe) == 0;
  return output;
}

// A record for the scorer: field name -> value as the data spell it.
using Record = std::map<std::string, std::string>;

class Scorer {
 public:
  explicit Scorer(const std::string& text) {
    if (!fDoc.load_string(text.c_str())) throw std::runtime_error("document does not parse");
    const pugi::xml_node pmml = fDoc.child("PMML");
    for (pugi::xml_node f : pmml.child("DataDictionary").children("DataField")) {
      Field& field = fFields[f.attribute("name").value()];
      const std::string type = f.attribute("dataType").value();
      field.numeric = type == "double" || type == "float" || type == "integer";
      for (pugi::xml_node v : f.children("Value"))
        if (std::string(v.attribute("property").as_string("valid")) == "valid") field.values.push_back(v.attribute("value").value());
    }
    fModel = pmml.child("GeneralRegressionModel");
    for (pugi::xml_node m : fModel.child("MiningSchema").children("MiningField")) {
      const std::string usage = m.attribute("usageType").value();
      if (usage == "predicted" || usage == "target") fTarget = m.attribute("name").value();
    }
    for (pugi::xml_node p : fModel.child("ParameterList").children("Parameter")) fParameters.push_back(p.attribute("name").value());
    for (pugi::xml_node p : fModel.child("FactorList").children("Predictor")) fFactors[p.attribute("name").value()] = true;
    for (pugi::xml_node c : fModel.child("PPMatrix").children("PPCell"))
      fCells[c.attribute("parameterName").value()].push_back({c.attribute("predictorName").value(), c.attribute("value").value()});
    for (pugi::xml_node c : fModel.child("ParamMatrix").children("PCell"))
      fBeta[{c.attribute("parameterName").value(), c.attribute("targetCategory").as_string("")}] = Number(c.attribute("beta").value());
  }

  std::string Attribute(const char* name) const { return fModel.attribute(name).value(); }
  const std::vector<std::string>& Categories() const { return fFields.at(fTarget).values; }

  // generalizedLinear regression: the predicted value (mu, times the trials when given).
  double Predict(const Record& r) const {
    const double mu = Mean(r);
    double trials = 1.0;
    if (!Attribute("trialsVariable").empty()) trials = Number(r.at(Attribute("trialsVariable")));
    if (!Attribute("trialsValue").empty()) trials = Number(Attribute("trialsValue"));
    return mu * trials;
  }

  // classification: the probability of every category of the target, in the DataField's order.
  std::vector<double> Probabilities(const Record& r) const {
    const std::vector<std::string>& cats = Categories();
    std::vector<double> p(cats.size(), 0.0);
    const std::string type = Attribute("modelType");
    if (type == "ordinalMultinomial") {
      double previous = 0.0;
      for (std::size_t c = 0; c + 1 < cats.size(); ++c) {
        const double cumulative = CumulativeCdf(Attribute("cumulativeLink"), Sum(r, cats[c]) + Sum(r, "") + Offset(r));
        p[c] = cumulative - previous;
        previous = cumulative;
      }
      p.back() = 1.0 - previous;
      return p;
    }
    if (type == "multinomialLogistic") {
      double sum = 0.0;
      for (std::size_t c = 0; c < cats.size(); ++c) {
        p[c] = cats[c] == Attribute("targetReferenceCategory") ? 1.0 : std::exp(Sum(r, cats[c]));
        sum += p[c];
      }
      for (double& v : p) v /= sum;
      return p;
    }
    throw std::runtime_error("not a classification model");
  }

 private:
  struct Field {
    bool numeric = false;
    std::vector<std::string> values;
  };
  struct Cell {
    std::string predictor;
    std::string value;
  };

  static double Number(const std::string& s) {
    if (s == "INF") return INFINITY;
    if (s == "-INF") return -INFINITY;
    if (s == "NaN") return NAN;
    return std::stod(s);
  }

  bool Same(const std::string& field, const std::string& a, const std::string& b) const {
    const auto f = fFields.find(field);
    if (f != fFields.end() && f->second.numeric) return Number(a) == Number(b);
    return a == b;
  }

  double Column(const std::string& parameter, const Record& r) const {
    double x = 1.0;
    const auto cells = fCells.find(parameter);
    if (cells == fCells.end()) return x;
    for (const Cell& c : cells->second) {
      const std::string& value = r.at(c.predictor);
      if (fFactors.count(c.predictor) != 0)
        x *= Same(c.predictor, value, c.value) ? 1.0 : 0.0;
      else
        x *= std::pow(Number(value), Number(c.value));
    }
    return x;
  }

  // Sum of beta x over the PCells whose targetCategory is `category` ("" for cells without one).
  double Sum(const Record& r, const std::string& category) const {
    double eta = 0.0;
    for (const std::string& p : fParameters) {
      const auto b = fBeta.find({p, category});
      if (b != fBeta.end()) eta += b->second * Column(p, r);
    }
    return eta;
  }

  double Offset(const Record& r) const {
    if (!Attribute("offsetVariable").empty()) return Number(r.at(Attribute("offsetVariable")));
    if (!Attribute("offsetValue").empty()) return Number(Attribute("offsetValue"));
    return 0.0;
  }

  double Mean(const Record& r) const {
    const double eta = Sum(r, "") + Offset(r);
    const std::string link = Attribute("linkFunction");
    const double c = Number(fModel.attribute("linkParameter").as_string("0"));
    if (link == "identity") return eta;
    if (link == "log") return std::exp(eta);
    if (link == "logit") return 1.0 / (1.0 + std::exp(-eta));
    if (link == "probit") return 0.5 * std::erfc(-eta / std::sqrt(2.0));
    if (link == "cloglog") return 1.0 - std::exp(-std::exp(eta));
    if (link == "loglog") return std::exp(-std::exp(-eta));
    if (link == "logc") return 1.0 - std::exp(eta);
    if (link == "negbin") return 1.0 / (Number(Attribute("distParameter")) * (std::exp(-eta) - 1.0));
    if (link == "power") return c == 0.0 ? std::exp(eta) : std::pow(eta, 1.0 / c);
    if (link == "oddspower")
      return c == 0.0 ? 1.0 / (1.0 + std::exp(-eta)) : 1.0 / (1.0 + std::pow(1.0 + c * eta, -1.0 / c));
    throw std::runtime_error("unknown link " + link);
  }

  static double CumulativeCdf(const std::string& link, double x) {
    if (link == "logit") return 1.0 / (1.0 + std::exp(-x));
    if (link == "probit") return 0.5 * std::erfc(-x / std::sqrt(2.0));
    if (link == "cloglog") return 1.0 - std::exp(-std::exp(x));
    if (link == "loglog") return std::exp(-std::exp(-x));
    if (link == "cauchit") return 0.5 + std::atan(x) / std::numbers::pi;
    throw std::runtime_error("unknown cumulative link " + link);
  }

  pugi::xml_document fDoc;
  pugi::xml_node fModel;
  std::string fTarget;
  std::map<std::string, Field> fFields;
  std::vector<std::string> fParameters;
  std::map<std::string, bool> fFactors;
  std::map<std::string, std::vector<Cell>> fCells;
  std::map<std::pair<std::string, std::string>, double> fBeta;
};

}  // namespace pmml_test
