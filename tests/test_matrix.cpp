// Matrix layer: bit set, packed symmetric matrix, rectangular matrix. Results are checked
// against hand values or an independent dense route (naive Gauss-Jordan, explicit products).
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <vector>

#include "support/TQBitSet.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQRectMatrix.h"
#include "support/TQSymMatrix.h"

namespace {

using Dense = std::vector<std::vector<double>>;

TQSymMatrix FromDense(const Dense& a) {
  TQSymMatrix s(static_cast<int>(a.size()));
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t j = 0; j <= i; ++j) s(int(i), int(j)) = a[i][j];
  return s;
}

// Naive Gauss-Jordan with partial pivoting: the independent route to an inverse.
Dense GaussJordanInverse(Dense a) {
  const size_t n = a.size();
  Dense inv(n, std::vector<double>(n, 0.0));
  for (size_t i = 0; i < n; ++i) inv[i][i] = 1.0;
  for (size_t c = 0; c < n; ++c) {
    size_t p = c;
    for (size_t r = c + 1; r < n; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[p][c])) p = r;
    std::swap(a[p], a[c]);
    std::swap(inv[p], inv[c]);
    const double d = a[c][c];
    for (size_t k = 0; k < n; ++k) a[c][k] /= d, inv[c][k] /= d;
    for (size_t r = 0; r < n; ++r) {
      if (r == c) continue;
      const double f = a[r][c];
      for (size_t k = 0; k < n; ++k) a[r][k] -= f * a[c][k], inv[r][k] -= f * inv[c][k];
    }
  }
  return inv;
}

Dense Mul(const Dense& a, const Dense& b) {
  Dense c(a.size(), std::vector<double>(b[0].size(), 0.0));
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t k = 0; k < b.size(); ++k)
      for (size_t j = 0; j < b[0].size(); ++j) c[i][j] += a[i][k] * b[k][j];
  return c;
}

Dense Trans(const Dense& a) {
  Dense t(a[0].size(), std::vector<double>(a.size()));
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t j = 0; j < a[0].size(); ++j) t[j][i] = a[i][j];
  return t;
}

Dense ToDense(const TQRectMatrix& r) {
  Dense d(size_t(r.GetNumRows()), std::vector<double>(size_t(r.GetNumCols())));
  for (int i = 0; i < r.GetNumRows(); ++i)
    for (int j = 0; j < r.GetNumCols(); ++j) d[size_t(i)][size_t(j)] = r(i, j);
  return d;
}

TQRectMatrix FromDenseRect(const Dense& a) {
  TQRectMatrix r(int(a.size()), int(a[0].size()));
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t j = 0; j < a[0].size(); ++j) r(int(i), int(j)) = a[i][j];
  return r;
}

// X'X of a design (rows of x).
Dense CrossProduct(const Dense& x) { return Mul(Trans(x), x); }

// A well-conditioned positive definite 4 x 4 matrix.
const Dense kPD = {{4, 1, 0.5, 0.2}, {1, 3, 0.3, 0.1}, {0.5, 0.3, 2, 0.4}, {0.2, 0.1, 0.4, 1.5}};

// Design with intercept, x1, x2 and a fourth column x1 + x2 (aliased).
const Dense kAliasedX = {{1, 1, 0, 1}, {1, 2, 1, 3}, {1, 0, 3, 3}, {1, 4, 1, 5}, {1, 3, 2, 5}, {1, 1, 1, 2}};

}  // namespace

