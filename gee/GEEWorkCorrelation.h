#pragma once
// The working correlation matrix R of a GEE model, estimated from the Pearson residuals
// r = sqrt(a / V(mu)) (y - mu) at the current estimates (a: the record's scale weight). R is d x d
// with unit diagonal, d the number of within-subject positions; every subject uses the rows and
// columns of its own positions.
//
// Structures: independent (identity), exchangeable (one rho for every pair), AR(1)
// (rho^|i-j| from the adjacent pairs), M-dependent (one rho per lag up to m, 0 beyond), unstructured
// (one rho per pair of positions) and fixed (the host's d(d-1)/2 values, row by row). Each
// estimated rho is SP / D / phi_c from the weighted residual products SP of the pairs present
// in both positions, their count D and the correlation's own scale phi_c = S2 / N; with the
// adjust flag and N, C above p both denominators lose p. Rho is clamped to +-0.9999.
//
// One pass over the subjects gathers the sums. Residuals enter the sums multiplied by a power of
// 16 chosen from the largest residual magnitude so that the sums stay in range; the factor
// cancels in rho. Multiplying by a power of 16 is exact, so the pass keeps the sums at the
// factor of the largest residual seen so far and rescales them when it grows: the sums end as
// they would with the final factor from the start, without a pass of its own to find it.
#include <memory>
#include <vector>

#include "GZLConst_940.h"
#include "gee/GEERecordFit.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GEEDesignMatrix;
class GZLSettings;
class ITQLinkFunc;
class IGZLVarianceFunc;
struct GEESubject;

// The correlation sums of a pass (or of part of one): mergeable, so that subjects taken by
// different threads or processes add up in a fixed order.
struct GEECorrelationMoments {
  // Largest residual magnitude so far (from the most negative finite double), and the power of
  // 16 at which S2 and SP are held.
  double fMaxAbs = -DBL_MAX;
  double fFactor = 1.0;
  // Weighted record count and sum of squared (scaled) residuals.
  double fN = 0.0;
  double fS2 = 0.0;
  // Products and pair counts: one entry (exchangeable, AR(1)), one per lag (M-dependent) or one
  // per pair k > j at k(k-1)/2 + j (unstructured).
  std::vector<double> fSP;
  std::vector<double> fC;

  void Reset(std::size_t nSums);
  // Brings S2 and SP to the factor of a larger maximum.
  void Rescale(double maxAbs) noexcept;
  void Merge(const GEECorrelationMoments& other);
};

class GEEWorkCorrelation {
 public:
  GEEWorkCorrelation(GEEDesignMatrix& design, const GZLSettings& settings);
  virtual ~GEEWorkCorrelation();
  GEEWorkCorrelation(const GEEWorkCorrelation&) = delete;
  GEEWorkCorrelation& operator=(const GEEWorkCorrelation&) = delete;

  // Estimates R at beta with p non-redundant parameters, by the correlation type. A failure
  // (DivideByZero, CorrFixedNumberMismatch, CorrFixedNumberOutRange, NewPass, a cancel) leaves
  // R as it was. The status is also kept.
  void Update(TQStatus& status, const std::vector<double>& beta, int p, TQSymMatrix& R);

  // ---- the estimators, in their fixed order ----
  virtual void Independent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R);
  virtual void Exchangeable(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R);
  virtual void AutoRegressive(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R);
  virtual void MDependent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R);
  virtual void Unstructured(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R);
  virtual void Fixed(TQStatus& status, const std::vector<double>& values, TQSymMatrix& R);
  // phi_c and the denominators from N, S2 and the pair counts: a vector of counts (all must
  // exceed p for the adjusted form; N is not checked unadjusted), a matrix of counts (same) and
  // a single count (DivideByZero when N <= 0 unadjusted). phi and D stay missing on failure.
  virtual void ScaleAndDenominators(const GEECorrelationMoments& moments, const std::vector<double>& counts,
                                    double& phi, std::vector<double>& denominators);
  virtual void ScaleAndDenominatorsMatrix(const GEECorrelationMoments& moments, const std::vector<double>& counts,
                                          double& phi, std::vector<double>& denominators);
  virtual void ScaleAndDenominator(TQStatus& status, const GEECorrelationMoments& moments, double count,
                                   double& phi, double& denominator);

  // The negative binomial k for the variance function (and a negative binomial link).
  void SetDistParam(double k);
  TQStatus GetStatus() const noexcept { return fStatus; }
  GZLConst_940::CorrType GetCorrType() const noexcept { return fCorrType; }
  void Display() const;

  // The factor (a power of 16) by which residuals of largest magnitude maxAbs are multiplied.
  static double ScaleFactor(double maxAbs) noexcept;
  // The clamp of an estimated correlation: 0 without a usable divisor, +-0.9999 at or beyond +-1.
  static double Correlation(double sp, double denominator, double phi) noexcept;

 protected:
  // One pass: the sums of every subject at beta. NewPass or a cancel (code 1) on failure.
  TQStatus GatherMoments(const std::vector<double>& beta, GEECorrelationMoments& moments);
  // The Pearson residuals of one subject at their positions (missing where the subject has no
  // usable residual), and m, the number of its distinct positions; false when no record of the
  // subject has a position inside R.
  bool SubjectResiduals(const GEESubject& subject, const std::vector<double>& beta, int& m);
  // The one correlation of the exchangeable and AR(1) structures; false on a failed pass or a
  // zero divisor (status set).
  bool SingleCorrelation(TQStatus& status, const std::vector<double>& beta, double& rho);
  // The sums and the denominators of the M-dependent (one count per lag) or, with `matrix`,
  // the unstructured structure (one per pair); false on a failed pass (status set).
  bool SeveralCorrelations(TQStatus& status, const std::vector<double>& beta, bool matrix,
                           GEECorrelationMoments& moments, double& phi, std::vector<double>& denominators);
  // The position k of record j of a subject (its within-subject position, or its place in the
  // subject), marked in fPresent (m counts the subject's distinct positions); false when it lies
  // outside R.
  bool TakePosition(const GEESubject& subject, int j, int& m, std::size_t& k);
  // Adds a subject's residuals (fResiduals, fPresent) to the sums by the correlation type.
  void AddSubject(double w, int m, GEECorrelationMoments& moments) const;
  // Number of sums of the type for dimension d.
  std::size_t NumSums() const;
  // m of the M-dependent structure: floor of the setting, at most d - 1.
  int LagCount() const;

  GZLConst_940::CorrType fCorrType;
  double fP = 0.0;
  GEEDesignMatrix* fpDesign;
  std::unique_ptr<ITQLinkFunc> fpLink;
  std::unique_ptr<IGZLVarianceFunc> fpVariance;
  bool fbAdjust;
  const std::vector<double>* fpFixedValues;
  double fMDependentPar;
  const GZLSettings* fpSettings;
  TQStatus fStatus;
  GEEResponseCoding fCoding;
  int fDim = 0;
  // Per-subject work: residual and presence per position.
  std::vector<double> fResiduals;
  std::vector<char> fPresent;
};
