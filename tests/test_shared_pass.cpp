// The batched information update and the passes shared with a second thread must give the
// sums of the plain one-thread pass (up to rounding), whatever share of the records each
// thread takes, and must stop cleanly when cancelled.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "GZLMemorySource.h"
#include "GZLModelEffect.h"
#include "GZLProgress.h"
#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLRankOne.h"
#include "estimation/GZLStatFactory.h"
#include "support/TQSymMatrix.h"

namespace {

double RelDiff(double a, double b) { return std::fabs(a - b) / std::max(1.0, std::max(std::fabs(a), std::fabs(b))); }

double MaxRelDiff(const TQSymMatrix& a, const TQSymMatrix& b) {
  if (a.GetNumRows() != b.GetNumRows()) return 1e300;
  double d = 0.0;
  for (int i = 0; i < a.GetNumRows(); ++i)
    for (int j = 0; j <= i; ++j) d = std::max(d, RelDiff(a(i, j), b(i, j)));
  return d;
}

// Records of a model with an intercept, three covariates and a factor of four levels (columns
// 0-3 dense, 4-7 one level set), with some zeros among the covariates.
TEST(BatchedRankOne, MatchesThePlainUpdate) {
  const int n = 8;
  std::mt19937 rng(7);
  std::normal_distribution<double> normal;
  TQSymMatrix plain(n), batched(n);
  std::vector<std::size_t> rowStart(n);
  for (int i = 0; i < n; ++i) rowStart[static_cast<std::size_t>(i)] = TQSymMatrix::Index(i, 0);
  GZLBatchedRankOne batch(n);
  batch.SetDense(batched.Data(), 4);
  // 150 records: two full batches and a partial one; the leading width changes once midway.
  for (int r = 0; r < 150; ++r) {
    if (r == 100) batch.SetDense(batched.Data(), 3);
    const int D = batch.GetDense();
    std::vector<double> x(n, 0.0);
    x[0] = 1.0;
    for (int j = 1; j < 4; ++j) x[static_cast<std::size_t>(j)] = (r % 7 == j) ? 0.0 : normal(rng);
    x[static_cast<std::size_t>(4 + r % 4)] = 1.0;
    const double W = (r % 5 == 0) ? -0.3 : 0.5 + 0.01 * r;  // observed information may be negative
    std::vector<int> idx, tailIdx;
    std::vector<double> val, tailVal;
    for (int j = 0; j < n; ++j) {
      if (x[static_cast<std::size_t>(j)] == 0.0) continue;
      idx.push_back(j);
      val.push_back(x[static_cast<std::size_t>(j)]);
      if (j >= D) {
        tailIdx.push_back(j);
        tailVal.push_back(x[static_cast<std::size_t>(j)]);
      }
    }
    GZLSparseRankOneUpdate(plain.Data(), rowStart.data(), idx.data(), val.data(), static_cast<int>(idx.size()), W);
    batch.Add(batched.Data(), x.data(), tailIdx.data(), tailVal.data(), static_cast<int>(tailIdx.size()), W);
  }
  batch.Flush(batched.Data());
  EXPECT_LT(MaxRelDiff(plain, batched), 1e-13);
  // A flush with nothing pending changes nothing.
  const TQSymMatrix before = batched;
  batch.Flush(batched.Data());
  EXPECT_EQ(MaxRelDiff(before, batched), 0.0);
}

struct ModelCase {
  TQConst::DistType dist;
  TQConst::LinkType link;
  GZLConst_940::ScaleMethod scale;
};

// y, x1, x2, x3, factor A (5 levels): n records with a response suited to the distribution.
std::vector<std::vector<double>> MakeRecords(const ModelCase& c, int n) {
  std::mt19937_64 rng(20261123);
  std::normal_distribution<double> normal(0.0, 0.5);
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < n; ++i) {
    const double x1 = normal(rng), x2 = normal(rng), x3 = (i % 11 == 0) ? 0.0 : normal(rng);
    const int a = static_cast<int>(rng() % 5);
    const double eta = 0.3 + 0.4 * x1 - 0.2 * x2 + 0.1 * x3 + 0.1 * a;
    double y = 0.0;
    switch (c.dist) {
      case TQConst::DistPoisson:
        y = std::poisson_distribution<int>(std::exp(eta))(rng);
        break;
      case TQConst::DistBinomial:
        y = std::bernoulli_distribution(1.0 / (1.0 + std::exp(-eta)))(rng) ? 1.0 : 0.0;
        break;
      case TQConst::DistGamma:
        y = std::gamma_distribution<double>(2.0, std::exp(eta) / 2.0)(rng);
        break;
      case TQConst::DistOrdinalMultinomial: {
        // Four ordered categories cut from a logistic latent variable.
        const double u = std::uniform_real_distribution<double>(1e-12, 1.0)(rng);
        const double latent = eta + std::log(u / (1.0 - u));
        y = (latent > -0.5) + (latent > 0.5) + (latent > 1.2);
        break;
      }
      case TQConst::DistNominalMultinomial: {
        // Three categories, the last the reference.
        const double e0 = std::exp(eta), e1 = std::exp(-eta), u = std::uniform_real_distribution<double>()(rng);
        const double total = 1.0 + e0 + e1;
        y = u < e0 / total ? 0.0 : (u < (e0 + e1) / total ? 1.0 : 2.0);
        break;
      }
      default:
        y = eta + normal(rng);
        break;
    }
    rows.push_back({y, x1, x2, x3, static_cast<double>(a)});
  }
  return rows;
}

