#pragma once
// The fitted model of the tool as a PMML document.
#include <string>

#include "tools/CsvTable.h"

class IGZLAlgorithm;
class GZLSettings;

// Writes the document of a fitted model (with the covariance matrix of the estimates) to path.
// The variables carry the CSV's column names, and factors (and a categorical response) their
// categories as the file spells them. False with a one-line message when the document cannot
// be produced or the file cannot be written; the file is then not created.
bool WritePmmlFile(const std::string& path, IGZLAlgorithm& algorithm, const GZLSettings& settings,
                   const CsvTable& table, std::string& error);
