#include "gee/GEESubjectPass.h"

#include <algorithm>
#include <cmath>

#include "estimation/GZLOptimizer.h"
#include "include/GZLVarianceFunc.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"

namespace {

// Tolerance of the positive definite copy of R.
constexpr double kPositiveDefiniteTolerance = 1e-12;

}  // namespace

void GEEScaleParameter::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GEEScaleParameter display start");
  DisplayD("The value used to compute phi:", fSum.Get());
  DisplayText(1, "GEEScaleParameter display end");
}

// ---- GEEPassSums -------------------------------------------------------------------------------

void GEEPassSums::Reset(int K, bool robust) {
  const std::size_t packed = static_cast<std::size_t>(K) * (K + 1) / 2;
  fU.assign(robust ? 0 : static_cast<std::size_t>(K), 0.0);
  fH.assign(robust ? 0 : packed, 0.0);
  if (K != fK) fBatch.Resize(K);
  fK = K;
  fBatch.Clear();
  if (!fH.empty()) fBatch.SetDense(fH.data(), K);
  fMeat.assign(robust ? packed : 0, 0.0);
  fPearson.Clear();
  fNValid = 0;
  fNInvalid = 0;
  fbFailed = false;
  fQ.Clear();
}

void GEEPassSums::Merge(GEEPassSums& other) {
  FlushPending();
  other.FlushPending();
  for (std::size_t a = 0; a < fU.size() && a < other.fU.size(); ++a) fU[a] += other.fU[a];
  for (std::size_t a = 0; a < fH.size() && a < other.fH.size(); ++a) fH[a] += other.fH[a];
  for (std::size_t a = 0; a < fMeat.size() && a < other.fMeat.size(); ++a) fMeat[a] += other.fMeat[a];
  fPearson.Merge(other.fPearson);
  fNValid += other.fNValid;
  fNInvalid += other.fNInvalid;
  fbFailed = fbFailed || other.fbFailed;
  fQ.Merge(other.fQ);
  if (fpInformation != nullptr && other.fpInformation != nullptr) fpInformation->Merge(*other.fpInformation);
}

// ---- GEESubjectPass ----------------------------------------------------------------------------

GEESubjectPass::GEESubjectPass(const GZLSettings& settings)
    : fpSettings(&settings),
      fpLink(CreateLinkFunction(settings.GetLinkType(), settings.GetLinkParam())),
      fpVariance(CreateVarianceFunction(settings.GetDistType(), settings.GetDistParam())),
      fpQuasi(CreateGEEQuasiLikeliHoodFunc(settings.GetDistType(), settings.GetDistParam())),
      fCoding(settings),
      fTolerance(settings.GetTolerance()),
      // The information of the independence model is the observed one where the fit of the
      // generalized linear model ends under observed information (Newton-Raphson, hybrid).
      fbObservedInformation(settings.GetHessianCompMethod() == TQConst::HessianNewtonRaphson ||
                            settings.GetHessianCompMethod() == TQConst::HessianHybrid),
      fbOrdinal(settings.GetDistType() == TQConst::DistOrdinalMultinomial) {
  if (fbOrdinal) {
    fpCumulative = dynamic_cast<const TQCumulativeLinkFunc*>(fpLink.get());
    fNThresholds = std::max(settings.GetDependentSize() - 1, 0);
    fPoints.resize(static_cast<std::size_t>(fNThresholds) + 2);
    fPi.resize(static_cast<std::size_t>(fNThresholds));
  }
}

GEESubjectPass::~GEESubjectPass() = default;

void GEESubjectPass::SetDistParam(double k) {
  if (fpVariance) fpVariance->SetParam(k);
  if (fpLink && fpSettings->GetLinkType() == TQConst::LinkNegBinomial) fpLink->SetParam(k);
  if (auto* nb = dynamic_cast<GEEQuasiLikeliHoodNegBinomial*>(fpQuasi.get())) nb->SetK(k);
  if (fpInformation) fpInformation->SetDistParam(k);
}

void GEESubjectPass::SetActive(const TQBitSet& inModel) {
  fP = inModel.Size();
  inModel.GetSetIndices(fActive);
  fIndices.reserve(static_cast<std::size_t>(fP));
  fValues.reserve(static_cast<std::size_t>(fP));
  // An ordinal model's cross-products are those of its basic design: one column for the
  // thresholds, then the row's columns.
  const int size = fbOrdinal ? fP - fNThresholds + 1 : fP;
  if (!fpInformation || fpInformation->GetNumParams() != size)
    fpInformation = std::make_unique<GZLHessianMatrix>(size, nullptr, *fpSettings);
}