GZLSettings MakeSettings(const ModelCase& c) {
  GZLSettings s;
  s.SetDistType(c.dist);
  s.SetLinkType(c.link);
  s.SetScaleType(c.scale);
  s.SetDependent(0);
  if (c.dist == TQConst::DistBinomial) s.SetDependentRefCateg(0);
  if (c.dist == TQConst::DistOrdinalMultinomial) s.SetDependentSize(4);
  if (c.dist == TQConst::DistNominalMultinomial) {
    s.SetDependentSize(3);
    s.SetDependentRefCateg(2);
  }
  s.SetInterceptUse(true);
  s.AddFactor(4, 5);
  static std::vector<int> vars{4, 1, 2, 3};
  for (int f = 1; f <= 3; ++f) {
    s.AddCovariate(f);
    GZLModelEffect e(1, 3, &vars);
    e.AddCovariate(f);
    s.AddModelEffect(e);
  }
  GZLModelEffect fac(1, 3, &vars);
  fac.AddNewFactor(4, false);
  s.AddModelEffect(fac);
  return s;
}

const ModelCase kCases[] = {
    {TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleFixed},
    {TQConst::DistBinomial, TQConst::LinkLogit, GZLConst_940::ScaleFixed},
    {TQConst::DistNormal, TQConst::LinkIdentity, GZLConst_940::ScaleMLE},
    {TQConst::DistGamma, TQConst::LinkLog, GZLConst_940::ScaleMLE},
    {TQConst::DistOrdinalMultinomial, TQConst::LinkCumLogit, GZLConst_940::ScaleFixed},
    {TQConst::DistNominalMultinomial, TQConst::LinkLogit, GZLConst_940::ScaleFixed},
};

// One pass of every compiled step and of both multinomial accumulators, alone and shared
// (forced on these 3000 records), with the expected and the observed information and the
// log-likelihood alone.
TEST(SharedPass, GivesTheSumsOfOneThread) {
  const bool twoCores = std::thread::hardware_concurrency() >= 2;
  for (const ModelCase& c : kCases) {
    SCOPED_TRACE(static_cast<int>(c.dist));
    GZLSettings s = MakeSettings(c);
    ASSERT_TRUE(s.IsValid());
    GZLMemorySource src(MakeRecords(c, 3000));
    GZLDesignMatrix design(s);
    TQStatus st;
    design.RunDictionaryPass(st, src);
    ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
    design.SetRecordSource(&src);
    GZLDesignRowSource rows(design);
    GZLStatFactory alone(rows, s), shared(rows, s);
    alone.SetParallelThreshold(-1.0);
    shared.SetParallelThreshold(0.0);
    TQBitSet inModel(alone.GetNumParams(), true);
    inModel.Clear(alone.GetNumParams() - 1);  // the last level aliased, as in a fit
    alone.SetRedundancy(inModel);
    shared.SetRedundancy(inModel);
    std::vector<double> beta(static_cast<std::size_t>(alone.GetNumParams()), 0.02);
    beta[0] = c.dist == TQConst::DistGamma ? 0.5 : 0.1;
    if (c.dist == TQConst::DistOrdinalMultinomial) beta = {-0.5, 0.2, 0.9, 0.3, -0.1, 0.05, 0.1, 0.0, -0.1, 0.2, 0.0};
    for (int variant = 0; variant < 3; ++variant) {
      const bool expected = variant != 1, llOnly = variant == 2;
      TQStatus a, b;
      alone.ComputeLLGradHessian(a, beta, 1.3, expected, llOnly, false);
      shared.ComputeLLGradHessian(b, beta, 1.3, expected, llOnly, false);
      ASSERT_TRUE(a.IsOK()) << a.GetErrorCode();
      ASSERT_EQ(a.GetErrorCode(), b.GetErrorCode());
      EXPECT_FALSE(alone.WasLastPassParallel());
      if (twoCores) {
        EXPECT_TRUE(shared.WasLastPassParallel());
      }
      EXPECT_LT(RelDiff(alone.GetLogLikelihood(), shared.GetLogLikelihood()), 1e-13);
      EXPECT_EQ(alone.GetNumValidRecords(), shared.GetNumValidRecords());
      EXPECT_EQ(alone.GetNumInvalidRecords(), shared.GetNumInvalidRecords());
      EXPECT_EQ(alone.GetNumFlaggedRows(), shared.GetNumFlaggedRows());
      EXPECT_LT(RelDiff(alone.GetSumFittedMeans(), shared.GetSumFittedMeans()), 1e-12);
      EXPECT_EQ(alone.GetMinObservedProb(), shared.GetMinObservedProb());
      EXPECT_EQ(alone.GetMaxObservedProb(), shared.GetMaxObservedProb());
      EXPECT_EQ(alone.GetMinProb(), shared.GetMinProb());
      if (llOnly) continue;
      ASSERT_EQ(alone.GetGradient().size(), shared.GetGradient().size());
      for (std::size_t j = 0; j < alone.GetGradient().size(); ++j)
        EXPECT_LT(RelDiff(alone.GetGradient()[j], shared.GetGradient()[j]), 1e-11) << j;
      EXPECT_LT(MaxRelDiff(alone.GetHessian(), shared.GetHessian()), 1e-12);
    }
    // The design's cross-products (the hypotheses of the tests of effects, a multinomial fit's
    // starting redundancy) too.
    const bool leadingOne = c.dist == TQConst::DistOrdinalMultinomial;
    TQSymMatrix xxAlone, xxShared;
    TQStatus x1, x2;
    alone.ComputeCrossProducts(x1, xxAlone, leadingOne);
    shared.ComputeCrossProducts(x2, xxShared, leadingOne);
    ASSERT_TRUE(x1.IsOK() && x2.IsOK());
    if (twoCores) {
      EXPECT_TRUE(shared.WasLastPassParallel());
    }
    EXPECT_EQ(xxAlone.GetNumRows(), alone.GetRowWidth() + (leadingOne ? 1 : 0));
    EXPECT_LT(MaxRelDiff(xxAlone, xxShared), 1e-12);
    // The same shared pass twice gives the same sums to the last bit: which thread takes which
    // records does not depend on timing.
    TQStatus b1, b2;
    shared.ComputeLLGradHessian(b1, beta, 1.0, true, false, false);
    const double ll = shared.GetLogLikelihood();
    const TQSymMatrix h = shared.GetHessian();
    shared.ComputeLLGradHessian(b2, beta, 1.0, true, false, false);
    EXPECT_EQ(ll, shared.GetLogLikelihood());
    EXPECT_EQ(MaxRelDiff(h, shared.GetHessian()), 0.0);
  }
}

