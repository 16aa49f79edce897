#include "tools/GeeModel.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "GZLOutputStats.h"
#include "support/TQMV.h"
#include "support/TQSymMatrix.h"
#include "tools/TextTable.h"

namespace {

bool Fail(std::string& error, std::string message) {
  error = std::move(message);
  return false;
}

bool Contains(const std::vector<std::string>& list, const std::string& name) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

const char* StructureName(GZLConst_940::CorrType type) {
  switch (type) {
    case GZLConst_940::AR1:
      return "ar1";
    case GZLConst_940::Exchangeable:
      return "exchangeable";
    case GZLConst_940::FixedCorr:
      return "fixed";
    case GZLConst_940::MDependent:
      return "mdep";
    case GZLConst_940::Unstructured:
      return "unstructured";
    default:
      return "independent";
  }
}

double RootOfDiagonal(const TQSymMatrix& m, int j) {
  if (j >= m.GetNumRows()) return TQMV::Missing;
  const double v = m(j, j);
  return TQMV::IsMissing(v) || !(v >= 0.0) ? TQMV::Missing : std::sqrt(v);
}

}  // namespace

std::string GroupingColumn(const FitOptions& o, const std::string& name) {
  // A predictor keeps its own column and role in the model; the grouping reads a copy. The unit
  // separator cannot start a name that anyone types on a command line.
  return Contains(o.covariates, name) || Contains(o.factors, name) ? "\x1f" + name : name;
}

namespace {

std::string JoinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) out += (out.empty() ? "" : ", ") + n;
  return out;
}

