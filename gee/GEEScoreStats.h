#pragma once
// Generalized score tests of the effects of a GEE model (the effect analysis that a GLM answers
// with likelihood-ratio tests: estimating equations have no likelihood to compare). For each
// effect with hypothesis L beta = 0 (type I or type III, as the hypotheses given say):
//   1. the GEE model is refitted under L beta = 0 (GZLSeqQuad in GEE mode over the subject pass,
//      from the fit's estimates, with the fitted working correlation and scale);
//   2. at the constrained estimates b0 a subject pass gives U (the estimating function) and the
//      model-based information A, with generalized inverse A-, and the robust pass gives the
//      middle matrix M of the sandwich;
//   3. Sigma = A- M A-, V = L Sigma L' with generalized inverse V-, u = L A- U;
//   4. S = u' V- u on df = the parameters of the effect's columns in the model, with
//      significance 1 - CdfChi(S, df).
// The scale cancels in S, so the fit's scale is used throughout.
//
// Results have the layout of the likelihood-ratio tests of a GLM: per effect 7 values (0 S,
// 1 df, 2 significance; 3-6 missing), a status (OK or the warning of its refit; 130083 without a
// hypothesis; 130090 when the refit or the statistic fails) and the stopping criterion of its
// refit. The overall status: OK; 130086 when every tested effect failed; 1 when cancelled.
#include <vector>

#include "GZLConst_940.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"

class GZLSettings;
class GEEOptimizer;
class GZLModelEffectTestData;

class GEEScoreStats {
 public:
  static constexpr int kNValues = 7;

  // optimizer: the finished fit (its passes serve the refits); typeI: which progress listener
  // of the settings follows the refits.
  GEEScoreStats(const GZLSettings& settings, GEEOptimizer& optimizer, bool typeI) noexcept
      : fpSettings(&settings), fpOptimizer(&optimizer), fbTypeI(typeI) {}

  // hypotheses: for each effect in test order its L over the fit's parameters (no row: no test).
  TQStatus Compute(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses);

  const std::vector<std::vector<double>>& GetStats() const noexcept { return fStats; }
  TQStatus GetStatus() const noexcept { return fStatus; }
  const std::vector<TQStatus>& GetStatusEff() const noexcept { return fStatusEff; }
  const std::vector<GZLConst_940::StoppingCriteria>& GetStoppingCrits() const noexcept { return fCriteria; }
  // The constrained estimates of each effect's refit (empty where there was none).
  const std::vector<std::vector<double>>& GetConstrainedEstimates() const noexcept { return fConstrained; }

 private:
  // The test of one effect into slot e; false when the host cancelled.
  bool Test(int e, const TQRectMatrix& L, double df);

  const GZLSettings* fpSettings;
  GEEOptimizer* fpOptimizer;
  bool fbTypeI;
  std::vector<std::vector<double>> fStats;
  std::vector<TQStatus> fStatusEff;
  std::vector<GZLConst_940::StoppingCriteria> fCriteria;
  std::vector<std::vector<double>> fConstrained;
  TQStatus fStatus = TQStatus::Error(GZLStatusCode::NoValidLRTests);
};
