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
#include <string>
#include <vector>

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

class TQModelTests {
 public:
  // estimates: P values (redundant parameters at 0); inModel: P bits, set = in the model;
  // covariance: P x P; df2 > 0 adds the F form with these denominator degrees of freedom.
  TQModelTests(std::vector<double> estimates, TQBitSet inModel, TQSymMatrix covariance,
               double df2 = TQMV::Missing);

  int GetNumParams() const noexcept { return static_cast<int>(fEstimates.size()); }
  double GetDF2() const noexcept { return fDF2; }
  bool HasFForm() const noexcept { return !TQMV::IsMissingOrInfinite(fDF2) && fDF2 > 0.0; }

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
  std::vector<double> fEstimates;
  TQBitSet fInModel;
  TQSymMatrix fCovariance;
  double fDF2 = TQMV::Missing;
};
