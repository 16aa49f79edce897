#include "gee/GEEWorkCorrForMultinomial.h"

#include <algorithm>
#include <cmath>

#include "GZLSettings.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEERecordFit.h"

// ---- GEEBlockMoments ---------------------------------------------------------------------------

void GEEBlockMoments::Reset(std::size_t nSums, int block) {
  fBlock = block;
  fN = 0.0;
  fB.assign(nSums * static_cast<std::size_t>(block) * block, 0.0);
  fC.assign(nSums, 0.0);
}

void GEEBlockMoments::Merge(const GEEBlockMoments& other) {
  fN += other.fN;
  for (std::size_t k = 0; k < fB.size() && k < other.fB.size(); ++k) fB[k] += other.fB[k];
  for (std::size_t k = 0; k < fC.size() && k < other.fC.size(); ++k) fC[k] += other.fC[k];
}

// ---- GEEWorkCorrForMultinomial -----------------------------------------------------------------

GEEWorkCorrForMultinomial::GEEWorkCorrForMultinomial(GEEDesignMatrix& design, const GZLSettings& settings)
    : GEEWorkCorrelation(design, settings),
      fNCategories(std::max(settings.GetDependentSize(), 0)),
      fBlock(std::max(fNCategories - 1, 0)),
      fNThresholds(fBlock),
      fpCumulative(dynamic_cast<const TQCumulativeLinkFunc*>(fpLink.get())) {
  fPoints.resize(static_cast<std::size_t>(fNThresholds) + 2);
  fPi.resize(static_cast<std::size_t>(fNThresholds));
}

GEEWorkCorrForMultinomial::~GEEWorkCorrForMultinomial() = default;

bool GEEWorkCorrForMultinomial::SubjectBlockResiduals(const GEESubject& subject, const std::vector<double>& beta,
                                                      int& m) {
  const std::size_t K1 = static_cast<std::size_t>(fBlock);
  fBlockResiduals.assign(static_cast<std::size_t>(fDim) * K1, 0.0);
  fPresent.assign(static_cast<std::size_t>(fDim), 0);
  const int T = fNThresholds;
  const std::size_t columns = beta.size() > K1 ? beta.size() - K1 : 0;
  m = 0;
  bool any = false;
  for (int j = 0; j < subject.fNRecords; ++j) {
    const GZLDesignRow& row = subject.fRows[static_cast<std::size_t>(j)];
    std::size_t k = 0;
    if (!TakePosition(subject, j, m, k)) continue;
    any = true;
    int y = -1;
    if (!fpCumulative || !GEEFitOrdinalRecord(row, beta.data(), T, columns, *fpCumulative, fPoints.data(),
                                              fPi.data(), y))
      continue;
    double* r = fBlockResiduals.data() + k * K1;
    bool finite = true;
    for (int c = 0; c < T; ++c) {
      const double pi = fPi[static_cast<std::size_t>(c)];
      const double s = std::sqrt(row.fScaleWeight / (pi * (1.0 - pi)));
      r[c] = ((y == c ? 1.0 : 0.0) - pi) * s;
      finite = finite && std::isfinite(r[c]);
    }
    if (finite) fPresent[k] = 2;
  }
  return any;
}

void GEEWorkCorrForMultinomial::AddSubjectBlocks(double w, int m, GEEBlockMoments& moments) const {
  const int d = fDim;
  const int K1 = fBlock;
  const std::size_t KK = static_cast<std::size_t>(K1) * K1;
  auto present = [&](int k) { return fPresent[static_cast<std::size_t>(k)] == 2; };
  auto r = [&](int k) { return fBlockResiduals.data() + static_cast<std::size_t>(k) * K1; };
  // B += w (r_j r_k' + r_k r_j') / 2, or w r_k r_j' when not symmetrized.
  auto add = [&](std::size_t sum, int j, int k, bool symmetric) {
    double* B = moments.fB.data() + sum * KK;
    const double* rj = r(j);
    const double* rk = r(k);
    for (int a = 0; a < K1; ++a)
      for (int b = 0; b < K1; ++b)
        B[a * K1 + b] += symmetric ? 0.5 * w * (rj[a] * rk[b] + rk[a] * rj[b]) : w * rk[a] * rj[b];
    moments.fC[sum] += w;
  };
  moments.fN += w * m;
  switch (fCorrType) {
    case GZLConst_940::Exchangeable:
      for (int k = 1; k < d; ++k)
        for (int j = 0; j < k; ++j)
          if (present(j) && present(k)) add(0, j, k, true);
      break;
    case GZLConst_940::AR1:
      for (int k = 0; k + 1 < d; ++k)
        if (present(k) && present(k + 1)) add(0, k, k + 1, true);
      break;
    case GZLConst_940::MDependent: {
      const int lags = static_cast<int>(moments.fC.size());
      for (int t = 1; t <= lags; ++t)
        for (int k = 0; k + t < d; ++k)
          if (present(k) && present(k + t)) add(static_cast<std::size_t>(t - 1), k, k + t, true);
      break;
    }
    case GZLConst_940::Unstructured:
      for (int k = 1; k < d; ++k)
        for (int j = 0; j < k; ++j)
          if (present(j) && present(k)) add(static_cast<std::size_t>(k) * (k - 1) / 2 + j, j, k, false);
      break;
    default: break;
  }
}

