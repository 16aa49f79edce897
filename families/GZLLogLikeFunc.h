#pragma once
// Log-likelihood function objects, one per distribution. Each record's contribution is split
// into a kernel (the part that depends on the mean, the scale phi or the distribution
// parameter) and a non-kernel part (the response alone); the objects also give the first and
// second derivatives of a record's log-likelihood in log(phi), or in log(k) for the negative
// binomial, which the optimizer uses to estimate that parameter.
//
// Per pass the owner calls Reset(phi) (or SetPhi and ClearSums), then AddKernel and AddConstant
// once per valid record, and reads the sums. A missing sum stays missing for the rest of the pass.
#include <cstdint>
#include <vector>

#include "TQConst.h"
#include "support/TQStatus.h"

class IGZLLogLikeFunc {
 public:
  explicit IGZLLogLikeFunc(double nCases = 0.0) : fNumCases(nCases) {}
  virtual ~IGZLLogLikeFunc() = default;

  // Adds the record's kernel term; returns the new kernel sum, or missing (sum unchanged) when
  // the record does not fit the family at this mu.
  virtual double AddKernel(double y, double mu, double f, double omega) = 0;
  // Adds the record's non-kernel term; returns the new non-kernel sum or missing. Only the
  // binomial family reads trials and events.
  virtual double AddConstant(double y, double f, double omega, double trials, double events) = 0;
  // d/d log(theta) and d2/d log(theta)^2 of the record's log-likelihood, theta being phi (or k).
  virtual double GetParamDeriv(double mu, double y, double f, double omega) const = 0;
  virtual double GetParamDeriv2(double mu, double y, double f, double omega) const = 0;
  virtual void SetParam(double) {}
  virtual void Display() const = 0;

  // Owner's controls of a pass.
  void SetPhi(double phi) { fPhi = phi; }
  double GetPhi() const { return fPhi; }
  void ClearSums() { fKernel = 0.0; fNonKernel = 0.0; }
  void Reset(double phi) { SetPhi(phi); ClearSums(); }
  double GetKernel() const { return fKernel; }
  double GetNonKernel() const { return fNonKernel; }
  // Kernel plus non-kernel sum, or missing when either is missing.
  double GetFull() const;
  void SetNumCases(double n) { fNumCases = n; }
  double GetNumCases() const { return fNumCases; }

 protected:
  IGZLLogLikeFunc(const IGZLLogLikeFunc&) = default;
  IGZLLogLikeFunc& operator=(const IGZLLogLikeFunc&) = default;
  // The four common fields, printed between a derived class's start and end lines.
  void DisplayBase() const;

  double fNumCases;
  double fPhi = 1.0;
  double fKernel = 0.0;
  double fNonKernel = 0.0;
};

class GZLLogLikeNormal : public IGZLLogLikeFunc {
 public:
  explicit GZLLogLikeNormal(double nCases) : IGZLLogLikeFunc(nCases) {}
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

class GZLLogLikeBinomial : public IGZLLogLikeFunc {
 public:
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

class GZLLogLikeGamma : public IGZLLogLikeFunc {
 public:
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

class GZLLogLikeInvGaussian : public IGZLLogLikeFunc {
 public:
  explicit GZLLogLikeInvGaussian(double nCases) : IGZLLogLikeFunc(nCases) {}
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

class GZLLogLikeNegBinomial : public IGZLLogLikeFunc {
 public:
  // nbLink: the model uses the negative binomial link, so that k*mu stays fixed when k moves.
  GZLLogLikeNegBinomial(double k, bool nbLink) : fK(k), fbNegBinLink(nbLink) {}
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  // Derivatives in log(k).
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void SetParam(double k) override { fK = k; }
  void Display() const override;
  double GetParam() const { return fK; }
  bool IsNegBinLink() const { return fbNegBinLink; }

