#pragma once
// The quasi-likelihood under the independence model, Q, of a GEE fit: one term per record, in
// the distribution's own form, with w = (product of the record's weights) / phi. QIC and QICu
// are built on it. The multinomial distributions have none (the factory returns null).
//
// Term gives a record's contribution, or the missing value when the record cannot contribute
// (the record is then skipped); accumulate adds it to the running sum. For a skipped record the
// binomial, negative binomial and Tweedie classes answer missing, the others the unchanged sum.
#include <string>

#include "TQConst.h"
#include "support/TQMV.h"

class IGEEQuasiLikeliHoodFunc {
 public:
  IGEEQuasiLikeliHoodFunc() = default;
  virtual ~IGEEQuasiLikeliHoodFunc() = default;
  IGEEQuasiLikeliHoodFunc(const IGEEQuasiLikeliHoodFunc&) = default;
  IGEEQuasiLikeliHoodFunc& operator=(const IGEEQuasiLikeliHoodFunc&) = default;

  // Adds the record's term (response y, mean mu; trials, frequency weight f and scale weight a,
  // trials being used by the binomial class only) to the sum. Returns the new sum, or missing
  // as described above.
  virtual double accumulate(double y, double mu, double trials, double f, double a);
  // Does nothing: the sum starts at 0 with the object.
  virtual void Reset() {}
  virtual void Display() const;
  // The quasi-likelihood relative to the saturated fit; 0 except for the binomial class.
  virtual double accumulateRelative(double y, double mu, double trials, double f, double a);

  // The record's term with w = weights / phi, or missing when the record is skipped.
  virtual double Term(double y, double mu, double w) const = 0;
  // Whether accumulate answers missing for a skipped record.
  virtual bool IsMissingWhenSkipped() const { return false; }
  virtual std::string GetClassName() const = 0;

  void SetPhi(double phi) noexcept { fPhi = phi; }
  double GetPhi() const noexcept { return fPhi; }
  double GetSum() const noexcept { return fSum; }
  // w of a record: the product of the weights (trials included when the class uses them) over
  // phi; missing when phi is not positive or a weight is missing.
  double Weight(double trials, double f, double a) const noexcept;

 protected:
  virtual bool UsesTrials() const { return false; }

  double fSum = 0.0;
  double fPhi = TQMV::Missing;
};

class GEEQuasiLikeliHoodNormal final : public IGEEQuasiLikeliHoodFunc {
 public:
  double Term(double y, double mu, double w) const override;
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodNormal"; }
};

class GEEQuasiLikeliHoodBinomial final : public IGEEQuasiLikeliHoodFunc {
 public:
  double Term(double y, double mu, double w) const override;
  double accumulateRelative(double y, double mu, double trials, double f, double a) override;
  bool IsMissingWhenSkipped() const override { return true; }
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodBinomial"; }

 protected:
  bool UsesTrials() const override { return true; }
};

class GEEQuasiLikeliHoodGamma final : public IGEEQuasiLikeliHoodFunc {
 public:
  double Term(double y, double mu, double w) const override;
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodGamma"; }
};

class GEEQuasiLikeliHoodInvGaussian final : public IGEEQuasiLikeliHoodFunc {
 public:
  double Term(double y, double mu, double w) const override;
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodInvGaussian"; }
};

class GEEQuasiLikeliHoodNegBinomial final : public IGEEQuasiLikeliHoodFunc {
 public:
  explicit GEEQuasiLikeliHoodNegBinomial(double k) noexcept : fK(k) {}
  double Term(double y, double mu, double w) const override;
  bool IsMissingWhenSkipped() const override { return true; }
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodNegBinomial"; }
  void SetK(double k) noexcept { fK = k; }

 private:
  double fK;
};

class GEEQuasiLikeliHoodPoisson final : public IGEEQuasiLikeliHoodFunc {
 public:
  double Term(double y, double mu, double w) const override;
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodPoisson"; }
};

class GEEQuasiLikeliHoodTweedie final : public IGEEQuasiLikeliHoodFunc {
 public:
  explicit GEEQuasiLikeliHoodTweedie(double power) noexcept : fPower(power) {}
  double Term(double y, double mu, double w) const override;
  bool IsMissingWhenSkipped() const override { return true; }
  std::string GetClassName() const override { return "GEEQuasiLikeliHoodTweedie"; }

 private:
  double fPower;
};

// The function of a distribution (param: the negative binomial k or the Tweedie power), or
// null for the multinomial distributions and unknown types. The caller owns the result.
IGEEQuasiLikeliHoodFunc* CreateGEEQuasiLikeliHoodFunc(TQConst::DistType dist, double param);
