#pragma once
// Contrast matrices over the K levels of a compared factor: one row per contrast, one column per
// level (in level order). Each builder returns false, leaving `out` untouched, when the
// arguments cannot give a contrast (fewer than two levels, a reference outside the levels,
// polynomial metric values that are not finite or not all different).
//
//   simple       e_i - e_r for every level i other than the reference r, in level order
//   deviation    e_i - 1/K for i = 1 .. K-1 (the last level is left out)
//   Helmert      e_i - mean(e_i+1 .. e_K) for i = 1 .. K-1
//   difference   e_i - mean(e_1 .. e_i-1) for i = 2 .. K
//   repeated     e_i - e_i+1 for i = 1 .. K-1
//   polynomial   the orthonormal polynomials of degrees 1 .. K-1 in the metric values: each row
//                sums to 0, has unit length, and its leading coefficient is positive (the linear
//                row increases with the metric)
//   pairwise     e_a - e_b for every ordered pair a != b: K rows of K-1, row a holding the
//                comparisons of level a with every other level b in increasing order of b, so
//                that (a, b) is row a(K-1) + (b < a ? b : b-1)
#include <vector>

#include "support/TQRectMatrix.h"

class TQContrasts {
 public:
  static bool ComputeSimpleContrast(int k, int reference, TQRectMatrix& out);
  static bool ComputeDeviationContrast(int k, TQRectMatrix& out);
  static bool ComputeHelmertContrast(int k, TQRectMatrix& out);
  static bool ComputeDifferenceContrast(int k, TQRectMatrix& out);
  static bool ComputeRepeatedContrast(int k, TQRectMatrix& out);
  static bool ComputePolynomialContrast(const std::vector<double>& metric, TQRectMatrix& out);
  static bool ComputePairwiseContrast(int k, TQRectMatrix& out);
  // The row of the pairwise contrast that compares level a with level b (a != b, both < k).
  static int PairwiseRow(int k, int a, int b) noexcept { return a * (k - 1) + (b < a ? b : b - 1); }
};
