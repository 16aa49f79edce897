#pragma once
// Fitting the described model with the engine and writing its results.
#include <ostream>
#include <string>
#include <vector>

#include "GZLProgress.h"
#include "tools/CsvTable.h"
#include "tools/FitOptions.h"
#include "tools/ModelSpec.h"

// What the caller hangs on the fit besides the model: where progress goes and who may cancel.
struct FitHooks {
  // Progress lines (bytes read from a large data file, records of the first pass, then
  // iterations); null for none.
  std::ostream* progress = nullptr;
  // The progress stream is a terminal: lines overwrite one another.
  bool progressIsTerminal = false;
  // Asked between blocks of the data file, then by the engine once per record and once per
  // iteration; null for none.
  TQQueryCancel* cancel = nullptr;
};

// Fits the model to the table's records (streamed from its record cache) and writes the results to out: readable tables after
// the model information that the caller has already written, or, with options.json, the whole
// output as one JSON document (the model information under "model"). Nothing is written when
// the fit fails. Returns false with a one-line message when the model cannot be fitted; a fit
// stopped through the cancel query gives the message "the fit was cancelled".
bool RunFit(const FitOptions& options, const CsvTable& table, const std::vector<ModelTerm>& terms,
            std::ostream& out, std::string& error, const FitHooks& hooks = {});
