#include "support/TQModelTests.h"

#include <algorithm>
#include <cmath>

#include "GZLConst_940.h"
#include "support/TQDisplay_940.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDistFun.h"

namespace {

bool Usable(double x) { return !TQMV::IsMissingOrInfinite(x); }


}  // namespace

TQModelTestStats::Test& TQModelTestStats::AddEffect(int effect) {
  for (Test& t : fTests)
    if (t.fEffect == effect) return t;
  fTests.emplace_back();
  fTests.back().fEffect = effect;
  return fTests.back();
}

void TQModelTestStats::AddRowIndices(int effect, const std::vector<int>& rowIndices) {
  Test& t = AddEffect(effect);
  t.fRowIndices.insert(t.fRowIndices.end(), rowIndices.begin(), rowIndices.end());
}

const TQModelTestStats::Test* TQModelTestStats::FindEffect(int effect) const noexcept {
  for (const Test& t : fTests)
    if (t.fEffect == effect) return &t;
  return nullptr;
}

void TQModelTestStats::Display(const std::string& title) const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQModelTestStats display start");
  if (!title.empty()) DisplayS("Title", title);
  DisplayI("Number of tests", GetNumTests());
  for (const Test& t : fTests) {
    DisplayI("Effect", t.fEffect);
    DisplayB("Tested", t.fbTested);
    DisplayDF("Wald chi-square", t.fChiSquare);
    DisplayDF("Degrees of freedom", t.fDF);
    DisplayDF("Significance", t.fSig);
    DisplayDF("F", t.fF);
    DisplayDF("Denominator degrees of freedom", t.fDF2);
    DisplayDF("Significance of F", t.fFSig);
    DisplayIV("Row indices", t.fRowIndices);
    DisplayI("Status", t.fStatus.GetErrorCode());
  }
  DisplayText(1, "TQModelTestStats display end");
}

TQModelTests::TQModelTests(std::vector<double> estimates, TQBitSet inModel, TQSymMatrix covariance, double df2)
    : fEstimates(std::move(estimates)), fInModel(std::move(inModel)), fCovariance(std::move(covariance)), fDF2(df2) {}

bool TQModelTests::Restrict(const TQRectMatrix& L, TQRectMatrix& lt, std::vector<double>& bt, TQSymMatrix& ct) const {
  // Only the parameters that L touches enter L b and L C L'; a missing estimate or covariance
  // among them leaves the statistics missing.
  const int m = L.GetNumRows();
  std::vector<int> touched;
  for (int k = 0; k < L.GetNumCols(); ++k)
    for (int i = 0; i < m; ++i)
      if (L(i, k) != 0.0) {
        touched.push_back(k);
        break;
      }
  const int nt = static_cast<int>(touched.size());
  lt = TQRectMatrix(m, nt);
  ct = TQSymMatrix(nt);
  bt.assign(static_cast<std::size_t>(nt), 0.0);
  for (int a = 0; a < nt; ++a) {
    const int k = touched[static_cast<std::size_t>(a)];
    bt[static_cast<std::size_t>(a)] = fEstimates[static_cast<std::size_t>(k)];
    for (int i = 0; i < m; ++i) lt(i, a) = L(i, k);
    for (int c = 0; c <= a; ++c) ct(a, c) = fCovariance.Get(k, touched[static_cast<std::size_t>(c)]);
  }
  return std::all_of(bt.begin(), bt.end(), Usable) && std::all_of(ct.Data(), ct.Data() + ct.PackedSize(), Usable) &&
         std::all_of(lt.Data(), lt.Data() + static_cast<std::size_t>(m) * nt, Usable);
}

TQStatus TQModelTests::Wald(const std::vector<double>& h, const TQSymMatrix& v, double& w, int& rank) const {
  // Generalized inverse: a hypothesis row whose variance is a combination of the others' (a
  // parameter dropped during the iterations, say) counts once.
  std::vector<double> diagonal;
  v.GetNCheckDiagonal(diagonal, 0.0, 1.0);
  TQSymMatrix inverse;
  TQBitSet set;
  rank = v.CholInverse(diagonal, kTolerance, inverse, set);
  if (rank < 1) return TQStatus::Warning(GZLStatusCode::SingularHessian);
  w = inverse.ComputeVSV(h);
  if (!Usable(w)) return TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed);
  w = std::max(w, 0.0);
  return TQStatus();
}

