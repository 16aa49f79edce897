#include "support/TQContrasts.h"

#include <algorithm>
#include <cmath>

bool TQContrasts::ComputeSimpleContrast(int k, int reference, TQRectMatrix& out) {
  if (k < 2 || reference < 0 || reference >= k) return false;
  TQRectMatrix c(k - 1, k);
  for (int i = 0, row = 0; i < k; ++i) {
    if (i == reference) continue;
    c(row, i) = 1.0;
    c(row, reference) = -1.0;
    ++row;
  }
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputeDeviationContrast(int k, TQRectMatrix& out) {
  if (k < 2) return false;
  TQRectMatrix c(k - 1, k, -1.0 / k);
  for (int i = 0; i < k - 1; ++i) c(i, i) += 1.0;
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputeHelmertContrast(int k, TQRectMatrix& out) {
  if (k < 2) return false;
  TQRectMatrix c(k - 1, k);
  for (int i = 0; i < k - 1; ++i) {
    c(i, i) = 1.0;
    for (int j = i + 1; j < k; ++j) c(i, j) = -1.0 / (k - 1 - i);
  }
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputeDifferenceContrast(int k, TQRectMatrix& out) {
  if (k < 2) return false;
  TQRectMatrix c(k - 1, k);
  for (int i = 1; i < k; ++i) {
    for (int j = 0; j < i; ++j) c(i - 1, j) = -1.0 / i;
    c(i - 1, i) = 1.0;
  }
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputeRepeatedContrast(int k, TQRectMatrix& out) {
  if (k < 2) return false;
  TQRectMatrix c(k - 1, k);
  for (int i = 0; i < k - 1; ++i) {
    c(i, i) = 1.0;
    c(i, i + 1) = -1.0;
  }
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputePolynomialContrast(const std::vector<double>& metric, TQRectMatrix& out) {
  const int k = static_cast<int>(metric.size());
  if (k < 2) return false;
  if (!std::all_of(metric.begin(), metric.end(), [](double x) { return std::isfinite(x); })) return false;
  std::vector<double> sorted(metric);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return false;

  // The metric centred and scaled into [-1, 1], so that the recurrence stays well scaled.
  double mean = 0.0;
  for (double x : metric) mean += x / k;
  double spread = 0.0;
  for (double x : metric) spread = std::max(spread, std::fabs(x - mean));
  std::vector<double> x(metric.size());
  for (int i = 0; i < k; ++i) x[i] = (metric[i] - mean) / spread;

  // The orthonormal polynomials on the metric points, degree by degree: q_d+1 is x q_d less its
  // projections on q_0 .. q_d (twice, so that rounding does not pile up), normalised. Each
  // step multiplies by x and removes lower degrees only, so q_d is x^d less its projection on
  // the lower degrees, scaled by a positive number; the powers themselves, which become nearly
  // dependent as K grows, are never formed. Degrees 1 .. K-1 are the rows.
  std::vector<std::vector<double>> q;
  q.emplace_back(metric.size(), 1.0 / std::sqrt(static_cast<double>(k)));
  TQRectMatrix c(k - 1, k);
  std::vector<double> v(metric.size());
  for (int d = 0; d < k - 1; ++d) {
    double before = 0.0;
    for (int i = 0; i < k; ++i) {
      v[i] = x[i] * q.back()[i];
      before += v[i] * v[i];
    }
    for (int pass = 0; pass < 2; ++pass)
      for (const std::vector<double>& u : q) {
        double dot = 0.0;
        for (int i = 0; i < k; ++i) dot += v[i] * u[i];
        for (int i = 0; i < k; ++i) v[i] -= dot * u[i];
      }
    double norm = 0.0;
    for (double vi : v) norm += vi * vi;
    if (!(norm > 1e-24 * before)) return false;
    const double length = std::sqrt(norm);
    for (int i = 0; i < k; ++i) v[i] /= length;
    for (int i = 0; i < k; ++i) c(d, i) = v[i];
    q.push_back(v);
  }
  out = std::move(c);
  return true;
}

bool TQContrasts::ComputePairwiseContrast(int k, TQRectMatrix& out) {
  if (k < 2) return false;
  TQRectMatrix c(k * (k - 1), k);
  for (int a = 0; a < k; ++a)
    for (int b = 0; b < k; ++b) {
      if (a == b) continue;
      const int row = PairwiseRow(k, a, b);
      c(row, a) = 1.0;
      c(row, b) = -1.0;
    }
  out = std::move(c);
  return true;
}
