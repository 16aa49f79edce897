#include "TQPMMLRegrExporter.h"

#include <algorithm>
#include <cstdio>

#include "TQRegSettings.h"
#include "TQStatXMLUtil.h"
#include "TQSymMatrix.h"
#include "TQVarList.h"

namespace {

void AddUnique(std::vector<int>& list, int value) {
  if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
}

// "[name=value]", built by appending (GCC 12 misreads the operator+ chain as overlapping copies).
std::string Bracket(const std::string& name, const std::string& value) {
  std::string out;
  out.reserve(name.size() + value.size() + 3);
  out += '[';
  out += name;
  out += '=';
  out += value;
  out += ']';
  return out;
}

std::string Join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) out += (i > 0 ? separator : "") + parts[i];
  return out;
}

}  // namespace

TQPMMLRegrExporter::TQPMMLRegrExporter(const TQRegSettings& settings, const TQVarList& variables,
                                       const std::vector<TQRegrParameter>& parameters,
                                       const std::vector<double>& estimates, const TQBitSet& inModel)
    : fSettings(settings), fVariables(variables), fParameters(parameters), fEstimates(estimates), fInModel(inModel) {
  for (const TQRegrParameter& p : fParameters) {
    for (int f : p.GetFactors()) AddUnique(fFactors, f);
    for (int c : p.GetCovariates()) AddUnique(fCovariates, c);
  }
}

bool TQPMMLRegrExporter::IsOrdinal() const noexcept { return fSettings.GetModelType() == TQConst::RegModelOrdinal; }

bool TQPMMLRegrExporter::HasTargetCategories(bool binary) const noexcept {
  return fSettings.GetModelType() != TQConst::RegModelOther && !binary;
}

std::string TQPMMLRegrExporter::NameOf(int field) const {
  const GZLPMMLVariable* v = fVariables.GetVariable(field);
  return v != nullptr ? v->GetName() : std::string();
}

std::string TQPMMLRegrExporter::CategoryValue(int field, int category) const {
  const std::string* value = fVariables.GetCategoryValue(field, category);
  return value != nullptr ? *value : TQStatXMLUtil::FormatInt(category);
}

std::string TQPMMLRegrExporter::ParameterName(int parameter) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "P%07d", parameter + 1);
  return buf;
}

std::string TQPMMLRegrExporter::ParameterLabel(int parameter) const {
  const TQRegrParameter& p = fParameters[static_cast<std::size_t>(parameter)];
  const int dependent = fSettings.GetDependent();
  const bool categorised = HasTargetCategories(false) && p.GetTargetCategory() >= 0;
  const std::string target =
      categorised ? Bracket(NameOf(dependent), CategoryValue(dependent, p.GetTargetCategory())) : "";
  if (p.IsIntercept()) {
    if (IsOrdinal() && categorised) return "Threshold " + target;
    return categorised ? target + ": (Intercept)" : "(Intercept)";
  }
  std::vector<std::string> parts;
  for (int i = 0; i < p.GetNFactors(); ++i) {
    const int field = p.GetFactors()[static_cast<std::size_t>(i)];
    parts.push_back(Bracket(NameOf(field), CategoryValue(field, p.GetCategories()[static_cast<std::size_t>(i)])));
  }
  for (int i = 0; i < p.GetNCovariates(); ++i) {
    const int power = p.GetCovariateMultiplicities()[static_cast<std::size_t>(i)];
    const std::string name = NameOf(p.GetCovariates()[static_cast<std::size_t>(i)]);
    parts.push_back(power > 1 ? name + "**" + std::to_string(power) : name);
  }
  const std::string term = Join(parts, "*");
  return categorised ? target + ": " + term : term;
}

std::string TQPMMLRegrExporter::TargetOf(int parameter, bool binary, int referenceCategory) const {
  const int dependent = fSettings.GetDependent();
  if (binary) return CategoryValue(dependent, referenceCategory == 0 ? 1 : 0);
  const int target = fParameters[static_cast<std::size_t>(parameter)].GetTargetCategory();
  if (!HasTargetCategories(binary) || target < 0) return {};
  return CategoryValue(dependent, target);
}

double TQPMMLRegrExporter::SignOf(int parameter) const noexcept {
  if (!IsOrdinal()) return 1.0;
  const TQRegrParameter& p = fParameters[static_cast<std::size_t>(parameter)];
  return p.IsIntercept() && p.GetTargetCategory() >= 0 ? 1.0 : -1.0;
}

pugi::xml_node TQPMMLRegrExporter::ExportMiningSchema(pugi::xml_node model, int offsetVariable,
                                                      int trialsVariable) const {
  pugi::xml_node schema = model.append_child("MiningSchema");
  std::vector<int> written;
  auto add = [&](int field, const char* usage) {
    const GZLPMMLVariable* v = fVariables.GetVariable(field);
    if (v == nullptr || std::find(written.begin(), written.end(), field) != written.end()) return;
    written.push_back(field);
    pugi::xml_node m = schema.append_child("MiningField");
    m.append_attribute("name").set_value(v->GetName().c_str());
    m.append_attribute("usageType").set_value(usage);
  };
  add(fSettings.GetDependent(), "predicted");
  for (int f : fFactors) add(f, "active");
  for (int c : fCovariates) add(c, "active");
  if (offsetVariable >= 0) add(offsetVariable, "active");
  if (trialsVariable >= 0) add(trialsVariable, "active");
  return schema;
}

