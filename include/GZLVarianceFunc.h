#pragma once
// Variance functions V(mu) of the response distributions. The variance of a record is
// phi * V(mu) / omega; the estimation code needs V and dV/dmu per record.
#include "TQConst.h"

class IGZLVarianceFunc {
 public:
  IGZLVarianceFunc() = default;
  IGZLVarianceFunc(const IGZLVarianceFunc&) = default;
  IGZLVarianceFunc& operator=(const IGZLVarianceFunc&) = default;
  virtual ~IGZLVarianceFunc() = default;

  // V(mu), or the missing value when mu is outside the family's domain.
  virtual double GetVariance(double mu) const = 0;
  // dV/dmu, or the missing value.
  virtual double GetVarianceDeriv(double mu) const = 0;
  // The distribution's extra parameter; only the negative binomial k can change after creation.
  virtual void SetParam(double) {}
};

// The variance object of a distribution: `param` is the negative binomial k or the Tweedie
// power (ignored otherwise). Returns null for the multinomial distributions and unknown types.
// The caller owns the result and deletes it through the virtual destructor.
IGZLVarianceFunc* CreateVarianceFunction(TQConst::DistType dist, double param);
