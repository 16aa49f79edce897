#pragma once
// The description of the model that `gzl fit` is about to fit: data, response, distribution and
// link, variables with their categories and missing values, effects and the controls the user
// changed. Written before the results, and on its own by --dry-run.
#include <ostream>
#include <string>
#include <vector>

#include "tools/CsvTable.h"
#include "tools/FitOptions.h"
#include "tools/JsonWriter.h"
#include "tools/ModelSpec.h"

void WriteModelInfoText(std::ostream& out, const FitOptions& options, const CsvTable& table,
                        const std::vector<ModelTerm>& terms);

// Writes one JSON object (the caller places it, for example under the key "model").
void WriteModelInfoJson(JsonWriter& json, const FitOptions& options, const CsvTable& table,
                        const std::vector<ModelTerm>& terms);
