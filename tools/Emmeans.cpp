#include "tools/Emmeans.h"

#include <algorithm>

#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "tools/JsonWriter.h"
#include "tools/ModelSpec.h"
#include "tools/StatusText.h"
#include "tools/TextTable.h"

namespace {

bool Fail(std::string& error, std::string message) {
  error = std::move(message);
  return false;
}

// One part of a request: a product of factors.
bool ParseFactors(const std::string& part, const FitOptions& o, const std::string& request,
                  std::vector<std::string>& factors, std::string& error) {
  std::vector<ModelTerm> terms;
  std::string why;
  if (!ParseEffectList(part, o.factors, o.covariates, terms, why))
    return Fail(error, "--emmeans '" + request + "': " + why);
  if (terms.size() != 1 || terms[0].nested || !terms[0].covariates.empty())
    return Fail(error, "--emmeans '" + request + "': give factors joined by '*', as in a*b or a|b");
  factors.insert(factors.end(), terms[0].factors.begin(), terms[0].factors.end());
  return true;
}

// "name=value" of --emmeans-at.
bool ParseCovariateValue(const FitOptions& o, const std::string& text, std::string& name, double& value,
                         std::string& error) {
  const std::size_t eq = text.find('=');
  name = text.substr(0, eq);
  if (eq == std::string::npos || !ParseCsvNumber(text.substr(eq + 1), value))
    return Fail(error, "--emmeans-at: '" + text + "' is not of the form covariate=value");
  if (std::find(o.covariates.begin(), o.covariates.end(), name) == o.covariates.end())
    return Fail(error, "--emmeans-at: '" + name + "' is not a covariate of the model");
  return true;
}

const char* Name(std::span<const FitOptionName> names, int value) { return FitOptionLabel(names, value); }

bool IsFTest(const TQTestStats& t) { return !TQMV::IsMissing(t.GetDF2()); }

std::string OthersText(const EmmeansResult& r, const EmmeansTableReport& t) {
  std::string text;
  for (const auto& [at, code] : t.others) {
    text += text.empty() ? " within " : ", ";
    const std::size_t f = static_cast<std::size_t>(at);
    text += r.factors[f] + "=" + (code >= 0 && static_cast<std::size_t>(code) < r.labels[f].size()
                                     ? r.labels[f][static_cast<std::size_t>(code)]
                                     : std::to_string(code));
  }
  return text;
}

std::string Label(const EmmeansResult& r, std::size_t factor, int code) {
  const std::vector<std::string>& labels = r.labels[factor];
  return code >= 0 && static_cast<std::size_t>(code) < labels.size() ? labels[static_cast<std::size_t>(code)]
                                                                     : std::to_string(code);
}

// A contrast row in words: the compared category (its coefficient 1, or the largest) against
// what the contrast type compares it with.
std::string ContrastText(const EmmeansResult& r, const EmmeansTableReport& t, int row) {
  static const char* const kDegrees[] = {"linear", "quadratic", "cubic"};
  if (r.contrast == TQConst::ContrastPolynomial)
    return row < 3 ? kDegrees[row] : "degree " + std::to_string(row + 1);
  int plus = 0, minus = -1;
  for (int k = 0; k < t.contrast.GetNumCols(); ++k) {
    if (t.contrast(row, k) > t.contrast(row, plus)) plus = k;
    if (t.contrast(row, k) == -1.0) minus = k;
  }
  const std::string a = Label(r, 0, t.levels[static_cast<std::size_t>(plus)]);
  switch (r.contrast) {
    case TQConst::ContrastDeviation:
      return a + " - mean";
    case TQConst::ContrastHelmert:
      return a + " - mean of later";
    case TQConst::ContrastDifference:
      return a + " - mean of earlier";
    default:
      return minus < 0 ? a : a + " - " + Label(r, 0, t.levels[static_cast<std::size_t>(minus)]);
  }
}

void StatisticCells(const TQTestStats& t, bool f, std::vector<std::string>& cells) {
  cells.push_back(FormatNumber(t.GetWald()));
  cells.push_back(FormatNumber(t.GetDF()));
  if (f) cells.push_back(FormatNumber(t.GetDF2()));
  cells.push_back(FormatSignificance(t.GetSig()));
}

void OverallText(std::ostream& out, const TQTestStats& t) {
  out << "  Overall test of equal means: ";
  if (IsFTest(t))
    out << "F " << FormatNumber(t.GetWald()) << ", df " << FormatNumber(t.GetDF()) << " and "
        << FormatNumber(t.GetDF2());
  else
    out << "Wald chi-square " << FormatNumber(t.GetWald()) << ", df " << FormatNumber(t.GetDF());
  out << ", Sig. " << FormatSignificance(t.GetSig()) << '\n';
}

void JsonStatistic(JsonWriter& json, const TQTestStats& t) {
  if (IsFTest(t)) {
    json.Member("F", t.GetWald());
    json.Member("df1", t.GetDF());
    json.Member("df2", t.GetDF2());
  } else {
    json.Member("wald_chisq", t.GetWald());
    json.Member("df", t.GetDF());
  }
}

void JsonStatus(JsonWriter& json, const TQStatus& status) {
  if (status.IsOK()) return;
  json.Key(status.IsError() ? "error" : "warning");
  json.BeginObject();
  json.Member("code", status.GetErrorCode());
  json.Member("message", DescribeStatus(status));
  json.EndObject();
}

// The categories of the given (position, code) pairs: factor -> code under `key`, factor ->
// label under `labelKey`.
void JsonCategories(JsonWriter& json, const EmmeansResult& r, const std::vector<std::pair<int, int>>& pairs,
                    const char* key, const char* labelKey) {
  json.Key(key);
  json.BeginObject();
  for (const auto& [at, code] : pairs) json.Member(r.factors[static_cast<std::size_t>(at)], code);
  json.EndObject();
  json.Key(labelKey);
  json.BeginObject();
  for (const auto& [at, code] : pairs)
    json.Member(r.factors[static_cast<std::size_t>(at)], Label(r, static_cast<std::size_t>(at), code));
  json.EndObject();
}

void WriteTableText(std::ostream& out, const EmmeansResult& r, const EmmeansTableReport& t, const std::string& level) {
  using Align = TextTable::Align;
  const std::string& compared = r.factors[0];
  const std::string within = OthersText(r, t);
  if (t.status.IsError() || t.levels.size() < 2) {
    out << "\nComparisons of " << compared << within << ": not tested (" << DescribeStatus(t.status) << ")\n";
    return;
  }
  const bool pairwise = r.contrast == TQConst::ContrastPairwise;
  const bool f = IsFTest(t.overall);
  std::vector<std::string> headers{"Estimate", "Std. error", "Lower", "Upper", f ? "F" : "Wald chi-square", "df"};
  if (f) headers.push_back("df2");
  headers.push_back("Sig.");
  if (pairwise) {
    const bool adjusted = r.adjust != TQConst::PAdjNone;
    headers.insert(headers.begin(), {compared, "vs"});
    if (adjusted) headers.push_back("Unadjusted sig.");
    std::vector<Align> align(headers.size(), Align::Right);
    align[0] = align[1] = Align::Left;
    static const char* const kAdjusted[] = {"", "Bonferroni", "sequential Bonferroni", "Sidak", "sequential Sidak"};
    const bool named = r.adjust >= TQConst::PAdjNone && r.adjust <= TQConst::PAdjSeqSidak;
    const std::string how = adjusted && named ? std::string(", ") + kAdjusted[r.adjust] +
                                                    " adjusted significance and " + level + " intervals"
                                              : ", " + level + " intervals";
    TextTable table("\nPairwise comparisons of " + compared + within + " (mean of the first less the second" +
                        how + ")",
                    headers, align);
    for (const GZLPairwiseRecord& p : t.pairwise) {
      if (p.fLevels[0] > p.fLevels[1]) continue;  // the mirror rows say the same
      std::vector<std::string> cells{Label(r, 0, p.fLevels[0]), Label(r, 0, p.fLevels[1]), FormatNumber(p.fEstimate),
                                     FormatNumber(p.fStdError), FormatNumber(p.fLower), FormatNumber(p.fUpper),
                                     FormatNumber(p.fWald), "1"};
      if (f) cells.push_back(FormatNumber(p.fDF));
      cells.push_back(FormatSignificance(p.fSig));
      if (adjusted) cells.push_back(FormatSignificance(p.fRawSig));
      table.AddRow(std::move(cells));
    }
    table.Write(out);
  } else {
    headers.insert(headers.begin(), "Contrast");
    std::vector<Align> align(headers.size(), Align::Right);
    align[0] = Align::Left;
    std::string title = std::string("\n") + Name(EmmeansContrastNames(), r.contrast) + " contrasts of " + compared +
                        within + " (" + level + " intervals)";
    title[1] = static_cast<char>(std::toupper(static_cast<unsigned char>(title[1])));
    TextTable table(title, headers, align);
    for (std::size_t i = 0; i < t.contrasts.size(); ++i) {
      const TQTestStats& c = t.contrasts[i];
      std::vector<std::string> cells{ContrastText(r, t, static_cast<int>(i)), FormatNumber(c.GetContrastEstimate()),
                                     FormatNumber(c.GetStandardError()), FormatNumber(c.GetLowerConfidenceInterval()),
                                     FormatNumber(c.GetUpperConfidenceInterval())};
      StatisticCells(c, f, cells);
      table.AddRow(std::move(cells));
    }
    table.Write(out);
  }
  OverallText(out, t.overall);
  if (t.status.IsWarning()) out << "  Note: " << DescribeStatus(t.status) << '\n';
}

}  // namespace

