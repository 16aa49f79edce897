#pragma once
// The tests of model effects in the tool's output: one row per effect in the engine's test
// order (the intercept first when the model has one), as a readable table or as the JSON
// arrays "wald_type1" and "wald_type3", and, with the likelihood-ratio statistic, "lr_type1"
// and "lr_type3".
#include <ostream>
#include <string>
#include <vector>

#include "support/TQModelTests.h"
#include "tools/FitOptions.h"
#include "tools/ModelSpec.h"

class GZLOutputStats;
class JsonWriter;

struct EffectTestRow {
  int effect = -1;   // position in the effect list; -1 for the intercept (thresholds)
  std::string term;  // "(Intercept)", "(Thresholds)" or the effect as written
  TQModelTestStats::Test test;
};

// A likelihood-ratio test: chi-square, df, significance, F, df2, F significance and the
// deviance of the constrained fit (missing where they do not apply), and its status.
struct LRTestRow {
  int effect = -1;
  std::string term;
  std::vector<double> values;
  TQStatus status;
};

struct EffectTestsReport {
  bool typeI = false;
  bool typeIII = false;
  bool likelihoodRatio = false;
  // A GEE fit answers the likelihood-ratio analysis with generalized score tests.
  bool generalizedScore = false;
  // A nominal response: each effect is tested over all logits at once.
  bool nominal = false;
  std::vector<EffectTestRow> type1;
  std::vector<EffectTestRow> type3;
  std::vector<LRTestRow> lr1;
  std::vector<LRTestRow> lr3;
};

// The tests the options asked for, from the results of the fit.
void GatherEffectTests(const FitOptions& options, const std::vector<ModelTerm>& terms, const GZLOutputStats& stats,
                       EffectTestsReport& report);
// "Tests of model effects" tables, one per type asked for; nothing when none was.
void WriteEffectTestsText(std::ostream& out, const EffectTestsReport& report);
// Members "wald_type1" and "wald_type3" (those asked for) of the enclosing object.
void WriteEffectTestsJson(JsonWriter& json, const EffectTestsReport& report);