TQStatus GEESubjectPass::Run(GEEDesignMatrix& design, const std::vector<double>& beta, const TQSymMatrix& R,
                             double phi, bool robust, bool& rTransformed) {
  const int K = static_cast<int>(fActive.size());
  fSums.Reset(K, robust);
  fbRobust = robust;
  fpBeta = beta.data();
  fPhi = phi;
  fR = R;
  // An ordinal response makes each subject's block positive definite instead (InvertCorrelation).
  rTransformed = fbOrdinal ? false : fR.TransformToPositiveDefinite(kPositiveDefiniteTolerance);
  fbBlockTransformed = false;
  fbInverseValid = false;
  fbHasQuasiLikelihood = robust && fpQuasi != nullptr;
  if (fpQuasi) fpQuasi->SetPhi(phi);
  if (robust) {
    fpInformation->Reset(phi, !fbObservedInformation);
    fSums.fpInformation = fpInformation.get();
  } else {
    fSums.fpInformation = nullptr;
  }
  const bool functions = fbOrdinal ? fpCumulative != nullptr && fNThresholds > 0 : fpLink && fpVariance;
  if (!functions || static_cast<int>(beta.size()) < fP) return TQStatus::Error(GZLStatusCode::CantBuildModel);
  if (fbOrdinal) fFullRow.resize(static_cast<std::size_t>(fP));

  TQStatus status = GEERunSubjects(design, fSubject, fSums,
                                   [this](const GEESubject& s, GEEPassSums& sums) { return AddSubject(s, sums); });
  fSums.FlushPending();
  if (fbOrdinal) rTransformed = fbBlockTransformed;
  if (status.IsError()) return status;
  if (fSums.fNValid == 0 || fSums.fbFailed) return TQStatus::Error(GZLStatusCode::CantBuildModel);
  if (!std::isfinite(fSums.fPearson.GetValue())) return TQStatus::Error(GZLStatusCode::CantBuildModel);
  return status;
}

bool GEESubjectPass::InvertCorrelation(int n) {
  // The subject's block of R, over the positions of its records. When the previous subject had
  // the same positions its inverse serves again: balanced data invert once per pass.
  if (fbInverseValid && n == fCachedN &&
      std::equal(fPos.begin(), fPos.begin() + n, fCachedPos.begin()))
    return true;
  fV.Resize(n);
  for (int j = 0; j < n; ++j)
    for (int k = 0; k <= j; ++k) fV(j, k) = fR(fPos[static_cast<std::size_t>(j)], fPos[static_cast<std::size_t>(k)]);
  // The block R of an ordinal response need not be positive definite as a whole; each subject's
  // block is made so (the cache keeps the transformed block's inverse).
  if (fbOrdinal && fV.TransformToPositiveDefinite(kPositiveDefiniteTolerance)) fbBlockTransformed = true;
  // As the information is inverted: the diagonal checked against the tolerance (from two rows
  // on), the Cholesky generalized inverse, small off-diagonal elements of the inverse set to 0.
  if (n < 2)
    fV.GetDiagonal(fDiagonal);
  else
    fV.GetNCheckDiagonal(fDiagonal, fTolerance, 1.0);
  fbInverseValid = false;
  if (fV.CholInverse(fDiagonal, fTolerance, fG, fSet, fWork) <= 0) return false;
  fG.ZeroOutNonDiag(n * GZLOptimizer::kMachineEpsilon);
  fL = fG;
  fL.GetDiagonal(fDiagonal);
  fbFactored = fL.LTChol(fDiagonal, fTolerance, fSet, false);
  fCachedPos.assign(fPos.begin(), fPos.begin() + n);
  fCachedN = n;
  fbInverseValid = true;
  return true;
}

void GEESubjectPass::Reserve(int n, int perRecord, int K) {
  const std::size_t needed = static_cast<std::size_t>(n) * static_cast<std::size_t>(perRecord);
  if (fE.size() < needed) {
    fE.resize(needed);
    fPos.resize(needed);
  }
  if (fD.size() < needed * static_cast<std::size_t>(K)) fD.resize(needed * static_cast<std::size_t>(K));
}