bool ParseEmmeansRequests(const FitOptions& o, std::vector<EmmeansRequest>& requests, std::string& error) {
  requests.clear();
  for (const std::string& text : o.emmeans) {
    EmmeansRequest request;
    request.text = text;
    const std::size_t bar = text.find('|');
    if (!ParseFactors(text.substr(0, bar), o, text, request.factors, error)) return false;
    if (bar != std::string::npos && !ParseFactors(text.substr(bar + 1), o, text, request.factors, error)) return false;
    for (std::size_t i = 0; i < request.factors.size(); ++i)
      if (std::find(request.factors.begin(), request.factors.begin() + static_cast<long>(i), request.factors[i]) !=
          request.factors.begin() + static_cast<long>(i))
        return Fail(error, "--emmeans '" + text + "': '" + request.factors[i] + "' is named twice");
    requests.push_back(std::move(request));
  }
  return true;
}

bool CheckEmmeansOptions(const FitOptions& o, std::string& error) {
  const bool options = o.emmeansContrast || !o.emmeansReference.empty() || !o.emmeansMetric.empty() ||
                       o.emmeansScale || o.emmeansAdjust || !o.emmeansAt.empty() || o.emmeansTest;
  if (o.emmeans.empty()) return !options || Fail(error, "the --emmeans-... options need at least one --emmeans");
  if (o.distribution == TQConst::DistOrdinalMultinomial || o.distribution == TQConst::DistNominalMultinomial)
    return Fail(error, "--emmeans: marginal means are not available for a multinomial response");
  std::vector<EmmeansRequest> requests;
  if (!ParseEmmeansRequests(o, requests, error)) return false;
  const TQConst::TQContrastType contrast = o.emmeansContrast.value_or(TQConst::ContrastPairwise);
  if (!o.emmeansReference.empty() && contrast != TQConst::ContrastSimple)
    return Fail(error, "--emmeans-ref applies to the simple contrast only");
  if (!o.emmeansMetric.empty() && contrast != TQConst::ContrastPolynomial)
    return Fail(error, "--emmeans-metric applies to the polynomial contrast only");
  std::vector<std::string> named;
  for (const std::string& at : o.emmeansAt) {
    std::string name;
    double value = 0.0;
    if (!ParseCovariateValue(o, at, name, value, error)) return false;
    if (std::find(named.begin(), named.end(), name) != named.end())
      return Fail(error, "--emmeans-at: '" + name + "' is given twice");
    named.push_back(name);
  }
  return true;
}

