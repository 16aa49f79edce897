#include "tools/FitRunner.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "GZLConst_940.h"
#include "GZLDataStats.h"
#include "GZLEventsCount.h"
#include "GZLFactory.h"
#include "GZLModelEffect.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "IGZLAlgorithm.h"
#include "data/GZLAlgorithm.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "inference/GZLOmnibusTest.h"
#include "support/TQMV.h"
#include "tools/EffectTests.h"
#include "tools/Emmeans.h"
#include "tools/FitControl.h"
#include "tools/GeeModel.h"
#include "tools/JsonWriter.h"
#include "tools/PmmlFile.h"
#include "tools/ModelInfo.h"
#include "tools/RecordCache.h"
#include "tools/ScoreFile.h"
#include "tools/StatusText.h"
#include "tools/TextTable.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Settings.

bool Fail(std::string& error, std::string message) {
  error = std::move(message);
  return false;
}

// Field index of a column the model needs (the table holds exactly the requested columns).
bool FieldOf(const CsvTable& table, const std::string& name, int& field, std::string& error) {
  field = table.ColumnIndex(name);
  if (field < 0) return Fail(error, "column '" + name + "' was not read from the data");
  return true;
}

// The settings and the list of model variables that their effects point to; kept together
// because the effects hold the list's address.
struct ModelSettings {
  GZLSettings settings;
  std::vector<int> modelVariables;  // field indices: the factors, then the covariates
};

bool SetResponse(const FitOptions& o, const CsvTable& table, GZLSettings& s, std::string& error) {
  int response = -1;
  if (!FieldOf(table, o.response, response, error)) return false;
  switch (o.responseForm) {
    case ResponseForm::EventsTrials: {
      int trials = -1;
      if (!FieldOf(table, o.trialsVariable, trials, error)) return false;
      if (!s.SetEventsTrials(response, trials)) {
        return Fail(error, "'" + o.response + "' and '" + o.trialsVariable + "' cannot be the events and the trials");
      }
      return true;
    }
    case ResponseForm::EventsConstTrials:
      if (!s.SetEventsConstTrials(response, o.trialsValue)) {
        return Fail(error, "the events '" + o.response + "' cannot be used with " + FormatNumber(o.trialsValue, 10) +
                               " trials");
      }
      return true;
    case ResponseForm::Single:
      break;
  }
  if (!s.SetSingleDependent(response)) return Fail(error, "'" + o.response + "' cannot be the response");
  if (s.IsMultinomial()) s.SetDependentSize(static_cast<int>(table.Column(response).labels.size()));
  std::optional<int> reference;
  if (!ResolveReferenceCategory(o, table, reference, error)) return false;
  if (reference && !s.SetDependentRefCateg(*reference)) {
    return Fail(error, "--ref-category: the reference category cannot be set");
  }
  return true;
}

bool SetDistributionAndLink(const FitOptions& o, GZLSettings& s, std::string& error) {
  s.SetDistType(o.distribution);
  if (o.distribution == TQConst::DistNegBinomial) {
    s.SetDistParamType(o.estimateK ? GZLConst_940::DistParamMLE : GZLConst_940::DistParamFixed);
    // A fixed k defaults to 1; an estimated one starts from the given value (1 when none).
    const double k = o.distParam.value_or(1.0);
    if (!s.SetDistParam(k)) return Fail(error, "the negative binomial k must be above 0");
    if (o.estimateK) s.SetInitDistParam(k);
  } else if (o.distParam && !s.SetDistParam(*o.distParam)) {
    return Fail(error, "the distribution parameter " + FormatNumber(*o.distParam, 10) + " is out of range");
  }
  s.SetLinkType(EffectiveLink(o));
  if (o.linkParam) s.SetLinkParam(*o.linkParam);
  if (!s.IsValidDistLink()) {
    return Fail(error, std::string("the ") + FitOptionLabel(LinkNames(), EffectiveLink(o)) +
                           " link cannot be used with the " + FitOptionLabel(DistributionNames(), o.distribution) +
                           " distribution");
  }
  return true;
}

bool SetVariables(const FitOptions& o, const CsvTable& table, ModelSettings& m, std::string& error) {
  GZLSettings& s = m.settings;
  m.modelVariables.clear();
  for (const auto& name : o.factors) {
    int field = -1;
    if (!FieldOf(table, name, field, error)) return false;
    const std::size_t levels = table.Column(field).labels.size();
    if (levels == 0) return Fail(error, "factor '" + name + "' has no values (every cell is empty or NA)");
    if (!s.AddFactor(field, static_cast<int>(levels))) return Fail(error, "'" + name + "' cannot be a factor");
    m.modelVariables.push_back(field);
  }
  for (const auto& name : o.covariates) {
    int field = -1;
    if (!FieldOf(table, name, field, error)) return false;
    if (!s.AddCovariate(field)) return Fail(error, "'" + name + "' cannot be a covariate");
    m.modelVariables.push_back(field);
  }
  if (!o.offsetVariable.empty()) {
    int field = -1;
    if (!FieldOf(table, o.offsetVariable, field, error)) return false;
    if (!s.SetOffset(field)) return Fail(error, "'" + o.offsetVariable + "' cannot be the offset");
  } else if (o.offsetValue && !s.SetOffsetValue(*o.offsetValue)) {
    return Fail(error, "the offset value must be a finite number");
  }
  if (!o.frequencyWeight.empty()) {
    int field = -1;
    if (!FieldOf(table, o.frequencyWeight, field, error)) return false;
    if (!s.SetFrequencyWeightVar(field)) return Fail(error, "'" + o.frequencyWeight + "' cannot be the frequency weight");
  }
  if (!o.scaleWeight.empty()) {
    int field = -1;
    if (!FieldOf(table, o.scaleWeight, field, error)) return false;
    if (!s.SetRegrWeightVar(field)) return Fail(error, "'" + o.scaleWeight + "' cannot be the scale weight");
  }
  return true;
}

