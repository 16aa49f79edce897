#pragma once
// The variance function of each single-response distribution.
#include "include/GZLVarianceFunc.h"

class GZLVarianceNormal : public IGZLVarianceFunc {
 public:
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
};

class GZLVarianceBinomial : public IGZLVarianceFunc {
 public:
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
};

class GZLVariancePoisson : public IGZLVarianceFunc {
 public:
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
};

class GZLVarianceGamma : public IGZLVarianceFunc {
 public:
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
};

class GZLVarianceInvGaussian : public IGZLVarianceFunc {
 public:
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
};

class GZLVarianceNegBinomial : public IGZLVarianceFunc {
 public:
  explicit GZLVarianceNegBinomial(double k) : fK(k) {}
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
  // k changes whenever it is re-estimated.
  void SetParam(double k) override { fK = k; }
  double GetParam() const { return fK; }

 private:
  double fK;
};

class GZLVarianceTweedie : public IGZLVarianceFunc {
 public:
  explicit GZLVarianceTweedie(double p) : fP(p) {}
  double GetVariance(double mu) const override;
  double GetVarianceDeriv(double mu) const override;
  // The power is fixed when the object is made; the inherited SetParam leaves it alone.
  double GetParam() const { return fP; }

 private:
  double fP;
};
