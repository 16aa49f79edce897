// Parameter statistics: the regression rows and the scale/k rows, against values computed here.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "inference/GZLInference.h"
#include "support/TQDistFun.h"

namespace {
bool Miss(double x) { return TQMV::IsMissing(x); }
}  // namespace

TEST(Inference, RegressionRows) {
  // Five parameters: 0 and 1 ordinary, 2 aliased from the start, 3 dropped during the
  // iterations, 4 with a zero variance.
  const std::vector<double> b{1.5, -2.0, 0.0, 0.7, 0.3};
  TQSymMatrix c(5, 0.0);
  c(0, 0) = 0.25;
  c(1, 1) = 4.0;
  c(1, 0) = 0.1;
  c(3, 3) = 1.0;
  c(4, 4) = 0.0;
  TQBitSet init(5, true), fin(5, true);
  init.Clear(2);
  fin.Clear(2);
  fin.Clear(3);
  const double z = TQDistFun::IdfNorm(0.975, 0.0, 1.0);
  std::vector<TQRegrParameterStats> rows;
  GZLInference::ComputeRegressionRows(b, &c, init, fin, z, false, TQMV::Missing, rows);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_DOUBLE_EQ(rows[0].GetStdError(), 0.5);
  EXPECT_DOUBLE_EQ(rows[0].GetLowerBound(), 1.5 - 0.5 * z);
  EXPECT_DOUBLE_EQ(rows[0].GetUpperBound(), 1.5 + 0.5 * z);
  EXPECT_DOUBLE_EQ(rows[0].GetWaldChiSquare(), 9.0);
  EXPECT_EQ(rows[0].GetDF(), 1.0);
  EXPECT_NEAR(rows[0].GetSignificance(), 0.0026997960632601866, 1e-12);  // P(chi2_1 > 9) = 2(1 - Phi(3))
  EXPECT_TRUE(Miss(rows[0].GetTValue()));
  EXPECT_FALSE(rows[0].IsRedundant());
  EXPECT_DOUBLE_EQ(rows[1].GetStdError(), 2.0);
  EXPECT_DOUBLE_EQ(rows[1].GetWaldChiSquare(), 1.0);
  // Aliased: flagged, estimate 0, nothing else.
  EXPECT_TRUE(rows[2].IsRedundant());
  EXPECT_EQ(rows[2].GetEstimate(), 0.0);
  EXPECT_TRUE(Miss(rows[2].GetStdError()) && Miss(rows[2].GetSignificance()) && Miss(rows[2].GetLowerBound()));
  // Dropped during iterations: not flagged, but no statistics.
  EXPECT_FALSE(rows[3].IsRedundant());
  EXPECT_EQ(rows[3].GetEstimate(), 0.7);
  EXPECT_TRUE(Miss(rows[3].GetStdError()) && Miss(rows[3].GetWaldChiSquare()) && Miss(rows[3].GetSignificance()));
  // Zero variance: SE 0, degenerate interval, no statistic, significance 0 for a non-zero estimate.
  EXPECT_EQ(rows[4].GetStdError(), 0.0);
  EXPECT_EQ(rows[4].GetLowerBound(), 0.3);
  EXPECT_TRUE(Miss(rows[4].GetWaldChiSquare()));
  EXPECT_EQ(rows[4].GetSignificance(), 0.0);

  // A negative variance gives a missing SE; a zero estimate then a missing significance.
  TQSymMatrix neg(2, 0.0);
  neg(0, 0) = -1.0;
  neg(1, 1) = -1.0;
  GZLInference::ComputeRegressionRows({0.0, 2.0}, &neg, TQBitSet(2, true), TQBitSet(2, true), z, false,
                                      TQMV::Missing, rows);
  EXPECT_TRUE(Miss(rows[0].GetStdError()) && Miss(rows[0].GetLowerBound()) && Miss(rows[0].GetSignificance()));
  EXPECT_EQ(rows[1].GetSignificance(), 0.0);

  // No covariance: estimates and redundancy only.
  GZLInference::ComputeRegressionRows(b, nullptr, init, init, z, false, TQMV::Missing, rows);
  EXPECT_EQ(rows[0].GetEstimate(), 1.5);
  EXPECT_TRUE(Miss(rows[0].GetStdError()));
  EXPECT_TRUE(rows[2].IsRedundant());
}