bool SetEffects(const FitOptions& o, const CsvTable& table, const std::vector<ModelTerm>& terms, ModelSettings& m,
                std::string& error) {
  GZLSettings& s = m.settings;
  s.SetInterceptUse(o.intercept);
  const int nFactors = static_cast<int>(o.factors.size());
  const int nCovariates = static_cast<int>(o.covariates.size());
  for (const ModelTerm& term : terms) {
    GZLModelEffect effect(nFactors, nCovariates, &m.modelVariables);
    bool ok = true;
    for (std::size_t i = 0; i < term.factors.size() && ok; ++i) {
      int field = -1;
      if (!FieldOf(table, term.factors[i], field, error)) return false;
      // A nested term: its own factor first, then every enclosing factor as a new nesting level.
      ok = effect.AddNewFactor(field, term.nested && i > 0);
    }
    for (std::size_t i = 0; i < term.covariates.size() && ok; ++i) {
      int field = -1;
      if (!FieldOf(table, term.covariates[i], field, error)) return false;
      ok = effect.AddCovariate(field) > 0;
    }
    if (term.covariatesInParens) effect.SetFactorsInParens();
    if (!ok || !s.AddModelEffect(effect)) return Fail(error, "the effect '" + term.Text() + "' cannot be built");
  }
  if (s.IsEmptyModel()) return Fail(error, "the model has neither an intercept nor effects");
  return true;
}

bool SetControls(const FitOptions& o, GZLSettings& s, std::string& error) {
  s.SetScaleType(EffectiveScaleMethod(o));
  if (o.scaleValue && !s.SetScaleValue(*o.scaleValue)) return Fail(error, "the scale value must be above 0");
  struct Check {
    bool ok;
    const char* message;
  };
  const Check checks[] = {
      {!o.hessianMethod || (s.SetHessianCompMethod(*o.hessianMethod), true), ""},
      {!o.fisherIterations || s.SetFNIteration(*o.fisherIterations), "--fisher-iterations must be 1 or more"},
      {!o.maxIterations || s.SetMaxIterations(*o.maxIterations), "--max-iterations must be 0 or more"},
      {!o.maxStepHalving || s.SetMaxStepHalvingValue(*o.maxStepHalving), "--max-step-halving must be 1 or more"},
      {!o.separationIteration || s.SetCSIteration(*o.separationIteration), "--separation-iteration must be 1 or more"},
      {!o.llTolerance || s.SetLLConCriterion(*o.llTolerance), "--ll-tolerance must be 0 or more"},
      {!o.paramTolerance || s.SetParamEstConCriterion(*o.paramTolerance), "--param-tolerance must be 0 or more"},
      {!o.hessianTolerance || s.SetToleranceHessian(*o.hessianTolerance), "--hessian-tolerance must be 0 or more"},
      {!o.singularityTolerance || s.SetTolerance(*o.singularityTolerance),
       "--singularity-tolerance must lie strictly between 0 and 1"},
      {!o.confidenceLevel || s.SetConfidenceLevel(*o.confidenceLevel),
       "the confidence level must lie strictly between 0 and 100 percent"},
  };
  for (const auto& check : checks) {
    if (!check.ok) return Fail(error, check.message);
  }
  if (o.llConvType) s.SetLConvergeType(*o.llConvType);
  if (o.paramConvType) s.SetPConvergeType(*o.paramConvType);
  if (o.hessianConvType) s.SetHConvergeType(*o.hessianConvType);
  if (o.llType) s.SetLLType(*o.llType);
  // The omnibus test is part of the output; the tests of single effects when asked for.
  s.SetModelFittingTest(true);
  s.SetEffectAnalysisType(o.effectTests.value_or(TQConst::EffectNone));
  if (o.effectTests && *o.effectTests != TQConst::EffectNone)
    s.SetEffectAnalysisStat(o.effectStatistic.value_or(GZLConst_940::EffectStatWald));
  s.SetCIType(o.ciType.value_or(GZLConst_940::Wald));
  // Each end point of a profile interval may take as many iterations as the fit.
  s.SetMaxIterationsPLCI(s.GetMaxIterations());
  if (o.refitTolerance) {
    s.SetTolLogLikeTypeIandIII(*o.refitTolerance);
    s.SetToleranceLogLikePLCI(*o.refitTolerance);
    s.SetToleranceHessianPLCI(*o.refitTolerance);
  }
  s.SetNegBin0(o.overdispersionTest);
  return true;
}

bool BuildSettings(const FitOptions& o, const CsvTable& table, const std::vector<ModelTerm>& terms, ModelSettings& m,
                   std::string& error) {
  GZLSettings& s = m.settings;
  s.SetGZLModelType(GZLConst_940::GZLM);
  if (!SetDistributionAndLink(o, s, error) || !SetResponse(o, table, s, error) ||
      !SetVariables(o, table, m, error) || !SetEffects(o, table, terms, m, error) || !SetControls(o, s, error) ||
      !SetEmmeansSettings(o, table, s, error) || !SetGeeSettings(o, table, s, error)) {
    return false;
  }
  const TQStatus status = s.IsValidSettings(true);
  if (status.IsError()) return Fail(error, "the model settings are not valid: " + DescribeStatus(status));
  return true;
}

// ---------------------------------------------------------------------------------------------
// The results, gathered once and written as text or JSON.

struct CategoryRow {
  std::string variable;
  std::string role;
  std::string category;
  std::string note;  // "event" / "reference" for a categorical response
  double n = TQMV::Missing;
  double percent = TQMV::Missing;
};

struct ContinuousRow {
  std::string variable;
  std::string role;
  DataStat stat;
};

struct FitStatistic {
  const char* key;
  std::string label;
  double value = TQMV::Missing;
  double df = TQMV::Missing;
  double perDf = TQMV::Missing;
};

struct ParameterRow {
  std::string name;
  const char* kind = "effect";  // intercept, threshold, effect, scale, k
  int effectIndex = -1;         // position in the effect list; -1 for the intercept and thresholds
  std::string effect;           // the term's text, for effect rows
  std::vector<int> categories;  // the engine's category codes of the factors (or the threshold)
  std::vector<std::pair<std::string, std::string>> factors;  // (variable, category label)
  std::vector<std::pair<std::string, int>> covariates;       // (variable, power)
  std::string target;  // response category of a nominal parameter
  int targetCode = -1;  // its code
  TQRegrParameterStats stats;
  std::string note;  // why a scale or k row has no standard error
};

