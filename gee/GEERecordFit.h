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
