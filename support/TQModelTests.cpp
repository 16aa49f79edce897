#include "support/TQModelTests.h"

#include <algorithm>
#include <cmath>

#include "GZLConst_940.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {

bool Usable(double x) { return !TQMV::IsMissingOrInfinite(x); }

// 1 - cdf, kept within [0, 1]; missing when the distribution function gave nothing.
double UpperTail(double cdf) { return TQMV::IsMissing(cdf) ? TQMV::Missing : std::clamp(1.0 - cdf, 0.0, 1.0); }

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

TQStatus TQModelTests::ComputeModelTest(const TQRectMatrix& L, TQModelTestStats::Test& test) const {
  test.fbTested = true;
  test.fChiSquare = test.fSig = test.fF = test.fDF2 = test.fFSig = TQMV::Missing;
  test.fDF = 0.0;
  const int m = L.GetNumRows();
  const int p = GetNumParams();
  if (m == 0) return TQStatus::Error(GZLStatusCode::LMatrixEmpty);
  if (L.GetNumCols() != p || fCovariance.GetNumRows() != p) return TQStatus::Error(GZLStatusCode::InternalError);

  // Only the parameters that L touches enter L b and L C L'; a missing estimate or covariance
  // among them leaves the statistic missing.
  std::vector<int> touched;
  for (int k = 0; k < p; ++k)
    for (int i = 0; i < m; ++i)
      if (L(i, k) != 0.0) {
        touched.push_back(k);
        break;
      }
  const int nt = static_cast<int>(touched.size());
  TQRectMatrix lt(m, nt);
  TQSymMatrix ct(nt);
  std::vector<double> bt(static_cast<std::size_t>(nt));
  for (int a = 0; a < nt; ++a) {
    const int k = touched[static_cast<std::size_t>(a)];
    bt[static_cast<std::size_t>(a)] = fEstimates[static_cast<std::size_t>(k)];
    for (int i = 0; i < m; ++i) lt(i, a) = L(i, k);
    for (int c = 0; c <= a; ++c) ct(a, c) = fCovariance.Get(k, touched[static_cast<std::size_t>(c)]);
  }
  const bool usable = std::all_of(bt.begin(), bt.end(), Usable) &&
                      std::all_of(ct.Data(), ct.Data() + ct.PackedSize(), Usable);
  if (!usable) return TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed);
  std::vector<double> lb;
  TQSymMatrix lcl;
  lt.ComputeRV(bt, lb);
  ct.ComputeRSRTrans(lt, lcl);

  // Generalized inverse: a hypothesis row whose variance is a combination of the others' (a
  // parameter dropped during the iterations, say) counts once.
  std::vector<double> diagonal;
  lcl.GetNCheckDiagonal(diagonal, 0.0, 1.0);
  TQSymMatrix inverse;
  TQBitSet set;
  const int rank = lcl.CholInverse(diagonal, kTolerance, inverse, set);
  if (rank < 1) return TQStatus::Warning(GZLStatusCode::SingularHessian);
  double w = inverse.ComputeVSV(lb);
  if (!Usable(w)) return TQStatus::Warning(GZLStatusCode::LogLikelihoodCovarianceNotSucceed);
  w = std::max(w, 0.0);
  test.fChiSquare = w;
  test.fDF = rank;
  test.fSig = UpperTail(TQDistFun::CdfChi(w, rank));
  if (HasFForm()) {
    test.fF = w / rank;
    test.fDF2 = fDF2;
    test.fFSig = UpperTail(TQDistFun::CdfF(test.fF, rank, fDF2));
  }
  return TQStatus();
}

void TQModelTests::ComputeModelTest(const TQRectMatrix& L, TQStatus& status, TQModelTestStats& result,
                                    int effect) const {
  TQModelTestStats::Test& test = result.AddEffect(effect);
  status = ComputeModelTest(L, test);
  test.fStatus = status;
}

void TQModelTests::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQModelTests display start");
  DisplayI("Number of parameters", GetNumParams());
  DisplayDV("Parameter estimates", fEstimates, true);
  DisplayText(1, "Redundancy indicators: " + fInModel.ToString());
  fCovariance.Display("Covariance matrix of the parameter estimates");
  DisplayDF("Denominator degrees of freedom", fDF2);
  DisplayText(1, "TQModelTests display end");
}