struct FitReport {
  std::size_t records = 0;
  double included = 0.0;
  double weightedIncluded = TQMV::Missing;  // with a frequency weight only
  std::vector<CategoryRow> categorical;
  std::vector<ContinuousRow> continuous;
  std::vector<FitStatistic> fit;
  double omnibusChiSquare = TQMV::Missing;
  double omnibusDF = TQMV::Missing;
  double omnibusSig = TQMV::Missing;
  double omnibusNullLogLikelihood = TQMV::Missing;
  bool omnibusFailed = false;
  // Valid records (frequency weights counted), parameters not aliased, residual df.
  double nRecords = TQMV::Missing;
  int nNonRedundant = 0;
  double dfResidual = TQMV::Missing;
  bool intercept = true;
  double confidence = 0.95;
  EffectTestsReport effectTests;
  EmmeansReport emmeans;
  GeeReport gee;
  // The parameters' intervals are profile likelihood intervals.
  bool profile = false;
  // The Lagrange multiplier test the model calls for ("scale", "k", "overdispersion"; empty
  // when none): the value tested, statistic, df, significance and the one-sided and
  // non-directional significances.
  std::string lmTest;
  double lmValueTested = TQMV::Missing;
  double lmValues[6] = {TQMV::Missing, TQMV::Missing, TQMV::Missing, TQMV::Missing, TQMV::Missing, TQMV::Missing};
  std::vector<ParameterRow> parameters;
  // Multinomial responses: the categories in the model's order (ordinal: ascending; nominal: the
  // reference last), by code and label, with their weighted counts.
  bool ordinal = false;
  bool nominal = false;
  std::string responseName;
  std::vector<int> dependCategories;
  std::vector<std::string> dependLabels;
  std::vector<double> responseCounts;
  std::optional<ParameterRow> scale;
  std::optional<ParameterRow> k;
  std::string convergence;
  int iterations = -1;
  std::vector<TQStatus> warnings;
};

std::string LabelOf(const CsvTable& table, int field, int category) {
  if (field < 0 || static_cast<std::size_t>(field) >= table.NumColumns()) return std::to_string(category);
  const auto& labels = table.Column(field).labels;
  if (category < 0 || static_cast<std::size_t>(category) >= labels.size()) return std::to_string(category);
  return labels[static_cast<std::size_t>(category)];
}

std::string Bracket(const std::string& variable, const std::string& label) { return "[" + variable + "=" + label + "]"; }

std::string Join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i) out += separator;
    out += parts[i];
  }
  return out;
}

// One regression parameter's row: its name is built from the original labels of its factors
// in the order the term was written, e.g. [tension=M]*[wool=B], x**2, [a=1]([b=2]).
ParameterRow MakeParameterRow(const TQRegrParameter& p, const FitOptions& o, const CsvTable& table,
                              const std::vector<ModelTerm>& terms, int responseField) {
  ParameterRow row;
  const bool nominal = o.distribution == TQConst::DistNominalMultinomial;
  const bool ordinal = o.distribution == TQConst::DistOrdinalMultinomial;
  if (nominal && p.GetTargetCategory() >= 0) {
    row.target = LabelOf(table, responseField, p.GetTargetCategory());
    row.targetCode = p.GetTargetCategory();
  }

  if (p.IsIntercept()) {
    if (ordinal && p.GetTargetCategory() >= 0) {
      row.kind = "threshold";
      row.categories.push_back(p.GetTargetCategory());
      row.name = "Threshold " + Bracket(o.response, LabelOf(table, responseField, p.GetTargetCategory()));
    } else {
      row.kind = "intercept";
      row.name = "(Intercept)";
    }
  } else {
    const int index = p.GetEffectIndex();
    if (index >= 0 && static_cast<std::size_t>(index) < terms.size()) {
      const ModelTerm& term = terms[static_cast<std::size_t>(index)];
      row.effectIndex = index;
      row.effect = term.Text();
      std::vector<std::string> factorParts;
      for (const auto& name : term.factors) {
        const int field = table.ColumnIndex(name);
        const int code = p.ContainsFactor(field);
        const std::string label = LabelOf(table, field, code);
        row.categories.push_back(code);
        row.factors.emplace_back(name, label);
        factorParts.push_back(Bracket(name, label));
      }
      std::vector<std::string> covariateParts;
      for (const auto& name : term.covariates) {
        if (std::any_of(row.covariates.begin(), row.covariates.end(), [&](const auto& c) { return c.first == name; }))
          continue;
        const int power = p.GetCovariateMult(table.ColumnIndex(name));
        row.covariates.emplace_back(name, power);
        covariateParts.push_back(power > 1 ? name + "**" + std::to_string(power) : name);
      }
      if (term.nested && !factorParts.empty()) {
        const std::vector<std::string> enclosing(factorParts.begin() + 1, factorParts.end());
        row.name = factorParts.front() + "(" + Join(enclosing, "*") + ")";
      } else if (term.covariatesInParens && !factorParts.empty()) {
        row.name = Join(covariateParts, "*") + "(" + Join(factorParts, "*") + ")";
      } else {
        std::vector<std::string> parts = factorParts;
        parts.insert(parts.end(), covariateParts.begin(), covariateParts.end());
        row.name = Join(parts, "*");
      }
    } else {
      row.name = "parameter of effect " + std::to_string(index);
    }
  }
  return row;
}

void AddWarnings(std::vector<TQStatus>& into, const std::vector<TQStatus>& from) {
  for (const TQStatus& s : from) {
    if (s.IsOK()) continue;
    if (std::none_of(into.begin(), into.end(), [&](const TQStatus& t) { return t.GetErrorCode() == s.GetErrorCode(); }))
      into.push_back(s);
  }
}

std::string StoppingText(GZLConst_940::StoppingCriteria criterion) {
  std::string_view text = GZLComponentDisplay_940::EnumText(criterion);
  if (text.substr(0, 3) == " = ") text.remove_prefix(3);
  return std::string(text);
}

