// Tweedie log-likelihood by the series method: the index-boundary pass, the series per record
// against a direct summation over far more terms, the all-zero pass, and the derivatives in
// log(phi) that the series moments give.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iomanip>
#include <memory>
#include <vector>

#include "GZLConst_940.h"
#include "families/GZLLogLikeFunc.h"
#include "support/TQMV.h"

namespace {

using TQMV::IsMissing;

::testing::AssertionResult RelNear(double actual, double expected, double tol) {
  if (IsMissing(actual)) return ::testing::AssertionFailure() << "missing, expected " << expected;
  const double err = std::fabs(actual - expected);
  if (err <= tol * std::fabs(expected)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << std::setprecision(17) << actual << " vs " << expected
                                       << " (relative error " << err / std::fabs(expected) << ")";
}

std::unique_ptr<GZLLogLikeTweedie> Make(double p) {
  return std::unique_ptr<GZLLogLikeTweedie>(
      dynamic_cast<GZLLogLikeTweedie*>(CreateLogLikeFunction(TQConst::DistTweedie, 0.0, p, TQConst::LinkLog)));
}

// The log density of one record, summing the series in extended precision from j = 1 to twenty
// times its peak index plus 200, far beyond any term that matters.
double DirectLogDensity(double y, double mu, double phi, double omega, double p) {
  using LD = long double;
  const LD ph = static_cast<LD>(phi) / omega;
  const LD P = p;
  const LD lmu = std::log(static_cast<LD>(mu));
  const LD mu1p = std::exp((1 - P) * lmu), mu2p = std::exp((2 - P) * lmu);
  if (y == 0.0) return static_cast<double>(-mu2p / ((2 - P) * ph));
  const LD Y = y;
  const LD a = (2 - P) / (1 - P);
  const LD lz = -a * std::log(Y) + a * std::log(P - 1) - (1 - a) * std::log(ph) - std::log(2 - P);
  const LD jmax = std::pow(Y, 2 - P) / ((2 - P) * ph);
  const long jEnd = static_cast<long>(std::ceil(20 * std::max(jmax, LD(1)) + 200));
  std::vector<LD> terms(static_cast<std::size_t>(jEnd));
  LD mx = -INFINITY;
  for (long j = 1; j <= jEnd; ++j) {
    const LD t = j * lz - std::lgamma(LD(j) + 1) - std::lgamma(-a * j);
    terms[static_cast<std::size_t>(j - 1)] = t;
    mx = std::max(mx, t);
  }
  LD s = 0;
  for (LD t : terms) s += std::exp(t - mx);
  const LD logW = mx + std::log(s);
  return static_cast<double>((Y * mu1p / (1 - P) - mu2p / (2 - P)) / ph + logW - std::log(Y));
}

struct Rec {
  double y, omega;
};

double FullLL(GZLLogLikeTweedie& ll, double y, double mu, double f, double omega) {
  ll.ClearSums();
  if (IsMissing(ll.AddKernel(y, mu, f, omega))) return TQMV::Missing;
  if (IsMissing(ll.AddConstant(y, f, omega, 1.0, 0.0))) return TQMV::Missing;
  return ll.GetFull();
}

TEST(TweedieSeries, MatchesDirectSummation) {
  const std::vector<double> ys = {0.0, 1e-3, 0.05, 0.7, 1.0, 0.0, 3.5, 20.0, 150.0, 2000.0};
  const std::vector<double> omegas = {1.0, 2.5, 0.6};
  std::vector<Rec> recs;
  for (std::size_t i = 0; i < ys.size(); ++i) recs.push_back({ys[i], omegas[i % omegas.size()]});
  std::vector<double> y(recs.size()), w(recs.size());
  for (std::size_t i = 0; i < recs.size(); ++i) y[i] = recs[i].y, w[i] = recs[i].omega;

  int checked = 0;
  for (double p : {1.1, 1.5, 1.9}) {
    auto ll = Make(p);
    for (double phi : {0.4, 1.3, 5.0}) {
      // One pass over all records: one index range for all of them.
      ll->SetPhi(phi);
      ASSERT_TRUE(ll->ComputeIndexBoundaries(y.data(), w.data(), y.size()).IsOK());
      ASSERT_TRUE(ll->HasIndexBoundaries());
      EXPECT_GE(ll->GetLowerIndexBoundary(), 1);
      EXPECT_GT(ll->GetUpperIndexBoundary(), ll->GetLowerIndexBoundary());
      for (const Rec& r : recs)
        for (double mu : {0.3, 2.0, 15.0, 400.0}) {
          const double ref = DirectLogDensity(r.y, mu, phi, r.omega, p);
          EXPECT_TRUE(RelNear(FullLL(*ll, r.y, mu, 1.0, r.omega), ref, 1e-10))
              << "p " << p << " phi " << phi << " y " << r.y << " mu " << mu;
          EXPECT_TRUE(RelNear(FullLL(*ll, r.y, mu, 2.5, r.omega), 2.5 * ref, 1e-10));
          ++checked;
        }
      // A pass of its own for each record: the tightest index range.
      for (const Rec& r : recs) {
        if (r.y == 0.0) continue;
        ASSERT_TRUE(ll->ComputeIndexBoundaries(&r.y, &r.omega, 1).IsOK());
        const double ref = DirectLogDensity(r.y, 2.0, phi, r.omega, p);
        EXPECT_TRUE(RelNear(FullLL(*ll, r.y, 2.0, 1.0, r.omega), ref, 1e-10))
            << "alone: p " << p << " phi " << phi << " y " << r.y;
      }
    }
  }
  EXPECT_EQ(checked, 3 * 3 * 10 * 4);
}

TEST(TweedieSeries, BoundariesKeepEveryTermThatMatters) {
  // Around the index range the terms left out are below exp(-37) of the largest term, for the
  // records that set each end.
  for (double p : {1.1, 1.5, 1.9})
    for (double phi : {0.05, 1.0}) {
      auto ll = Make(p);
      ll->SetPhi(phi);
      const std::vector<double> y = {0.02, 3.0, 40.0};
      ASSERT_TRUE(ll->ComputeIndexBoundaries(y.data(), nullptr, y.size()).IsOK());
      const double a = ll->GetAlpha();
      const auto logWj = [&](double yy, double j) {
        const double lz = -a * std::log(yy) + a * std::log(p - 1) - (1 - a) * std::log(phi) - std::log(2 - p);
        return j * lz - std::lgamma(j + 1) - std::lgamma(-a * j);
      };
      const auto peak = [&](double yy) {
        double m = -INFINITY;
        for (int j = 1; j < 100000; ++j) m = std::max(m, logWj(yy, j));
        return m;
      };
      const double lo = static_cast<double>(ll->GetLowerIndexBoundary());
      const double hi = static_cast<double>(ll->GetUpperIndexBoundary());
      EXPECT_LT(logWj(40.0, hi + 1) - peak(40.0), -30.0) << p << " " << phi;
      if (lo > 1) {
        EXPECT_LT(logWj(0.02, lo - 1) - peak(0.02), -30.0) << p << " " << phi;
      }
      // ... and the range is no wider than the margin asks: one index inside the upper end the
      // largest record's term is still above exp(-37) of its Stirling peak, give or take the
      // few units that Stirling's form leaves out.
      EXPECT_GT(logWj(40.0, hi - 1) - peak(40.0), -45.0) << p << " " << phi;
    }
}

TEST(TweedieSeries, ZeroResponsesAndFailingPasses) {
  const double p = 1.6, phi = 1.7;
  auto ll = Make(p);
  ll->SetPhi(phi);

  // Before any boundary pass a positive response cannot be summed.
  EXPECT_TRUE(IsMissing(ll->AddKernel(2.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(ll->GetParamDeriv(1.0, 2.0, 1.0, 1.0)));

  // A pass with only zero responses succeeds and leaves the boundaries unset.
  const std::vector<double> zeros = {0.0, 0.0, 0.0};
  const std::vector<double> w = {1.0, 2.0, 0.5};
  ASSERT_TRUE(ll->ComputeIndexBoundaries(zeros.data(), w.data(), zeros.size()).IsOK());
  EXPECT_EQ(ll->GetLowerIndexBoundary(), -1);
  EXPECT_EQ(ll->GetUpperIndexBoundary(), -1);
  ll->ClearSums();
  double expected = 0.0;
  for (std::size_t i = 0; i < zeros.size(); ++i) {
    const double mu = 0.5 + i, f = 1.0 + i;
    const double z = (w[i] / phi) * f * std::pow(mu, 2 - p) / (2 - p);
    expected -= z;
    EXPECT_DOUBLE_EQ(ll->AddKernel(0.0, mu, f, w[i]), expected);
    EXPECT_DOUBLE_EQ(ll->GetParamDeriv(mu, 0.0, f, w[i]), z);
    EXPECT_DOUBLE_EQ(ll->GetParamDeriv2(mu, 0.0, f, w[i]), -z);
    EXPECT_EQ(ll->AddConstant(0.0, f, w[i], 1.0, 0.0), 0.0);
  }
  EXPECT_EQ(ll->AddKernel(0.0, 0.0, 1.0, 1.0), expected);  // mu = 0 adds 0
  EXPECT_TRUE(IsMissing(ll->AddKernel(2.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(ll->AddKernel(0.0, -1.0, 1.0, 1.0)));  // no real power of a negative mean
  EXPECT_TRUE(IsMissing(ll->AddConstant(-1.0, 1.0, 1.0, 1.0, 0.0)));

  // A good pass sets the boundaries; a later pass in which nothing qualifies fails with 130073
  // and leaves them where they were.
  const std::vector<double> good = {0.0, 1.5, 4.0};
  ASSERT_TRUE(ll->ComputeIndexBoundaries(good.data(), nullptr, good.size()).IsOK());
  const auto lower = ll->GetLowerIndexBoundary(), upper = ll->GetUpperIndexBoundary();
  ASSERT_NE(lower, -1);
  const std::vector<double> bad = {0.0, 2.0, -1.0};
  const std::vector<double> badW = {1.0, 0.0, 1.0};  // the positive response has omega = 0
  const TQStatus s = ll->ComputeIndexBoundaries(bad.data(), badW.data(), bad.size());
  EXPECT_TRUE(s.IsError());
  EXPECT_EQ(s.GetErrorCode(), GZLStatusCode::AllInvalidRecordsForLinkFunction);
  EXPECT_EQ(ll->GetLowerIndexBoundary(), lower);
  EXPECT_EQ(ll->GetUpperIndexBoundary(), upper);
  const std::vector<double> negative = {-2.0};
  EXPECT_EQ(ll->ComputeIndexBoundaries(negative.data(), nullptr, 1).GetErrorCode(),
            GZLStatusCode::AllInvalidRecordsForLinkFunction);

  // A record that was not in the pass is summed over the pass's range all the same; a kernel
  // with omega <= 0 or mu = 0 is missing.
  ll->ClearSums();
  EXPECT_FALSE(IsMissing(ll->AddKernel(2.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(ll->AddKernel(2.0, 1.0, 1.0, 0.0)));
  EXPECT_TRUE(IsMissing(ll->AddKernel(2.0, 0.0, 1.0, 1.0)));
  // A power outside (1, 2) has no series.
  auto outside = Make(2.2);
  EXPECT_EQ(outside->ComputeIndexBoundaries(good.data(), nullptr, good.size()).GetErrorCode(),
            GZLStatusCode::AllInvalidRecordsForLinkFunction);
  EXPECT_TRUE(IsMissing(outside->AddKernel(0.0, 1.0, 1.0, 1.0)));
}

TEST(TweedieSeries, ParamDerivativesMatchFiniteDifferences) {
  const std::vector<double> ys = {0.0, 0.04, 0.8, 2.0, 9.0, 60.0};
  for (double p : {1.1, 1.5, 1.9})
    for (double phi : {0.3, 1.3, 4.0})
      for (double y : ys)
        for (double mu : {0.5, 3.0}) {
          const double f = 1.5, w = 2.0;
          auto ll = Make(p);
          const std::vector<double> ws(ys.size(), w);
          auto kernel = [&](double theta) {
            ll->Reset(std::exp(theta));
            ll->ComputeIndexBoundaries(ys.data(), ws.data(), ys.size());
            return ll->AddKernel(y, mu, f, w);
          };
          auto first = [&](double h) { return (kernel(std::log(phi) + h) - kernel(std::log(phi) - h)) / (2 * h); };
          auto second = [&](double h) {
            return (kernel(std::log(phi) + h) - 2 * kernel(std::log(phi)) + kernel(std::log(phi) - h)) / (h * h);
          };
          // The kernel's higher derivatives in log(phi) grow with the series' spread, so the step
          // is small; one Richardson step removes the h^2 error.
          const double h = 2e-3;
          const double d1 = (4 * first(h / 2) - first(h)) / 3;
          const double d2 = (4 * second(h / 2) - second(h)) / 3;
          ASSERT_FALSE(IsMissing(kernel(std::log(phi))));  // caches this record's series
          EXPECT_TRUE(RelNear(ll->GetParamDeriv(mu, y, f, w), d1, 1e-6)) << p << " " << phi << " " << y << " " << mu;
          EXPECT_TRUE(RelNear(ll->GetParamDeriv2(mu, y, f, w), d2, 1e-6)) << p << " " << phi << " " << y << " " << mu;
        }
}

TEST(TweedieSeries, WideIndexRangesAgreeWithNarrowOnes) {
  // A pass whose range is too wide to keep its log-gamma constants evaluates them per record;
  // the result must not depend on which way the series was summed.
  const double p = 1.5, phi = 1e-3;
  const std::vector<double> y = {1.0, 1.21e6};  // peaks near 2e3 and 2.2e6
  auto wide = Make(p);
  wide->SetPhi(phi);
  ASSERT_TRUE(wide->ComputeIndexBoundaries(y.data(), nullptr, y.size()).IsOK());
  ASSERT_GT(wide->GetUpperIndexBoundary() - wide->GetLowerIndexBoundary(), int64_t{1} << 21);
  for (double yy : y) {
    auto narrow = Make(p);
    narrow->SetPhi(phi);
    ASSERT_TRUE(narrow->ComputeIndexBoundaries(&yy, nullptr, 1).IsOK());
    const double mu = yy * 1.1;
    const double ref = FullLL(*narrow, yy, mu, 1.0, 1.0);
    EXPECT_TRUE(RelNear(FullLL(*wide, yy, mu, 1.0, 1.0), ref, 1e-10)) << yy;
    EXPECT_TRUE(RelNear(wide->GetParamDeriv(mu, yy, 1.0, 1.0), narrow->GetParamDeriv(mu, yy, 1.0, 1.0), 1e-8));
  }
}

}  // namespace