bool SetEmmeansSettings(const FitOptions& o, const CsvTable& table, GZLSettings& s, std::string& error) {
  std::vector<EmmeansRequest> requests;
  if (!ParseEmmeansRequests(o, requests, error)) return false;
  std::vector<TQEmmeansSpec> specs;
  for (const EmmeansRequest& request : requests) {
    TQEmmeansSpec spec;
    for (const std::string& f : request.factors) {
      spec.fFactors.push_back(table.ColumnIndex(f));
      spec.fFactorsNestLevel.push_back(0);
    }
    spec.fCompareFactors = {spec.fFactors.front()};
    spec.fContrastType = o.emmeansContrast.value_or(TQConst::ContrastPairwise);
    if (!o.emmeansReference.empty()) {
      const std::vector<std::string>& labels = table.Column(static_cast<std::size_t>(spec.fFactors.front())).labels;
      const auto it = std::find(labels.begin(), labels.end(), o.emmeansReference);
      if (it == labels.end())
        return Fail(error, "--emmeans-ref: '" + o.emmeansReference + "' is not a category of '" +
                               request.factors.front() + "'");
      spec.fRefCateg = static_cast<int>(it - labels.begin());
    }
    spec.fMetricValues = o.emmeansMetric;
    spec.fEmmScaleType = o.emmeansScale.value_or(TQConst::EmmScaleOriginal);
    spec.fPAdjust = o.emmeansAdjust.value_or(TQConst::PAdjNone);
    for (const std::string& at : o.emmeansAt) {
      std::string name;
      double value = 0.0;
      if (!ParseCovariateValue(o, at, name, value, error)) return false;
      spec.fCovariates.emplace_back(table.ColumnIndex(name), value);
    }
    specs.push_back(std::move(spec));
  }
  s.SetEmmeans(std::move(specs));
  s.SetTestType(o.emmeansTest.value_or(TQConst::TestType2));
  return true;
}

