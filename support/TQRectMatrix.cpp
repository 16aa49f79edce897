#include "support/TQRectMatrix.h"

#include <algorithm>
#include <cmath>

#include "support/TQBitSet.h"
#include "support/TQDisplay_940.h"
#include "support/TQSymMatrix.h"

namespace {

double Dot(const double* a, const double* b, int n) {
  double s = 0.0;
  for (int i = 0; i < n; ++i) s += a[i] * b[i];
  return s;
}

// Modified Gram-Schmidt with one re-orthogonalisation over the vectors in `vecs` (each of
// length len, stored consecutively). A vector is independent when its residual's squared norm
// is > tolerance * its original squared norm; independent residuals are normalised in place,
// dependent ones zeroed. Returns the flags.
std::vector<bool> Orthonormalise(std::vector<double>& vecs, int count, int len, double tolerance) {
  std::vector<bool> independent(static_cast<size_t>(count), false);
  for (int k = 0; k < count; ++k) {
    double* v = vecs.data() + static_cast<size_t>(k) * len;
    const double norm0 = Dot(v, v, len);
    if (norm0 <= 0.0) continue;
    for (int pass = 0; pass < 2; ++pass)
      for (int q = 0; q < k; ++q) {
        if (!independent[static_cast<size_t>(q)]) continue;
        const double* u = vecs.data() + static_cast<size_t>(q) * len;
        const double c = Dot(u, v, len);
        for (int i = 0; i < len; ++i) v[i] -= c * u[i];
      }
    const double norm = Dot(v, v, len);
    if (norm > tolerance * norm0) {
      const double s = 1.0 / std::sqrt(norm);
      for (int i = 0; i < len; ++i) v[i] *= s;
      independent[static_cast<size_t>(k)] = true;
    } else {
      std::fill(v, v + len, 0.0);
    }
  }
  return independent;
}

}  // namespace

TQRectMatrix::TQRectMatrix(int rows, int cols, double fill) { Resize(rows, cols, fill); }

void TQRectMatrix::Resize(int rows, int cols, double fill) {
  rows = std::max(rows, 0);
  cols = std::max(cols, 0);
  if (rows == fRows && cols == fCols) return;
  std::vector<double> data(static_cast<size_t>(rows) * cols, fill);
  const int r = std::min(rows, fRows), c = std::min(cols, fCols);
  for (int i = 0; i < r; ++i)
    for (int j = 0; j < c; ++j) data[static_cast<size_t>(i) * cols + j] = (*this)(i, j);
  fData.swap(data);
  fRows = rows;
  fCols = cols;
}

void TQRectMatrix::Fill(double value) noexcept { std::fill(fData.begin(), fData.end(), value); }

void TQRectMatrix::ChangeSign() noexcept {
  for (double& a : fData) a = -a;
}

void TQRectMatrix::MultiplyByNumber(double a) noexcept {
  for (double& x : fData) x *= a;
}

void TQRectMatrix::ZeroOutAllSmall(double threshold) noexcept {
  for (double& a : fData)
    if (std::fabs(a) < threshold) a = 0.0;
}

void TQRectMatrix::CheckForOnes(double tolerance) noexcept {
  for (double& a : fData)
    if (std::fabs(a - 1.0) <= tolerance) a = 1.0;
}

void TQRectMatrix::Transpose(TQRectMatrix& out) const {
  TQRectMatrix t(fCols, fRows);
  for (int i = 0; i < fRows; ++i)
    for (int j = 0; j < fCols; ++j) t(j, i) = (*this)(i, j);
  out = std::move(t);
}

bool TQRectMatrix::Multiply(const TQRectMatrix& b, TQRectMatrix& out) const {
  if (fCols != b.fRows) return false;
  TQRectMatrix c(fRows, b.fCols);
  for (int i = 0; i < fRows; ++i) {
    double* ci = c.Row(i);
    for (int k = 0; k < fCols; ++k) {
      const double a = (*this)(i, k);
      if (a == 0.0) continue;
      const double* bk = b.Row(k);
      for (int j = 0; j < b.fCols; ++j) ci[j] += a * bk[j];
    }
  }
  out = std::move(c);
  return true;
}