// A whole fit with shared passes reaches the estimates of the one-thread fit.
TEST(SharedPass, WholeFitAgrees) {
  for (const ModelCase& c : kCases) {
    SCOPED_TRACE(static_cast<int>(c.dist));
    GZLSettings s = MakeSettings(c);
    GZLMemorySource src(MakeRecords(c, 2000));
    auto fit = [&](double threshold, std::vector<double>& estimates, double& deviance) {
      GZLDesignMatrix design(s);
      TQStatus st;
      src.Rewind();
      design.RunDictionaryPass(st, src);
      design.SetRecordSource(&src);
      GZLDesignRowSource rows(design);
      GZLOptimizerForGZLM opt(rows, s, false);
      opt.GetStatFactory().SetParallelThreshold(threshold);
      const TQStatus e = opt.Estimate();
      ASSERT_FALSE(e.IsError()) << e.GetErrorCode();
      const TQStatus p = opt.PostEstimation();
      ASSERT_FALSE(p.IsError()) << p.GetErrorCode();
      estimates = opt.GetParamEstimates();
      deviance = opt.GetDeviance();
    };
    std::vector<double> one, two;
    double d1 = 0.0, d2 = 0.0;
    fit(-1.0, one, d1);
    fit(0.0, two, d2);
    ASSERT_EQ(one.size(), two.size());
    for (std::size_t j = 0; j < one.size(); ++j) EXPECT_NEAR(one[j], two[j], 1e-9) << j;
    EXPECT_LT(RelDiff(d1, d2), 1e-10);
  }
}

class CancelAfter final : public TQQueryCancel {
 public:
  explicit CancelAfter(int polls) : fLeft(polls) {}
  bool IsCancelled() override { return --fLeft < 0; }

 private:
  int fLeft;
};

// Cancelled midway, a shared pass ends with status 1 and leaves the factory usable.
TEST(SharedPass, CancelledMidway) {
  const ModelCase c = kCases[0];
  GZLSettings s = MakeSettings(c);
  GZLMemorySource src(MakeRecords(c, 3000));
  GZLDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, src);
  design.SetRecordSource(&src);
  GZLDesignRowSource rows(design);
  GZLStatFactory shared(rows, s);
  shared.SetParallelThreshold(0.0);
  const std::vector<double> beta(static_cast<std::size_t>(shared.GetNumParams()), 0.01);
  CancelAfter cancel(1500);
  s.SetCancelPointer(&cancel);
  shared.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
  EXPECT_EQ(st.GetErrorCode(), 1);
  s.SetCancelPointer(nullptr);
  shared.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
  EXPECT_TRUE(st.IsOK());
  EXPECT_EQ(shared.GetNumValidRecords(), 3000);
}

}  // namespace