void GatherEmmeans(const FitOptions& o, const CsvTable& table, const GZLOutputStats& stats, EmmeansReport& report) {
  report.results.clear();
  std::vector<EmmeansRequest> requests;
  std::string error;
  if (o.emmeans.empty() || !ParseEmmeansRequests(o, requests, error)) return;
  report.confidence = o.confidenceLevel.value_or(0.95);
  report.fTests = o.emmeansTest.value_or(TQConst::TestType2) == TQConst::TestType0;
  if (const GZLMarginals* m = stats.GetMarginals()) report.designComplete = m->IsDesignComplete();
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EmmeansResult r;
    r.request = requests[i].text;
    r.factors = requests[i].factors;
    for (const std::string& f : r.factors) r.labels.push_back(table.Column(static_cast<std::size_t>(table.ColumnIndex(f))).labels);
    const int spec = static_cast<int>(i);
    const TQEmmeansSpec* used = nullptr;
    const TQRectMatrix* L = nullptr;
    // The fit leaves the means out only when it refused records for the link function.
    r.status = stats.GetMarginals() == nullptr ? TQStatus::Error(GZLStatusCode::InvalidRecordsForLinkFunction)
                                               : stats.GetEmmeansStats(spec, used, L, r.cells);
    if (used != nullptr) {
      r.contrast = used->GetContrastType();
      if (used->GetRefCateg() >= 0) r.reference = used->GetRefCateg();
      r.metric = used->GetMetricValueList();
      r.responseScale = used->GetEmmScaleType() == TQConst::EmmScaleOriginal;
      r.adjust = used->GetPAdjust();
      // Every covariate: at the value asked for, else at its mean.
      const std::vector<double>& means = stats.GetMeanValues();
      for (std::size_t c = 0; c < o.covariates.size() && c < means.size(); ++c) {
        double value = means[c];
        for (const auto& [field, given] : used->GetCovariates())
          if (field == table.ColumnIndex(o.covariates[c])) value = given;
        r.covariates.emplace_back(o.covariates[c], value);
      }
    }
    if (!r.status.IsError()) {
      TQStatus status;
      const int n = stats.GetNEmmeansTests(spec, status);
      for (int t = 0; t < n; ++t) {
        EmmeansTableReport table;
        std::vector<std::pair<int, int>> others;
        if (r.contrast == TQConst::ContrastPairwise) {
          table.status = stats.GetPairwiseEmmeansTests(spec, t, others, table.levels, table.pairwise);
          if (!table.status.IsError()) stats.GetPairwiseOverallTest(spec, t, others, table.overall);
        } else {
          table.status = stats.GetEmmeansTests(spec, t, others, table.levels, table.contrast, table.contrasts,
                                               table.overall);
        }
        for (const auto& [field, code] : others) {
          const auto at = std::find(used->GetFactors().begin(), used->GetFactors().end(), field);
          table.others.emplace_back(static_cast<int>(at - used->GetFactors().begin()), code);
        }
        r.tables.push_back(std::move(table));
      }
    }
    report.results.push_back(std::move(r));
  }
}