 private:
  double fK;
  bool fbNegBinLink;
};

class GZLLogLikePoisson : public IGZLLogLikeFunc {
 public:
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

// Tweedie family with 1 < p < 2 (compound Poisson-gamma), through the series for the density.
//
// The series sum W(y) = sum_j W_j runs over one index range per pass, found by an
// index-boundary pass over the records before the kernels: the owner calls
// StartIndexBoundaryPass, AddIndexBoundaryRecord(y, omega) for every record of the pass and
// FinishIndexBoundaryPass, with phi already set. AddKernel for a record caches the series
// moments that GetParamDeriv and GetParamDeriv2 of the same record read, so it must come first.
class GZLLogLikeTweedie : public IGZLLogLikeFunc {
 public:
  explicit GZLLogLikeTweedie(double p);
  double AddKernel(double y, double mu, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  // p is fixed at creation; the inherited SetParam leaves it alone.
  void Display() const override;

  void StartIndexBoundaryPass();
  void AddIndexBoundaryRecord(double y, double omega);
  // OK; or 130073 when no record of the pass qualified and not all responses were 0 (the
  // boundaries are then left as they were). A pass whose responses are all 0 succeeds without
  // touching the boundaries.
  TQStatus FinishIndexBoundaryPass();
  // The whole boundary pass over arrays of responses and scale weights (omega may be null: 1).
  TQStatus ComputeIndexBoundaries(const double* y, const double* omega, std::size_t n);

  double GetPower() const { return fP; }
  double GetAlpha() const { return fAlpha; }
  int64_t GetLowerIndexBoundary() const { return fLower; }
  int64_t GetUpperIndexBoundary() const { return fUpper; }
  bool HasIndexBoundaries() const { return fLower != -1 && fUpper != -1; }

  // Margin, in log units, below the largest series term at which the boundaries stop:
  // about -log of the double precision.
  static constexpr double kBoundaryMargin = 37.0;

 private:
  // log z of the series for a record, or missing.
  double LogZ(double y, double omega) const;
  // Sums the series for one record from its log z; false when it cannot be formed.
  bool SumSeries(double y, double omega, double mu);
  // Fills the per-index constants of the series for the current boundaries.
  void FillIndexCache();

  double fP;
  double fAlpha;  // (2 - p)/(1 - p); missing unless 1 < p < 2
  double fLogZConst = 0.0;  // alpha log(p - 1) - log(2 - p): the part of log z common to all records
  int64_t fLower = -1;
  int64_t fUpper = -1;

  // Running state of the index-boundary pass.
  double fPassMinLogZ = 0.0, fPassMaxLogZ = 0.0, fPassMinJMax = 0.0, fPassMaxJMax = 0.0;
  int64_t fPassCount = 0, fPassZeros = 0, fPassRecords = 0;

  // log Gamma(j + 1) + log Gamma(-j alpha) for j = fLower..fUpper: the same for every record, so
  // filled once per boundary pass (left empty when the range is too wide to keep; the terms are
  // then evaluated per record).
  std::vector<double> fIndexConst;
  bool fbIndexCacheOK = false;

  // Cached by AddKernel for the derivatives of the same record.
  double fLogW = 0.0;
  double fG1 = 0.0, fG2 = 0.0, fT1 = 0.0, fT2 = 0.0, fZ = 0.0;
};

// Ordinal and nominal multinomial: AddKernel receives the fitted probability of the observed
// category in place of mu.
class GZLLogLikeOrdinal : public IGZLLogLikeFunc {
 public:
  double AddKernel(double y, double p, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

class GZLLogLikeNominal : public IGZLLogLikeFunc {
 public:
  double AddKernel(double y, double p, double f, double omega) override;
  double AddConstant(double y, double f, double omega, double trials, double events) override;
  double GetParamDeriv(double mu, double y, double f, double omega) const override;
  double GetParamDeriv2(double mu, double y, double f, double omega) const override;
  void Display() const override;
};

// nCases: the sum of frequency weights of the complete cases (kept by the normal and inverse
// Gaussian families only); distParam: the negative binomial k or the Tweedie power; link: the
// model's link (the negative binomial family notes whether it is the negative binomial link).
// Returns null for an unknown distribution. The caller owns the result.
IGZLLogLikeFunc* CreateLogLikeFunction(TQConst::DistType dist, double nCases, double distParam,
                                       TQConst::LinkType link);