TEST(TQBitSet, SetsResizeCountAndNewFalse) {
  TQBitSet s(70);
  EXPECT_EQ(s.Count(), 0);
  s.Set(0);
  s.Set(65);
  s.Set(100);  // out of range: ignored
  EXPECT_TRUE(s.InSet(65));
  EXPECT_FALSE(s.Test(100));
  EXPECT_EQ(s.Count(), 2);
  s.Resize(130, true);  // grown bits set, old ones kept
  EXPECT_EQ(s.Count(), 2 + 60);
  EXPECT_FALSE(s.Test(1));
  s.Resize(66);
  s.Resize(80);  // shrink then grow: bits 66.. must come back clear
  EXPECT_EQ(s.Count(), 2);
  EXPECT_EQ(s.Count(60, 10), 1);

  TQBitSet oldSet(4, true), newSet(4, true);
  EXPECT_FALSE(newSet.IsNewFalse(oldSet, 4));
  newSet.Clear(3);
  EXPECT_TRUE(newSet.IsNewFalse(oldSet, 4));   // parameter 3 was in, now aliased
  EXPECT_FALSE(newSet.IsNewFalse(oldSet, 3));  // only the first 3 bits compared
  EXPECT_FALSE(oldSet.IsNewFalse(newSet, 4));  // direction matters: a bit gained is not "new false"
  TQBitSet copy = newSet;
  EXPECT_EQ(copy, newSet);
  EXPECT_NE(copy, oldSet);
  copy.Union(oldSet);
  EXPECT_EQ(copy, oldSet);
  EXPECT_EQ(newSet.ToString(), "1110");
}

TEST(TQSymMatrix, RankOneUpdatesMatchExplicitSums) {
  const Dense xs = {{1, 2, -1}, {0.5, 0, 3}, {2, -1, 1}};
  const std::vector<double> w = {1.5, -0.7, 2.0};  // a negative observed-information weight
  TQSymMatrix a(3), b(3), c(3);
  TQBitSet set(3, true);
  set.Clear(1);
  const std::vector<int> idx = {0, 2};
  for (size_t r = 0; r < xs.size(); ++r) {
    a.UpdateXX(xs[r], w[r]);
    b.UpdateXXNonRedun(xs[r], set, w[r]);
    c.UpdateXXIndexed(xs[r], idx, w[r]);
  }
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0.0;
      for (size_t r = 0; r < xs.size(); ++r) sum += w[r] * xs[r][size_t(i)] * xs[r][size_t(j)];
      EXPECT_NEAR(a(i, j), sum, 1e-14);
      EXPECT_NEAR(a(j, i), sum, 1e-14);
      const double expectedNR = (set.Test(i) && set.Test(j)) ? sum : 0.0;
      EXPECT_NEAR(b(i, j), expectedNR, 1e-14);
      EXPECT_EQ(b(i, j), c(i, j));
    }
  // Augmented update = plain update of [x; y].
  TQSymMatrix aug(3), plain(3);
  aug.UpdateXXAug(std::vector<double>{1.0, 2.0}, 5.0, -0.5);
  plain.UpdateXX(std::vector<double>{1.0, 2.0, 5.0}, -0.5);
  EXPECT_EQ(aug, plain);
  // A short vector is refused, not read past its end.
  TQSymMatrix d(3);
  d.UpdateXX(std::vector<double>{1.0}, 1.0);
  EXPECT_EQ(d, TQSymMatrix(3));
}