void GatherCounts(const FitOptions& o, const CsvTable& table, const GZLSettings& s, const GZLOutputStats& stats,
                  FitReport& report) {
  const GZLDataStats& data = stats.GetDataStats();
  const DataStat& dependent = data.GetDependentStat();
  report.records = table.NumRows();
  report.included = dependent.fUnweightedN;
  if (!o.frequencyWeight.empty()) report.weightedIncluded = dependent.fWeightedN;

  const TQFactorCounts& counts = stats.GetFactorCounts();
  const int responseField = table.ColumnIndex(o.response);
  auto addCounts = [&](const std::string& variable, const std::string& role, int field,
                       const std::vector<TQFactorCounts::Count>& list, int event, int reference) {
    double total = 0.0;
    for (const auto& c : list) total += c.first;
    for (std::size_t c = 0; c < list.size(); ++c) {
      CategoryRow row;
      row.variable = variable;
      row.role = role;
      row.category = LabelOf(table, field, static_cast<int>(c));
      if (static_cast<int>(c) == event) row.note = "event";
      if (static_cast<int>(c) == reference) row.note = "reference";
      row.n = list[c].first;
      row.percent = total > 0.0 ? 100.0 * list[c].first / total : TQMV::Missing;
      report.categorical.push_back(std::move(row));
    }
  };

  if (ResponseIsCategorical(o)) {
    if (const auto* list = counts.GetDependCountsPtr()) {
      const int reference = s.GetDependentRefCateg();
      const std::vector<int>& order = stats.GetDependCategories();
      if (s.IsSingleDependentForBinomial()) {
        // The event is the category coded 1 when the reference is 0, else the one coded 0.
        addCounts(o.response, "response", responseField, *list, reference == 0 ? 1 : 0, -2);
      } else {
        // The nominal reference is the last of the model's categories (the one asked for when it
        // occurs); ordinal categories have none.
        const bool nominal = o.distribution == TQConst::DistNominalMultinomial;
        addCounts(o.response, "response", responseField, *list, -2, nominal && !order.empty() ? order.back() : -2);
      }
      report.ordinal = o.distribution == TQConst::DistOrdinalMultinomial;
      report.nominal = o.distribution == TQConst::DistNominalMultinomial;
      report.responseName = o.response;
      for (int code : order) {
        report.dependCategories.push_back(code);
        report.dependLabels.push_back(LabelOf(table, responseField, code));
        report.responseCounts.push_back(code >= 0 && static_cast<std::size_t>(code) < list->size()
                                            ? (*list)[static_cast<std::size_t>(code)].first
                                            : TQMV::Missing);
      }
    }
  } else if (o.responseForm != ResponseForm::Single) {
    const GZLEventsCount& events = stats.GetEventsCount();
    const double trials = events.GetTrialsCount().first;
    const double e = events.GetEventsCount().first;
    const double ne = events.GetNonEventsCount().first;
    auto percent = [trials](double v) {
      return trials > 0.0 && !TQMV::IsMissing(v) ? 100.0 * v / trials : TQMV::Missing;
    };
    report.categorical.push_back({o.response, "events", "events", "", e, percent(e)});
    report.categorical.push_back({o.response, "events", "non-events", "", ne, percent(ne)});
  }
  const std::vector<int>& factors = s.GetFactors();
  for (std::size_t i = 0; i < factors.size() && i < o.factors.size(); ++i) {
    if (const auto* list = counts.GetCountsPtr(static_cast<int>(i)))
      addCounts(o.factors[i], "factor", factors[i], *list, -2, -2);
  }

  if (!ResponseIsCategorical(o)) {
    report.continuous.push_back({o.response, o.responseForm == ResponseForm::Single ? "response" : "events", dependent});
  }
  const std::vector<DataStat>& covariates = data.GetCovariateStats();
  for (std::size_t i = 0; i < covariates.size() && i < o.covariates.size(); ++i) {
    report.continuous.push_back({o.covariates[i], "covariate", covariates[i]});
  }
  if (!o.offsetVariable.empty()) report.continuous.push_back({o.offsetVariable, "offset", data.GetOffsetStat()});
  if (!o.scaleWeight.empty()) report.continuous.push_back({o.scaleWeight, "scale weight", data.GetWeightStat()});
}

void GatherFit(const FitOptions& o, const IGZLAlgorithm& algorithm, const GZLOutputStats& stats, FitReport& report) {
  const double df = stats.GetNDegFreedom();
  report.dfResidual = df;
  report.nRecords = stats.GetDataStats().GetDependentStat().fWeightedN;
  report.nNonRedundant = 0;
  for (bool redundant : stats.GetRedundancyIndicators()) report.nNonRedundant += redundant ? 0 : 1;
  if (const auto* gzlm = dynamic_cast<const GZLAlgorithm*>(&algorithm)) {
    if (const GZLOmnibusTest* omnibus = gzlm->GetOmnibusTest())
      report.omnibusNullLogLikelihood = omnibus->GetNullLogLikelihood();
  }
  const GZLConst_940::ScaleMethod method = EffectiveScaleMethod(o);
  const bool fixedAtEstimate = method == GZLConst_940::ScaleDeviance || method == GZLConst_940::ScalePearson;
  const double logLikelihood = fixedAtEstimate ? stats.GetLogLikehoodScaleFixed() : stats.GetLogLikehood();
  const bool kernel = o.llType && *o.llType == GZLConst_940::LLKernel;
  report.fit = {
      {"deviance", "Deviance", stats.GetDevianceValue(), df, stats.GetDevianceValueByDegFreedom()},
      {"scaled_deviance", "Scaled deviance", stats.GetScaledDevianceValue(), df, TQMV::Missing},
      {"pearson_chisq", "Pearson chi-square", stats.GetPearsonChiSquareValue(), df,
       stats.GetPearsonChiSquareValueByDegFreedom()},
      {"scaled_pearson_chisq", "Scaled Pearson chi-square", stats.GetScaledPearsonChiSquareValue(), df,
       TQMV::Missing},
      {"loglik", kernel ? "Log-likelihood (kernel)" : "Log-likelihood", logLikelihood, TQMV::Missing,
       TQMV::Missing},
      {"aic", "Akaike's information criterion (AIC)", stats.GetAIC(), TQMV::Missing, TQMV::Missing},
      {"aicc", "Finite sample corrected AIC (AICC)", stats.GetAICC(), TQMV::Missing, TQMV::Missing},
      {"bic", "Bayesian information criterion (BIC)", stats.GetBIC(), TQMV::Missing, TQMV::Missing},
      {"caic", "Consistent AIC (CAIC)", stats.GetCAIC(), TQMV::Missing, TQMV::Missing},
  };
  report.omnibusChiSquare = stats.GetOmnibusDist();
  report.omnibusDF = stats.GetOmnibusDF();
  report.omnibusSig = stats.GetOmnibusSig();
  report.omnibusFailed = stats.GetOmnibusFailedInitModel();
  report.intercept = o.intercept;
}

