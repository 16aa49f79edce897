#pragma once
// Everything `gzl fit` is asked to do, as parsed from its command line. Controls left empty
// (std::nullopt) keep the engine's own default; the Effective* helpers resolve the few choices
// whose default depends on the distribution.
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "TQConst.h"
#include "tools/CsvTable.h"

enum class ResponseForm {
  Single,             // one response variable
  EventsTrials,       // binomial events with a trials variable
  EventsConstTrials   // binomial events with a constant number of trials
};

struct FitOptions {
  // Data.
  std::string dataPath;
  char separator = ',';

  // Response. For the events forms, `response` names the events variable.
  ResponseForm responseForm = ResponseForm::Single;
  std::string response;
  std::string trialsVariable;
  double trialsValue = 0.0;
  // Reference category of a categorical response: "first", "last" or a category label; empty
  // keeps the engine's default (the first category is the reference, so for a binary response
  // the event is the second).
  std::string referenceCategory;

  // Distribution and link.
  TQConst::DistType distribution = TQConst::DistNormal;
  std::optional<TQConst::LinkType> link;
  std::optional<double> linkParam;
  // Negative binomial k or Tweedie power.
  std::optional<double> distParam;
  bool estimateK = false;

  // Predictors and effects. An empty effect list means a main effect for every factor and
  // covariate.
  std::vector<std::string> factors;
  std::vector<std::string> covariates;
  std::string effects;
  bool intercept = true;

  // Offset (a variable or a fixed value) and weights.
  std::string offsetVariable;
  std::optional<double> offsetValue;
  std::string frequencyWeight;
  std::string scaleWeight;

  // Scale parameter.
  std::optional<GZLConst_940::ScaleMethod> scaleMethod;
  std::optional<double> scaleValue;

  // Estimation controls.
  std::optional<TQConst::TQHessianCompMethod> hessianMethod;
  std::optional<int> fisherIterations;     // hybrid method: Fisher scoring up to this iteration
  std::optional<int> maxIterations;
  std::optional<int> maxStepHalving;
  std::optional<int> separationIteration;  // first iteration checked for (quasi-)complete separation
  std::optional<double> llTolerance;
  std::optional<TQConst::TQConvType> llConvType;
  std::optional<double> paramTolerance;
  std::optional<TQConst::TQConvType> paramConvType;
  std::optional<double> hessianTolerance;
  std::optional<TQConst::TQConvType> hessianConvType;
  std::optional<double> singularityTolerance;

  // Output.
  std::optional<double> confidenceLevel;  // a fraction, 0 < level < 1
  std::optional<GZLConst_940::LLType> llType;
  // Wald tests of model effects; none unless asked for.
  std::optional<TQConst::TQEffectAnalysisType> effectTests;
  // Their statistic: Wald (the default) or likelihood ratio (refits under each hypothesis).
  std::optional<GZLConst_940::EffectAnalysisStat> effectStatistic;
  // Intervals of the parameters: Wald (the default) or profile likelihood.
  std::optional<GZLConst_940::CIType> ciType;
  // A Poisson model's Lagrange multiplier test against overdispersion.
  bool overdispersionTest = false;
  // Log-likelihood tolerance of the likelihood-ratio refits and of the profile search.
  std::optional<double> refitTolerance;
  bool json = false;
  bool dryRun = false;  // describe the model and stop

  // Estimated marginal means: one request per entry ("a", "a*b": the cells of a by b with a
  // compared within each b; "a|b*c": a compared within each combination of b and c), and the
  // choices every request shares. Empty optionals keep the tool's defaults: pairwise
  // comparisons, the response scale, no adjustment, chi-square tests.
  std::vector<std::string> emmeans;
  std::optional<TQConst::TQContrastType> emmeansContrast;
  std::string emmeansReference;       // label of the simple contrast's reference; empty: the last
  std::vector<double> emmeansMetric;  // polynomial contrast: one value per level
  std::optional<TQConst::TQEmmScaleType> emmeansScale;
  std::optional<TQConst::TQPAdjustMethod> emmeansAdjust;
  std::vector<std::string> emmeansAt;  // covariate values, "name=value"
  std::optional<TQConst::TQTestType> emmeansTest;
  // A PMML document of the fitted model goes to this file when it is not empty.
  std::string pmmlPath;

