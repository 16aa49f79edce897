#pragma once
// Estimated marginal means in the tool's output: the --emmeans requests as the engine's
// requests, and per request the means of its cells, then per combination of the other
// factors the contrasts or the pairwise comparisons of the compared factor with the overall test
// of equal means, as readable tables or as the JSON array "emmeans".
//
// Request syntax: "a" (the means of a, a compared), "a*b" (the cells of a by b, a compared
// within each level of b) and "a|b*c" (a compared within each combination of b and c).
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "GZLMarginals.h"
#include "tools/CsvTable.h"
#include "tools/FitOptions.h"

class GZLOutputStats;
class GZLSettings;
class JsonWriter;

struct EmmeansRequest {
  std::string text;                  // as written
  std::vector<std::string> factors;  // the factors of the cells, the compared one first
};

// The requests (checked against the declared factors); false with a message on a bad one.
bool ParseEmmeansRequests(const FitOptions& options, std::vector<EmmeansRequest>& requests, std::string& error);
// Every --emmeans option, before the data are read.
bool CheckEmmeansOptions(const FitOptions& options, std::string& error);
// The requests and the test type into the settings; false with a message when the
// reference category is not a category of a compared factor.
bool SetEmmeansSettings(const FitOptions& options, const CsvTable& table, GZLSettings& settings, std::string& error);

struct EmmeansTableReport {
  std::vector<std::pair<int, int>> others;  // (position among the request's factors, category code)
  std::vector<int> levels;                  // the compared categories
  TQRectMatrix contrast;                    // rows over the compared categories (not for pairwise)
  std::vector<TQTestStats> contrasts;
  std::vector<GZLPairwiseRecord> pairwise;
  TQTestStats overall;
  TQStatus status;
};

struct EmmeansResult {
  std::string request;
  std::vector<std::string> factors;              // the compared one first
  std::vector<std::vector<std::string>> labels;  // category labels per factor
  TQConst::TQContrastType contrast = TQConst::ContrastPairwise;
  std::optional<int> reference;  // code of the simple contrast's reference, as asked
  std::vector<double> metric;    // as used
  bool responseScale = true;
  TQConst::TQPAdjustMethod adjust = TQConst::PAdjNone;
  std::vector<std::pair<std::string, double>> covariates;  // every covariate at its value
  TQStatus status;
  std::vector<TQEmmeansStats> cells;
  std::vector<EmmeansTableReport> tables;
};

struct EmmeansReport {
  std::vector<EmmeansResult> results;
  double confidence = 0.95;
  bool fTests = false;
  bool designComplete = true;
};

void GatherEmmeans(const FitOptions& options, const CsvTable& table, const GZLOutputStats& stats,
                   EmmeansReport& report);
// Nothing when no means were asked for.
void WriteEmmeansText(std::ostream& out, const EmmeansReport& report);
// Member "emmeans" of the enclosing object (only when means were asked for).
void WriteEmmeansJson(JsonWriter& json, const EmmeansReport& report);
