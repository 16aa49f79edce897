#include "TQEmmeansSpec.h"

#include "support/TQDisplay_940.h"

void TQEmmeansSpec::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQEmmeansSpec display start");
  DisplayIV("Factors", fFactors);
  DisplayIV("Factors nesting levels", fFactorsNestLevel);
  DisplayIV("Compare factors", fCompareFactors);
  std::vector<int> covariates;
  std::vector<double> values;
  for (const auto& [index, value] : fCovariates) {
    covariates.push_back(index);
    values.push_back(value);
  }
  DisplayIV("Covariates", covariates);
  DisplayDV("Covariate values", values, false);
  DisplayI("Contrast type", fContrastType);
  DisplayI("Reference category", fRefCateg);
  DisplayDV("Metric values", fMetricValues, false);
  DisplayI("Scale type", fEmmScaleType);
  DisplayI("P-value adjustment method", fPAdjust);
  DisplayText(1, "TQEmmeansSpec display end");
}
