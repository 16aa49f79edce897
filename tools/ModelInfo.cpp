#include "tools/ModelInfo.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "tools/GeeModel.h"
#include "tools/TextTable.h"

namespace {

constexpr std::size_t kMaxLabelsShown = 10;

std::size_t MissingCount(const CsvTable& table, int column) {
  return column < 0 ? 0 : static_cast<std::size_t>(table.Column(static_cast<std::size_t>(column)).missing);
}

std::string LabelList(const CsvColumn& column) {
  std::string out;
  for (std::size_t i = 0; i < column.labels.size() && i < kMaxLabelsShown; ++i) {
    if (i) out += ", ";
    out += column.labels[i];
  }
  if (column.labels.size() > kMaxLabelsShown) out += ", ...";
  return out;
}

const char* ResponseFormName(ResponseForm form) {
  switch (form) {
    case ResponseForm::EventsTrials:
      return "events/trials";
    case ResponseForm::EventsConstTrials:
      return "events/constant trials";
    default:
      return "single";
  }
}

std::string DistributionText(const FitOptions& o) {
  std::string text = FitOptionLabel(DistributionNames(), o.distribution);
  if (o.distribution == TQConst::DistNegBinomial) {
    text += o.estimateK ? ", k estimated" : ", k fixed";
    if (o.distParam) text += std::string(o.estimateK ? " (start " : " at ") + FormatNumber(*o.distParam, 10) + (o.estimateK ? ")" : "");
  } else if (o.distribution == TQConst::DistTweedie && o.distParam) {
    text += ", power " + FormatNumber(*o.distParam, 10);
  }
  return text;
}

std::string LinkText(const FitOptions& o) {
  std::string text = FitOptionLabel(LinkNames(), EffectiveLink(o));
  if (o.linkParam) text += " (" + FormatNumber(*o.linkParam, 10) + ")";
  if (!o.link) text += " (default)";
  return text;
}

std::string ScaleText(const FitOptions& o) {
  const GZLConst_940::ScaleMethod method = EffectiveScaleMethod(o);
  std::string text = FitOptionLabel(ScaleMethodNames(), method);
  if (method == GZLConst_940::ScaleFixed) text += " at " + FormatNumber(o.scaleValue ? *o.scaleValue : 1.0, 10);
  return text;
}

// A control the user set; unset ones keep the engine's defaults.
struct ChangedControl {
  std::string name;
  std::string text;
  std::optional<double> number;  // for JSON: numeric controls are written as numbers
};

std::vector<ChangedControl> ChangedControls(const FitOptions& o) {
  std::vector<ChangedControl> out;
  auto number = [&out](const char* name, const std::optional<double>& v) {
    if (v) out.push_back({name, FormatNumber(*v, 10), *v});
  };
  auto integer = [&out](const char* name, const std::optional<int>& v) {
    if (v) out.push_back({name, std::to_string(*v), static_cast<double>(*v)});
  };
  auto choice = [&out](const char* name, std::span<const FitOptionName> names, const auto& v) {
    if (v) out.push_back({name, FitOptionLabel(names, *v), std::nullopt});
  };
  choice("hessian", HessianMethodNames(), o.hessianMethod);
  integer("fisher_iterations", o.fisherIterations);
  integer("max_iterations", o.maxIterations);
  integer("max_step_halving", o.maxStepHalving);
  integer("separation_iteration", o.separationIteration);
  number("ll_tolerance", o.llTolerance);
  choice("ll_convergence", ConvergenceTypeNames(), o.llConvType);
  number("param_tolerance", o.paramTolerance);
  choice("param_convergence", ConvergenceTypeNames(), o.paramConvType);
  number("hessian_tolerance", o.hessianTolerance);
  choice("hessian_convergence", ConvergenceTypeNames(), o.hessianConvType);
  number("singularity_tolerance", o.singularityTolerance);
  number("confidence_level", o.confidenceLevel);
  choice("loglik", LogLikelihoodTypeNames(), o.llType);
  return out;
}

// The role of every numeric column other than the covariates, for the variables table.
std::vector<std::pair<std::string, std::string>> NumericRoles(const FitOptions& o) {
  std::vector<std::pair<std::string, std::string>> roles;
  if (!ResponseIsCategorical(o)) roles.emplace_back(o.response, o.responseForm == ResponseForm::Single ? "response" : "events");
  if (o.responseForm == ResponseForm::EventsTrials) roles.emplace_back(o.trialsVariable, "trials");
  for (const auto& c : o.covariates) roles.emplace_back(c, "covariate");
  if (!o.offsetVariable.empty()) roles.emplace_back(o.offsetVariable, "offset");
  if (!o.frequencyWeight.empty()) roles.emplace_back(o.frequencyWeight, "frequency weight");
  if (!o.scaleWeight.empty()) roles.emplace_back(o.scaleWeight, "scale weight");
  return roles;
}

}  // namespace

