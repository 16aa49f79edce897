#include "tools/FitRunner.h"

bool RunFit(const FitOptions& /*options*/, const CsvTable& /*table*/, const std::vector<ModelTerm>& /*terms*/,
            std::ostream& /*out*/, std::string& error) {
  error = "model fitting is not available in this build";
  return false;
}
