#pragma once
// The GEE side of `gzl fit`: the subject structure and the GEE controls of the settings, the
// order in which the records are streamed to the fit, and the results that only a GEE fit has
// (working correlation, both covariances, QIC and QICu, subject counts) as text and JSON.
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "GZLSettings.h"
#include "tools/CsvTable.h"
#include "tools/FitOptions.h"
#include "tools/JsonWriter.h"

class GZLOutputStats;

// A GEE model is fitted when subject variables are given.
inline bool IsGeeFit(const FitOptions& options) { return !options.subjects.empty(); }

// The table column of a subject or within-subject variable: the variable itself, or for a
// factor or covariate of the model a second copy of its file column kept as categories.
std::string GroupingColumn(const FitOptions& options, const std::string& name);

// Reads a --corr value: independent, exchangeable, ar1, mdep:M, unstructured or fixed:FILE.
bool ParseCorrelation(const std::string& text, FitOptions& options, std::string& error);

// The GEE options against each other and against the other roles (no data needed).
bool CheckGeeOptions(const FitOptions& options, std::string& error);

// The values of a fixed working correlation from a text file: either the d(d-1)/2 values below
// the diagonal, row by row (R(1,0), R(2,0), R(2,1), ...), or the whole symmetric d x d matrix
// with ones on its diagonal; numbers separated by blanks, commas, semicolons or line breaks.
bool ReadFixedCorrelation(const std::string& path, std::vector<double>& lowerTriangle, std::string& error);

// Model type, subject and within-subject variables and the GEE controls.
bool SetGeeSettings(const FitOptions& options, const CsvTable& table, GZLSettings& settings, std::string& error);

// The records as the fit reads them: in file order, or sorted by subject values, within-subject
// values and place in the file when the settings ask for sorting.
bool FitRecordOrder(const GZLSettings& settings, const CsvTable& table, std::shared_ptr<const RecordCache>& records,
                    std::string& error);

// The GEE lines of the model description (item, value); none for a model without subjects.
std::vector<std::pair<std::string, std::string>> GeeModelRows(const FitOptions& options);
// The "gee" member of the model description: the structure and controls asked for, or null.
void WriteGeeModelJson(JsonWriter& json, const FitOptions& options);

struct GeeReport {
  bool present = false;
  std::string structure;  // the working correlation's name
  std::string covariance;  // the covariance used for inference: "robust" or "model"
  std::vector<std::string> positions;  // labels of the rows of the working correlation
  std::vector<std::vector<double>> workingCorrelation;
  double quasiLoglik = 0.0;
  double qicTrace = 0.0;
  double qic = 0.0;
  double qicu = 0.0;
  int subjects = 0;
  int minSubjectSize = 0;
  int maxSubjectSize = 0;
  // Per regression parameter: standard errors of the robust and the model-based covariance.
  std::vector<double> seRobust;
  std::vector<double> seModel;
};

void GatherGee(const FitOptions& options, const CsvTable& table, const GZLSettings& settings,
               const GZLOutputStats& stats, GeeReport& report);
// The tables after the parameter estimates; names are the parameters' names, redundant their
// aliasing.
void WriteGeeText(std::ostream& out, const GeeReport& report, const std::vector<std::string>& names,
                  const std::vector<bool>& redundant);
// The headline members (next to the fit's own): working_correlation, qic, qicu, ...
void WriteGeeJson(JsonWriter& json, const GeeReport& report);
