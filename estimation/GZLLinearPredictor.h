#pragma once
// The linear predictor of a design row: the hot first step of every record of every pass.
#include <cstddef>

// eta = offset + x'beta over n columns, with four partial sums so that the products do not
// wait on each other.
inline double GZLLinearPredictor(const double* x, const double* beta, std::size_t n, double offset) noexcept {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  std::size_t j = 0;
  for (; j + 4 <= n; j += 4) {
    s0 += x[j] * beta[j];
    s1 += x[j + 1] * beta[j + 1];
    s2 += x[j + 2] * beta[j + 2];
    s3 += x[j + 3] * beta[j + 3];
  }
  for (; j < n; ++j) s0 += x[j] * beta[j];
  return offset + ((s0 + s1) + (s2 + s3));
}