int GEESubjectPass::ScalarRows(const GEESubject& subject, GEEPassSums& sums) {
  const int K = static_cast<int>(fActive.size());
  const int n = subject.fNRecords;
  const std::size_t P = static_cast<std::size_t>(fP);
  Reserve(n, 1, K);
  // Valid records: the rows of D and e, each divided by the record's standard deviation
  // s = sqrt(V / a), so that V_i = phi S R_i S leaves the correlation block R_i to invert.
  int nv = 0;
  for (int j = 0; j < n; ++j) {
    const GZLDesignRow& row = subject.fRows[static_cast<std::size_t>(j)];
    if (row.fbInvalid || row.fValues.size() < P) {
      ++sums.fNInvalid;
      continue;
    }
    const GEERecordFit fit = GEEFitRecord(row, fpBeta, P, *fpLink, *fpVariance, fCoding, true);
    const double V = fit.fV;
    const double g1 = fit.fG1;
    const double a = row.fScaleWeight;
    if (TQMV::IsMissing(fit.fMu) || TQMV::IsMissing(V) || V < 0.0 || TQMV::IsMissing(g1) || g1 == 0.0 ||
        !(a > 0.0)) {
      ++sums.fNInvalid;
      continue;
    }
    ++sums.fNValid;
    const double e = fit.fY - fit.fMu;
    const double f = row.fFreqWeight;
    sums.fPearson.accumulate(e, a, V, f);
    const double* x = row.fValues.data();
    if (fbRobust) AddIndependenceTerms(x, fit, f, a, sums);
    // A record of zero variance has no weight in the equations (its position of V_i would be
    // singular).
    if (!(V > 0.0)) continue;
    const double sd = std::sqrt(V / a);
    double* dj = fD.data() + static_cast<std::size_t>(nv) * K;
    const double scale = 1.0 / (g1 * sd);
    for (int k = 0; k < K; ++k) dj[k] = x[fActive[static_cast<std::size_t>(k)]] * scale;
    fE[static_cast<std::size_t>(nv)] = e / sd;
    const int given = subject.fPositions[static_cast<std::size_t>(j)];
    fPos[static_cast<std::size_t>(nv)] = given >= 0 ? given : j;
    ++nv;
  }
  return nv;
}

int GEESubjectPass::OrdinalRows(const GEESubject& subject, GEEPassSums& sums) {
  const int K = static_cast<int>(fActive.size());
  const int n = subject.fNRecords;
  const int T = fNThresholds;
  const std::size_t columns = static_cast<std::size_t>(fP - T);
  Reserve(n, T, K);
  const TQCumulativePoint* pt = fPoints.data();
  double* full = fFullRow.data();
  int nv = 0;
  for (int j = 0; j < n; ++j) {
    const GZLDesignRow& row = subject.fRows[static_cast<std::size_t>(j)];
    const double a = row.fScaleWeight;
    int y = -1;
    if (!GEEFitOrdinalRecord(row, fpBeta, T, columns, *fpCumulative, fPoints.data(), fPi.data(), y) || !(a > 0.0)) {
      ++sums.fNInvalid;
      continue;
    }
    ++sums.fNValid;
    const double f = row.fFreqWeight;
    const double* x = row.fValues.data();
    const int given = subject.fPositions[static_cast<std::size_t>(j)];
    const int pos = given >= 0 ? given : j;
    double lambdaWeight = 0.0;
    for (int c = 0; c < T; ++c) {
      // d pi_c / d theta_c = f_c, d pi_c / d theta_{c-1} = -f_{c-1}, d pi_c / d b = -(f_c - f_{c-1}) x
      // (f_c the density at theta_c - lambda; the bottom of the scale has density 0).
      const double fc = pt[c + 1].density;
      const double fb = pt[c].density;
      const double pi = fPi[static_cast<std::size_t>(c)];
      const double V = pi * (1.0 - pi);
      const double e = (y == c ? 1.0 : 0.0) - pi;
      sums.fPearson.accumulate(e, a, V, f);
      std::fill(full, full + T, 0.0);
      full[c] = fc;
      if (c > 0) full[c - 1] = -fb;
      const double slope = -(fc - fb);
      for (std::size_t k = 0; k < columns; ++k) full[static_cast<std::size_t>(T) + k] = slope * x[k];
      lambdaWeight += slope * slope / V;
      const double sd = std::sqrt(V / a);
      const double inv = 1.0 / sd;
      double* dj = fD.data() + static_cast<std::size_t>(nv) * K;
      for (int k = 0; k < K; ++k) dj[k] = full[fActive[static_cast<std::size_t>(k)]] * inv;
      fE[static_cast<std::size_t>(nv)] = e * inv;
      fPos[static_cast<std::size_t>(nv)] = pos * T + c;
      ++nv;
    }
    if (fbRobust) AddOrdinalCrossProducts(x, columns, f * a * lambdaWeight, sums);
  }
  return nv;
}

