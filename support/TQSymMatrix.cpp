#include "support/TQSymMatrix.h"

#include <algorithm>
#include <cmath>

#include "support/TQBitSet.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQRectMatrix.h"

namespace {

inline size_t RowStart(int i) { return static_cast<size_t>(i) * (i + 1) / 2; }
inline size_t Sz(int i) { return static_cast<size_t>(i); }

// In-place row-oriented Cholesky on the packed triangle. Pivot i is singular when
// |p| <= tolerance * |diag[i]| (or exactly 0); with negativeIsSingular a negative pivot of any
// size is singular too (the generalized inverse treats it as a dependent column), otherwise a
// negative pivot beyond the threshold makes the factorization fail. Singular rows are zeroed.
bool CholeskyInPlace(double* a, int n, const std::vector<double>& diag, double tolerance, TQBitSet& set,
                     bool negativeIsSingular, bool stopAtSingular) {
  set.Resize(n);
  set.ClearAll();
  for (int i = 0; i < n; ++i) {
    double* ri = a + RowStart(i);
    for (int j = 0; j < i; ++j) {
      const double* rj = a + RowStart(j);
      if (rj[j] == 0.0) {  // column j was found singular
        ri[j] = 0.0;
        continue;
      }
      double s = ri[j];
      for (int k = 0; k < j; ++k) s -= ri[k] * rj[k];
      ri[j] = s / rj[j];
    }
    double p = ri[i];
    for (int k = 0; k < i; ++k) p -= ri[k] * ri[k];
    const double thresh = tolerance * std::fabs(diag[Sz(i)]);
    const bool singular = std::fabs(p) <= thresh || p == 0.0 || (negativeIsSingular && p < 0.0) || std::isnan(p);
    if (singular) {
      if (stopAtSingular) return false;
      std::fill(ri, ri + i + 1, 0.0);
      continue;
    }
    if (p < 0.0) return false;  // indefinite
    ri[i] = std::sqrt(p);
    set.Set(i);
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Storage

TQSymMatrix::TQSymMatrix(int n, double fill) { Resize(n, fill); }

void TQSymMatrix::Resize(int n, double fill) {
  n = std::max(n, 0);
  if (n == fN) return;
  // Because the storage is row-wise lower triangle, the leading block is a prefix.
  const size_t keep = RowStart(std::min(n, fN));
  fData.resize(RowStart(n), fill);
  std::fill(fData.begin() + static_cast<std::ptrdiff_t>(std::min(keep, fData.size())), fData.end(), fill);
  fN = n;
}

void TQSymMatrix::Fill(double value) noexcept { std::fill(fData.begin(), fData.end(), value); }

void TQSymMatrix::ToRect(TQRectMatrix& out) const {
  TQRectMatrix r(fN, fN);
  for (int i = 0; i < fN; ++i)
    for (int j = 0; j <= i; ++j) r(i, j) = r(j, i) = Get(i, j);
  out = std::move(r);
}

bool TQSymMatrix::FromRect(const TQRectMatrix& a) {
  if (a.GetNumRows() != a.GetNumCols()) return false;
  TQSymMatrix s(a.GetNumRows());
  for (int i = 0; i < s.fN; ++i)
    for (int j = 0; j <= i; ++j) s(i, j) = a(i, j);
  *this = std::move(s);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Diagonal and element-wise

void TQSymMatrix::GetDiagonal(std::vector<double>& out) const {
  out.resize(Sz(fN));
  for (int i = 0; i < fN; ++i) out[Sz(i)] = fData[RowStart(i) + Sz(i)];
}

int TQSymMatrix::GetNCheckDiagonal(std::vector<double>& out, double tolerance, double replacement) const {
  GetDiagonal(out);
  int replaced = 0;
  for (double& d : out)
    if (d <= tolerance || std::isnan(d)) {
      d = replacement;
      ++replaced;
    }
  return replaced;
}

void TQSymMatrix::ChangeSign() noexcept {
  for (double& a : fData) a = -a;
}

void TQSymMatrix::MultiplyByNumber(double a) noexcept {
  for (double& x : fData) x *= a;
}

bool TQSymMatrix::ComputeAXpY(double a, const TQSymMatrix& x) noexcept {
  if (x.fN != fN) return false;
  for (size_t k = 0; k < fData.size(); ++k) fData[k] += a * x.fData[k];
  return true;
}

void TQSymMatrix::ZeroOutNonDiag(double threshold) noexcept {
  for (int i = 0; i < fN; ++i) {
    double* r = fData.data() + RowStart(i);
    for (int j = 0; j < i; ++j)
      if (std::fabs(r[j]) < threshold) r[j] = 0.0;
  }
}

void TQSymMatrix::ZeroOutAllSmall(double threshold) noexcept {
  for (double& a : fData)
    if (std::fabs(a) < threshold) a = 0.0;
}

int TQSymMatrix::ZeroOutRowsForSmallDiag(double threshold) noexcept {
  int count = 0;
  for (int k = 0; k < fN; ++k) {
    if (!(Get(k, k) < threshold)) continue;
    for (int j = 0; j < fN; ++j) (*this)(k, j) = 0.0;
    ++count;
  }
  return count;
}

// ---------------------------------------------------------------------------------------------
// Rank-one updates

void TQSymMatrix::UpdateXX(std::span<const double> x, double w) noexcept {
  if (static_cast<int>(x.size()) < fN) return;
  const double* xv = x.data();
  double* r = fData.data();
  for (int i = 0; i < fN; ++i, r += i) {
    const double xi = w * xv[i];
    if (xi != 0.0)
      for (int j = 0; j <= i; ++j) r[j] += xi * xv[j];
  }
}

void TQSymMatrix::UpdateXXNonRedun(std::span<const double> x, const TQBitSet& set, double w) noexcept {
  if (static_cast<int>(x.size()) < fN) return;
  const double* xv = x.data();
  double* r = fData.data();
  for (int i = 0; i < fN; ++i, r += i) {
    if (!set.Test(i)) continue;
    const double xi = w * xv[i];
    if (xi == 0.0) continue;
    for (int j = 0; j <= i; ++j)
      if (set.Test(j)) r[j] += xi * xv[j];
  }
}

void TQSymMatrix::UpdateXXIndexed(std::span<const double> x, std::span<const int> indices, double w) noexcept {
  if (static_cast<int>(x.size()) < fN) return;
  const double* xv = x.data();
  const int m = static_cast<int>(indices.size());
  for (int a = 0; a < m; ++a) {
    const int i = indices[Sz(a)];
    const double xi = w * xv[i];
    if (xi == 0.0) continue;
    double* r = fData.data() + RowStart(i);
    for (int b = 0; b <= a; ++b) {
      const int j = indices[Sz(b)];
      r[j] += xi * xv[j];
    }
  }
}

void TQSymMatrix::UpdateXXAug(std::span<const double> x, double y, double w) noexcept {
  const int p = fN - 1;
  if (p < 0 || static_cast<int>(x.size()) < p) return;
  const double* xv = x.data();
  double* r = fData.data();
  for (int i = 0; i < p; ++i, r += i) {
    const double xi = w * xv[i];
    if (xi != 0.0)
      for (int j = 0; j <= i; ++j) r[j] += xi * xv[j];
  }
  const double wy = w * y;
  for (int j = 0; j < p; ++j) r[j] += wy * xv[j];
  r[p] += wy * y;
}

// ---------------------------------------------------------------------------------------------
// Products

bool TQSymMatrix::ComputeSV(std::span<const double> v, std::vector<double>& out) const {
  if (static_cast<int>(v.size()) != fN) return false;
  out.assign(Sz(fN), 0.0);
  const double* r = fData.data();
  for (int i = 0; i < fN; ++i, r += i) {
    double s = 0.0;
    const double vi = v[Sz(i)];
    for (int j = 0; j < i; ++j) {
      s += r[j] * v[Sz(j)];
      out[Sz(j)] += r[j] * vi;
    }
    out[Sz(i)] += s + r[i] * vi;
  }
  return true;
}

double TQSymMatrix::ComputeVSV(std::span<const double> v) const noexcept {
  if (static_cast<int>(v.size()) != fN) return TQMV::Missing;
  double total = 0.0;
  const double* r = fData.data();
  for (int i = 0; i < fN; ++i, r += i) {
    double off = 0.0;
    for (int j = 0; j < i; ++j) off += r[j] * v[Sz(j)];
    total += v[Sz(i)] * (2.0 * off + r[i] * v[Sz(i)]);
  }
  return total;
}

bool TQSymMatrix::ComputeSR(const TQRectMatrix& r, TQRectMatrix& out) const {
  if (r.GetNumRows() != fN) return false;
  const int m = r.GetNumCols();
  TQRectMatrix c(fN, m);
  for (int i = 0; i < fN; ++i) {
    double* ci = c.Row(i);
    for (int k = 0; k < fN; ++k) {
      const double s = Get(i, k);
      if (s == 0.0) continue;
      const double* rk = r.Row(k);
      for (int j = 0; j < m; ++j) ci[j] += s * rk[j];
    }
  }
  out = std::move(c);
  return true;
}

bool TQSymMatrix::ComputeRS(const TQRectMatrix& r, TQRectMatrix& out) const {
  if (r.GetNumCols() != fN) return false;
  const int m = r.GetNumRows();
  TQRectMatrix c(m, fN);
  for (int i = 0; i < m; ++i) {
    const double* ri = r.Row(i);
    double* ci = c.Row(i);
    for (int k = 0; k < fN; ++k) {
      const double a = ri[k];
      if (a == 0.0) continue;
      for (int j = 0; j < fN; ++j) ci[j] += a * Get(k, j);
    }
  }
  out = std::move(c);
  return true;
}

bool TQSymMatrix::ComputeRSRTrans(const TQRectMatrix& r, TQSymMatrix& out) const {
  TQRectMatrix t;
  if (!ComputeRS(r, t)) return false;  // t = R S, m x n
  const int m = r.GetNumRows();
  TQSymMatrix s(m);
  for (int i = 0; i < m; ++i)
    for (int j = 0; j <= i; ++j) {
      double v = 0.0;
      const double* ti = t.Row(i);
      const double* rj = r.Row(j);
      for (int k = 0; k < fN; ++k) v += ti[k] * rj[k];
      s(i, j) = v;
    }
  out = std::move(s);
  return true;
}

bool TQSymMatrix::ComputeRTransSR(const TQRectMatrix& r, TQSymMatrix& out) const {
  TQRectMatrix t;
  if (!ComputeSR(r, t)) return false;  // t = S R, n x m
  const int m = r.GetNumCols();
  TQSymMatrix s(m);
  for (int k = 0; k < fN; ++k) {
    const double* rk = r.Row(k);
    const double* tk = t.Row(k);
    for (int i = 0; i < m; ++i) {
      if (rk[i] == 0.0) continue;
      for (int j = 0; j <= i; ++j) s(i, j) += rk[i] * tk[j];
    }
  }
  out = std::move(s);
  return true;
}

bool TQSymMatrix::ComputeGMG(const TQSymMatrix& m, TQSymMatrix& out) const {
  if (m.fN != fN) return false;
  TQRectMatrix g;
  ToRect(g);
  return m.ComputeRTransSR(g, out);  // G' M G with G symmetric
}

// ---------------------------------------------------------------------------------------------
// Sweep

bool TQSymMatrix::Sweep(int k, double tolerance, const std::vector<double>& diagonal, TQBitSet& pivoted) noexcept {
  if (k < 0 || k >= fN || static_cast<int>(diagonal.size()) < fN) return false;
  if (pivoted.Size() < fN) pivoted.Resize(fN);
  const bool reverse = pivoted.Test(k);
  const double h = Get(k, k);
  if (reverse) {
    if (h == 0.0) return false;
  } else if (!(h > 0.0) || h <= tolerance * diagonal[Sz(k)]) {
    return false;
  }
  // a_ij -= a_ik a_jk / h for i, j != k; column k of other rows is read before it changes.
  double* r = fData.data();
  for (int i = 0; i < fN; ++i, r += i) {
    if (i == k) continue;
    const double aik = Get(i, k);
    if (aik == 0.0) continue;
    const double f = aik / h;
    for (int j = 0; j <= i; ++j)
      if (j != k) r[j] -= f * Get(j, k);
  }
  const double scale = (reverse ? -1.0 : 1.0) / h;
  for (int i = 0; i < fN; ++i)
    if (i != k) (*this)(i, k) *= scale;
  (*this)(k, k) = -1.0 / h;
  pivoted.Set(k, !reverse);
  return true;
}

int TQSymMatrix::Sweep(int first, int count, double tolerance, const std::vector<double>& diagonal,
                       TQBitSet& pivoted) noexcept {
  if (first < 0 || count < 0 || first + count > fN || static_cast<int>(diagonal.size()) < fN) return -1;
  if (pivoted.Size() < fN) pivoted.Resize(fN);
  int swept = 0;
  for (int k = first; k < first + count; ++k)
    if (!pivoted.Test(k) && Sweep(k, tolerance, diagonal, pivoted)) ++swept;
  return swept;
}

bool TQSymMatrix::ExtractH(int first, int last, const TQBitSet& sweptSet, TQRectMatrix& h) const {
  if (first < 0 || last < first || last >= fN) return false;
  TQRectMatrix out(fN, last - first + 1);
  for (int k = first; k <= last; ++k) {
    if (!sweptSet.Test(k)) continue;
    const int c = k - first;
    for (int j = 0; j < fN; ++j) {
      if (j == k)
        out(j, c) = 1.0;
      else if (!sweptSet.Test(j))
        out(j, c) = Get(k, j);
    }
  }
  h = std::move(out);
  return true;
}

int TQSymMatrix::GetRegCoeffs(double tolerance, std::vector<double>& coeffs, TQBitSet& set, double* rss) const {
  if (fN < 2) return -1;
  TQSymMatrix work(*this);
  std::vector<double> diag;
  GetDiagonal(diag);
  TQBitSet pivoted(fN);
  const int p = fN - 1;
  const int rank = work.Sweep(0, p, tolerance, diag, pivoted);
  coeffs.assign(Sz(p), 0.0);
  for (int j = 0; j < p; ++j)
    if (pivoted.Test(j)) coeffs[Sz(j)] = work(p, j);
  pivoted.Resize(p);
  set = pivoted;
  if (rss) *rss = work(p, p);
  return rank;
}

// ---------------------------------------------------------------------------------------------
// Cholesky and generalized inverse

bool TQSymMatrix::LTChol(const std::vector<double>& diagonal, double tolerance, TQBitSet& set,
                         bool stopAtSingular) noexcept {
  if (static_cast<int>(diagonal.size()) < fN) return false;
  return CholeskyInPlace(fData.data(), fN, diagonal, tolerance, set, false, stopAtSingular);
}

int TQSymMatrix::CholIndNonRed(double tolerance, std::vector<int>& nonRedundant) const {
  TQSymMatrix work(*this);
  std::vector<double> diag;
  GetDiagonal(diag);
  TQBitSet set;
  if (!work.LTChol(diag, tolerance, set, false)) return -1;
  set.GetSetIndices(nonRedundant);
  return static_cast<int>(nonRedundant.size());
}

int TQSymMatrix::CholInverse(const std::vector<double>& diagonal, double tolerance, TQSymMatrix& inverse,
                             TQBitSet& set) const {
  std::vector<double> work;
  return CholInverse(diagonal, tolerance, inverse, set, work);
}

int TQSymMatrix::CholInverse(const std::vector<double>& diagonal, double tolerance, TQSymMatrix& inverse,
                             TQBitSet& set, std::vector<double>& work) const {
  if (static_cast<int>(diagonal.size()) < fN) return -1;
  // The factor is made in `work`, so `inverse` may be this matrix.
  work.assign(fData.begin(), fData.end());
  double* l = work.data();
  CholeskyInPlace(l, fN, diagonal, tolerance, set, true, false);
  // Invert the lower-triangular factor in place (zero rows stay zero): row i of L^-1 from
  // the rows above; ascending j keeps the original L_ij available until it is replaced.
  for (int i = 0; i < fN; ++i) {
    double* ri = l + RowStart(i);
    if (ri[i] == 0.0) continue;
    const double lii = ri[i];
    for (int j = 0; j < i; ++j) {
      double s = 0.0;
      for (int k = j; k < i; ++k) s += ri[k] * l[RowStart(k) + Sz(j)];
      ri[j] = -s / lii;
    }
    ri[i] = 1.0 / lii;
  }
  // A^- = L^-T L^-1: element (i, j), i >= j, is the sum over k >= i of Linv_ki Linv_kj.
  inverse.Resize(fN);
  inverse.Zero();
  for (int k = 0; k < fN; ++k) {
    const double* rk = l + RowStart(k);
    for (int i = 0; i <= k; ++i) {
      const double a = rk[i];
      if (a == 0.0) continue;
      double* out = inverse.fData.data() + RowStart(i);
      for (int j = 0; j <= i; ++j) out[j] += a * rk[j];
    }
  }
  return set.Count();
}

// ---------------------------------------------------------------------------------------------
// Constrained systems

bool TQSymMatrix::ExpandSym(const TQSymMatrix& h, const TQRectMatrix& l) {
  const int n = h.fN;
  if (l.GetNumCols() != n && !(l.GetNumRows() == 0)) return false;
  const int m = l.GetNumRows();
  TQSymMatrix k(n + m);
  std::copy(h.fData.begin(), h.fData.end(), k.fData.begin());
  for (int r = 0; r < m; ++r) {
    double* row = k.fData.data() + RowStart(n + r);
    for (int j = 0; j < n; ++j) row[j] = l(r, j);
  }
  *this = std::move(k);
  return true;
}

bool TQSymMatrix::ReplaceFirstRows(const TQSymMatrix& h) noexcept {
  if (h.fN > fN) return false;
  std::copy(h.fData.begin(), h.fData.end(), fData.begin());
  return true;
}

bool TQSymMatrix::SolveIndefinite(const TQBitSet& set, double tolerance, std::span<const double> rhs,
                                  std::vector<double>& x) const {
  if (static_cast<int>(rhs.size()) < fN) return false;
  std::vector<int> idx;
  for (int i = 0; i < fN; ++i)
    if (set.Test(i)) idx.push_back(i);
  const int m = static_cast<int>(idx.size());
  if (m == 0) return false;
  // Dense copy of the submatrix, augmented with the right-hand side.
  const int w = m + 1;
  std::vector<double> a(Sz(m) * Sz(w));
  double maxAbs = 0.0;
  for (int r = 0; r < m; ++r) {
    for (int c = 0; c < m; ++c) {
      const double v = Get(idx[Sz(r)], idx[Sz(c)]);
      a[Sz(r) * Sz(w) + Sz(c)] = v;
      maxAbs = std::max(maxAbs, std::fabs(v));
    }
    a[Sz(r) * Sz(w) + Sz(m)] = rhs[Sz(idx[Sz(r)])];
  }
  if (!(maxAbs > 0.0) || !std::isfinite(maxAbs)) return false;
  const double thresh = tolerance * maxAbs;
  for (int c = 0; c < m; ++c) {
    int p = c;
    for (int r = c + 1; r < m; ++r)
      if (std::fabs(a[Sz(r) * Sz(w) + Sz(c)]) > std::fabs(a[Sz(p) * Sz(w) + Sz(c)])) p = r;
    const double piv = a[Sz(p) * Sz(w) + Sz(c)];
    if (!(std::fabs(piv) > thresh)) return false;
    if (p != c)
      for (int k = c; k < w; ++k) std::swap(a[Sz(p) * Sz(w) + Sz(k)], a[Sz(c) * Sz(w) + Sz(k)]);
    for (int r = c + 1; r < m; ++r) {
      const double f = a[Sz(r) * Sz(w) + Sz(c)] / piv;
      if (f == 0.0) continue;
      for (int k = c; k < w; ++k) a[Sz(r) * Sz(w) + Sz(k)] -= f * a[Sz(c) * Sz(w) + Sz(k)];
    }
  }
  std::vector<double> sol(Sz(fN), 0.0);
  for (int r = m - 1; r >= 0; --r) {
    double s = a[Sz(r) * Sz(w) + Sz(m)];
    for (int c = r + 1; c < m; ++c) s -= a[Sz(r) * Sz(w) + Sz(c)] * sol[Sz(idx[Sz(c)])];
    const double v = s / a[Sz(r) * Sz(w) + Sz(r)];
    if (!std::isfinite(v)) return false;
    sol[Sz(idx[Sz(r)])] = v;
  }
  x = std::move(sol);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Spectral

void TQSymMatrix::Eigen(std::vector<double>& values, TQRectMatrix* vectors) const {
  const int n = fN;
  TQRectMatrix a;
  ToRect(a);
  TQRectMatrix v(n, n);
  for (int i = 0; i < n; ++i) v(i, i) = 1.0;
  for (int sweep = 0; sweep < 100; ++sweep) {
    double off = 0.0, total = 0.0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        total += a(i, j) * a(i, j);
        if (i != j) off += a(i, j) * a(i, j);
      }
    if (off <= 1e-30 * total || off == 0.0) break;
    for (int p = 0; p < n; ++p)
      for (int q = p + 1; q < n; ++q) {
        const double apq = a(p, q);
        if (apq == 0.0) continue;
        const double theta = (a(q, q) - a(p, p)) / (2.0 * apq);
        const double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
        for (int k = 0; k < n; ++k) {  // columns p, q
          const double akp = a(k, p), akq = a(k, q);
          a(k, p) = c * akp - s * akq;
          a(k, q) = s * akp + c * akq;
        }
        for (int k = 0; k < n; ++k) {  // rows p, q
          const double apk = a(p, k), aqk = a(q, k);
          a(p, k) = c * apk - s * aqk;
          a(q, k) = s * apk + c * aqk;
        }
        for (int k = 0; k < n; ++k) {
          const double vkp = v(k, p), vkq = v(k, q);
          v(k, p) = c * vkp - s * vkq;
          v(k, q) = s * vkp + c * vkq;
        }
      }
  }
  std::vector<int> order(Sz(n));
  for (int i = 0; i < n; ++i) order[Sz(i)] = i;
  std::sort(order.begin(), order.end(), [&](int x, int y) { return a(x, x) < a(y, y); });
  values.resize(Sz(n));
  for (int i = 0; i < n; ++i) values[Sz(i)] = a(order[Sz(i)], order[Sz(i)]);
  if (vectors) {
    TQRectMatrix out(n, n);
    for (int c = 0; c < n; ++c)
      for (int r = 0; r < n; ++r) out(r, c) = v(r, order[Sz(c)]);
    *vectors = std::move(out);
  }
}

bool TQSymMatrix::TransformToPositiveDefinite(double tolerance) {
  if (fN == 0) return false;
  std::vector<double> values;
  TQRectMatrix v;
  Eigen(values, &v);
  if (values.front() >= tolerance) return false;
  for (double& l : values) l = std::max(l, tolerance);
  for (int i = 0; i < fN; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0.0;
      for (int k = 0; k < fN; ++k) s += v(i, k) * values[Sz(k)] * v(j, k);
      (*this)(i, j) = s;
    }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Display

void TQSymMatrix::Display(const std::string& title) const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQSymMatrix display start");
  if (!title.empty()) DisplayS("Title", title);
  DisplayI("Rows", fN);
  for (int i = 0; i < fN; ++i) {
    const double* r = fData.data() + RowStart(i);
    DisplayDV("Row " + std::to_string(i), std::vector<double>(r, r + i + 1));
  }
  DisplayText(1, "TQSymMatrix display end");
}

// ---------------------------------------------------------------------------------------------
// Block-diagonal

void TQSymBlockMatrix::AddBlock(const TQSymMatrix& block) {
  fStarts.push_back(fN);
  fBlocks.push_back(block);
  fN += block.GetNumRows();
}

double TQSymBlockMatrix::Get(int i, int j) const noexcept {
  if (i < 0 || j < 0 || i >= fN || j >= fN) return 0.0;
  const auto it = std::upper_bound(fStarts.begin(), fStarts.end(), i);
  const int b = static_cast<int>(it - fStarts.begin()) - 1;
  const int s = fStarts[Sz(b)], e = s + fBlocks[Sz(b)].GetNumRows();
  if (j < s || j >= e) return 0.0;
  return fBlocks[Sz(b)].Get(i - s, j - s);
}

void TQSymBlockMatrix::ToSymMatrix(TQSymMatrix& out) const {
  TQSymMatrix m(fN);
  for (size_t b = 0; b < fBlocks.size(); ++b) {
    const int s = fStarts[b];
    for (int i = 0; i < fBlocks[b].GetNumRows(); ++i)
      for (int j = 0; j <= i; ++j) m(s + i, s + j) = fBlocks[b].Get(i, j);
  }
  out = std::move(m);
}

bool TQSymBlockMatrix::ComputeSV(std::span<const double> v, std::vector<double>& out) const {
  if (static_cast<int>(v.size()) != fN) return false;
  std::vector<double> result(Sz(fN), 0.0), part;
  for (size_t b = 0; b < fBlocks.size(); ++b) {
    const int s = fStarts[b], n = fBlocks[b].GetNumRows();
    fBlocks[b].ComputeSV(v.subspan(Sz(s), Sz(n)), part);
    std::copy(part.begin(), part.end(), result.begin() + s);
  }
  out = std::move(result);
  return true;
}

void TQSymBlockMatrix::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQSymBlockMatrix display start");
  DisplayI("Rows", fN);
  DisplayI("Blocks", GetNumBlocks());
  for (const auto& b : fBlocks) b.Display();
  DisplayText(1, "TQSymBlockMatrix display end");
}