TEST(TQSymMatrix, SweepGivesMinusInverseAndReverses) {
  TQSymMatrix a = FromDense(kPD);
  const TQSymMatrix original = a;
  std::vector<double> diag;
  a.GetDiagonal(diag);
  TQBitSet pivoted;
  EXPECT_EQ(a.Sweep(0, 4, 1e-12, diag, pivoted), 4);
  EXPECT_EQ(pivoted.Count(), 4);
  const Dense inv = GaussJordanInverse(kPD);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(a(i, j), -inv[size_t(i)][size_t(j)], 1e-13);
  for (int k = 3; k >= 0; --k) EXPECT_TRUE(a.Sweep(k, 1e-12, diag, pivoted));  // reverse in any order
  EXPECT_EQ(pivoted.Count(), 0);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j <= i; ++j) EXPECT_NEAR(a(i, j), original(i, j), 1e-13);

  // One column forward and back alone (a sign slip in the reverse would survive the round
  // trip over all columns, where each off-diagonal element is touched twice).
  ASSERT_TRUE(a.Sweep(1, 1e-12, diag, pivoted));
  EXPECT_NEAR(a(1, 1), -1.0 / 3.0, 1e-15);
  EXPECT_NEAR(a(0, 1), 1.0 / 3.0, 1e-15);
  EXPECT_NEAR(a(0, 0), 4.0 - 1.0 / 3.0, 1e-15);
  ASSERT_TRUE(a.Sweep(1, 1e-12, diag, pivoted));
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j <= i; ++j) EXPECT_NEAR(a(i, j), original(i, j), 1e-14);

  // Regression by sweeping the augmented cross-product: y = 1 + 2 x1 - 3 x2 + e.
  const Dense x = {{1, 0.5, 1}, {1, 1.5, 0}, {1, 2, 2}, {1, 3, 1}, {1, 4, 3}};
  const std::vector<double> e = {0.1, -0.2, 0.05, 0.1, -0.05};
  TQSymMatrix xy(4);
  Dense xe = x;
  for (size_t r = 0; r < x.size(); ++r) {
    const double y = 1 + 2 * x[r][1] - 3 * x[r][2] + e[r];
    xy.UpdateXXAug(x[r], y, 1.0);
    xe[r].push_back(y);
  }
  std::vector<double> coeffs;
  TQBitSet set;
  double rss = 0.0;
  ASSERT_EQ(xy.GetRegCoeffs(1e-12, coeffs, set, &rss), 3);
  // Independent route: (X'X)^-1 X'y by Gauss-Jordan.
  const Dense xtx = CrossProduct(x), xtxi = GaussJordanInverse(xtx);
  Dense xty(3, std::vector<double>(1, 0.0));
  for (size_t r = 0; r < x.size(); ++r)
    for (size_t j = 0; j < 3; ++j) xty[j][0] += x[r][j] * xe[r][3];
  const Dense b = Mul(xtxi, xty);
  double rssDirect = 0.0;
  for (size_t r = 0; r < x.size(); ++r) {
    double fit = 0.0;
    for (size_t j = 0; j < 3; ++j) fit += x[r][j] * b[j][0];
    rssDirect += (xe[r][3] - fit) * (xe[r][3] - fit);
  }
  for (size_t j = 0; j < 3; ++j) EXPECT_NEAR(coeffs[j], b[j][0], 1e-11);
  EXPECT_NEAR(rss, rssDirect, 1e-11);
}

