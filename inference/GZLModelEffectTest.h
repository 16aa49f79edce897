#pragma once
// Wald tests of model effects: for each effect a contrast matrix L whose rows are the estimable
// functions of the effect's hypothesis, reduced to full rank and handed to TQModelTests, which
// forms the statistic from the estimates and their covariance.
//
// Tests run in "test order": the intercept first when the model has one (for an ordinal model
// always: its thresholds), then the settings' effects in order. The hypotheses are built on the
// weighted cross-product matrix X'WX of the "basic" design, which is
// - for single-response models the design itself (intercept column, then the effect columns);
// - for a nominal model the design of one logit (the parameters of one logit block);
// - for an ordinal model one column standing for the thresholds, then the effect columns.
// An L over the basic columns is then laid out over the parameters of the fit: for an ordinal
// model the thresholds beyond the first get zero columns after the first, for a nominal model
// L is repeated for every logit (block diagonal, logit-major like the parameter vector).
//
// GZLModelEffectTestData holds what the tests of one fit share (layout, X'WX, its general
// estimable function, the model tests); GZLModelEffectTestTypeI builds the sequential
// hypotheses (one sweep of X'WX carried from effect to effect, so they depend on the order of
// the effects), GZLModelEffectTestTypeIII the hypotheses of each effect adjusted for every
// other (the same in any order of the effects). Building L is kept apart from the statistic:
// ComputeLMatrices gives the hypotheses alone, for tests that use another statistic.
#include <memory>
#include <string>
#include <vector>

#include "GZLEffectInfo.h"
#include "GZLModelEffect.h"
#include "support/TQBitSet.h"
#include "support/TQModelTests.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLSettings;

class GZLModelEffectTestData {
 public:
  // Entries of H below this size are set to 0 and entries this close to 1 set to 1 before the
  // type I rows are taken from it.
  static constexpr double kSmallEntry = 1e-8;
  // Tolerances of the type III construction: projection residual, pivot elimination and column
  // cleaning (relative).
  static constexpr double kConstructionTolerance = 1e-12;
  // Rows of a hypothesis count as independent down to about 1e-8 relative.
  static constexpr double kFullRankTolerance = 1e-16;

  // settings: the model effects, the intercept, the response type and the singularity
  // tolerance; effectInfo: first column and number of columns of every settings effect (an
  // ordinal model's columns counted within the row, without the thresholds); nParams: the
  // parameters of the fit; sscp: X'WX of the basic design. The status (GetStatus) is
  // InternalError when the layout does not fit X'WX or the parameters, GEFMatrixEmpty when no
  // column of X'WX is estimable.
  GZLModelEffectTestData(const GZLSettings& settings, const std::vector<GZLEffectInfo>& effectInfo, int nParams,
                         const TQSymMatrix& sscp);
  GZLModelEffectTestData(const GZLModelEffectTestData&) = delete;
  GZLModelEffectTestData& operator=(const GZLModelEffectTestData&) = delete;

  TQStatus GetStatus() const noexcept { return fStatus; }

  // ---- layout, in test order ----
  int GetNumTests() const noexcept { return static_cast<int>(fTests.size()); }
  // Index of the test's effect in the settings' effect list, -1 for the intercept (thresholds).
  int GetSettingsEffect(int test) const { return fTests[static_cast<std::size_t>(test)].fSettingsEffect; }
  // First basic column of the test's effect and their number.
  int GetFirstColumn(int test) const { return fTests[static_cast<std::size_t>(test)].fFirst; }
  int GetNumColumns(int test) const { return fTests[static_cast<std::size_t>(test)].fCount; }
  // Whether the effect of `test` is contained in that of `other` (the intercept is contained in
  // every effect made of factors only).
  bool IsContainedIn(int test, int other) const;
  bool HasInterceptTest() const noexcept { return fbInterceptTest; }
  bool IsMultinomial() const noexcept { return fbMultinomial; }
  bool IsNominal() const noexcept { return fbNominal; }
  int GetNumParams() const noexcept { return fNParams; }
  int GetBasicSize() const noexcept { return fSSCP.GetNumRows(); }
  double GetTolerance() const noexcept { return fTolerance; }

  // ---- matrices ----
  const TQSymMatrix& GetSSCP() const noexcept { return fSSCP; }
  const std::vector<double>& GetSSCPDiagonal() const noexcept { return fDiagonal; }
  // One row per estimable column of X'WX (swept in column order): the general form of the
  // estimable functions, over the basic columns.
  const TQRectMatrix& GetGeneralEstimableFunction() const noexcept { return fGEF; }

  // An L over the basic columns laid out over the parameters of the fit. False when the sizes
  // do not fit.
  bool ExpandToParameters(const TQRectMatrix& basic, TQRectMatrix& out) const;

  // ---- the statistic ----
  void SetModelTests(std::unique_ptr<TQModelTests> tests) { fpModelTests = std::move(tests); }
  const TQModelTests* GetModelTests() const noexcept { return fpModelTests.get(); }