TQStatus TQModelTests::ComputeModelTest(const TQRectMatrix& L, TQModelTestStats::Test& test) const {
  test.fbTested = true;
  test.fChiSquare = test.fSig = test.fF = test.fDF2 = test.fFSig = TQMV::Missing;
  test.fDF = 0.0;
  const int p = GetNumParams();
  if (L.GetNumRows() == 0) return TQStatus::Error(GZLStatusCode::LMatrixEmpty);
  if (L.GetNumCols() != p || fCovariance.GetNumRows() != p) return TQStatus::Error(GZLStatusCode::InternalError);
  TQRectMatrix lt;
  TQSymMatrix ct;
  std::vector<double> bt;
  if (!Restrict(L, lt, bt, ct)) return TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed);
  std::vector<double> lb;
  TQSymMatrix lcl;
  lt.ComputeRV(bt, lb);
  ct.ComputeRSRTrans(lt, lcl);
  double w = 0.0;
  int rank = 0;
  const TQStatus status = Wald(lb, lcl, w, rank);
  if (!status.IsOK()) return status;
  test.fChiSquare = w;
  test.fDF = rank;
  test.fSig = TQDistFun::SfChi(w, rank);
  if (HasFForm()) {
    test.fF = w / rank;
    test.fDF2 = fDF2;
    test.fFSig = TQDistFun::SfF(test.fF, rank, fDF2);
  }
  return TQStatus();
}

void TQModelTests::ComputeModelTest(const TQRectMatrix& L, TQStatus& status, TQModelTestStats& result,
                                    int effect) const {
  TQModelTestStats::Test& test = result.AddEffect(effect);
  status = ComputeModelTest(L, test);
  test.fStatus = status;
}

void TQModelTests::ComputeLinearCombination(std::span<const double> l, double& value, double& variance) const {
  value = variance = TQMV::Missing;
  const int p = GetNumParams();
  if (static_cast<int>(l.size()) != p || fCovariance.GetNumRows() != p) return;
  double v = 0.0, s = 0.0;
  for (int i = 0; i < p; ++i) {
    if (l[i] == 0.0) continue;
    if (!Usable(l[i]) || !Usable(fEstimates[static_cast<std::size_t>(i)])) return;
    v += l[i] * fEstimates[static_cast<std::size_t>(i)];
    for (int j = 0; j <= i; ++j) {
      if (l[j] == 0.0) continue;
      const double c = fCovariance.Get(i, j);
      if (!Usable(c)) return;
      s += (i == j ? 1.0 : 2.0) * l[i] * l[j] * c;
    }
  }
  value = v;
  variance = Usable(s) ? std::max(s, 0.0) : TQMV::Missing;
}

void TQModelTests::SetStatistic(double w, int df, TQTestStats& test) const {
  test.fDF = df;
  if (HasFForm()) {
    test.fWald = w / df;
    test.fDF2 = fDF2;
    test.fSig = TQDistFun::SfF(test.fWald, df, fDF2);
  } else {
    test.fWald = w;
    test.fSig = TQDistFun::SfChi(w, df);
  }
}

TQStatus TQModelTests::ComputeOvAndIndTests(const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                                            double quantile, TQTestStats* overall,
                                            std::vector<TQTestStats>* individual) const {
  return ComputeTests(false, C, L, nComparisons, quantile, overall, individual);
}

TQStatus TQModelTests::ComputeOriginalOvAndIndTests(const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                                                    double quantile, TQTestStats* overall,
                                                    std::vector<TQTestStats>* individual) const {
  return ComputeTests(true, C, L, nComparisons, quantile, overall, individual);
}