  // Generalized estimating equations: a GEE model is fitted when subject variables are given.
  // A subject is a run of records with equal values of every subject variable (or, with
  // sortSubjects, every record with those values: the records are then read sorted by subject
  // and within-subject values). Within-subject variables give each record its position in the
  // working correlation; without them the position is the record's place in its subject.
  std::vector<std::string> subjects;
  std::vector<std::string> within;
  bool sortSubjects = false;
  std::optional<GZLConst_940::CorrType> corrType;
  double corrM = 1.0;    // m of the m-dependent structure
  std::string corrFile;  // the values of the fixed structure
  std::optional<bool> adjustCorr;
  std::optional<int> updateCorr;
  std::optional<TQConst::TQCovbType> covariance;
  std::optional<int> geeMaxIterations;
  std::optional<double> geeParamTolerance;
  std::optional<TQConst::TQConvType> geeParamConvType;
  std::optional<double> geeHessianTolerance;

  // Scores of every record of the data file go to savePath (a CSV file: the input columns, the
  // status, then the chosen outputs); the records of scoreDataPath, scored with the fitted model,
  // go to scoreOutputPath. scoreOutputs names the outputs (empty: the default set).
  std::string savePath;
  std::vector<std::string> scoreOutputs;
  std::string scoreDataPath;
  std::string scoreOutputPath;
};

// Names accepted on the command line for an enumerated choice; the first name of each value is
// the one used in output.
struct FitOptionName {
  const char* name;
  int value;
};
std::span<const FitOptionName> DistributionNames();
std::span<const FitOptionName> LinkNames();
std::span<const FitOptionName> ScaleMethodNames();
std::span<const FitOptionName> HessianMethodNames();
std::span<const FitOptionName> ConvergenceTypeNames();
std::span<const FitOptionName> LogLikelihoodTypeNames();
std::span<const FitOptionName> EffectTestNames();
std::span<const FitOptionName> EmmeansContrastNames();
std::span<const FitOptionName> EmmeansScaleNames();
std::span<const FitOptionName> EmmeansAdjustNames();
std::span<const FitOptionName> EmmeansTestNames();
std::span<const FitOptionName> EffectStatisticNames();
std::span<const FitOptionName> CITypeNames();
std::span<const FitOptionName> CovarianceNames();
// The output name of a value, "unknown" when the table has none.
const char* FitOptionLabel(std::span<const FitOptionName> names, int value);

// The link used when none is given: the canonical link, except log for the negative binomial
// and Tweedie distributions and cumulative logit for multinomial responses.
TQConst::LinkType DefaultLink(TQConst::DistType distribution);
TQConst::LinkType EffectiveLink(const FitOptions& options);
// The scale method used when none is given: fixed when a scale value is given or the
// distribution has no free scale (binomial, Poisson, negative binomial, multinomial), else the
// maximum-likelihood estimate.
GZLConst_940::ScaleMethod EffectiveScaleMethod(const FitOptions& options);

// A categorical response is read as a factor: single binomial responses and multinomial ones.
bool ResponseIsCategorical(const FitOptions& options);

// Checks the options against each other (one-line message on failure). Does not look at the data.
bool CheckFitOptions(const FitOptions& options, std::string& error);

// The data columns the model needs, each once, in this order: response (events), trials,
// factors, covariates, offset, frequency weight, scale weight, subject and within-subject
// variables. A column's position in the
// resulting table is its field index in the records given to the engine.
std::vector<CsvColumnRequest> FitColumnRequests(const FitOptions& options);

// The category code of the response's reference category, from "first", "last" or a label;
// std::nullopt when none was asked for. False with a message when the label is not a category
// of the response.
bool ResolveReferenceCategory(const FitOptions& options, const CsvTable& table, std::optional<int>& category,
                              std::string& error);

// Checks of the options that need the data: a single binomial response has at most two
// categories, and the reference category exists.
bool CheckFitData(const FitOptions& options, const CsvTable& table, std::string& error);
