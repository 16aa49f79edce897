#include "support/TQRegrParameterStats.h"

#include "support/TQDisplay_940.h"

void TQRegrParameterStats::Display(const std::string& title) const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQRegrParameterStats display start");
  if (!title.empty()) DisplayText(1, title);
  DisplayB("Redundant", fbRedundant);
  DisplayDF("Estimate", fEstimate);
  DisplayDF("Standard error", fStdError);
  DisplayDF("Lower bound of confidence interval", fLowerBound);
  DisplayDF("Upper bound of confidence interval", fUpperBound);
  DisplayDF("Wald chi-square", fWaldChiSquare);
  DisplayDF("t statistic", fTValue);
  DisplayDF("Wald z", fWaldZ);
  DisplayDF("Degrees of freedom", fDF);
  DisplayDF("Significance", fSignificance);
  DisplayText(1, "TQRegrParameterStats display end");
}
