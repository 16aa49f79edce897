#include "tools/PmmlFile.h"

#include <fstream>
#include <sstream>

#include "GZLPMMLMetadata.h"
#include "GZLSettings.h"
#include "IGZLAlgorithm.h"
#include "support/TQVarList.h"
#include "tools/StatusText.h"

bool WritePmmlFile(const std::string& path, IGZLAlgorithm& algorithm, const GZLSettings& settings,
                   const CsvTable& table, std::string& error) {
  GZLPMMLMetadata metadata;
  metadata.SetApplicInfo("gzl", "0.1", "");
  for (std::size_t i = 0; i < table.NumColumns(); ++i) {
    const CsvColumn& column = table.Column(i);
    const int field = static_cast<int>(i);
    GZLPMMLVariable variable;
    if (column.isFactor) {
      const bool ordered = field == settings.GetDependent() && settings.GetDistType() == TQConst::DistOrdinalMultinomial;
      variable.Setup(field, column.name, "", ordered ? MeasOrdinal : MeasNominal,
                     column.numericLabels ? DataNumeric : DataString);
      variable.SetValidValues(column.labels, std::vector<std::string>(column.labels.size()));
    } else {
      variable.Setup(field, column.name, "", MeasContinuous, DataNumeric);
    }
    metadata.AddVariableInfo(variable);
  }
  const TQVarList variables(metadata);
  const TQApplicInfo4XML application(metadata);
  std::ostringstream document;
  const TQStatus status = algorithm.ExportPMML(variables, document, true, &application);
  if (status.IsError()) {
    error = "the PMML document cannot be written: " + DescribeStatus(status);
    return false;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << document.str();
  file.close();
  if (!file) {
    error = "cannot write the PMML file " + path;
    return false;
  }
  return true;
}
