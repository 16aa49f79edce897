#pragma once
// Wald tests of linear hypotheses L beta = 0 on the estimates and covariance matrix of a fit,
// and the record of such tests for a list of model effects.
//
// TQModelTests holds the estimates, the redundancy set and the covariance matrix it was built
// from (copies: the object stays valid whatever happens to the fit) and the denominator degrees
// of freedom of the F form, missing when only the chi-square form is wanted. ComputeModelTest
// forms, for an L of full row rank with one column per parameter,
//   W = (L b)' (L C L')^- (L b),  df = rank of L C L',  sig = 1 - CdfChi(W, df),
// and, with denominator degrees of freedom df2, F = W / df with 1 - CdfF(F, df, df2).
//
// TQModelTestStats keeps one entry per tested effect, in test order; an effect that has no
// hypothesis (every column aliased) keeps an entry without a test.
//
// The same object tests comparisons of marginal means: contrasts C m of means m that are
// linear functions L b of the parameters, or, on the original scale, m = g^-1(L b) with the
// covariance of the delta method. Those tests carry an estimate, a standard error, confidence
// limits and a significance adjusted for multiplicity (TQTestStats).
#include <span>
#include <string>
#include <vector>

#include "TQConst.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class TQModelTestStats {
 public:
  struct Test {
    int fEffect = -1;         // position of the effect in test order
    bool fbTested = false;    // false: no estimable hypothesis, no statistic
    double fChiSquare = TQMV::Missing;
    double fDF = 0.0;
    double fSig = TQMV::Missing;
    // F form (missing unless the tests carry denominator degrees of freedom)
    double fF = TQMV::Missing;
    double fDF2 = TQMV::Missing;
    double fFSig = TQMV::Missing;
    // For each hypothesis row, the design column it came from plus one.
    std::vector<int> fRowIndices;
    TQStatus fStatus;
  };

  void Clear() noexcept { fTests.clear(); }
  // The entry of an effect, created (without a test) when it does not exist yet.
  Test& AddEffect(int effect);
  void AddRowIndices(int effect, const std::vector<int>& rowIndices);

  int GetNumTests() const noexcept { return static_cast<int>(fTests.size()); }
  // Entries in the order they were added; i must be in range.
  const Test& GetTest(int i) const { return fTests[static_cast<std::size_t>(i)]; }
  // The entry of an effect, or null.
  const Test* FindEffect(int effect) const noexcept;

  // "TQModelTestStats display start", one block per entry, "TQModelTestStats display end".
  void Display(const std::string& title = "") const;

 private:
  std::vector<Test> fTests;
};

class ITQLinkFunc;

// One test of a comparison of marginal means: the tested function's estimate and standard
// error, the statistic with its degrees of freedom (the Wald chi-square, or F with df2
// denominator degrees of freedom), its significance, the significance adjusted for the number
// of comparisons, and the confidence limits. Figures that cannot be formed are missing.
struct TQTestStats {
  double fEstimate = TQMV::Missing;
  double fStdError = TQMV::Missing;
  double fDF = TQMV::Missing;
  double fDF2 = TQMV::Missing;
  double fWald = TQMV::Missing;
  double fSig = TQMV::Missing;
  double fAdjSig = TQMV::Missing;
  double fLower = TQMV::Missing;
  double fUpper = TQMV::Missing;

  double GetContrastEstimate() const noexcept { return fEstimate; }
  double GetStandardError() const noexcept { return fStdError; }
  double GetDF() const noexcept { return fDF; }
  double GetDF2() const noexcept { return fDF2; }
  double GetWald() const noexcept { return fWald; }
  double GetSig() const noexcept { return fSig; }
  double GetAdjSig() const noexcept { return fAdjSig; }
  double GetLowerConfidenceInterval() const noexcept { return fLower; }
  double GetUpperConfidenceInterval() const noexcept { return fUpper; }
};

class TQModelTests {
 public:
  // estimates: P values (redundant parameters at 0); inModel: P bits, set = in the model;
  // covariance: P x P; df2 > 0 adds the F form with these denominator degrees of freedom.
  TQModelTests(std::vector<double> estimates, TQBitSet inModel, TQSymMatrix covariance,
               double df2 = TQMV::Missing);

  int GetNumParams() const noexcept { return static_cast<int>(fEstimates.size()); }
  double GetDF2() const noexcept { return fDF2; }
  // The F form needs denominator degrees of freedom and a test type of the F family (0 or 1,
  // the default); types 2 and 3 test with chi-square statistics.
  bool HasFForm() const noexcept {
    return !TQMV::IsMissingOrInfinite(fDF2) && fDF2 > 0.0 &&
           (fTestType == TQConst::TestType0 || fTestType == TQConst::TestType1);
  }

