#pragma once
// The tests of model effects in the tool's output: one row per effect in the engine's test
// order (the intercept first when the model has one), as a readable table or as the JSON
// arrays "wald_type1" and "wald_type3".
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

struct EffectTestsReport {
  bool typeI = false;
  bool typeIII = false;
  std::vector<EffectTestRow> type1;
  std::vector<EffectTestRow> type3;
};

// The tests the options asked for, from the results of the fit.
void GatherEffectTests(const FitOptions& options, const std::vector<ModelTerm>& terms, const GZLOutputStats& stats,
                       EffectTestsReport& report);
// "Tests of model effects" tables, one per type asked for; nothing when none was.
void WriteEffectTestsText(std::ostream& out, const EffectTestsReport& report);
// Members "wald_type1" and "wald_type3" (those asked for) of the enclosing object.
void WriteEffectTestsJson(JsonWriter& json, const EffectTestsReport& report);
