#include "gee/GEEScoreStats.h"

#include <algorithm>

#include "GZLSettings.h"
#include "estimation/GZLSeqQuad.h"
#include "gee/GEELLGradHessian.h"
#include "gee/GEEOptimizer.h"
#include "inference/GZLModelEffectTest.h"
#include "support/TQBitSet.h"
#include "support/TQDistFun.h"
#include "support/TQMV.h"
#include "support/TQSymMatrix.h"

TQStatus GEEScoreStats::Compute(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) {
  const std::size_t nTests = hypotheses.size();
  fStats.assign(nTests, std::vector<double>(kNValues, TQMV::Missing));
  fStatusEff.assign(nTests, TQStatus::Error(GZLStatusCode::LRStatisticProblem));
  fCriteria.assign(nTests, GZLConst_940::NoCriterionSatisfied);
  fConstrained.assign(nTests, std::vector<double>());
  if (!fpOptimizer->IsEstimated() || data.GetNumTests() != static_cast<int>(nTests))
    return fStatus = TQStatus::Error(GZLStatusCode::InternalError);

  const int P = fpOptimizer->GetNumParams();
  // The effect's columns are parameter columns unless the design has more parameters than basic
  // columns (the thresholds of an ordinal response); then the full-rank hypothesis's rows count.
  const bool parameterColumns = data.GetBasicSize() == P;
  const TQBitSet& inModel = fpOptimizer->GetInitRedunInfo();
  for (std::size_t e = 0; e < nTests; ++e) {
    const TQRectMatrix& L = hypotheses[e];
    if (L.GetNumRows() == 0) {
      fStatusEff[e] = TQStatus::Error(GZLStatusCode::LMatrixNotExist);
      continue;
    }
    double df = L.GetNumRows();
    if (parameterColumns) {
      const int first = data.GetFirstColumn(static_cast<int>(e));
      int count = 0;
      for (int c = first; c < first + data.GetNumColumns(static_cast<int>(e)) && c < P; ++c)
        if (inModel.Test(c)) ++count;
      df = count;
    }
    if (!Test(static_cast<int>(e), L, df)) return fStatus = TQStatus::Error(1);
  }
  bool allErrors = nTests > 0, allMissingL = true;
  for (const TQStatus& s : fStatusEff) {
    if (!s.IsError()) allErrors = false;
    if (s.GetErrorCode() != GZLStatusCode::LMatrixNotExist) allMissingL = false;
  }
  return fStatus = (allErrors && !allMissingL) ? TQStatus::Error(GZLStatusCode::NoValidLRTests) : TQStatus();
}

bool GEEScoreStats::Test(int e, const TQRectMatrix& L, double df) {
  const std::size_t k = static_cast<std::size_t>(e);
  GEEOptimizer& opt = *fpOptimizer;
  const double phi = opt.GetPhi();
  const TQStatus failed = TQStatus::Error(GZLStatusCode::PostEstimation);
  auto cancelled = [](const TQStatus& s) { return s.GetErrorCode() == GZLStatusCode::Cancelled; };

  // 1. The fit under L beta = 0.
  GEELLGradHessian model(opt);
  GZLSeqQuad sqp(*fpSettings, model, L, std::vector<double>(), opt.GetParamEstimates(), phi, opt.GetK(), true);
  sqp.SetProgressListener(fbTypeI ? fpSettings->GetIterProgressListenerTypeI()
                                  : fpSettings->GetIterProgressListenerTypeIII());
  if (sqp.IsValidLMatrix()) {
    sqp.ComputeInitial();
    sqp.Estimate();
  }
  const TQStatus fit = sqp.GetStatus();
  fCriteria[k] = sqp.GetStoppingCriterion();
  if (cancelled(fit)) return false;
  if (fit.IsError()) {
    fStatusEff[k] = failed;
    return true;
  }
  const std::vector<double> b0 = sqp.GetParamEstimates();

  // 2. U and A at the constrained estimates, then M from the robust pass there.
  std::vector<double> U;
  TQSymMatrix A, M;
  double pearson = TQMV::Missing;
  int invalid = 0;
  TQStatus st = opt.EvaluateEstimatingFunction(b0, phi, U, A, pearson, invalid);
  if (!st.IsError()) st = opt.EvaluateMiddleMatrix(b0, phi, M);
  if (cancelled(st)) return false;
  TQSymMatrix Ainv, sigma, V, Vinv;
  TQBitSet set, setV;
  TQRectMatrix LAinv;
  std::vector<double> u, diagonal;
  bool ok = !st.IsError() && opt.CholInverse(A, Ainv, set) >= 0;
  // 3. Sigma = A- M A-, V = L Sigma L'; 4. u = L A- U and S = u' V- u.
  ok = ok && Ainv.ComputeGMG(M, sigma) && sigma.ComputeRSRTrans(L, V) && Ainv.ComputeRS(L, LAinv) &&
       LAinv.ComputeRV(U, u);
  if (ok) {
    V.GetDiagonal(diagonal);
    ok = V.CholInverse(diagonal, fpSettings->GetTolerance(), Vinv, setV) >= 0;
  }
  double S = ok ? Vinv.ComputeVSV(u) : TQMV::Missing;
  if (TQMV::IsMissingOrInfinite(S)) {
    fStatusEff[k] = failed;
    return true;
  }
  // A quadratic form in a semi-definite matrix: a negative value is rounding.
  S = std::max(S, 0.0);
  std::vector<double>& v = fStats[k];
  v[0] = S;
  v[1] = df;
  if (df > 0.0) {
    const double cdf = TQDistFun::CdfChi(S, df);
    if (!TQMV::IsMissing(cdf)) v[2] = 1.0 - cdf;
  }
  fConstrained[k] = b0;
  fStatusEff[k] = fit;
  return true;
}
