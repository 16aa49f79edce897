#pragma once
// One record at the current estimates, as the GEE passes see it: the response (a single binary
// binomial response recoded to 1 for the event category and 0 otherwise), the linear predictor,
// the mean, the variance function and the link derivative. Values that cannot be formed are
// the missing value; each pass decides from them whether the record counts.
#include <cstddef>

#include "GZLSettings.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLLinearPredictor.h"
#include "include/GZLVarianceFunc.h"
#include "support/ITQLinkFunc.h"
#include "support/LinkFunctions.h"
#include "support/TQMV.h"

struct GEERecordFit {
  double fY = TQMV::Missing;
  double fMu = TQMV::Missing;
  double fV = TQMV::Missing;
  double fG1 = TQMV::Missing;
};

// How the response of a record is read: the recoding of a single binary binomial response.
struct GEEResponseCoding {
  bool fbBinarySingle = false;
  // The response value of the event: 1 when the reference category is 0, else 0.
  double fEventValue = 1.0;

  explicit GEEResponseCoding(const GZLSettings& settings)
      : fbBinarySingle(settings.IsSingleDependentForBinomial()),
        fEventValue(settings.GetDependentRefCateg() == 0 ? 1.0 : 0.0) {}
  double Code(double y) const noexcept { return fbBinarySingle ? (y == fEventValue ? 1.0 : 0.0) : y; }
};

// Mean, variance and link derivative of a row at beta (the row's values and beta have n
// entries). withDerivative false leaves the link derivative missing.
inline GEERecordFit GEEFitRecord(const GZLDesignRow& row, const double* beta, std::size_t n, const ITQLinkFunc& link,
                                 const IGZLVarianceFunc& variance, const GEEResponseCoding& coding,
                                 bool withDerivative) {
  GEERecordFit fit;
  if (TQMV::IsMissing(row.fResponse)) return fit;
  fit.fY = coding.Code(row.fResponse);
  int status = 0;
  const double mu = link.GetMu(GZLLinearPredictor(row.fValues.data(), beta, n, row.fOffset), &status);
  if (status != 0 || TQMV::IsMissingOrInfinite(mu)) return fit;
  fit.fMu = mu;
  fit.fV = variance.GetVariance(mu);
  if (withDerivative) {
    const double g1 = link.GetFirstDeriv(mu, nullptr);
    if (!TQMV::IsMissingOrInfinite(g1)) fit.fG1 = g1;
  }
  return fit;
}

// An ordinal record at beta = (theta_0 .. theta_{T-1}, b), T = C - 1 thresholds: the C - 1
// category probabilities pi_c = F(theta_c - lambda) - F(theta_{c-1} - lambda), lambda = x'b -
// offset, each a difference of the link's tails taken where it does not cancel. points holds
// T + 2 entries: the bottom of the scale, the points at the thresholds (their densities are the
// derivatives of the cumulative probabilities), the top. y is the response category (the row's
// response rounded), pi T entries. False, when the row has not `columns` values, the response
// is not one of the C categories, the link cannot take an argument or a probability lies outside
// (0, 1): the record is refused.
inline bool GEEFitOrdinalRecord(const GZLDesignRow& row, const double* beta, int T, std::size_t columns,
                                const TQCumulativeLinkFunc& link, TQCumulativePoint* points, double* pi, int& y) {
  if (row.fbInvalid || row.fValues.size() != columns || T < 1 || TQMV::IsMissing(row.fResponse)) return false;
  const double shifted = row.fResponse + 0.5;
  if (!(shifted >= 0.0 && shifted < static_cast<double>(T + 1))) return false;
  y = static_cast<int>(shifted);
  const double lambda = GZLLinearPredictor(row.fValues.data(), beta + T, columns, -row.fOffset);
  points[0] = TQCumulativePoint();
  points[T + 1] = TQCumulativePoint{1.0, 0.0, 0.0, 0.0};
  for (int t = 0; t < T; ++t)
    if (!link.Evaluate(beta[t] - lambda, points[t + 1])) return false;
  for (int c = 0; c < T; ++c) {
    pi[c] = TQCumulativeLinkFunc::IntervalProb(points[c], points[c + 1]);
    if (!(pi[c] > 0.0 && pi[c] < 1.0)) return false;
  }
  return true;
}
