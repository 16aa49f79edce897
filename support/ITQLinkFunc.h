#pragma once
// Link functions g: eta = g(mu). The estimation code evaluates, per record, mu = GetMu(eta),
// then g'(mu) and g''(mu); any value that cannot be used comes back as the missing value
// (TQMV::Missing) or with a non-zero status, never as an infinity or a NaN.
#include "TQConst.h"

class ITQLinkFunc {
 public:
  virtual ~ITQLinkFunc() = default;
  // eta = g(mu); used to form initial linear predictors from (adjusted) responses.
  virtual double GetEta(double mu) const = 0;
  // mu = g^-1(eta). For the cumulative links this is the link's distribution function F applied
  // to its argument (a threshold minus the linear predictor). A non-zero *status means the
  // inverse could not be formed; status may be null.
  virtual double GetMu(double eta, int* status) const = 0;
  // d eta / d mu.
  virtual double GetFirstDeriv(double mu, int* status) const = 0;
  // d2 eta / d mu2.
  virtual double GetSecondDeriv(double mu, int* status) const = 0;
  // The link's parameter; changed at run time only for the negative binomial link (its k).
  virtual void SetParam(double k) = 0;

  virtual TQConst::LinkType GetType() const = 0;
  virtual double GetParam() const = 0;
};

// Caller owns the result. Returns null for an unknown type.
ITQLinkFunc* CreateLinkFunction(TQConst::LinkType type, double param);