TEST(TQSymMatrix, RankDeficientSweepAndInverseMarkTheDependentColumn) {
  const Dense xtx = CrossProduct(kAliasedX);
  const TQSymMatrix a = FromDense(xtx);
  std::vector<double> diag;
  a.GetNCheckDiagonal(diag, 1e-12, 1.0);

  TQSymMatrix swept = a;
  TQBitSet pivoted;
  EXPECT_EQ(swept.Sweep(0, 4, 1e-12, diag, pivoted), 3);
  EXPECT_EQ(pivoted.ToString(), "1110");  // the later column of the dependent group
  EXPECT_FALSE(swept.Sweep(3, 1e-12, diag, pivoted));
  const Dense sub = {{xtx[0][0], xtx[0][1], xtx[0][2]}, {xtx[1][0], xtx[1][1], xtx[1][2]}, {xtx[2][0], xtx[2][1], xtx[2][2]}};
  const Dense subInv = GaussJordanInverse(sub);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(swept(i, j), -subInv[size_t(i)][size_t(j)], 1e-10);
  // The unswept column holds the aliasing coefficients: x3 = 0*1 + 1*x1 + 1*x2, residual 0.
  EXPECT_NEAR(swept(3, 0), 0.0, 1e-10);
  EXPECT_NEAR(swept(3, 1), 1.0, 1e-10);
  EXPECT_NEAR(swept(3, 2), 1.0, 1e-10);

  TQSymMatrix inv;
  TQBitSet set;
  EXPECT_EQ(a.CholInverse(diag, 1e-12, inv, set), 3);
  EXPECT_EQ(set.ToString(), "1110");
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) {
      const double expected = (i < 3 && j < 3) ? subInv[size_t(i)][size_t(j)] : 0.0;
      EXPECT_NEAR(inv(i, j), expected, 1e-10);
    }

  // A dependent column in the middle (column 1 = 2 * column 0): column 1 is the one marked.
  const TQSymMatrix b = FromDense({{1, 2, 0.5}, {2, 4, 1}, {0.5, 1, 3}});
  b.GetNCheckDiagonal(diag, 1e-12, 1.0);
  EXPECT_EQ(b.CholInverse(diag, 1e-12, inv, set), 2);
  EXPECT_EQ(set.ToString(), "101");
  const Dense bi = GaussJordanInverse({{1, 0.5}, {0.5, 3}});
  EXPECT_NEAR(inv(0, 0), bi[0][0], 1e-12);
  EXPECT_NEAR(inv(2, 0), bi[1][0], 1e-12);
  EXPECT_NEAR(inv(2, 2), bi[1][1], 1e-12);
  EXPECT_EQ(inv(1, 1), 0.0);

  // Full rank: A * inverse = I.
  const TQSymMatrix pd = FromDense(kPD);
  pd.GetNCheckDiagonal(diag, 1e-12, 1.0);
  ASSERT_EQ(pd.CholInverse(diag, 1e-12, inv, set), 4);
  TQRectMatrix invR, prod;
  inv.ToRect(invR);
  ASSERT_TRUE(pd.ComputeSR(invR, prod));
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(prod(i, j), i == j ? 1.0 : 0.0, 1e-13);
  EXPECT_EQ(pd.CholInverse(std::vector<double>{1.0}, 1e-12, inv, set), -1);  // diagonal too short
}

TEST(TQSymMatrix, CholeskyFactorsDetectsRedundancyAndRefusesIndefinite) {
  TQSymMatrix a = FromDense(kPD);
  std::vector<double> diag;
  a.GetDiagonal(diag);
  TQBitSet set;
  ASSERT_TRUE(a.LTChol(diag, 1e-12, set, false));
  EXPECT_EQ(set.Count(), 4);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0.0;
      for (int k = 0; k <= j; ++k) s += a(i, k) * a(j, k);
      EXPECT_NEAR(s, kPD[size_t(i)][size_t(j)], 1e-14);
    }
  EXPECT_NEAR(a(0, 0), 2.0, 1e-15);

  TQSymMatrix dep = FromDense(CrossProduct(kAliasedX));
  dep.GetDiagonal(diag);
  ASSERT_TRUE(dep.LTChol(diag, 1e-12, set, false));
  EXPECT_EQ(set.ToString(), "1110");
  for (int j = 0; j < 4; ++j) EXPECT_EQ(dep(3, j), 0.0);
  TQSymMatrix dep2 = FromDense(CrossProduct(kAliasedX));
  EXPECT_FALSE(dep2.LTChol(diag, 1e-12, set, true));  // asked to stop at a singular pivot

  TQSymMatrix indef = FromDense({{1, 2}, {2, 1}});  // eigenvalues 3 and -1
  indef.GetDiagonal(diag);
  EXPECT_FALSE(indef.LTChol(diag, 1e-12, set, false));
  std::vector<int> nonRed;
  EXPECT_EQ(FromDense({{1, 2}, {2, 1}}).CholIndNonRed(1e-12, nonRed), -1);
  EXPECT_EQ(FromDense(CrossProduct(kAliasedX)).CholIndNonRed(1e-12, nonRed), 3);
  EXPECT_EQ(nonRed, (std::vector<int>{0, 1, 2}));
  // The generalized inverse does not fail on it: the negative pivot is treated as dependent.
  TQSymMatrix inv;
  EXPECT_EQ(FromDense({{1, 2}, {2, 1}}).CholInverse(diag, 1e-12, inv, set), 1);
  EXPECT_EQ(set.ToString(), "10");
}