  // The Wald test of the model against the intercept-only model (the thresholds-only model for
  // an ordinal response; against the empty model when there is no intercept): the estimable
  // functions of every effect after the intercept. One entry, numbered 0, in `result`; no test
  // when no effect column is estimable. Returns the status of the test.
  TQStatus ComputeCorrectedModelTest(TQModelTestStats& result) const;

  void Display() const;

 private:
  struct TestLayout {
    int fSettingsEffect = -1;
    int fFirst = 0;
    int fCount = 0;
    TQModelEffect fEffect;
  };

  TQStatus fStatus;
  std::vector<TestLayout> fTests;
  // contained[t * n + u]: effect of test t contained in that of test u.
  std::vector<bool> fContained;
  bool fbInterceptTest = false;
  bool fbMultinomial = false;
  bool fbNominal = false;
  bool fbOrdinal = false;
  int fNParams = 0;
  double fTolerance = 1e-12;
  TQSymMatrix fSSCP;
  std::vector<double> fDiagonal;
  TQRectMatrix fGEF;
  std::unique_ptr<TQModelTests> fpModelTests;
};

class GZLDefaultModelEffectTest {
 public:
  GZLDefaultModelEffectTest() = default;
  GZLDefaultModelEffectTest(const GZLDefaultModelEffectTest&) = delete;
  GZLDefaultModelEffectTest& operator=(const GZLDefaultModelEffectTest&) = delete;
  virtual ~GZLDefaultModelEffectTest();

  // Stores the shared data (borrowed; must outlive the tests) and starts a fresh result.
  virtual void SetData(const GZLModelEffectTestData* data);
  // Every test in order: its hypothesis, reduced to full rank, then the Wald statistic with the
  // data's model tests. Errors: InternalError without data or model tests, GEFMatrixEmpty.
  // Otherwise the status is OK or the last warning of the loop (all of them in GetWarnings):
  // InternalError (warning) when an effect's L cannot be built (that effect then has no test),
  // and the warnings of the statistic. An effect without estimable hypothesis gets an entry
  // without a test and no status.
  virtual void ComputeTests(TQStatus& status);
  virtual const TQModelTestStats& GetModelTestStats() const { return fStats; }
  // The rows of the test's hypothesis over the basic columns (not yet of full rank) and, for
  // each, its design column plus one. No row: the effect has no test. Type I tests must be
  // built in test order after BeginTests.
  virtual TQStatus BuildLMatrix(int test, TQRectMatrix& L, std::vector<int>& rowIndices) = 0;

  // The hypotheses of all tests in order, each of full row rank over the parameters of the
  // fit (0 rows: no test). Errors as ComputeTests; an effect whose L cannot be built gets 0
  // rows and the warning InternalError is returned.
  TQStatus ComputeLMatrices(std::vector<TQRectMatrix>& matrices);
  // The hypotheses the last ComputeTests used, in test order.
  const std::vector<TQRectMatrix>& GetLMatrices() const noexcept { return fLMatrices; }
  const std::vector<TQStatus>& GetWarnings() const noexcept { return fWarnings; }

  virtual void Display() const;

 protected:
  // Called before the first test of a run.
  virtual void BeginTests() {}
  virtual const char* ClassName() const = 0;

  const GZLModelEffectTestData* fpData = nullptr;

 private:
  // One test's hypothesis: BuildLMatrix, full rank, laid out over the parameters.
  TQStatus BuildTestL(int test, TQRectMatrix& L, std::vector<int>& rowIndices);
  // The checks of a run; OK when the tests can be built.
  TQStatus CheckData(bool needModelTests) const;

  TQModelTestStats fStats;
  std::vector<TQRectMatrix> fLMatrices;
  std::vector<TQStatus> fWarnings;
};

class GZLModelEffectTestTypeI : public GZLDefaultModelEffectTest {
 public:
  // Sweeps the working copy of X'WX on the effect's columns; the pivoted columns give the rows,
  // taken from the swept matrix. The sweep is kept for the next effect.
  TQStatus BuildLMatrix(int test, TQRectMatrix& L, std::vector<int>& rowIndices) override;
  void Display() const override;

 protected:
  void BeginTests() override;
  const char* ClassName() const override { return "GZLModelEffectTestTypeI"; }

 private:
  TQSymMatrix fSwept;
  TQBitSet fSweptSet;
};

class GZLModelEffectTestTypeIII : public GZLDefaultModelEffectTest {
 public:
  // Selection on fresh copies of X'WX (the effects not containing this one, then this one, then
  // the effects containing it), then the construction of the rows (see the .cpp).
  TQStatus BuildLMatrix(int test, TQRectMatrix& L, std::vector<int>& rowIndices) override;

 protected:
  const char* ClassName() const override { return "GZLModelEffectTestTypeIII"; }
};
