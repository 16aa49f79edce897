#pragma once
// The omnibus test: a likelihood-ratio test of the fitted model against the null model (the
// intercept alone, or nothing when the model has no intercept). The null model is refitted
// over further data passes with a fresh optimizer on the intercept-only settings and the
// design reduced to its leading column; an ordinal model's null log-likelihood has a closed
// form in the response category proportions.
#include <memory>
#include <vector>

#include "GZLSettings.h"
#include "support/TQMV.h"
#include "support/TQStatus.h"

class GZLDesignMatrix;
class GZLOptimizerForGZLM;

class GZLOmnibusTest {
 public:
  // settings: the fitted model's settings (copied); design: the fitted model's design matrix,
  // reduced for the null fit and restored afterwards; fitted: the fitted model's optimizer.
  GZLOmnibusTest(const GZLSettings& settings, GZLDesignMatrix& design, const GZLOptimizerForGZLM& fitted);
  GZLOmnibusTest(const GZLOmnibusTest&) = delete;
  GZLOmnibusTest& operator=(const GZLOmnibusTest&) = delete;
  ~GZLOmnibusTest();

  // Runs the test; the status is stored. Errors: 130094 (a log-likelihood is missing), 130073
  // (no valid record in the null fit), 130074 (null-model scale not positive), 130076
  // (negative statistic); warning 130072 when the null fit skipped records.
  TQStatus Run();

  TQStatus GetStatus() const { return fStatus; }
  double GetDist() const { return fDist; }
  double GetDF() const { return fDF; }
  double GetSig() const { return fSig; }
  // True when the null fit ended in error.
  bool GetFailedInitModel() const { return fbFailedInitModel; }
  double GetNullLogLikelihood() const { return fNullLogLikelihood; }
  double GetFittedLogLikelihood() const { return fFittedLogLikelihood; }
  void Display() const;

  // ---- building blocks ----
  // 2 (L1 - L0) on df degrees of freedom: OK with statistic and significance, or error 130076
  // with all three missing when the statistic is negative. Missing inputs give 130094.
  static TQStatus ComputeStatistic(double l1, double l0, double df, double& statistic, double& dfOut,
                                   double& significance);
  // Null log-likelihood of an ordinal model, sum_c w_c log(w_c / W) over the categories with a
  // positive weighted count w_c; nThresholds gets their number less one. Missing when no
  // category has a positive count.
  static double OrdinalNullLogLikelihood(const std::vector<double>& weightedCounts, int& nThresholds);

 private:
  TQStatus RunRefit(double& nullLL, int& nullParams);
  // One null fit on the reduced design; sets fbLastFitNotConverged.
  TQStatus FitNullModel(const GZLSettings& nullSettings, double& nullLL, int& nullParams);

  GZLSettings fSettings;
  GZLDesignMatrix* fpDesign;
  const GZLOptimizerForGZLM* fpFitted;
  TQStatus fStatus;
  double fDist = TQMV::Missing;
  double fDF = TQMV::Missing;
  double fSig = TQMV::Missing;
  bool fbFailedInitModel = false;
  double fNullLogLikelihood = TQMV::Missing;
  double fFittedLogLikelihood = TQMV::Missing;
  std::vector<TQStatus> fWarnings;
  bool fbLastFitNotConverged = false;
};