TEST(Inference, TBasedRows) {
  // t inference with 7 degrees of freedom: a negative estimate enters through |t|.
  TQSymMatrix c(1, 0.0);
  c(0, 0) = 0.16;
  const double t = TQDistFun::IdfT(0.975, 7.0);
  std::vector<TQRegrParameterStats> rows;
  GZLInference::ComputeRegressionRows({-1.0}, &c, TQBitSet(1, true), TQBitSet(1, true), t, true, 7.0, rows);
  EXPECT_DOUBLE_EQ(rows[0].GetTValue(), -2.5);
  EXPECT_EQ(rows[0].GetDF(), 7.0);
  EXPECT_TRUE(Miss(rows[0].GetWaldChiSquare()));
  const double sig = rows[0].GetSignificance();
  EXPECT_NEAR(sig, 2.0 * (1.0 - TQDistFun::CdfT(2.5, 7.0)), 1e-14);
  EXPECT_GT(sig, 0.03);
  EXPECT_LT(sig, 0.05);  // t = 2.5 on 7 df is between the 5% (2.365) and 2.5% (2.841) two-sided points
  EXPECT_DOUBLE_EQ(rows[0].GetUpperBound() - rows[0].GetLowerBound(), 2.0 * 0.4 * t);
}

TEST(Inference, AncillaryRows) {
  const double z = 1.959963984540054;
  // Estimated: h = -8 gives SE(log phi) = sqrt(1/8).
  const double phi = 2.0, h = -8.0, s = std::sqrt(1.0 / 8.0);
  TQRegrParameterStats r = GZLInference::ComputeAncillaryRow(phi, true, h, z);
  EXPECT_DOUBLE_EQ(r.GetEstimate(), phi);
  EXPECT_DOUBLE_EQ(r.GetStdError(), s * phi);
  EXPECT_DOUBLE_EQ(r.GetLowerBound(), phi / std::exp(s * z));
  EXPECT_DOUBLE_EQ(r.GetUpperBound(), phi * std::exp(s * z));
  EXPECT_DOUBLE_EQ(r.GetWaldZ(), 1.0 / s);
  EXPECT_NEAR(r.GetSignificance(), 2.0 * (1.0 - TQDistFun::CdfStdNorm(1.0 / s)), 1e-15);
  EXPECT_TRUE(Miss(r.GetWaldChiSquare()) && Miss(r.GetDF()));
  // Fixed: SE 0, interval collapsed on the value.
  r = GZLInference::ComputeAncillaryRow(1.3, false, TQMV::Missing, z);
  EXPECT_EQ(r.GetStdError(), 0.0);
  EXPECT_EQ(r.GetLowerBound(), 1.3);
  EXPECT_EQ(r.GetUpperBound(), 1.3);
  // Perfect fit: SE and interval 0.
  r = GZLInference::ComputeAncillaryRow(0.0, true, TQMV::Missing, z);
  EXPECT_EQ(r.GetStdError(), 0.0);
  EXPECT_EQ(r.GetLowerBound(), 0.0);
  EXPECT_EQ(r.GetUpperBound(), 0.0);
  // No curvature, wrong sign or a vanishing one: everything but the estimate missing.
  for (double bad : {0.0, 3.0, -1e-17, TQMV::Missing}) {
    r = GZLInference::ComputeAncillaryRow(phi, true, bad, z);
    EXPECT_EQ(r.GetEstimate(), phi);
    EXPECT_TRUE(Miss(r.GetStdError()) && Miss(r.GetLowerBound()) && Miss(r.GetWaldZ())) << bad;
  }
}

#include "inference/GZLOmnibusTest.h"

TEST(Omnibus, StatisticAndClosedFormNull) {
  double stat, df, sig;
  // Chi-square on 2 df has survival exp(-x/2).
  TQStatus st = GZLOmnibusTest::ComputeStatistic(-10.0, -15.0, 2.0, stat, df, sig);
  EXPECT_TRUE(st.IsOK());
  EXPECT_DOUBLE_EQ(stat, 10.0);
  EXPECT_EQ(df, 2.0);
  EXPECT_NEAR(sig, std::exp(-5.0), 1e-14);
  // A null model that fits better than the full one: error 130076, everything missing.
  st = GZLOmnibusTest::ComputeStatistic(-15.0, -10.0, 2.0, stat, df, sig);
  EXPECT_TRUE(st.IsError());
  EXPECT_EQ(st.GetErrorCode(), 130076);
  EXPECT_TRUE(Miss(stat) && Miss(df) && Miss(sig));
  st = GZLOmnibusTest::ComputeStatistic(TQMV::Missing, -10.0, 2.0, stat, df, sig);
  EXPECT_EQ(st.GetErrorCode(), 130094);
  // Same model on both sides (no effects): statistic 0 on 0 df.
  st = GZLOmnibusTest::ComputeStatistic(-10.0, -10.0, 0.0, stat, df, sig);
  EXPECT_TRUE(st.IsOK());
  EXPECT_EQ(stat, 0.0);
  EXPECT_EQ(df, 0.0);

  int thresholds = -1;
  const double ll = GZLOmnibusTest::OrdinalNullLogLikelihood({2.0, 0.0, 6.0, 2.0}, thresholds);
  EXPECT_EQ(thresholds, 2);
  EXPECT_NEAR(ll, 4.0 * std::log(0.2) + 6.0 * std::log(0.6), 1e-13);
  EXPECT_TRUE(Miss(GZLOmnibusTest::OrdinalNullLogLikelihood({0.0, 0.0}, thresholds)));
}