std::string StructureText(const FitOptions& o) {
  const GZLConst_940::CorrType type = o.corrType.value_or(GZLConst_940::Independent);
  std::string text = StructureName(type);
  if (type == GZLConst_940::MDependent) text += " (m = " + FormatNumber(o.corrM) + ")";
  if (type == GZLConst_940::FixedCorr) text += " (values from " + o.corrFile + ")";
  return text;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> GeeModelRows(const FitOptions& o) {
  if (!IsGeeFit(o)) return {};
  std::vector<std::pair<std::string, std::string>> rows{
      {"Subjects", JoinNames(o.subjects) + (o.sortSubjects ? " (records sorted by subject)" : "")}};
  if (!o.within.empty()) rows.emplace_back("Within-subject", JoinNames(o.within));
  rows.emplace_back("Working correlation", StructureText(o));
  rows.emplace_back("Covariance", o.covariance.value_or(TQConst::CovbRobust) == TQConst::CovbRobust ? "robust"
                                                                                                     : "model-based");
  return rows;
}

void WriteGeeModelJson(JsonWriter& json, const FitOptions& o) {
  json.Key("gee");
  if (!IsGeeFit(o)) {
    json.Null();
    return;
  }
  json.BeginObject();
  for (const auto* list : {&o.subjects, &o.within}) {
    json.Key(list == &o.subjects ? "subjects" : "within");
    json.BeginArray();
    for (const auto& name : *list) json.String(name);
    json.EndArray();
  }
  json.Member("sorted", o.sortSubjects);
  const GZLConst_940::CorrType type = o.corrType.value_or(GZLConst_940::Independent);
  json.Member("corr_type", StructureName(type));
  if (type == GZLConst_940::MDependent) json.Member("corr_m", o.corrM);
  if (type == GZLConst_940::FixedCorr) json.Member("corr_file", o.corrFile);
  json.Member("covb", o.covariance.value_or(TQConst::CovbRobust) == TQConst::CovbRobust ? "robust" : "model");
  json.EndObject();
}

bool ParseCorrelation(const std::string& text, FitOptions& o, std::string& error) {
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  const std::string argument = colon == std::string::npos ? "" : text.substr(colon + 1);
  struct Plain {
    const char* name;
    GZLConst_940::CorrType type;
  };
  static constexpr Plain kPlain[] = {{"independent", GZLConst_940::Independent},
                                     {"exchangeable", GZLConst_940::Exchangeable},
                                     {"ar1", GZLConst_940::AR1},
                                     {"unstructured", GZLConst_940::Unstructured}};
  for (const Plain& p : kPlain) {
    if (name != p.name) continue;
    if (colon != std::string::npos) return Fail(error, "--corr: " + name + " takes no value after ':'");
    o.corrType = p.type;
    return true;
  }
  if (name == "mdep") {
    double m = 0.0;
    if (!ParseCsvNumber(argument, m) || !(m >= 1.0))
      return Fail(error, "--corr: mdep needs its m, a number of 1 or more (mdep:M)");
    o.corrType = GZLConst_940::MDependent;
    o.corrM = m;
    return true;
  }
  if (name == "fixed") {
    if (argument.empty()) return Fail(error, "--corr: fixed needs the file of its values (fixed:FILE)");
    o.corrType = GZLConst_940::FixedCorr;
    o.corrFile = argument;
    return true;
  }
  return Fail(error, "--corr: '" + text +
                         "' is not one of independent, exchangeable, ar1, mdep:M, unstructured, fixed:FILE");
}

bool CheckGeeOptions(const FitOptions& o, std::string& error) {
  if (!IsGeeFit(o)) {
    const bool geeOnly = !o.within.empty() || o.sortSubjects || o.corrType || o.adjustCorr || o.updateCorr ||
                         o.covariance || o.geeMaxIterations || o.geeParamTolerance || o.geeParamConvType ||
                         o.geeHessianTolerance;
    if (geeOnly) return Fail(error, "the GEE options need subject variables (--subject)");
    return true;
  }
  // What rests on a likelihood, which a GEE fit does not have.
  if (o.ciType == GZLConst_940::Profile)
    return Fail(error, "--ci profile: GEE models have no likelihood (use the Wald intervals)");
  if (o.overdispersionTest) return Fail(error, "--overdispersion-test does not apply to GEE models");
  // The engine writes no document of a GEE model: an empty file would pass for one.
  if (!o.pmmlPath.empty()) return Fail(error, "--pmml: no PMML document is written for GEE models");
  if (o.distribution == TQConst::DistNominalMultinomial) {
    return Fail(error, "GEE models cannot have a nominal response");
  }
  if (o.updateCorr && *o.updateCorr < 0) return Fail(error, "--corr-update must be 0 or more");
  if (o.geeMaxIterations && *o.geeMaxIterations < 0) return Fail(error, "--gee-max-iterations must be 0 or more");
  if (o.geeParamTolerance && !(*o.geeParamTolerance >= 0.0)) return Fail(error, "--gee-param-tolerance must be 0 or more");
  if (o.geeHessianTolerance && !(*o.geeHessianTolerance >= 0.0))
    return Fail(error, "--gee-hessian-tolerance must be 0 or more");
  // A grouping variable keys the records by category: it cannot also be the response, the
  // trials, the offset or a weight.
  const std::vector<std::pair<std::string, const char*>> others = {
      {o.response, "the response"},          {o.trialsVariable, "the trials"},
      {o.offsetVariable, "the offset"},      {o.frequencyWeight, "the frequency weight"},
      {o.scaleWeight, "the scale weight"}};
  for (const auto* list : {&o.subjects, &o.within}) {
    const char* role = list == &o.subjects ? "a subject variable" : "a within-subject variable";
    for (const std::string& name : *list) {
      for (const auto& [other, otherRole] : others) {
        if (name == other) return Fail(error, "'" + name + "' cannot be both " + role + " and " + otherRole);
      }
      if (list == &o.within && Contains(o.subjects, name))
        return Fail(error, "'" + name + "' cannot be both a subject variable and a within-subject variable");
    }
  }
  if (o.corrType == GZLConst_940::FixedCorr && o.corrFile.empty())
    return Fail(error, "--corr: fixed needs the file of its values (fixed:FILE)");
  return true;
}

bool ReadFixedCorrelation(const std::string& path, std::vector<double>& lower, std::string& error) {
  lower.clear();
  std::ifstream in(path);
  if (!in) return Fail(error, "--corr: cannot open '" + path + "'");
  std::vector<double> values;
  std::string line;
  while (std::getline(in, line)) {
    std::replace_if(line.begin(), line.end(), [](char c) { return c == ',' || c == ';' || c == '\t' || c == '\r'; },
                    ' ');
    std::istringstream words(line);
    std::string word;
    while (words >> word) {
      double v = 0.0;
      if (!ParseCsvNumber(word, v)) return Fail(error, "--corr: '" + word + "' in '" + path + "' is not a number");
      values.push_back(v);
    }
  }
  if (values.empty()) return Fail(error, "--corr: '" + path + "' holds no values");
  // A whole matrix: square, symmetric, ones on the diagonal. Anything else is the lower triangle.
  const auto d = static_cast<std::size_t>(std::llround(std::sqrt(static_cast<double>(values.size()))));
  bool whole = d > 1 && d * d == values.size();
  for (std::size_t i = 0; whole && i < d; ++i) {
    whole = values[i * d + i] == 1.0;
    for (std::size_t j = 0; whole && j < i; ++j) whole = values[i * d + j] == values[j * d + i];
  }
  if (whole) {
    for (std::size_t i = 1; i < d; ++i)
      for (std::size_t j = 0; j < i; ++j) lower.push_back(values[i * d + j]);
  } else {
    lower = std::move(values);
  }
  return true;
}

bool SetGeeSettings(const FitOptions& o, const CsvTable& table, GZLSettings& s, std::string& error) {
  if (!IsGeeFit(o)) return true;
  s.SetGZLModelType(GZLConst_940::GEE);
  // The omnibus test compares likelihoods, which a GEE fit does not have.
  s.SetModelFittingTest(false);
  for (const auto* list : {&o.subjects, &o.within}) {
    for (const std::string& name : *list) {
      const int field = table.ColumnIndex(GroupingColumn(o, name));
      if (field < 0) return Fail(error, "column '" + name + "' was not read from the data");
      const int levels = static_cast<int>(table.Column(field).labels.size());
      if (levels == 0) return Fail(error, "'" + name + "' has no values (every cell is empty or NA)");
      const bool added = list == &o.subjects ? s.AddGEESubjectVar(field, levels) : s.AddGEEWSVar(field, levels);
      if (!added) return Fail(error, "'" + name + "' cannot be a subject or within-subject variable");
    }
  }
  s.SetGEECorrType(o.corrType.value_or(GZLConst_940::Independent));
  if (o.corrType == GZLConst_940::MDependent) s.SetGEEMDependentPar(o.corrM);
  if (o.corrType == GZLConst_940::FixedCorr) {
    std::vector<double> values;
    if (!ReadFixedCorrelation(o.corrFile, values, error)) return false;
    s.SetWorkCorrMatrix(std::move(values));
  }
  // The estimation reads the covariance type of the model; the GEE one is kept for display.
  const TQConst::TQCovbType covariance = o.covariance.value_or(TQConst::CovbRobust);
  s.SetCovbType(covariance);
  s.SetGEECovbType(covariance);
  if (o.adjustCorr) s.SetAdjustCorr(*o.adjustCorr);
  if (o.updateCorr && !s.SetUpdateCorr(*o.updateCorr)) return Fail(error, "--corr-update must be 0 or more");
  if (o.geeMaxIterations && !s.SetGEEMaxIterations(*o.geeMaxIterations))
    return Fail(error, "--gee-max-iterations must be 0 or more");
  if (o.geeParamTolerance && !s.SetGEEPConverge(*o.geeParamTolerance))
    return Fail(error, "--gee-param-tolerance must be 0 or more");
  if (o.geeParamConvType) s.SetGEEPConvergeType(*o.geeParamConvType);
  if (o.geeHessianTolerance && !s.SetGEEHConverge(*o.geeHessianTolerance))
    return Fail(error, "--gee-hessian-tolerance must be 0 or more");
  s.SetGEESortBySubjectWS(o.sortSubjects);
  return true;
}

bool FitRecordOrder(const GZLSettings& s, const CsvTable& table, std::shared_ptr<const RecordCache>& records,
                    std::string& error) {
  records = table.Records();
  if (!records) return Fail(error, "no data records");
  if (!s.IsModelGEE() || !s.IsGEESortBySubjectWS()) return true;
  std::vector<int> keys = s.GetGEESubjectVars();
  keys.insert(keys.end(), s.GetGEEWSVars().begin(), s.GetGEEWSVars().end());
  return RecordCache::SortedBy(table.Records(), keys, records, error);
}

void GatherGee(const FitOptions& o, const CsvTable& table, const GZLSettings& s, const GZLOutputStats& stats,
               GeeReport& r) {
  r.present = true;
  r.structure = StructureName(s.GetGEECorrType());
  r.covariance = s.GetCovbType() == TQConst::CovbRobust ? "robust" : "model";
  const TQSymMatrix& R = stats.GetWorkCorrelationMatrix();
  r.workingCorrelation.assign(static_cast<std::size_t>(R.GetNumRows()), {});
  for (int i = 0; i < R.GetNumRows(); ++i)
    for (int j = 0; j < R.GetNumRows(); ++j) r.workingCorrelation[static_cast<std::size_t>(i)].push_back(R(i, j));
  const std::vector<std::vector<int>>& combinations = stats.GetWSInfo();
  const std::vector<int>& within = s.GetGEEWSVars();
  for (std::size_t i = 0; i < r.workingCorrelation.size(); ++i) {
    std::string label;
    if (i < combinations.size() && !within.empty()) {
      for (std::size_t v = 0; v < within.size() && v < combinations[i].size(); ++v) {
        const auto& labels = table.Column(static_cast<std::size_t>(within[v])).labels;
        const int code = combinations[i][v];
        if (!label.empty()) label += ", ";
        label += o.within[v] + "=" +
                 (code >= 0 && static_cast<std::size_t>(code) < labels.size() ? labels[static_cast<std::size_t>(code)]
                                                                               : std::to_string(code));
      }
    } else {
      label = std::to_string(i + 1);
    }
    r.positions.push_back(std::move(label));
  }
  r.quasiLoglik = stats.GetQBetaIValue();
  r.qic = stats.GetQICValue();
  r.qicu = stats.GetQICUValue();
  // QIC = 2 (T - Q).
  r.qicTrace = TQMV::IsMissing(r.qic) || TQMV::IsMissing(r.quasiLoglik) ? TQMV::Missing : r.qic / 2.0 + r.quasiLoglik;
  r.subjects = stats.GetNumberOfSubjects();
  r.minSubjectSize = stats.GetMinMeasurePerSubject();
  r.maxSubjectSize = stats.GetMaxMeasurePerSubject();
  const std::vector<bool>& redundant = stats.GetRedundancyIndicators();
  for (std::size_t j = 0; j < stats.GetParameters().size(); ++j) {
    const bool aliased = j < redundant.size() && redundant[j];
    const int k = static_cast<int>(j);
    r.seRobust.push_back(aliased ? TQMV::Missing : RootOfDiagonal(stats.GetRobustCovarianceMatrix(), k));
    r.seModel.push_back(aliased ? TQMV::Missing : RootOfDiagonal(stats.GetModelBasedCovarianceMatrix(), k));
  }
}

void WriteGeeText(std::ostream& out, const GeeReport& r, const std::vector<std::string>& names,
                  const std::vector<bool>& redundant) {
  using Align = TextTable::Align;
  {
    TextTable table("\nSubjects", {"Item", "Value"}, {Align::Left, Align::Right});
    table.AddRow({"Subjects", std::to_string(r.subjects)});
    table.AddRow({"Smallest subject (records)", std::to_string(r.minSubjectSize)});
    table.AddRow({"Largest subject (records)", std::to_string(r.maxSubjectSize)});
    table.Write(out);
  }
  {
    TextTable table("\nInformation criteria (quasi-likelihood under the independence model)", {"Criterion", "Value"},
                    {Align::Left, Align::Right});
    table.AddRow({"Quasi-likelihood under independence (Q)", FormatNumber(r.quasiLoglik)});
    table.AddRow({"Trace term (T)", FormatNumber(r.qicTrace)});
    table.AddRow({"QIC = 2 (T - Q)", FormatNumber(r.qic)});
    table.AddRow({"QICu = 2 (p - Q)", FormatNumber(r.qicu)});
    table.Write(out);
  }
  {
    TextTable table(std::string("\nStandard errors of both covariances (inference uses the ") +
                        (r.covariance == "robust" ? "robust" : "model-based") + " one)",
                    {"Parameter", "Robust", "Model-based"}, {Align::Left, Align::Right, Align::Right});
    for (std::size_t j = 0; j < names.size() && j < r.seRobust.size(); ++j) {
      if (j < redundant.size() && redundant[j]) continue;
      table.AddRow({names[j], FormatNumber(r.seRobust[j]), FormatNumber(r.seModel[j])});
    }
    table.Write(out);
  }
  std::vector<std::string> headers{"Position"};
  headers.insert(headers.end(), r.positions.begin(), r.positions.end());
  std::vector<Align> align(headers.size(), Align::Right);
  align[0] = Align::Left;
  TextTable table("\nWorking correlation (" + r.structure + ")", headers, align);
  for (std::size_t i = 0; i < r.workingCorrelation.size(); ++i) {
    std::vector<std::string> cells{r.positions[i]};
    for (double v : r.workingCorrelation[i]) cells.push_back(FormatNumber(v));
    table.AddRow(std::move(cells));
  }
  table.Write(out);
}

void WriteGeeJson(JsonWriter& json, const GeeReport& r) {
  json.Member("working_correlation_structure", r.structure);
  json.Member("covariance", r.covariance);
  json.Key("working_correlation");
  json.BeginArray();
  for (const auto& row : r.workingCorrelation) {
    json.BeginArray();
    for (double v : row) json.Number(v);
    json.EndArray();
  }
  json.EndArray();
  json.Member("corr_dim", static_cast<int>(r.workingCorrelation.size()));
  json.Key("corr_positions");
  json.BeginArray();
  for (const auto& label : r.positions) json.String(label);
  json.EndArray();
  json.Member("quasi_loglik", r.quasiLoglik);
  json.Member("qic_trace", r.qicTrace);
  json.Member("qic", r.qic);
  json.Member("qicu", r.qicu);
  json.Member("n_subjects", r.subjects);
  json.Member("min_subject_size", r.minSubjectSize);
  json.Member("max_subject_size", r.maxSubjectSize);
}