pugi::xml_node TQPMMLRegrExporter::ExportParameterList(pugi::xml_node model) const {
  pugi::xml_node list = model.append_child("ParameterList");
  for (int j = 0; j < static_cast<int>(fParameters.size()); ++j) {
    pugi::xml_node p = list.append_child("Parameter");
    p.append_attribute("name").set_value(ParameterName(j).c_str());
    p.append_attribute("label").set_value(ParameterLabel(j).c_str());
  }
  return list;
}

pugi::xml_node TQPMMLRegrExporter::PredictorList(pugi::xml_node model, const char* element,
                                                 const std::vector<int>& fields) const {
  if (fields.empty()) return {};
  pugi::xml_node list = model.append_child(element);
  for (int f : fields) list.append_child("Predictor").append_attribute("name").set_value(NameOf(f).c_str());
  return list;
}

pugi::xml_node TQPMMLRegrExporter::ExportFactorList(pugi::xml_node model) const {
  return PredictorList(model, "FactorList", fFactors);
}

pugi::xml_node TQPMMLRegrExporter::ExportCovariateList(pugi::xml_node model) const {
  return PredictorList(model, "CovariateList", fCovariates);
}

pugi::xml_node TQPMMLRegrExporter::ExportPPMatrix(pugi::xml_node model) const {
  pugi::xml_node matrix = model.append_child("PPMatrix");
  auto cell = [&matrix](const std::string& value, const std::string& predictor, const std::string& parameter) {
    pugi::xml_node c = matrix.append_child("PPCell");
    c.append_attribute("value").set_value(value.c_str());
    c.append_attribute("predictorName").set_value(predictor.c_str());
    c.append_attribute("parameterName").set_value(parameter.c_str());
  };
  for (int j = 0; j < static_cast<int>(fParameters.size()); ++j) {
    const TQRegrParameter& p = fParameters[static_cast<std::size_t>(j)];
    const std::string name = ParameterName(j);
    for (int i = 0; i < p.GetNFactors(); ++i) {
      const int field = p.GetFactors()[static_cast<std::size_t>(i)];
      cell(CategoryValue(field, p.GetCategories()[static_cast<std::size_t>(i)]), NameOf(field), name);
    }
    for (int i = 0; i < p.GetNCovariates(); ++i)
      cell(TQStatXMLUtil::FormatInt(p.GetCovariateMultiplicities()[static_cast<std::size_t>(i)]),
           NameOf(p.GetCovariates()[static_cast<std::size_t>(i)]), name);
  }
  return matrix;
}

pugi::xml_node TQPMMLRegrExporter::ExportPCovMatrix(pugi::xml_node model, const TQSymMatrix& covariance,
                                                    TQConst::TQCovbType type, bool binary,
                                                    int referenceCategory) const {
  const int n = std::min(static_cast<int>(fParameters.size()), covariance.GetNumRows());
  std::vector<int> in;
  for (int j = 0; j < n; ++j)
    if (fInModel.Test(j)) in.push_back(j);
  if (in.empty()) return {};
  pugi::xml_node matrix = model.append_child("PCovMatrix");
  matrix.append_attribute("type").set_value(type == TQConst::CovbRobust ? "robust" : "model");
  for (std::size_t a = 0; a < in.size(); ++a) {
    const int row = in[a];
    const std::string tRow = TargetOf(row, binary, referenceCategory);
    for (std::size_t b = 0; b <= a; ++b) {
      const int col = in[b];
      const std::string tCol = TargetOf(col, binary, referenceCategory);
      pugi::xml_node c = matrix.append_child("PCovCell");
      c.append_attribute("pRow").set_value(ParameterName(row).c_str());
      c.append_attribute("pCol").set_value(ParameterName(col).c_str());
      if (!tRow.empty()) c.append_attribute("tRow").set_value(tRow.c_str());
      if (!tCol.empty()) c.append_attribute("tCol").set_value(tCol.c_str());
      TQStatXMLUtil::SetDouble(c, "value", SignOf(row) * SignOf(col) * covariance(row, col));
    }
  }
  return matrix;
}

pugi::xml_node TQPMMLRegrExporter::ExportParamMatrix(pugi::xml_node model, bool binary, int referenceCategory) const {
  pugi::xml_node matrix = model.append_child("ParamMatrix");
  for (int j = 0; j < static_cast<int>(fParameters.size()); ++j) {
    const bool in = fInModel.Test(j);
    const double estimate = static_cast<std::size_t>(j) < fEstimates.size() ? fEstimates[static_cast<std::size_t>(j)] : 0.0;
    pugi::xml_node c = matrix.append_child("PCell");
    const std::string target = TargetOf(j, binary, referenceCategory);
    if (!target.empty()) c.append_attribute("targetCategory").set_value(target.c_str());
    c.append_attribute("parameterName").set_value(ParameterName(j).c_str());
    // An aliased parameter is 0 whatever the estimate vector holds (and never -0).
    TQStatXMLUtil::SetDouble(c, "beta", in ? SignOf(j) * estimate : 0.0);
    TQStatXMLUtil::SetInt(c, "df", in ? 1 : 0);
  }
  return matrix;
}