bool TQRectMatrix::ComputeRV(std::span<const double> v, std::vector<double>& out) const {
  if (static_cast<int>(v.size()) != fCols) return false;
  out.assign(static_cast<size_t>(fRows), 0.0);
  for (int i = 0; i < fRows; ++i) out[static_cast<size_t>(i)] = Dot(Row(i), v.data(), fCols);
  return true;
}

bool TQRectMatrix::ComputeRTransV(std::span<const double> v, std::vector<double>& out) const {
  if (static_cast<int>(v.size()) != fRows) return false;
  out.assign(static_cast<size_t>(fCols), 0.0);
  for (int i = 0; i < fRows; ++i) {
    const double* r = Row(i);
    const double vi = v[static_cast<size_t>(i)];
    for (int j = 0; j < fCols; ++j) out[static_cast<size_t>(j)] += r[j] * vi;
  }
  return true;
}

void TQRectMatrix::ComputeRByRTrans(TQSymMatrix& out) const {
  TQSymMatrix s(fRows);
  for (int i = 0; i < fRows; ++i)
    for (int j = 0; j <= i; ++j) s(i, j) = Dot(Row(i), Row(j), fCols);
  out = std::move(s);
}

void TQRectMatrix::ComputeRTransByR(TQSymMatrix& out) const {
  TQSymMatrix s(fCols);
  for (int k = 0; k < fRows; ++k) s.UpdateXX(std::span<const double>(Row(k), static_cast<size_t>(fCols)), 1.0);
  out = std::move(s);
}

bool TQRectMatrix::ComputeRS(const TQSymMatrix& s, TQRectMatrix& out) const { return s.ComputeRS(*this, out); }

bool TQRectMatrix::CopyColToRow(const TQRectMatrix& src, int srcCol, int dstRow) noexcept {
  if (src.fRows != fCols || srcCol < 0 || srcCol >= src.fCols || dstRow < 0 || dstRow >= fRows) return false;
  double* r = Row(dstRow);
  for (int j = 0; j < fCols; ++j) r[j] = src(j, srcCol);
  return true;
}

bool TQRectMatrix::AppendRow(std::span<const double> row) {
  if (fRows == 0 && fCols == 0) fCols = static_cast<int>(row.size());
  if (static_cast<int>(row.size()) != fCols) return false;
  fData.insert(fData.end(), row.begin(), row.end());
  ++fRows;
  return true;
}

void TQRectMatrix::CreateBlockDiagonal(int k, TQRectMatrix& out) const {
  if (k < 1) {
    out = TQRectMatrix();
    return;
  }
  TQRectMatrix b(k * fRows, k * fCols);
  for (int blk = 0; blk < k; ++blk)
    for (int i = 0; i < fRows; ++i)
      for (int j = 0; j < fCols; ++j) b(blk * fRows + i, blk * fCols + j) = (*this)(i, j);
  out = std::move(b);
}

int TQRectMatrix::Rank(double tolerance) const {
  std::vector<double> rows(fData);
  const auto ind = Orthonormalise(rows, fRows, fCols, tolerance);
  return static_cast<int>(std::count(ind.begin(), ind.end(), true));
}

int TQRectMatrix::ExtractFullRank(double tolerance, TQRectMatrix& out, std::vector<int>& indices,
                                  bool byRows) const {
  TQRectMatrix t;
  if (!byRows) Transpose(t);
  const TQRectMatrix& a = byRows ? *this : t;
  std::vector<double> vecs(a.fData);
  const auto ind = Orthonormalise(vecs, a.fRows, a.fCols, tolerance);
  indices.clear();
  TQRectMatrix kept(0, a.fCols);
  for (int i = 0; i < a.fRows; ++i)
    if (ind[static_cast<size_t>(i)]) {
      indices.push_back(i);
      kept.fData.insert(kept.fData.end(), a.Row(i), a.Row(i) + a.fCols);
      ++kept.fRows;
    }
  if (byRows)
    out = std::move(kept);
  else
    kept.Transpose(out);
  return static_cast<int>(indices.size());
}