void GatherLagrangeMultiplierTest(const FitOptions& o, const GZLSettings& s, const GZLOutputStats& stats,
                                  FitReport& report) {
  if (TQMV::IsMissing(stats.GetLagrangeMultDF())) return;
  if (o.distribution == TQConst::DistPoisson) {
    report.lmTest = "overdispersion";
    report.lmValueTested = 0.0;
  } else if (o.distribution == TQConst::DistNegBinomial) {
    report.lmTest = "k";
    report.lmValueTested = stats.GetNegBinK();
  } else {
    report.lmTest = "scale";
    report.lmValueTested = s.GetScaleValue();
  }
  const double values[6] = {stats.GetLagrangeMultDist(),      stats.GetLagrangeMultDF(),
                            stats.GetLagrangeMultSig(),       stats.GetLagrangeSigGreaterZero(),
                            stats.GetLagrangeSigLessZero(),   stats.GetLagrangeSigNonDir()};
  std::copy(std::begin(values), std::end(values), report.lmValues);
}

void GatherParameters(const FitOptions& o, const CsvTable& table, const std::vector<ModelTerm>& terms,
                      const GZLSettings& s, const GZLOutputStats& stats, FitReport& report) {
  report.confidence = s.GetConfidenceLevel();
  report.profile = s.GetCIType() == GZLConst_940::Profile;
  const std::vector<TQRegrParameter>& parameters = stats.GetParameters();
  const std::vector<TQRegrParameterStats>& rows = stats.GetParamStats();
  const std::vector<double>& estimates = stats.GetParamEstimates();
  const std::vector<bool>& redundant = stats.GetRedundancyIndicators();
  const int responseField = table.ColumnIndex(o.response);
  for (std::size_t j = 0; j < parameters.size(); ++j) {
    ParameterRow row = MakeParameterRow(parameters[j], o, table, terms, responseField);
    if (j < rows.size()) row.stats = rows[j];
    if (j < redundant.size() && redundant[j]) row.stats.SetRedundant(true);
    if (TQMV::IsMissing(row.stats.GetEstimate()) && j < estimates.size()) row.stats.SetEstimate(estimates[j]);
    if (row.stats.IsRedundant()) row.stats.SetEstimate(0.0);
    report.parameters.push_back(std::move(row));
  }

  const std::size_t p = parameters.size();
  if (p < rows.size()) {
    ParameterRow scale;
    scale.kind = "scale";
    scale.name = "(Scale)";
    scale.stats = rows[p];
    switch (EffectiveScaleMethod(o)) {
      case GZLConst_940::ScaleFixed:
        scale.note = "fixed";
        break;
      case GZLConst_940::ScaleDeviance:
        scale.note = "computed from the deviance";
        break;
      case GZLConst_940::ScalePearson:
        scale.note = "computed from the Pearson chi-square";
        break;
      default:
        break;
    }
    report.scale = std::move(scale);
  }
  if (o.distribution == TQConst::DistNegBinomial && p + 1 < rows.size()) {
    ParameterRow k;
    k.kind = "k";
    k.name = "(Negative binomial k)";
    k.stats = rows[p + 1];
    if (!o.estimateK) k.note = "fixed";
    report.k = std::move(k);
  }
}

// ---------------------------------------------------------------------------------------------
// Text output.

std::string Number(double value) { return FormatNumber(value, 6); }

std::string Percent(double value) {
  if (TQMV::IsMissingOrInfinite(value)) return ".";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f%%", value);
  return buffer;
}

std::string ConfidenceText(double level) { return FormatNumber(100.0 * level, 6) + "%"; }

using Align = TextTable::Align;

// The parameter estimates: one table, or for a nominal response one table per logit (the
// parameters of one response category against the reference); the scale and k rows close the
// last table.
void WriteParameterTables(std::ostream& out, const FitReport& r) {
  const std::string interval = "(Lower, Upper: " + ConfidenceText(r.confidence) +
                               (r.profile ? " profile likelihood" : " Wald") + " confidence interval)";
  std::vector<std::pair<std::string, std::vector<const ParameterRow*>>> tables;
  for (const auto& row : r.parameters) {
    if (r.nominal && !r.dependLabels.empty()) {
      const std::string title = "\nParameter estimates for " + Bracket(r.responseName, row.target) +
                                " against the reference " + Bracket(r.responseName, r.dependLabels.back()) + " " +
                                interval;
      if (tables.empty() || tables.back().first != title) tables.push_back({title, {}});
    } else if (tables.empty()) {
      tables.push_back({"\nParameter estimates " + interval, {}});
    }
    tables.back().second.push_back(&row);
  }
  if (tables.empty()) tables.push_back({"\nParameter estimates " + interval, {}});
  bool anyRedundant = false, anyFixed = false;
  for (std::size_t t = 0; t < tables.size(); ++t) {
    TextTable table(tables[t].first, {"Parameter", "B", "Std. error", "Lower", "Upper", "Wald chi-square", "df", "Sig."},
                    {Align::Left, Align::Right, Align::Right, Align::Right, Align::Right, Align::Right, Align::Right,
                     Align::Right});
    for (const ParameterRow* row : tables[t].second) {
      const TQRegrParameterStats& st = row->stats;
      if (st.IsRedundant()) {
        anyRedundant = true;
        table.AddRow({row->name, "0^a"});
        continue;
      }
      table.AddRow({row->name, Number(st.GetEstimate()), Number(st.GetStdError()), Number(st.GetLowerBound()),
                    Number(st.GetUpperBound()), Number(st.GetWaldChiSquare()), Number(st.GetDF()),
                    FormatSignificance(st.GetSignificance())});
    }
    for (const auto* extra : {&r.scale, &r.k}) {
      if (t + 1 < tables.size() || !*extra) continue;
      const ParameterRow& row = **extra;
      const TQRegrParameterStats& st = row.stats;
      if (row.note == "fixed") {
        anyFixed = true;
        table.AddRow({row.name, Number(st.GetEstimate()) + "^b"});
      } else if (!row.note.empty()) {
        table.AddRow({row.name, Number(st.GetEstimate()) + "^c"});
      } else {
        table.AddRow({row.name, Number(st.GetEstimate()), Number(st.GetStdError()), Number(st.GetLowerBound()),
                      Number(st.GetUpperBound())});
      }
    }
    table.Write(out);
  }
  if (r.ordinal) {
    out << "  Thresholds: P(" << r.responseName
        << " <= category) = F(threshold - linear predictor).\n";
  }
  if (anyRedundant) out << "  ^a Aliased: set to zero because it is redundant with the parameters above.\n";
  if (anyFixed) out << "  ^b Fixed at the displayed value.\n";
  if (r.scale && !r.scale->note.empty() && r.scale->note != "fixed") {
    out << "  ^c The scale is " << r.scale->note << ".\n";
  }
}