TQStatus GEEWorkCorrForMultinomial::GatherBlocks(const std::vector<double>& beta, GEEBlockMoments& moments) {
  moments.Reset(NumSums(), fBlock);
  GEESubject subject;
  return GEERunSubjects(*fpDesign, subject, moments, [&](const GEESubject& s, GEEBlockMoments& sums) {
    int m = 0;
    if (SubjectBlockResiduals(s, beta, m)) AddSubjectBlocks(s.GetFreqWeight(), m, sums);
    return true;
  });
}

void GEEWorkCorrForMultinomial::IdentityBlocks(TQSymMatrix& R) const {
  const int n = fBlock * fDim;
  R = TQSymMatrix(n, 0.0);
  for (int i = 0; i < n; ++i) R(i, i) = 1.0;
}

void GEEWorkCorrForMultinomial::PlaceBlock(TQSymMatrix& R, int k, int j, const double* B, double D) const {
  const int K1 = fBlock;
  const double scale = D != 0.0 ? 1.0 / D : 0.0;
  for (int a = 0; a < K1; ++a)
    for (int b = 0; b < K1; ++b) R(k * K1 + a, j * K1 + b) = B[a * K1 + b] * scale;
}

void GEEWorkCorrForMultinomial::Independent(TQStatus& status, const std::vector<double>&, TQSymMatrix& R) {
  status = TQStatus();
  IdentityBlocks(R);
}

bool GEEWorkCorrForMultinomial::SingleBlock(TQStatus& status, const std::vector<double>& beta,
                                            GEEBlockMoments& moments, double& D) {
  status = GatherBlocks(beta, moments);
  if (status.IsError()) return false;
  D = moments.fC[0];
  if (fbAdjust && D > fP) D -= fP;
  return true;
}

void GEEWorkCorrForMultinomial::Exchangeable(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEEBlockMoments moments;
  double D = 0.0;
  if (!SingleBlock(status, beta, moments, D)) return;
  IdentityBlocks(R);
  for (int k = 1; k < fDim; ++k)
    for (int j = 0; j < k; ++j) PlaceBlock(R, k, j, moments.Block(0), D);
}

void GEEWorkCorrForMultinomial::AutoRegressive(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEEBlockMoments moments;
  double D = 0.0;
  if (!SingleBlock(status, beta, moments, D)) return;
  const int K1 = fBlock;
  const std::size_t KK = static_cast<std::size_t>(K1) * K1;
  std::vector<double> B(KK, 0.0);
  if (D != 0.0)
    for (std::size_t i = 0; i < KK; ++i) B[i] = moments.fB[i] / D;
  // The block at lag t is B^t: one more multiplication by B per lag.
  std::vector<double> power = B, next(KK);
  IdentityBlocks(R);
  for (int t = 1; t < fDim; ++t) {
    if (t > 1) {
      for (int a = 0; a < K1; ++a)
        for (int b = 0; b < K1; ++b) {
          double s = 0.0;
          for (int c = 0; c < K1; ++c) s += power[static_cast<std::size_t>(a * K1 + c)] * B[static_cast<std::size_t>(c * K1 + b)];
          next[static_cast<std::size_t>(a * K1 + b)] = s;
        }
      power.swap(next);
    }
    for (int j = 0; j + t < fDim; ++j) PlaceBlock(R, j + t, j, power.data(), 1.0);
  }
}

void GEEWorkCorrForMultinomial::MDependent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEEBlockMoments moments;
  status = GatherBlocks(beta, moments);
  if (status.IsError()) return;
  std::vector<double> D = moments.fC;
  const double p = std::trunc(fP);
  if (fbAdjust && std::all_of(D.begin(), D.end(), [&](double c) { return c > p; }))
    for (double& c : D) c -= p;
  IdentityBlocks(R);
  for (std::size_t t = 1; t <= D.size(); ++t)
    for (int j = 0; j + static_cast<int>(t) < fDim; ++j)
      PlaceBlock(R, j + static_cast<int>(t), j, moments.Block(t - 1), D[t - 1]);
}

void GEEWorkCorrForMultinomial::Unstructured(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEEBlockMoments moments;
  status = GatherBlocks(beta, moments);
  if (status.IsError()) return;
  // The counts go through the matrix form of the scalar rule (N and every count above p).
  GEECorrelationMoments counts;
  counts.fN = moments.fN;
  double phi;
  std::vector<double> D;
  ScaleAndDenominatorsMatrix(counts, moments.fC, phi, D);
  IdentityBlocks(R);
  for (int k = 1; k < fDim; ++k)
    for (int j = 0; j < k; ++j) {
      const std::size_t idx = static_cast<std::size_t>(k) * (k - 1) / 2 + j;
      PlaceBlock(R, k, j, moments.Block(idx), D[idx]);
    }
}

void GEEWorkCorrForMultinomial::Fixed(TQStatus& status, const std::vector<double>& values, TQSymMatrix& R) {
  TQSymMatrix checked;
  // The count and range checks of every response.
  GEEWorkCorrelation::Fixed(status, values, checked);
  if (status.IsError()) return;
  if (fBlock > 1) {
    if (fDim > 1) {
      status = TQStatus::Error(GZLStatusCode::CorrFixedNumberMismatch);
      return;
    }
    IdentityBlocks(R);
    return;
  }
  // Blocks of one: position i reads the next i values and keeps the last of them on the
  // diagonal; no off-diagonal element is written.
  R = TQSymMatrix(fDim, 0.0);
  std::size_t next = 0;
  for (int i = 0; i < fDim; ++i) {
    R(i, i) = 1.0;
    for (int k = 0; k < i && next < values.size(); ++k) R(i, i) = values[next++];
  }
}