TEST(TQSymMatrix, DiagonalElementwiseAndProducts) {
  TQSymMatrix a = FromDense({{2, 1e-20, 3}, {1e-20, 0, -1e-9}, {3, -1e-9, 1e-13}});
  std::vector<double> d;
  EXPECT_EQ(a.GetNCheckDiagonal(d, 1e-12, 1.0), 2);
  EXPECT_EQ(d, (std::vector<double>{2.0, 1.0, 1.0}));
  TQSymMatrix z = a;
  z.ZeroOutNonDiag(1e-12);
  EXPECT_EQ(z(0, 1), 0.0);
  EXPECT_EQ(z(1, 2), -1e-9);
  EXPECT_EQ(z(2, 2), 1e-13);  // diagonal kept
  z.ZeroOutAllSmall(1e-12);
  EXPECT_EQ(z(2, 2), 0.0);

  const TQSymMatrix s = FromDense(kPD);
  const std::vector<double> v = {1, -2, 0.5, 3};
  std::vector<double> sv;
  ASSERT_TRUE(s.ComputeSV(v, sv));
  double vsv = 0.0;
  for (size_t i = 0; i < 4; ++i) {
    double e = 0.0;
    for (size_t j = 0; j < 4; ++j) e += kPD[i][j] * v[j];
    EXPECT_NEAR(sv[i], e, 1e-14);
    vsv += v[i] * e;
  }
  EXPECT_NEAR(s.ComputeVSV(v), vsv, 1e-13);
  EXPECT_TRUE(TQMV::IsMissing(s.ComputeVSV(std::vector<double>{1.0})));
  TQSymMatrix t = s;
  t.ChangeSign();
  t.MultiplyByNumber(-2.0);
  EXPECT_EQ(t(3, 1), 2 * kPD[3][1]);

  // Products against dense multiplication.
  const Dense r = {{1, 0, 2, -1}, {0.5, 1, 0, 3}};  // 2 x 4
  const TQRectMatrix R = FromDenseRect(r);
  TQRectMatrix rs, sr;
  ASSERT_TRUE(s.ComputeRS(R, rs));
  TQRectMatrix rt;
  R.Transpose(rt);
  ASSERT_TRUE(s.ComputeSR(rt, sr));
  const Dense rsD = Mul(r, kPD), srD = Mul(kPD, Trans(r)), rsrD = Mul(rsD, Trans(r));
  TQSymMatrix rsr, rtsr, gmg;
  ASSERT_TRUE(s.ComputeRSRTrans(R, rsr));
  ASSERT_TRUE(s.ComputeRTransSR(rt, rtsr));
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 4; ++j) {
      EXPECT_NEAR(rs(i, j), rsD[size_t(i)][size_t(j)], 1e-13);
      EXPECT_NEAR(sr(j, i), srD[size_t(j)][size_t(i)], 1e-13);
    }
    for (int j = 0; j < 2; ++j) {
      EXPECT_NEAR(rsr(i, j), rsrD[size_t(i)][size_t(j)], 1e-12);
      EXPECT_NEAR(rtsr(i, j), rsrD[size_t(i)][size_t(j)], 1e-12);
    }
  }
  const Dense m = {{1, 0.2, 0, 0}, {0.2, 2, 0.1, 0}, {0, 0.1, 1, 0.3}, {0, 0, 0.3, 1}};
  ASSERT_TRUE(s.ComputeGMG(FromDense(m), gmg));
  const Dense gmgD = Mul(Mul(kPD, m), kPD);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(gmg(i, j), gmgD[size_t(i)][size_t(j)], 1e-12);
  EXPECT_FALSE(s.ComputeRS(rt, rs));  // wrong shape refused

  TQSymMatrix rows = FromDense({{1e-20, 1, 2}, {1, 5, 3}, {2, 3, 6}});
  EXPECT_EQ(rows.ZeroOutRowsForSmallDiag(1e-15), 1);
  EXPECT_EQ(rows(2, 0), 0.0);
  EXPECT_EQ(rows(2, 1), 3.0);
}