bool GEESubjectPass::AddSubject(const GEESubject& subject, GEEPassSums& sums) {
  const int K = static_cast<int>(fActive.size());
  const double w = subject.GetFreqWeight();
  const int d = fR.GetNumRows();
  const int nv = fbOrdinal ? OrdinalRows(subject, sums) : ScalarRows(subject, sums);
  // A pass whose first records are all refused for the link stops here.
  if (sums.fNValid == 0 && sums.fNInvalid > 0) return false;
  if (nv == 0) return true;

  // Usable only when no two records share a position and every position lies inside R.
  if (fSeen.size() < static_cast<std::size_t>(d)) fSeen.resize(static_cast<std::size_t>(d));
  std::fill(fSeen.begin(), fSeen.begin() + d, 0);
  for (int j = 0; j < nv; ++j) {
    const int pos = fPos[static_cast<std::size_t>(j)];
    if (pos < 0 || pos >= d || fSeen[static_cast<std::size_t>(pos)]) return true;
    fSeen[static_cast<std::size_t>(pos)] = 1;
  }
  if (!InvertCorrelation(nv)) {
    sums.fbFailed = true;
    return false;
  }

  const double invPhi = 1.0 / fPhi;
  const std::size_t nk = static_cast<std::size_t>(nv) * K;
  if (fW.size() < nk) fW.resize(nk);
  if (fT.size() < static_cast<std::size_t>(nv)) fT.resize(static_cast<std::size_t>(nv));
  std::fill(fW.begin(), fW.begin() + static_cast<std::ptrdiff_t>(nk), 0.0);
  if (fbFactored) {
    // Y = L' D and t = L' e (rows scaled as above): D' V_i^- D = Y'Y / phi, D' V_i^- e = Y't / phi.
    for (int j = 0; j < nv; ++j) {
      double* yj = fW.data() + static_cast<std::size_t>(j) * K;
      double t = 0.0;
      for (int k = j; k < nv; ++k) {
        const double l = fL(k, j);
        if (l == 0.0) continue;
        const double* dk = fD.data() + static_cast<std::size_t>(k) * K;
        for (int c = 0; c < K; ++c) yj[c] += l * dk[c];
        t += l * fE[static_cast<std::size_t>(k)];
      }
      fT[static_cast<std::size_t>(j)] = t;
    }
  } else {
    // Z = R_i^- D and e as it is: D' V_i^- D = Z'D / phi, D' V_i^- e = Z'e / phi.
    for (int j = 0; j < nv; ++j) {
      double* zj = fW.data() + static_cast<std::size_t>(j) * K;
      for (int k = 0; k < nv; ++k) {
        const double g = fG(j, k);
        if (g == 0.0) continue;
        const double* dk = fD.data() + static_cast<std::size_t>(k) * K;
        for (int c = 0; c < K; ++c) zj[c] += g * dk[c];
      }
      fT[static_cast<std::size_t>(j)] = fE[static_cast<std::size_t>(j)];
    }
  }

  if (fbRobust) {
    // u = D' V_i^- e, and M += w u u'.
    fScore.assign(static_cast<std::size_t>(K), 0.0);
    for (int j = 0; j < nv; ++j) {
      const double t = fT[static_cast<std::size_t>(j)] * invPhi;
      const double* yj = fW.data() + static_cast<std::size_t>(j) * K;
      for (int c = 0; c < K; ++c) fScore[static_cast<std::size_t>(c)] += yj[c] * t;
    }
    double* m = sums.fMeat.data();
    for (int a = 0; a < K; ++a) {
      const double ua = w * fScore[static_cast<std::size_t>(a)];
      double* row = m + static_cast<std::size_t>(a) * (a + 1) / 2;
      for (int b = 0; b <= a; ++b) row[b] += ua * fScore[static_cast<std::size_t>(b)];
    }
    return true;
  }

  // U += w D' V_i^- e and H += w D' V_i^- D (lower triangle).
  const double wp = w * invPhi;
  double* U = sums.fU.data();
  double* H = sums.fH.data();
  for (int j = 0; j < nv; ++j) {
    const double* yj = fW.data() + static_cast<std::size_t>(j) * K;
    const double t = wp * fT[static_cast<std::size_t>(j)];
    for (int a = 0; a < K; ++a) U[a] += yj[a] * t;
    if (fbFactored) {
      sums.fBatch.Add(H, yj, nullptr, nullptr, 0, wp);
      continue;
    }
    const double* dj = fD.data() + static_cast<std::size_t>(j) * K;
    for (int a = 0; a < K; ++a) {
      const double c = wp * yj[a];
      if (c == 0.0) continue;
      double* row = H + static_cast<std::size_t>(a) * (a + 1) / 2;
      for (int b = 0; b <= a; ++b) row[b] += c * dj[b];
    }
  }
  return true;
}