void WriteText(std::ostream& out, const FitReport& r) {
  {
    TextTable cases("Case processing summary", {"Records", "N", "Percent"}, {Align::Left, Align::Right, Align::Right});
    const double total = static_cast<double>(r.records);
    auto percent = [total](double n) { return total > 0.0 ? 100.0 * n / total : TQMV::Missing; };
    cases.AddRow({"Included", Number(r.included), Percent(percent(r.included))});
    cases.AddRow({"Excluded", Number(total - r.included), Percent(percent(total - r.included))});
    cases.AddRow({"Total", Number(total), Percent(total > 0.0 ? 100.0 : TQMV::Missing)});
    cases.Write(out);
    if (total > r.included) {
      out << "  Excluded records have a missing value, a response outside the range of the distribution or a\n"
             "  weight that is not positive.\n";
    }
    if (!TQMV::IsMissing(r.weightedIncluded)) {
      out << "  Included records weighted by the frequency weight: " << Number(r.weightedIncluded) << '\n';
    }
  }

  if (!r.categorical.empty()) {
    TextTable table("\nCategorical variable information", {"Variable", "Role", "Category", "N", "Percent"},
                    {Align::Left, Align::Left, Align::Left, Align::Right, Align::Right});
    std::string previous;
    for (const auto& row : r.categorical) {
      const bool first = row.variable + "\n" + row.role != previous;
      previous = row.variable + "\n" + row.role;
      std::string category = row.category;
      if (!row.note.empty()) category += " (" + row.note + ")";
      table.AddRow({first ? row.variable : "", first ? row.role : "", category, Number(row.n), Percent(row.percent)});
    }
    table.Write(out);
  }

  if (!r.continuous.empty()) {
    TextTable table("\nContinuous variable information",
                    {"Variable", "Role", "N", "Minimum", "Maximum", "Mean", "Std. deviation"},
                    {Align::Left, Align::Left, Align::Right, Align::Right, Align::Right, Align::Right, Align::Right});
    for (const auto& row : r.continuous) {
      const DataStat& d = row.stat;
      const bool any = d.fUnweightedN > 0.0;
      table.AddRow({row.variable, row.role, Number(d.fWeightedN), any ? Number(d.fMin) : ".",
                    any ? Number(d.fMax) : ".", any ? Number(d.fMean) : ".", any ? Number(d.fStdDev) : "."});
    }
    table.Write(out);
  }

  {
    TextTable table("\nGoodness of fit", {"Statistic", "Value", "df", "Value/df"},
                    {Align::Left, Align::Right, Align::Right, Align::Right});
    for (const auto& f : r.fit) {
      // A GEE fit has no likelihood: only the Pearson statistics remain.
      if (r.gee.present && TQMV::IsMissing(f.value)) continue;
      table.AddRow({f.label, Number(f.value), TQMV::IsMissing(f.df) ? "" : Number(f.df),
                    TQMV::IsMissing(f.perDf) ? "" : Number(f.perDf)});
    }
    table.Write(out);
  }

  if (!r.gee.present) {
    TextTable table(r.intercept ? "\nOmnibus test (fitted model against the intercept-only model)"
                                : "\nOmnibus test (fitted model against the model without parameters)",
                    {"Likelihood-ratio chi-square", "df", "Sig."}, {Align::Right, Align::Right, Align::Right});
    table.AddRow({Number(r.omnibusChiSquare), Number(r.omnibusDF), FormatSignificance(r.omnibusSig)});
    table.Write(out);
    if (r.omnibusFailed) out << "  The null model could not be fitted.\n";
  }
  WriteEffectTestsText(out, r.effectTests);

  WriteParameterTables(out, r);
  if (r.gee.present) {
    std::vector<std::string> names;
    std::vector<bool> redundant;
    for (const auto& row : r.parameters) {
      names.push_back(row.name);
      redundant.push_back(row.stats.IsRedundant());
    }
    WriteGeeText(out, r.gee, names, redundant);
  }

  if (!r.lmTest.empty()) {
    const bool directional = r.lmTest == "overdispersion";
    std::vector<std::string> headers{"Test", "Value tested", directional ? "z" : "Chi-square", "df", "Sig."};
    if (directional) headers.insert(headers.end(), {"Sig. (>0)", "Sig. (<0)", "Sig. (two-sided)"});
    std::vector<Align> align(headers.size(), Align::Right);
    align[0] = Align::Left;
    TextTable table("\nLagrange multiplier test", headers, align);
    const char* name = r.lmTest == "scale" ? "Fixed scale" : r.lmTest == "k" ? "Fixed negative binomial k"
                                                                              : "Poisson overdispersion";
    std::vector<std::string> cells{name, Number(r.lmValueTested), Number(r.lmValues[0]), Number(r.lmValues[1]),
                                   FormatSignificance(r.lmValues[2])};
    if (directional)
      cells.insert(cells.end(), {FormatSignificance(r.lmValues[3]), FormatSignificance(r.lmValues[4]),
                                 FormatSignificance(r.lmValues[5])});
    table.AddRow(std::move(cells));
    table.Write(out);
  }

  WriteEmmeansText(out, r.emmeans);

  out << "\nConvergence: " << r.convergence;
  if (r.iterations >= 0) out << " (" << r.iterations << (r.iterations == 1 ? " iteration)" : " iterations)");
  out << '\n';
  if (!r.warnings.empty()) {
    out << "\nWarnings\n";
    for (const TQStatus& w : r.warnings) out << "  - " << DescribeStatus(w) << '\n';
  }
}

// ---------------------------------------------------------------------------------------------
// JSON output.

// profile: the limits of the stats are profile likelihood limits (the Wald limits are null).
void JsonStats(JsonWriter& json, const TQRegrParameterStats& st, bool tests, bool profile) {
  json.Member("estimate", st.GetEstimate());
  json.Member("se", st.GetStdError());
  json.Member("wald_lower", profile ? TQMV::Missing : st.GetLowerBound());
  json.Member("wald_upper", profile ? TQMV::Missing : st.GetUpperBound());
  if (tests) {
    json.Member("wald_chisq", st.GetWaldChiSquare());
    json.Member("df", st.GetDF());
    json.Member("sig", st.GetSignificance());
  }
}

// The profile interval of the scale or k, null unless that parameter was estimated.
void JsonProfileExtra(JsonWriter& json, const char* key, const std::optional<ParameterRow>& row) {
  json.Key(key);
  if (!row || !row->note.empty()) {
    json.Null();
    return;
  }
  json.BeginObject();
  json.Member("estimate", row->stats.GetEstimate());
  json.Member("lower", row->stats.GetLowerBound());
  json.Member("upper", row->stats.GetUpperBound());
  json.EndObject();
}