void WriteModelInfoText(std::ostream& out, const FitOptions& o, const CsvTable& table,
                        const std::vector<ModelTerm>& terms) {
  TextTable info("Model information", {"Item", "Value"});
  info.AddRow({"Data", o.dataPath + " (" + std::to_string(table.NumRows()) + " records)"});
  std::string response = o.response;
  if (o.responseForm == ResponseForm::EventsTrials) response += " / " + o.trialsVariable;
  if (o.responseForm == ResponseForm::EventsConstTrials) response += " / " + FormatNumber(o.trialsValue, 10);
  info.AddRow({"Response", response + " (" + ResponseFormName(o.responseForm) + ")"});
  if (!o.referenceCategory.empty()) info.AddRow({"Reference category", o.referenceCategory});
  info.AddRow({"Distribution", DistributionText(o)});
  info.AddRow({"Link", LinkText(o)});
  info.AddRow({"Scale", ScaleText(o)});
  const bool ordinal = o.distribution == TQConst::DistOrdinalMultinomial;
  // The thresholds of an ordinal model take the intercept's place, asked for or not.
  info.AddRow({"Intercept", ordinal ? "thresholds" : (o.intercept ? "yes" : "no")});
  if (!o.offsetVariable.empty()) info.AddRow({"Offset", o.offsetVariable});
  if (o.offsetValue) info.AddRow({"Offset", FormatNumber(*o.offsetValue, 10)});
  if (!o.frequencyWeight.empty()) info.AddRow({"Frequency weight", o.frequencyWeight});
  if (!o.scaleWeight.empty()) info.AddRow({"Scale weight", o.scaleWeight});
  for (const auto& [item, value] : GeeModelRows(o)) info.AddRow({item, value});
  info.Write(out);

  TextTable categorical("\nCategorical variables", {"Variable", "Role", "Levels", "Missing", "Categories"},
                        {TextTable::Align::Left, TextTable::Align::Left, TextTable::Align::Right,
                         TextTable::Align::Right, TextTable::Align::Left});
  TextTable numeric("\nNumeric variables", {"Variable", "Role", "Missing"},
                    {TextTable::Align::Left, TextTable::Align::Left, TextTable::Align::Right});
  if (ResponseIsCategorical(o)) {
    const int c = table.ColumnIndex(o.response);
    if (c >= 0) {
      categorical.AddRow({o.response, "response", std::to_string(table.Column(c).labels.size()),
                          std::to_string(MissingCount(table, c)), LabelList(table.Column(c))});
    }
  }
  for (const auto& name : o.factors) {
    const int c = table.ColumnIndex(name);
    if (c < 0) continue;
    categorical.AddRow({name, "factor", std::to_string(table.Column(c).labels.size()),
                        std::to_string(MissingCount(table, c)), LabelList(table.Column(c))});
  }
  for (const auto& [name, role] : NumericRoles(o)) {
    numeric.AddRow({name, role, std::to_string(MissingCount(table, table.ColumnIndex(name)))});
  }
  if (!categorical.Empty()) categorical.Write(out);
  if (!numeric.Empty()) numeric.Write(out);

  TextTable effects("\nEffects", {"#", "Effect"}, {TextTable::Align::Right, TextTable::Align::Left});
  std::size_t k = 0;
  if (ordinal)
    effects.AddRow({std::to_string(k++), "(Thresholds)"});
  else if (o.intercept)
    effects.AddRow({std::to_string(k++), "(Intercept)"});
  for (const auto& term : terms) effects.AddRow({std::to_string(k++), term.Text()});
  if (!effects.Empty()) effects.Write(out);

  const auto controls = ChangedControls(o);
  if (!controls.empty()) {
    TextTable changed("\nControls (others at their defaults)", {"Control", "Value"});
    for (const auto& control : controls) changed.AddRow({control.name, control.text});
    changed.Write(out);
  }
}

