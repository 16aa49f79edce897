#pragma once
// Deviance function objects, one per distribution: they accumulate the unscaled deviance of a
// pass record by record (phi never enters). A record outside the family's domain returns
// missing and leaves the sum as it was.
#include <vector>

#include "TQConst.h"

class IGZLDevianceFunc {
 public:
  IGZLDevianceFunc() = default;
  virtual ~IGZLDevianceFunc() = default;

  // A single-response record: m is the number of trials for a binomial response given as events
  // and trials, 1 otherwise (only the binomial family reads it). Returns the new sum or missing.
  virtual double AddDeviance(double mu, double y, double f, double omega, double m) = 0;
  // A multinomial record: observed category counts o, fitted category probabilities pi, total n.
  virtual double AddDevianceOrdinal(const std::vector<double>& o, const std::vector<double>& pi, double n);
  virtual double AddDevianceNominal(const std::vector<double>& o, const std::vector<double>& pi, double n);
  virtual void SetParam(double) {}
  virtual void Display() const = 0;

  double GetDeviance() const { return fDeviance; }
  void Clear() { fDeviance = 0.0; }

 protected:
  IGZLDevianceFunc(const IGZLDevianceFunc&) = default;
  IGZLDevianceFunc& operator=(const IGZLDevianceFunc&) = default;
  // Adds a finite term and returns the new sum; any other term returns missing, sum unchanged.
  double Add(double term);
  void DisplayBase() const;

  double fDeviance = 0.0;
};

class GZLDevianceNormal : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
};

class GZLDevianceBinomial : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
};

class GZLDevianceGamma : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
};

class GZLDevianceInvGaussian : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
};

class GZLDevianceNegBinomial : public IGZLDevianceFunc {
 public:
  explicit GZLDevianceNegBinomial(double k) : fK(k) {}
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void SetParam(double k) override { fK = k; }
  void Display() const override;
  double GetParam() const { return fK; }

 private:
  double fK;
};

class GZLDeviancePoisson : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
};

class GZLDevianceTweedie : public IGZLDevianceFunc {
 public:
  explicit GZLDevianceTweedie(double p) : fP(p) {}
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  void Display() const override;
  double GetParam() const { return fP; }

 private:
  double fP;
};

// The multinomial classes take only their own kind of record; AddDeviance returns missing.
class GZLDevianceOrdinal : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  double AddDevianceOrdinal(const std::vector<double>& o, const std::vector<double>& pi, double n) override;
  void Display() const override;
};

class GZLDevianceNominal : public IGZLDevianceFunc {
 public:
  double AddDeviance(double mu, double y, double f, double omega, double m) override;
  double AddDevianceNominal(const std::vector<double>& o, const std::vector<double>& pi, double n) override;
  void Display() const override;
};

// distParam: the negative binomial k or the Tweedie power. Null for an unknown distribution.
// The caller owns the result.
IGZLDevianceFunc* CreateDevianceFunction(TQConst::DistType dist, double distParam);
