#include "estimation/GZLRowTally.h"

#include "support/TQDisplay_940.h"
#include "support/TQSymMatrix.h"

void GZLDisplayPassSums(const GZLRowTally& tally, const std::vector<double>& gradient, const TQSymMatrix& information) {
  using namespace TQDisplay_940;
  DisplayD("Accumulated log-likelihood", tally.GetLogLikelihood());
  DisplayDV("Accumulated vector of gradient", gradient, false);
  information.Display("Accumulated Hessian:");
  DisplayI("Number of valid rows processed", tally.valid);
  DisplayI("Number of invalid calls to UpdateForRow()", tally.invalid);
  DisplayD("Accumulated weight", tally.weight);
}
