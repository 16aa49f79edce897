#pragma once
// Goodness-of-fit measures of a fitted generalized linear model: scaled deviance and Pearson
// chi-square, their values per residual degree of freedom, the information criteria (in their
// usual form and in the restricted form used for a mixed-model host's normal identity model)
// and the pseudo R-squared. Pure formulas over a handful of totals taken from the fit: the
// object holds its inputs and computes every measure on request, so that it never disagrees
// with what it was given.
#include <vector>

#include "support/TQMV.h"
#include "support/TQStatus.h"

class GZLGoodnessOfFit {
 public:
  GZLGoodnessOfFit() = default;
  // deviance, pearson: the totals of the fit (missing when not computed); phi: the final scale;
  // logLike: the log-likelihood the criteria use; nObs: the number of observations for the
  // degrees of freedom; sampleSize: the n of the criteria; nParams: d, the parameters in the
  // model counting the estimated scale or k as one; distType, scaleMethod, kMethod: the
  // settings' enumerations; restricted: use the restricted criteria.
  GZLGoodnessOfFit(double deviance, double pearson, double phi, double logLike, double nObs,
                   double sampleSize, int nParams, int distType, int scaleMethod, int kMethod,
                   bool restricted);

  double GetDeviance() const { return fDeviance; }
  double GetPearson() const { return fPearson; }
  double GetPhi() const { return fPhi; }
  double GetLogLikelihood() const { return fL; }
  double GetNObservations() const { return fN; }
  double GetSampleSize() const { return fSampleSize; }
  int GetNParameters() const { return fD; }
  bool IsRestricted() const { return fbRestricted; }

  // Residual degrees of freedom: fN - d, plus 1 when the scale is estimated by maximum
  // likelihood (the ML scale counts in d but not against the residual degrees of freedom,
  // whereas an ML k counts against both).
  double GetResidualDF() const;

  double GetScaledDeviance() const;
  double GetScaledPearson() const;
  double GetDevianceByDF() const;
  double GetPearsonByDF() const;

  double GetAIC() const;
  double GetAICC() const;
  double GetBIC() const;
  double GetCAIC() const;

  // True when the log-likelihood exists but the small-sample correction of the AICC cannot be
  // formed (n - d - 1 <= 0).
  bool IsAICCNotComputable() const;
  // Appends warning 130095 to the list (once) when IsAICCNotComputable.
  void AddWarnings(std::vector<TQStatus>& warnings) const;

  // G / (D / (fN - 1) + G) with G the spread of the fitted means; 0 when the denominator is
  // not positive or cannot be formed.
  double GetPseudoR2(double spreadOfMeans) const;

  void Display() const;

 private:
  double fDeviance = TQMV::Missing;
  double fPearson = TQMV::Missing;
  double fPhi = TQMV::Missing;
  double fL = TQMV::Missing;
  double fN = 0.0;
  double fSampleSize = 0.0;
  int fD = 0;
  int fDistType = 0;
  int fScaleMethod = 0;
  int fKMethod = 1;
  bool fbRestricted = false;
  double fReserved = 0.0;
};