// A nominal parameter's logit: its response category's code and label.
void JsonLogit(JsonWriter& json, const ParameterRow& row) {
  if (row.target.empty()) return;
  json.Member("logit", row.targetCode);
  json.Member("response_category", row.target);
}

void JsonProfileIntervals(JsonWriter& json, const FitReport& r) {
  json.Key("profile_ci");
  json.BeginArray();
  for (const auto& row : r.parameters) {
    json.BeginObject();
    json.Member("term", row.name);
    json.Member("kind", row.kind);
    json.Member("effect", row.effectIndex);
    json.Key("categories");
    json.BeginArray();
    for (int c : row.categories) json.Integer(c);
    json.EndArray();
    JsonLogit(json, row);
    json.Member("redundant", row.stats.IsRedundant());
    json.Member("estimate", row.stats.GetEstimate());
    json.Member("lower", row.stats.IsRedundant() ? TQMV::Missing : row.stats.GetLowerBound());
    json.Member("upper", row.stats.IsRedundant() ? TQMV::Missing : row.stats.GetUpperBound());
    json.EndObject();
  }
  json.EndArray();
  JsonProfileExtra(json, "profile_ci_scale", r.scale);
  JsonProfileExtra(json, "profile_ci_k", r.k);
}

void JsonLagrangeMultiplierTests(JsonWriter& json, const FitReport& r) {
  json.Key("lm_tests");
  json.BeginArray();
  if (!r.lmTest.empty()) {
    static const char* const kKeys[6] = {"statistic", "df", "sig", "sig_greater", "sig_less", "sig_nondirectional"};
    json.BeginObject();
    json.Member("test", r.lmTest);
    json.Member("value_tested", r.lmValueTested);
    for (int i = 0; i < 6; ++i) json.Member(kKeys[i], r.lmValues[i]);
    json.EndObject();
  }
  json.EndArray();
}

void JsonExtraRow(JsonWriter& json, const char* key, const std::optional<ParameterRow>& row, bool profile) {
  json.Key(key);
  if (!row) {
    json.Null();
    return;
  }
  json.BeginObject();
  JsonStats(json, row->stats, false, profile && row->note.empty());
  json.Member("fixed", row->note == "fixed");
  if (!row->note.empty() && row->note != "fixed") json.Member("method", row->note);
  json.EndObject();
}

// The headline figures, flat and under the names the published reference figures use.
void JsonHeadline(JsonWriter& json, const FitReport& r) {
  json.Member("n_records", r.nRecords);
  json.Member("n_nonredundant", r.nNonRedundant);
  json.Member("df_residual", r.dfResidual);
  for (const auto& f : r.fit) json.Member(f.key, f.value);
  json.Key("scale");
  r.scale ? json.Number(r.scale->stats.GetEstimate()) : json.Null();
  json.Key("k");
  r.k ? json.Number(r.k->stats.GetEstimate()) : json.Null();
  if (r.gee.present) WriteGeeJson(json, r.gee);
}

void WriteJson(JsonWriter& json, const FitReport& r) {
  JsonHeadline(json, r);
  if (r.ordinal || r.nominal) {
    // The response categories in the model's order, by code and label, and their weighted counts.
    json.Key("depend_categories");
    json.BeginArray();
    for (int c : r.dependCategories) json.Integer(c);
    json.EndArray();
    json.Key("depend_category_labels");
    json.BeginArray();
    for (const auto& label : r.dependLabels) json.String(label);
    json.EndArray();
    json.Key("response_counts");
    json.BeginArray();
    for (double n : r.responseCounts) json.Number(n);
    json.EndArray();
  }
  json.Key("cases");
  json.BeginObject();
  json.Member("included", r.included);
  json.Member("excluded", static_cast<double>(r.records) - r.included);
  json.Member("total", r.records);
  if (!TQMV::IsMissing(r.weightedIncluded)) json.Member("weighted_included", r.weightedIncluded);
  json.EndObject();

  json.Key("categorical");
  json.BeginArray();
  for (const auto& row : r.categorical) {
    json.BeginObject();
    json.Member("variable", row.variable);
    json.Member("role", row.role);
    json.Member("category", row.category);
    if (!row.note.empty()) json.Member("note", row.note);
    json.Member("n", row.n);
    json.Member("percent", row.percent);
    json.EndObject();
  }
  json.EndArray();

  json.Key("continuous");
  json.BeginArray();
  for (const auto& row : r.continuous) {
    const DataStat& d = row.stat;
    const bool any = d.fUnweightedN > 0.0;
    json.BeginObject();
    json.Member("variable", row.variable);
    json.Member("role", row.role);
    json.Member("n", d.fWeightedN);
    json.Member("minimum", any ? d.fMin : TQMV::Missing);
    json.Member("maximum", any ? d.fMax : TQMV::Missing);
    json.Member("mean", any ? d.fMean : TQMV::Missing);
    json.Member("std_deviation", any ? d.fStdDev : TQMV::Missing);
    json.EndObject();
  }
  json.EndArray();

  json.Key("goodness_of_fit");
  json.BeginObject();
  for (const auto& f : r.fit) {
    if (TQMV::IsMissing(f.df)) {
      json.Member(f.key, f.value);
      continue;
    }
    json.Key(f.key);
    json.BeginObject();
    json.Member("value", f.value);
    json.Member("df", f.df);
    if (!TQMV::IsMissing(f.perDf) || std::string_view(f.key) == "deviance" ||
        std::string_view(f.key) == "pearson_chisq")
      json.Member("value_df", f.perDf);
    json.EndObject();
  }
  json.EndObject();

  json.Key("omnibus");
  json.BeginObject();
  json.Member("chisq", r.omnibusChiSquare);
  json.Member("df", r.omnibusDF);
  json.Member("sig", r.omnibusSig);
  json.Member("loglik_null", r.omnibusNullLogLikelihood);
  json.Member("null_model_failed", r.omnibusFailed);
  json.EndObject();
  WriteEffectTestsJson(json, r.effectTests);

  json.Member("confidence_level", r.confidence);
  json.Key("parameters");
  json.BeginArray();
  for (const auto& row : r.parameters) {
    json.BeginObject();
    json.Member("term", row.name);
    json.Member("kind", row.kind);
    json.Member("effect", row.effectIndex);
    if (!row.effect.empty()) json.Member("effect_term", row.effect);
    json.Key("categories");
    json.BeginArray();
    for (int c : row.categories) json.Integer(c);
    json.EndArray();
    if (!row.factors.empty()) {
      json.Key("factors");
      json.BeginObject();
      for (const auto& [variable, label] : row.factors) json.Member(variable, label);
      json.EndObject();
    }
    if (!row.covariates.empty()) {
      json.Key("covariates");
      json.BeginObject();
      for (const auto& [variable, power] : row.covariates) json.Member(variable, power);
      json.EndObject();
    }
    JsonLogit(json, row);
    json.Member("redundant", row.stats.IsRedundant());
    JsonStats(json, row.stats, true, r.profile);
    if (r.gee.present) {
      const auto j = static_cast<std::size_t>(&row - r.parameters.data());
      json.Member("se_robust", j < r.gee.seRobust.size() ? r.gee.seRobust[j] : TQMV::Missing);
      json.Member("se_model", j < r.gee.seModel.size() ? r.gee.seModel[j] : TQMV::Missing);
    }
    json.EndObject();
  }
  json.EndArray();
  JsonExtraRow(json, "scale_stats", r.scale, r.profile);
  JsonExtraRow(json, "k_stats", r.k, r.profile);
  if (r.profile) JsonProfileIntervals(json, r);
  JsonLagrangeMultiplierTests(json, r);
  WriteEmmeansJson(json, r.emmeans);

  json.Key("convergence");
  json.BeginObject();
  json.Member("criterion", r.convergence);
  json.Key("iterations");
  r.iterations >= 0 ? json.Integer(r.iterations) : json.Null();
  json.EndObject();

  json.Key("warnings");
  json.BeginArray();
  for (const TQStatus& w : r.warnings) {
    json.BeginObject();
    json.Member("code", w.GetErrorCode());
    json.Member("name", GZLComponentDisplay_940::StatusCodeName(w.GetErrorCode()));
    json.Member("message", DescribeStatus(w));
    json.EndObject();
  }
  json.EndArray();
}