bool TQRectMatrix::ResidOfOrthProjection(const TQRectMatrix& b, double tolerance, TQBitSet& kept) {
  if (b.fRows != fRows) return false;
  kept.Resize(fCols);
  kept.SetAll();
  // Orthonormal basis of b's columns (dependent columns drop out), stored as rows.
  TQRectMatrix bt;
  b.Transpose(bt);
  std::vector<double> basis(bt.fData);
  const auto ind = Orthonormalise(basis, bt.fRows, fRows, 1e-24);
  std::vector<double> col(static_cast<size_t>(fRows));
  for (int j = 0; j < fCols; ++j) {
    for (int i = 0; i < fRows; ++i) col[static_cast<size_t>(i)] = (*this)(i, j);
    const double norm0 = Dot(col.data(), col.data(), fRows);
    for (int pass = 0; pass < 2; ++pass)
      for (int q = 0; q < bt.fRows; ++q) {
        if (!ind[static_cast<size_t>(q)]) continue;
        const double* u = basis.data() + static_cast<size_t>(q) * fRows;
        const double c = Dot(u, col.data(), fRows);
        for (int i = 0; i < fRows; ++i) col[static_cast<size_t>(i)] -= c * u[i];
      }
    const double norm = Dot(col.data(), col.data(), fRows);
    if (norm0 <= 0.0 || norm <= tolerance * norm0) kept.Clear(j);
    for (int i = 0; i < fRows; ++i) (*this)(i, j) = col[static_cast<size_t>(i)];
  }
  return true;
}

int TQRectMatrix::ZeroOutPivotRow(int row, double tolerance) {
  if (row < 0 || row >= fRows || fCols == 0) return -1;
  double maxAll = 0.0;
  for (double a : fData) maxAll = std::max(maxAll, std::fabs(a));
  const double* r = Row(row);
  int p = -1;
  double best = tolerance * maxAll;
  for (int j = 0; j < fCols; ++j)
    if (std::fabs(r[j]) > best) {
      best = std::fabs(r[j]);
      p = j;
    }
  if (p < 0 || best == 0.0) return -1;
  const double piv = (*this)(row, p);
  for (int j = 0; j < fCols; ++j) {
    if (j == p) continue;
    const double f = (*this)(row, j) / piv;
    if (f == 0.0) continue;
    for (int i = 0; i < fRows; ++i) (*this)(i, j) -= f * (*this)(i, p);
    (*this)(row, j) = 0.0;  // exactly eliminated
  }
  for (int i = 0; i < fRows; ++i) (*this)(i, p) = 0.0;
  return p;
}

bool TQRectMatrix::ColClean(int col, double tolerance) {
  if (col < 0 || col >= fCols) return false;
  double maxAbs = 0.0;
  for (int i = 0; i < fRows; ++i) maxAbs = std::max(maxAbs, std::fabs((*this)(i, col)));
  if (maxAbs == 0.0) return true;
  double first = 0.0;
  for (int i = 0; i < fRows; ++i) {
    double& a = (*this)(i, col);
    if (std::fabs(a) <= tolerance * maxAbs) a = 0.0;
    if (first == 0.0) first = a;
  }
  for (int i = 0; i < fRows; ++i) (*this)(i, col) /= first;
  return true;
}

void TQRectMatrix::Display(const std::string& title) const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQRectMatrix display start");
  if (!title.empty()) DisplayS("Title", title);
  DisplayI("Rows", fRows);
  DisplayI("Columns", fCols);
  for (int i = 0; i < fRows; ++i)
    DisplayDV("Row " + std::to_string(i), std::vector<double>(Row(i), Row(i) + fCols));
  DisplayText(1, "TQRectMatrix display end");
}