TEST(TQSymMatrix, KKTSystemSolvesEqualityConstrainedLeastSquares) {
  // minimise ||y - X b||^2 subject to L b = r; known solution by the closed form
  // b = bu - G L' (L G L')^-1 (L bu - r), G = (X'X)^-1, computed densely.
  const Dense x = {{1, 0, 1}, {1, 1, 0}, {1, 2, 1}, {1, 3, 3}, {1, 4, 2}, {1, 5, 1}};
  const std::vector<double> y = {1.0, 2.5, 2.9, 5.2, 6.1, 6.8};
  const Dense l = {{0, 1, 1}};  // b1 + b2 = 1
  const std::vector<double> rhsC = {1.0};
  const Dense xtx = CrossProduct(x), g = GaussJordanInverse(xtx);
  Dense xty(3, std::vector<double>(1, 0.0));
  for (size_t i = 0; i < x.size(); ++i)
    for (size_t j = 0; j < 3; ++j) xty[j][0] += x[i][j] * y[i];
  const Dense bu = Mul(g, xty), glt = Mul(g, Trans(l)), lglt = Mul(l, glt);
  const double adj = (Mul(l, bu)[0][0] - rhsC[0]) / lglt[0][0];
  std::vector<double> expected(3);
  for (size_t j = 0; j < 3; ++j) expected[j] = bu[j][0] - glt[j][0] * adj;

  // KKT at b0 = 0: H = -X'X (Hessian of the log-likelihood), gradient g0 = X'y;
  // [H L'; L 0] [delta; lambda] = [-g0; r - L b0].
  TQSymMatrix h = FromDense(xtx);
  h.ChangeSign();
  TQSymMatrix kkt;
  ASSERT_TRUE(kkt.ExpandSym(h, FromDenseRect(l)));
  ASSERT_EQ(kkt.GetNumRows(), 4);
  EXPECT_EQ(kkt(3, 1), 1.0);
  EXPECT_EQ(kkt(3, 3), 0.0);
  std::vector<double> rhs = {-xty[0][0], -xty[1][0], -xty[2][0], rhsC[0]};
  TQBitSet all(4, true);
  std::vector<double> sol;
  ASSERT_TRUE(kkt.SolveIndefinite(all, 1e-12, rhs, sol));
  for (size_t j = 0; j < 3; ++j) EXPECT_NEAR(sol[j], expected[j], 1e-10);
  EXPECT_NEAR(sol[1] + sol[2], 1.0, 1e-12);

  // ReplaceFirstRows swaps the Hessian block and keeps the constraint rows.
  TQSymMatrix h2 = h;
  h2.MultiplyByNumber(2.0);
  ASSERT_TRUE(kkt.ReplaceFirstRows(h2));
  EXPECT_EQ(kkt(1, 1), 2 * h(1, 1));
  EXPECT_EQ(kkt(3, 2), 1.0);
  EXPECT_FALSE(h.ReplaceFirstRows(kkt));

  // A redundant parameter outside the set: append an aliased column (copy of column 1); the
  // restricted solve ignores it, gives it 0 and reproduces the solution.
  Dense xa = x;
  for (auto& row : xa) row.push_back(row[1]);
  TQSymMatrix ha = FromDense(CrossProduct(xa));
  ha.ChangeSign();
  TQSymMatrix kkta;
  ASSERT_TRUE(kkta.ExpandSym(ha, FromDenseRect({{0, 1, 1, 0}})));
  std::vector<double> rhsa = {-xty[0][0], -xty[1][0], -xty[2][0], -xty[1][0], 1.0};
  TQBitSet nonRed(5, true);
  // With the alias in, a constraint that does not separate the two copies leaves the system
  // singular (the one above, b1 + b2 = 1, does: there the full system is solvable).
  TQSymMatrix kktSingular;
  ASSERT_TRUE(kktSingular.ExpandSym(ha, FromDenseRect({{0, 0, 1, 0}})));
  EXPECT_FALSE(kktSingular.SolveIndefinite(nonRed, 1e-12, rhsa, sol));
  nonRed.Clear(3);
  ASSERT_TRUE(kkta.SolveIndefinite(nonRed, 1e-12, rhsa, sol));
  EXPECT_EQ(sol[3], 0.0);
  for (size_t j = 0; j < 3; ++j) EXPECT_NEAR(sol[j], expected[j], 1e-10);
}