// ---------------------------------------------------------------------------------------------

bool RunFitUnguarded(const FitOptions& o, const CsvTable& table, const std::vector<ModelTerm>& terms,
                     std::ostream& out, std::string& error, const FitHooks& hooks) {
  if (table.NumRows() == 0) return Fail(error, "no data records");
  auto model = std::make_unique<ModelSettings>();
  if (!BuildSettings(o, table, terms, *model, error)) return false;
  GZLSettings& s = model->settings;

  // Records are reported in steps of about a twentieth of the file, so that even a very large
  // file gives a steady count without flooding the terminal.
  FitProgressPrinter records(FitProgressPrinter::Kind::Records, hooks.progress, hooks.progressIsTerminal);
  FitProgressPrinter iterations(FitProgressPrinter::Kind::Iterations, hooks.progress, hooks.progressIsTerminal);
  if (hooks.progress != nullptr) {
    s.SetRecProgressListener(&records);
    s.SetNSkippedReports(static_cast<int>(std::clamp<std::size_t>(table.NumRows() / 20, 1000, 1000000)));
  }
  // Always listened to: the number of iterations is part of the results.
  s.SetIterProgressListener(&iterations);
  s.SetCancelPointer(hooks.cancel);

  std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(s, false));
  if (!algorithm) return Fail(error, "the engine refused the model settings");
  std::shared_ptr<const RecordCache> ordered;
  if (!FitRecordOrder(s, table, ordered, error)) return false;
  CacheRecordSource source(*ordered);
  const TQStatus status = algorithm->BuildModel(source);
  records.Finish();
  iterations.Finish();
  if (source.Failed()) return Fail(error, "the records could not be read back from the temporary file");
  if (status.GetErrorCode() == GZLStatusCode::Cancelled && status.IsError()) {
    return Fail(error, "the fit was cancelled");
  }
  if (status.IsError() || !algorithm->IsModelBuilt()) {
    const TQStatus reason = status.IsError() ? status : algorithm->GetStatus();
    return Fail(error, "the model cannot be fitted: " + DescribeStatus(reason));
  }
  const GZLOutputStats* stats = nullptr;
  const TQStatus statsStatus = algorithm->GetOutputStats(stats);
  if (statsStatus.IsError() || stats == nullptr) {
    return Fail(error, "the results of the fit are not available: " + DescribeStatus(statsStatus));
  }

  FitReport report;
  GatherCounts(o, table, s, *stats, report);
  GatherFit(o, *algorithm, *stats, report);
  GatherParameters(o, table, terms, s, *stats, report);
  GatherEffectTests(o, terms, *stats, report.effectTests);
  GatherEmmeans(o, table, *stats, report.emmeans);
  GatherLagrangeMultiplierTest(o, s, *stats, report);
  if (s.IsModelGEE()) GatherGee(o, table, s, *stats, report.gee);
  report.convergence = StoppingText(stats->GetEstimStopCriterion());
  report.iterations = iterations.LastIteration();
  AddWarnings(report.warnings, stats->GetBuildModelWarnings());
  AddWarnings(report.warnings, stats->GetStatComputeWarnings());
  AddWarnings(report.warnings, stats->GetEffectAnalysisWarnings());
  AddWarnings(report.warnings, algorithm->GetEmmeansWarnings());
  if (status.IsWarning()) AddWarnings(report.warnings, {status});

  if (!o.pmmlPath.empty() && !WritePmmlFile(o.pmmlPath, *algorithm, s, table, error)) return false;
  if (!WriteScoreFiles(o, table, s, *algorithm, *stats, error)) return false;

  // Written whole only once everything is gathered, so that a failure leaves no partial output.
  std::ostringstream text;
  if (o.json) {
    JsonWriter json(text);
    json.BeginObject();
    json.Key("model");
    WriteModelInfoJson(json, o, table, terms);
    WriteJson(json, report);
    json.EndObject();
    text << '\n';
  } else {
    WriteText(text, report);
  }
  out << text.str();
  return true;
}

}  // namespace

bool RunFit(const FitOptions& options, const CsvTable& table, const std::vector<ModelTerm>& terms, std::ostream& out,
            std::string& error, const FitHooks& hooks) {
  try {
    return RunFitUnguarded(options, table, terms, out, error, hooks);
  } catch (const std::bad_alloc&) {
    error = "out of memory while fitting the model";
  } catch (const std::exception& e) {
    error = std::string("error while fitting the model: ") + e.what();
  }
  return false;
}
