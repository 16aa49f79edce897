#pragma once
// Fitting the described model with the engine and writing its results.
#include <ostream>
#include <string>
#include <vector>

#include "tools/CsvTable.h"
#include "tools/FitOptions.h"
#include "tools/ModelSpec.h"

// Fits the model to the table's records and writes the results to out: readable tables after
// the model information that the caller has already written, or, with options.json, the whole
// output as one JSON document. Returns false with a one-line message when the model cannot be
// fitted.
bool RunFit(const FitOptions& options, const CsvTable& table, const std::vector<ModelTerm>& terms,
            std::ostream& out, std::string& error);