TEST(TQSymMatrix, TypeIHypothesisFromSweep) {
  // Intercept and a two-level factor, over-parameterised: n1 = 2, n2 = 3.
  const TQSymMatrix sscp = FromDense({{5, 2, 3}, {2, 2, 0}, {3, 0, 3}});
  TQSymMatrix work = sscp;
  std::vector<double> diag;
  sscp.GetDiagonal(diag);
  TQBitSet swept(3);
  EXPECT_EQ(work.Sweep(0, 1, 1e-12, diag, swept), 1);
  EXPECT_EQ(work.Sweep(1, 2, 1e-12, diag, swept), 1);  // the second level is aliased
  TQSymMatrix copy = work;
  copy.ZeroOutAllSmall(1e-8);
  TQRectMatrix h;
  ASSERT_TRUE(copy.ExtractH(1, 2, swept, h));
  h.CheckForOnes(1e-8);
  ASSERT_EQ(h.GetNumRows(), 3);
  ASSERT_EQ(h.GetNumCols(), 2);
  TQRectMatrix lmat(1, 3);
  ASSERT_TRUE(lmat.CopyColToRow(h, 0, 0));
  EXPECT_EQ(lmat(0, 0), 0.0);
  EXPECT_EQ(lmat(0, 1), 1.0);
  EXPECT_NEAR(lmat(0, 2), -1.0, 1e-12);  // the hypothesis a1 - a2 = 0
  for (int j = 0; j < 3; ++j) EXPECT_EQ(h(j, 1), 0.0);
}