  // ---- controls of the tests of marginal-means comparisons ----
  void SetTestType(TQConst::TQTestType type) noexcept { fTestType = type; }
  TQConst::TQTestType GetTestType() const noexcept { return fTestType; }
  // Bonferroni and sequential Bonferroni adjust a single test to min(1, m p), Sidak and
  // sequential Sidak to 1 - (1 - p)^m, with m the number of comparisons (the step-down of the
  // sequential methods needs the whole family and is left to the caller).
  void SetPAdjustment(TQConst::TQPAdjustMethod method) noexcept { fPAdjust = method; }
  TQConst::TQPAdjustMethod GetPAdjustment() const noexcept { return fPAdjust; }
  // The link of the original scale (borrowed; it must outlive the tests that use it).
  void SetLinkFunction(const ITQLinkFunc* link) noexcept { fpLink = link; }
  void SetConfidenceLevel(double level) noexcept { fConfidenceLevel = level; }
  double GetConfidenceLevel() const noexcept { return fConfidenceLevel; }

  // l'b and l'Cl (at least 0) over the parameters that l touches; both missing when an
  // estimate or covariance entry among them is missing, or l does not have one entry per
  // parameter.
  void ComputeLinearCombination(std::span<const double> l, double& value, double& variance) const;

  // Tests of the contrasts C m of the means m = L b (L: one row per mean, one column per
  // parameter; C: one row per contrast, one column per mean). individual (when not null) gets
  // one test per row of C: 1 degree of freedom, the significance adjusted for nComparisons, and
  // the limits estimate -/+ quantile * standard error (none when the quantile is missing);
  // overall (when not null) gets the joint test of all rows: statistic, degrees of freedom (the
  // rank of C V C'), significance. Statuses: InternalError when the sizes do not fit;
  // LogLikelihoodCovarianceNotSucceed (warning) when an estimate or covariance entry is
  // missing, or a mean has no value on the original scale (the tests touching it stay
  // missing); SingularHessian (warning) when the joint covariance vanishes.
  TQStatus ComputeOvAndIndTests(const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons, double quantile,
                                TQTestStats* overall, std::vector<TQTestStats>* individual) const;
  // The same for the means on the original scale, m = g^-1(L b) through the link function, whose
  // covariance is D L Cov L' D with D = diag(dm/d(L b)).
  TQStatus ComputeOriginalOvAndIndTests(const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                                        double quantile, TQTestStats* overall,
                                        std::vector<TQTestStats>* individual) const;

  // The Wald test of L beta = 0 into `test` (marked tested). Statuses: error LMatrixEmpty when L
  // has no row, InternalError when its columns do not match the parameters (or the covariance
  // does not); warning LogLikelihoodCovarianceNotSucceed when an estimate or covariance entry
  // it needs is missing; warning SingularHessian when L C L' vanishes. Statistics that cannot be
  // formed stay missing.
  TQStatus ComputeModelTest(const TQRectMatrix& L, TQModelTestStats::Test& test) const;
  // The same for the entry of `effect` in `result`; the status is also stored with the entry.
  void ComputeModelTest(const TQRectMatrix& L, TQStatus& status, TQModelTestStats& result, int effect) const;

  // Singularity tolerance of the inversion of L C L' (relative to its diagonal).
  static constexpr double kTolerance = 1e-12;

  void Display() const;

 private:
  // L restricted to the parameters it touches (columns), with their estimates and covariance;
  // false when one of those is missing.
  bool Restrict(const TQRectMatrix& L, TQRectMatrix& lt, std::vector<double>& bt, TQSymMatrix& ct) const;
  // The Wald statistic (at least 0) of hypothesis values h with covariance v, and its degrees of
  // freedom: the rank of v by the generalized inverse. Warnings as ComputeModelTest.
  TQStatus Wald(const std::vector<double>& h, const TQSymMatrix& v, double& w, int& rank) const;
  // Statistic and significance of a Wald statistic w on df degrees of freedom, in the F form
  // when the tests have one.
  void SetStatistic(double w, int df, TQTestStats& test) const;
  TQStatus ComputeTests(bool original, const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                        double quantile, TQTestStats* overall, std::vector<TQTestStats>* individual) const;

  std::vector<double> fEstimates;
  TQBitSet fInModel;
  TQSymMatrix fCovariance;
  double fDF2 = TQMV::Missing;
  TQConst::TQTestType fTestType = TQConst::TestType0;
  TQConst::TQPAdjustMethod fPAdjust = TQConst::PAdjNone;
  const ITQLinkFunc* fpLink = nullptr;
  double fConfidenceLevel = 0.95;
};