void GEESubjectPass::AddIndependenceTerms(const double* x, const GEERecordFit& fit, double f, double a,
                                         GEEPassSums& sums) {
  if (fbHasQuasiLikelihood) {
    // The scale weight of an events/trials response already carries the trials.
    const double term = fpQuasi->Term(fit.fY, fit.fMu, fpQuasi->Weight(1.0, f, a));
    if (!TQMV::IsMissing(term)) sums.fQ.Add(term);
  }
  const double Vd = fbObservedInformation ? fpVariance->GetVarianceDeriv(fit.fMu) : 0.0;
  const double g2 = fbObservedInformation ? fpLink->GetSecondDeriv(fit.fMu, nullptr) : 0.0;
  if (!(fit.fV > 0.0) || TQMV::IsMissing(Vd) || TQMV::IsMissing(g2) || !(fPhi > 0.0)) return;
  // Over every column, aliased ones included: the same matrix serves as the weighted
  // cross-products of the design from which the hypotheses of the effect tests are built.
  fIndices.clear();
  fValues.clear();
  for (int c = 0; c < fP; ++c) {
    if (x[c] == 0.0) continue;
    fIndices.push_back(c);
    fValues.push_back(x[c]);
  }
  const double W = sums.fpInformation->RecordWeight(f * a, fit.fY, fit.fMu, fit.fV, Vd, fit.fG1, g2);
  sums.fpInformation->UpdateForRow(fIndices.data(), fValues.data(), static_cast<int>(fIndices.size()), W, 0.0, 0.0);
}

void GEESubjectPass::AddOrdinalCrossProducts(const double* x, std::size_t columns, double weight,
                                             GEEPassSums& sums) {
  if (!(fPhi > 0.0)) return;
  fIndices.clear();
  fValues.clear();
  fIndices.push_back(0);
  fValues.push_back(1.0);
  for (std::size_t k = 0; k < columns; ++k) {
    if (x[k] == 0.0) continue;
    fIndices.push_back(static_cast<int>(k) + 1);
    fValues.push_back(x[k]);
  }
  sums.fpInformation->UpdateForRow(fIndices.data(), fValues.data(), static_cast<int>(fIndices.size()), weight / fPhi,
                                   0.0, 0.0);
}

void GEESubjectPass::Expand(const std::vector<double>& packed, TQSymMatrix& out) const {
  out = TQSymMatrix(fP, 0.0);
  const int K = static_cast<int>(fActive.size());
  if (packed.size() < static_cast<std::size_t>(K) * (K + 1) / 2) return;
  for (int a = 0; a < K; ++a)
    for (int b = 0; b <= a; ++b)
      out(fActive[static_cast<std::size_t>(a)], fActive[static_cast<std::size_t>(b)]) =
          packed[static_cast<std::size_t>(a) * (a + 1) / 2 + b];
}

void GEESubjectPass::GetGradient(std::vector<double>& U) const {
  U.assign(static_cast<std::size_t>(fP), 0.0);
  for (std::size_t a = 0; a < fActive.size() && a < fSums.fU.size(); ++a)
    U[static_cast<std::size_t>(fActive[a])] = fSums.fU[a];
}

void GEESubjectPass::GetHessian(TQSymMatrix& H) const { Expand(fSums.fH, H); }

void GEESubjectPass::GetMiddleMatrix(TQSymMatrix& M) const { Expand(fSums.fMeat, M); }

void GEESubjectPass::GetIndependenceInformation(TQSymMatrix& info) const {
  if (fpInformation)
    info = fpInformation->GetBetaBlock();
  else
    info = TQSymMatrix(fP, 0.0);
}
