#pragma once
// Pearson chi-square function objects: they accumulate the unscaled Pearson statistic of a pass
// record by record.
#include <vector>

#include "TQConst.h"

class IGZLPearsonFunc {
 public:
  IGZLPearsonFunc() = default;
  virtual ~IGZLPearsonFunc() = default;

  // A single-response record with V = V(mu). m (the number of trials of an events/trials
  // response, else 1) is read by the binomial class only. Returns the new sum or missing.
  virtual double AddPearson(double y, double mu, double V, double f, double omega, double m) = 0;
  double AddPearson(double y, double mu, double V, double f, double omega) {
    return AddPearson(y, mu, V, f, omega, 1.0);
  }
  // A multinomial record: observed category counts o, fitted category probabilities pi, total n.
  virtual double AddPearsonOrdinal(const std::vector<double>& o, const std::vector<double>& pi, double n);
  virtual double AddPearsonNominal(const std::vector<double>& o, const std::vector<double>& pi, double n);
  virtual void Display() const = 0;

  double GetPearson() const { return fPearson; }
  void Clear() { fPearson = 0.0; }

 protected:
  IGZLPearsonFunc(const IGZLPearsonFunc&) = default;
  IGZLPearsonFunc& operator=(const IGZLPearsonFunc&) = default;
  double Add(double term);
  void DisplayBase() const;

  double fPearson = 0.0;
};

// Every single-response family but the binomial.
class GZLPearson : public IGZLPearsonFunc {
 public:
  using IGZLPearsonFunc::AddPearson;
  double AddPearson(double y, double mu, double V, double f, double omega, double m) override;
  void Display() const override;
};

class GZLPearsonBinomial : public IGZLPearsonFunc {
 public:
  using IGZLPearsonFunc::AddPearson;
  double AddPearson(double y, double mu, double V, double f, double omega, double m) override;
  void Display() const override;
};

class GZLPearsonOrdinal : public IGZLPearsonFunc {
 public:
  using IGZLPearsonFunc::AddPearson;
  double AddPearson(double y, double mu, double V, double f, double omega, double m) override;
  double AddPearsonOrdinal(const std::vector<double>& o, const std::vector<double>& pi, double n) override;
  void Display() const override;
};

class GZLPearsonNominal : public IGZLPearsonFunc {
 public:
  using IGZLPearsonFunc::AddPearson;
  double AddPearson(double y, double mu, double V, double f, double omega, double m) override;
  double AddPearsonNominal(const std::vector<double>& o, const std::vector<double>& pi, double n) override;
  void Display() const override;
};

// The Pearson object of a distribution: binomial, ordinal and nominal multinomial have their own
// classes, every other type gets GZLPearson. The caller owns the result.
IGZLPearsonFunc* CreatePearsonFunction(TQConst::DistType dist);
