#pragma once
// The statistics of one row of the parameter estimates table: a regression parameter, or the
// scale or negative binomial k row that follows them. Every number that cannot be computed is
// the missing-value marker; a default-constructed row is entirely missing and not redundant.
//
// Which test statistic a row carries depends on the inference in use: the Wald chi-square with
// its degrees of freedom (normal-theory inference), the t statistic with its degrees of freedom
// (t-based inference for a mixed-model host), or the Wald z of the scale and k rows. The others
// stay missing.
#include <string>

#include "support/TQMV.h"

class TQRegrParameterStats {
 public:
  TQRegrParameterStats() = default;

  double GetEstimate() const noexcept { return fEstimate; }
  void SetEstimate(double v) noexcept { fEstimate = v; }
  double GetStdError() const noexcept { return fStdError; }
  void SetStdError(double v) noexcept { fStdError = v; }
  double GetLowerBound() const noexcept { return fLowerBound; }
  void SetLowerBound(double v) noexcept { fLowerBound = v; }
  double GetUpperBound() const noexcept { return fUpperBound; }
  void SetUpperBound(double v) noexcept { fUpperBound = v; }
  double GetWaldChiSquare() const noexcept { return fWaldChiSquare; }
  void SetWaldChiSquare(double v) noexcept { fWaldChiSquare = v; }
  double GetTValue() const noexcept { return fTValue; }
  void SetTValue(double v) noexcept { fTValue = v; }
  double GetWaldZ() const noexcept { return fWaldZ; }
  void SetWaldZ(double v) noexcept { fWaldZ = v; }
  double GetDF() const noexcept { return fDF; }
  void SetDF(double v) noexcept { fDF = v; }
  double GetSignificance() const noexcept { return fSignificance; }
  void SetSignificance(double v) noexcept { fSignificance = v; }
  // "Redundant": the parameter is aliased with earlier ones and fixed at 0.
  bool IsRedundant() const noexcept { return fbRedundant; }
  void SetRedundant(bool b) noexcept { fbRedundant = b; }

  bool operator==(const TQRegrParameterStats&) const = default;

  // "TQRegrParameterStats display start", one line per field, "TQRegrParameterStats display end".
  void Display(const std::string& title = "") const;

 private:
  double fEstimate = TQMV::Missing;
  double fStdError = TQMV::Missing;
  double fLowerBound = TQMV::Missing;
  double fUpperBound = TQMV::Missing;
  double fWaldChiSquare = TQMV::Missing;
  double fTValue = TQMV::Missing;
  double fWaldZ = TQMV::Missing;
  double fDF = TQMV::Missing;
  double fSignificance = TQMV::Missing;
  bool fbRedundant = false;
};