TEST(TQRectMatrix, FullRankBlockDiagonalAndTypeIIIHelpers) {
  const TQRectMatrix l = FromDenseRect({{1, 0, 1}, {2, 0, 2}, {0, 1, 0}, {1, 1, 1}});
  EXPECT_EQ(l.Rank(1e-16), 2);
  TQRectMatrix full;
  std::vector<int> idx;
  EXPECT_EQ(l.ExtractFullRank(1e-16, full, idx, true), 2);
  EXPECT_EQ(idx, (std::vector<int>{0, 2}));
  EXPECT_EQ(ToDense(full), (Dense{{1, 0, 1}, {0, 1, 0}}));
  EXPECT_EQ(l.ExtractFullRank(1e-16, full, idx, false), 2);  // columns 0 and 1
  EXPECT_EQ(idx, (std::vector<int>{0, 1}));

  TQRectMatrix block;
  FromDenseRect({{1, 2}}).CreateBlockDiagonal(3, block);
  EXPECT_EQ(ToDense(block), (Dense{{1, 2, 0, 0, 0, 0}, {0, 0, 1, 2, 0, 0}, {0, 0, 0, 0, 1, 2}}));

  TQRectMatrix ones = FromDenseRect({{1 + 1e-10, 0.9999}, {1 - 5e-9, 2}});
  ones.CheckForOnes(1e-8);
  EXPECT_EQ(ToDense(ones), (Dense{{1, 0.9999}, {1, 2}}));

  // Residual of projection: columns of A against the span of B = {e0}.
  TQRectMatrix a = FromDenseRect({{1, 3}, {0, 1}, {0, 2}});
  TQBitSet kept;
  ASSERT_TRUE(a.ResidOfOrthProjection(FromDenseRect({{1}, {0}, {0}}), 1e-12, kept));
  EXPECT_EQ(kept.ToString(), "01");
  EXPECT_NEAR(a(0, 1), 0.0, 1e-15);
  EXPECT_NEAR(a(2, 1), 2.0, 1e-15);

  // Pivoting on a row eliminates that parameter from the other candidates.
  TQRectMatrix c = FromDenseRect({{1, 2}, {1, 1}, {0, 3}});
  EXPECT_EQ(c.ZeroOutPivotRow(0, 1e-12), 1);
  EXPECT_EQ(c(0, 0), 0.0);
  EXPECT_NEAR(c(1, 0), 0.5, 1e-15);
  EXPECT_NEAR(c(2, 0), -1.5, 1e-15);
  EXPECT_EQ(c.ZeroOutPivotRow(0, 1e-12), -1);  // nothing left in that row
  ASSERT_TRUE(c.ColClean(0, 1e-12));
  EXPECT_NEAR(c(1, 0), 1.0, 1e-15);
  EXPECT_NEAR(c(2, 0), -3.0, 1e-15);

  TQRectMatrix grow = FromDenseRect({{1, 2}, {3, 4}});
  grow.Resize(3, 3, 9.0);
  EXPECT_EQ(ToDense(grow), (Dense{{1, 2, 9}, {3, 4, 9}, {9, 9, 9}}));
}

TEST(TQSymMatrix, PositiveDefiniteTransformBlocksAndDisplay) {
  TQSymMatrix r = FromDense({{1, 2}, {2, 1}});
  std::vector<double> ev;
  r.Eigen(ev);
  EXPECT_NEAR(ev[0], -1.0, 1e-13);
  EXPECT_NEAR(ev[1], 3.0, 1e-13);
  EXPECT_TRUE(r.TransformToPositiveDefinite(1e-12));
  r.Eigen(ev);
  EXPECT_NEAR(ev[0], 1e-12, 1e-13);
  EXPECT_NEAR(ev[1], 3.0, 1e-12);
  TQSymMatrix pd = FromDense(kPD);
  EXPECT_FALSE(pd.TransformToPositiveDefinite(1e-12));
  EXPECT_EQ(pd, FromDense(kPD));

  TQSymBlockMatrix blocks;
  blocks.AddBlock(FromDense({{2, 1}, {1, 2}}));
  blocks.AddBlock(FromDense({{5}}));
  EXPECT_EQ(blocks.GetNumRows(), 3);
  EXPECT_EQ(blocks.Get(1, 0), 1.0);
  EXPECT_EQ(blocks.Get(2, 1), 0.0);
  EXPECT_EQ(blocks.Get(2, 2), 5.0);
  std::vector<double> bv;
  ASSERT_TRUE(blocks.ComputeSV(std::vector<double>{1, 1, 2}, bv));
  EXPECT_EQ(bv, (std::vector<double>{3, 3, 10}));

  TQSymMatrix grow = FromDense({{1, 2}, {2, 3}});
  grow.Resize(3, 7.0);
  EXPECT_EQ(grow(1, 0), 2.0);
  EXPECT_EQ(grow(2, 1), 7.0);

  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    FromDense({{1, 2}, {2, 3}}).Display();
  }
  const std::string text = out.str();
  EXPECT_EQ(text.rfind("TQSymMatrix display start", 0), 0u);
  EXPECT_NE(text.find("Row 1: 2 3"), std::string::npos);
  EXPECT_NE(text.find("TQSymMatrix display end"), std::string::npos);
}