void WriteEmmeansText(std::ostream& out, const EmmeansReport& report) {
  using Align = TextTable::Align;
  const std::string level = FormatNumber(100.0 * report.confidence, 6) + "%";
  for (const EmmeansResult& r : report.results) {
    std::string title = "\nEstimated marginal means of " + r.request + " (" +
                        (r.responseScale ? "response" : "linear-predictor") + " scale, " + level + " interval";
    for (const auto& [name, value] : r.covariates) title += "; " + name + " = " + FormatNumber(value);
    title += ")";
    if (r.status.IsError()) {
      out << title << "\n  Not computed: " << DescribeStatus(r.status) << '\n';
      continue;
    }
    std::vector<std::string> headers = r.factors;
    for (const char* h : {"Mean", "Std. error", "Lower", "Upper"}) headers.emplace_back(h);
    std::vector<Align> align(headers.size(), Align::Right);
    std::fill(align.begin(), align.begin() + static_cast<long>(r.factors.size()), Align::Left);
    TextTable table(title, headers, align);
    for (const TQEmmeansStats& c : r.cells) {
      std::vector<std::string> cells;
      for (std::size_t f = 0; f < c.fLevels.size(); ++f) cells.push_back(Label(r, f, c.fLevels[f]));
      for (double v : {c.fEstimate, c.fStdError, c.fLower, c.fUpper}) cells.push_back(FormatNumber(v));
      table.AddRow(std::move(cells));
    }
    table.Write(out);
    if (!report.designComplete)
      out << "  The design has empty cells: the means weight the categories of the other factors by their "
             "frequencies, and combinations without records have no mean.\n";
    if (r.status.IsWarning()) out << "  Note: " << DescribeStatus(r.status) << '\n';
    for (const EmmeansTableReport& t : r.tables) WriteTableText(out, r, t, level);
  }
}