TQStatus TQModelTests::ComputeTests(bool original, const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                                    double quantile, TQTestStats* overall,
                                    std::vector<TQTestStats>* individual) const {
  if (overall != nullptr) *overall = TQTestStats();
  if (individual != nullptr) individual->assign(static_cast<std::size_t>(C.GetNumRows()), TQTestStats());
  const int p = GetNumParams();
  const int k = L.GetNumRows();
  if (k == 0 || C.GetNumRows() == 0) return TQStatus::Error(GZLStatusCode::LMatrixEmpty);
  if (L.GetNumCols() != p || fCovariance.GetNumRows() != p || C.GetNumCols() != k ||
      (original && fpLink == nullptr))
    return TQStatus::Error(GZLStatusCode::InternalError);
  TQStatus status;
  const TQStatus unusable = TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed);

  // The means and their covariance.
  TQRectMatrix lt;
  TQSymMatrix ct;
  std::vector<double> bt;
  if (!Restrict(L, lt, bt, ct)) return unusable;
  std::vector<double> means;
  TQSymMatrix cov;
  lt.ComputeRV(bt, means);
  ct.ComputeRSRTrans(lt, cov);
  std::vector<bool> usable(static_cast<std::size_t>(k), true);
  if (original) {
    // Delta method: m_i = g^-1(eta_i) has derivative 1 / g'(m_i) in eta_i.
    std::vector<double> slope(static_cast<std::size_t>(k), 0.0);
    for (int i = 0; i < k; ++i) {
      int st = 0;
      const double mu = fpLink->GetMu(means[i], &st);
      double d = TQMV::Missing;
      if (st == 0 && Usable(mu)) d = fpLink->GetFirstDeriv(mu, &st);
      if (st != 0 || !Usable(mu) || !Usable(d) || d == 0.0) {
        usable[i] = false;
        status = unusable;
        continue;
      }
      means[i] = mu;
      slope[i] = 1.0 / d;
    }
    for (int i = 0; i < k; ++i)
      for (int j = 0; j <= i; ++j) cov(i, j) *= slope[i] * slope[j];
  }

  // A contrast can be formed when every mean it weighs has a value.
  auto formed = [&](int row) {
    for (int i = 0; i < k; ++i)
      if (C(row, i) != 0.0 && !usable[i]) return false;
    return true;
  };
  std::vector<double> h;
  C.ComputeRV(means, h);

  if (individual != nullptr) {
    const int method = fPAdjust;
    const double m = std::max(1, nComparisons);
    std::vector<int> used;
    for (int r = 0; r < C.GetNumRows(); ++r) {
      TQTestStats& t = (*individual)[static_cast<std::size_t>(r)];
      if (!formed(r)) continue;
      // c' V c over the means the contrast weighs: a pairwise table has K(K - 1) rows of two
      // weights each, whose joint covariance is never needed.
      used.clear();
      for (int i = 0; i < k; ++i)
        if (C(r, i) != 0.0) used.push_back(i);
      double variance = 0.0;
      for (int i : used)
        for (int j : used) variance += C(r, i) * C(r, j) * cov(i, j);
      t.fEstimate = h[r];
      if (!Usable(variance)) continue;
      t.fStdError = std::sqrt(std::max(variance, 0.0));
      if (Usable(quantile)) {
        t.fLower = t.fEstimate - quantile * t.fStdError;
        t.fUpper = t.fEstimate + quantile * t.fStdError;
      }
      if (!(t.fStdError > 0.0)) continue;
      const double z = t.fEstimate / t.fStdError;
      SetStatistic(z * z, 1, t);
      if (TQMV::IsMissing(t.fSig)) continue;
      if (method == TQConst::PAdjBonferroni || method == TQConst::PAdjSeqBonferroni)
        t.fAdjSig = std::min(1.0, m * t.fSig);
      else if (method == TQConst::PAdjSidak || method == TQConst::PAdjSeqSidak)
        t.fAdjSig = std::clamp(-std::expm1(m * std::log1p(-t.fSig)), 0.0, 1.0);
      else
        t.fAdjSig = t.fSig;
    }
  }

  if (overall != nullptr) {
    for (int r = 0; r < C.GetNumRows(); ++r)
      if (!formed(r)) return unusable;
    TQSymMatrix v;
    cov.ComputeRSRTrans(C, v);
    double w = 0.0;
    int rank = 0;
    const TQStatus joint = Wald(h, v, w, rank);
    if (!joint.IsOK()) return joint;
    SetStatistic(w, rank, *overall);
  }
  return status;
}

void TQModelTests::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQModelTests display start");
  DisplayI("Number of parameters", GetNumParams());
  DisplayDV("Parameter estimates", fEstimates, true);
  DisplayText(1, "Redundancy indicators: " + fInModel.ToString());
  fCovariance.Display("Covariance matrix of the parameter estimates");
  DisplayDF("Denominator degrees of freedom", fDF2);
  DisplayI("Test type", fTestType);
  DisplayI("P-value adjustment method", fPAdjust);
  DisplayDF("Confidence level", fConfidenceLevel);
  DisplayB("Link function is defined", fpLink != nullptr);
  DisplayText(1, "TQModelTests display end");
}