void WriteModelInfoJson(JsonWriter& json, const FitOptions& o, const CsvTable& table,
                        const std::vector<ModelTerm>& terms) {
  auto categories = [&](const std::string& name) {
    const int c = table.ColumnIndex(name);
    json.BeginObject();
    json.Member("name", name);
    json.Key("categories");
    json.BeginArray();
    if (c >= 0) {
      for (const auto& label : table.Column(c).labels) json.String(label);
    }
    json.EndArray();
    json.Member("missing", MissingCount(table, c));
    json.EndObject();
  };

  json.BeginObject();
  json.Key("data");
  json.BeginObject();
  json.Member("file", o.dataPath);
  json.Member("records", table.NumRows());
  json.EndObject();

  json.Key("response");
  json.BeginObject();
  json.Member("form", ResponseFormName(o.responseForm));
  json.Member(o.responseForm == ResponseForm::Single ? "variable" : "events", o.response);
  if (o.responseForm == ResponseForm::EventsTrials) json.Member("trials", o.trialsVariable);
  if (o.responseForm == ResponseForm::EventsConstTrials) json.Member("trials", o.trialsValue);
  if (ResponseIsCategorical(o)) {
    json.Key("categories");
    json.BeginArray();
    const int c = table.ColumnIndex(o.response);
    if (c >= 0) {
      for (const auto& label : table.Column(c).labels) json.String(label);
    }
    json.EndArray();
  }
  if (!o.referenceCategory.empty()) json.Member("reference_category", o.referenceCategory);
  json.Member("missing", MissingCount(table, table.ColumnIndex(o.response)));
  json.EndObject();

  json.Key("distribution");
  json.BeginObject();
  json.Member("name", FitOptionLabel(DistributionNames(), o.distribution));
  json.Key("parameter");
  o.distParam ? json.Number(*o.distParam) : json.Null();
  if (o.distribution == TQConst::DistNegBinomial) json.Member("estimate_k", o.estimateK);
  json.EndObject();

  json.Key("link");
  json.BeginObject();
  json.Member("name", FitOptionLabel(LinkNames(), EffectiveLink(o)));
  json.Key("parameter");
  o.linkParam ? json.Number(*o.linkParam) : json.Null();
  json.EndObject();

  json.Key("scale");
  json.BeginObject();
  const GZLConst_940::ScaleMethod method = EffectiveScaleMethod(o);
  json.Member("method", FitOptionLabel(ScaleMethodNames(), method));
  if (method == GZLConst_940::ScaleFixed) json.Member("value", o.scaleValue ? *o.scaleValue : 1.0);
  json.EndObject();

  json.Member("intercept", o.intercept);
  json.Key("factors");
  json.BeginArray();
  for (const auto& name : o.factors) categories(name);
  json.EndArray();
  json.Key("covariates");
  json.BeginArray();
  for (const auto& name : o.covariates) json.String(name);
  json.EndArray();
  json.Key("effects");
  json.BeginArray();
  for (const auto& term : terms) json.String(term.Text());
  json.EndArray();

  json.Key("offset");
  if (!o.offsetVariable.empty()) {
    json.String(o.offsetVariable);
  } else if (o.offsetValue) {
    json.Number(*o.offsetValue);
  } else {
    json.Null();
  }
  json.Key("frequency_weight");
  o.frequencyWeight.empty() ? json.Null() : json.String(o.frequencyWeight);
  json.Key("scale_weight");
  o.scaleWeight.empty() ? json.Null() : json.String(o.scaleWeight);
  WriteGeeModelJson(json, o);

  json.Key("controls");
  json.BeginObject();
  for (const auto& control : ChangedControls(o)) {
    json.Key(control.name);
    control.number ? json.Number(*control.number) : json.String(control.text);
  }
  json.EndObject();
  json.EndObject();
}