void WriteEmmeansJson(JsonWriter& json, const EmmeansReport& report) {
  if (report.results.empty()) return;
  json.Key("emmeans");
  json.BeginArray();
  for (const EmmeansResult& r : report.results) {
    json.BeginObject();
    json.Key("req");
    json.BeginObject();
    json.Member("request", r.request);
    json.Key("factors");
    json.BeginArray();
    for (const std::string& f : r.factors) json.String(f);
    json.EndArray();
    json.Member("compare", r.factors.front());
    json.Member("contrast", Name(EmmeansContrastNames(), r.contrast));
    json.Key("ref_category");
    r.reference ? json.Integer(*r.reference) : json.Null();
    json.Key("metric");
    if (r.contrast == TQConst::ContrastPolynomial) {
      json.BeginArray();
      for (double v : r.metric) json.Number(v);
      json.EndArray();
    } else {
      json.Null();
    }
    json.Member("scale", r.responseScale ? "response" : "linear");
    json.Member("p_adjust", Name(EmmeansAdjustNames(), r.adjust));
    json.Member("test_type", report.fTests ? "F" : "chisq");
    json.Member("confidence_level", report.confidence);
    json.Key("covariate_values_used");
    json.BeginObject();
    for (const auto& [name, value] : r.covariates) json.Member(name, value);
    json.EndObject();
    json.EndObject();
    JsonStatus(json, r.status);

    json.Key("cells");
    json.BeginArray();
    for (const TQEmmeansStats& c : r.cells) {
      json.BeginObject();
      std::vector<std::pair<int, int>> pairs;
      for (std::size_t f = 0; f < c.fLevels.size(); ++f) pairs.emplace_back(static_cast<int>(f), c.fLevels[f]);
      JsonCategories(json, r, pairs, "categories", "labels");
      json.Member("mean", c.fEstimate);
      json.Member("se", c.fStdError);
      json.Member("lower", c.fLower);
      json.Member("upper", c.fUpper);
      json.EndObject();
    }
    json.EndArray();

    json.Key("tables");
    json.BeginArray();
    for (const EmmeansTableReport& t : r.tables) {
      json.BeginObject();
      JsonCategories(json, r, t.others, "others", "other_labels");
      json.Key("levels");
      json.BeginArray();
      for (int level : t.levels) json.Integer(level);
      json.EndArray();
      JsonStatus(json, t.status);
      json.Key("overall");
      json.BeginObject();
      JsonStatistic(json, t.overall);
      json.Member("sig", t.overall.GetSig());
      json.EndObject();
      if (r.contrast == TQConst::ContrastPairwise) {
        json.Key("pairwise");
        json.BeginArray();
        for (const GZLPairwiseRecord& p : t.pairwise) {
          json.BeginObject();
          json.Member("a", p.fLevels[0]);
          json.Member("b", p.fLevels[1]);
          json.Member("a_label", Label(r, 0, p.fLevels[0]));
          json.Member("b_label", Label(r, 0, p.fLevels[1]));
          json.Member("estimate", p.fEstimate);
          json.Member("se", p.fStdError);
          json.Member("lower", p.fLower);
          json.Member("upper", p.fUpper);
          if (TQMV::IsMissing(p.fDF)) {
            json.Member("wald_chisq", p.fWald);
            json.Member("df", 1);
          } else {
            json.Member("F", p.fWald);
            json.Member("df1", 1);
            json.Member("df2", p.fDF);
          }
          json.Member("raw_sig", p.fRawSig);
          json.Member("sig", p.fSig);
          json.EndObject();
        }
        json.EndArray();
      } else if (!t.contrasts.empty()) {
        json.Key("contrasts");
        json.BeginArray();
        for (std::size_t i = 0; i < t.contrasts.size(); ++i) {
          const TQTestStats& c = t.contrasts[i];
          json.BeginObject();
          json.Member("label", ContrastText(r, t, static_cast<int>(i)));
          json.Key("coefficients");
          json.BeginArray();
          for (int k = 0; k < t.contrast.GetNumCols(); ++k) json.Number(t.contrast(static_cast<int>(i), k));
          json.EndArray();
          json.Member("estimate", c.GetContrastEstimate());
          json.Member("se", c.GetStandardError());
          json.Member("lower", c.GetLowerConfidenceInterval());
          json.Member("upper", c.GetUpperConfidenceInterval());
          JsonStatistic(json, c);
          json.Member("sig", c.GetSig());
          json.EndObject();
        }
        json.EndArray();
      }
      json.EndObject();
    }
    json.EndArray();
    json.EndObject();
  }
  json.EndArray();
}
