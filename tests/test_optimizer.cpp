// The optimizer and the statistics factory on purpose-built data: stopping criteria, warnings,
// convergence rules, starting values, the information matrices against finite differences,
// progress reports and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "GZLModelEffect.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "IGZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "support/TQDisplay_940.h"

namespace {

using Rows = std::vector<std::vector<double>>;

// Field 0 is the response, fields 1.. the covariates (each its own effect), then optionally an
// offset field; intercept on.
struct Model {
  GZLSettings s;
  std::vector<int> vars;
  std::unique_ptr<GZLMemorySource> src;
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLDesignRowSource> rows;
  std::unique_ptr<GZLOptimizerForGZLM> opt;

  Model(TQConst::DistType dist, TQConst::LinkType link, int nCov, Rows data, int offsetField = -1) {
    s.SetDistType(dist);
    s.SetLinkType(link);
    s.SetScaleType(dist == TQConst::DistNormal || dist == TQConst::DistGamma ? GZLConst_940::ScaleMLE
                                                                             : GZLConst_940::ScaleFixed);
    s.SetDependent(0);
    if (dist == TQConst::DistBinomial) s.SetDependentRefCateg(0);
    s.SetInterceptUse(true);
    for (int c = 1; c <= nCov; ++c) {
      s.AddCovariate(c);
      vars.push_back(c);
    }
    for (int c = 1; c <= nCov; ++c) {
      GZLModelEffect e(0, nCov, &vars);
      e.AddCovariate(c);
      s.AddModelEffect(e);
    }
    if (offsetField >= 0) s.SetOffset(offsetField);
    src = std::make_unique<GZLMemorySource>(std::move(data));
  }
  // Dictionary pass and optimizer; Estimate is left to the caller.
  GZLOptimizerForGZLM& Prepare() {
    EXPECT_TRUE(s.IsValid());
    design = std::make_unique<GZLDesignMatrix>(s);
    TQStatus st;
    design->RunDictionaryPass(st, *src);
    EXPECT_FALSE(st.IsError());
    design->SetRecordSource(src.get());
    rows = std::make_unique<GZLDesignRowSource>(*design);
    opt = std::make_unique<GZLOptimizerForGZLM>(*rows, s);
    return *opt;
  }
  GZLOptimizerForGZLM& Fit() {
    Prepare().Estimate();
    return *opt;
  }
};

bool HasWarning(const GZLOptimizer& opt, int code) {
  const auto& w = opt.GetWarnings();
  return std::find(w.begin(), w.end(), TQStatus::Warning(code)) != w.end();
}

// y = 1 exactly when x > 0.
Rows SeparatedBinary() {
  Rows r;
  for (int i = -10; i <= 10; ++i)
    if (i != 0) r.push_back({i > 0 ? 1.0 : 0.0, i / 10.0});
  return r;
}

Rows PoissonData() {
  return {{2, 0.1}, {3, 0.4}, {6, 0.9}, {4, 0.5}, {9, 1.3}, {1, 0.0}, {12, 1.6}, {5, 0.7}, {0, -0.2}, {3, 0.3}};
}

Rows GammaData() {
  return {{1.2, 0.1}, {2.5, 0.4}, {3.1, 0.9}, {1.9, 0.5}, {6.0, 1.3}, {0.8, 0.0},
          {9.5, 1.6}, {2.2, 0.7}, {1.1, -0.2}, {1.7, 0.3}, {4.4, 1.1}, {3.3, 0.8}};
}

}  // namespace

TEST(Optimizer, NormalIdentityIsClosedFormAndPerfectFit) {
  // Noisy data: solved without iterations; the ML scale is RSS / N.
  {
    Model m(TQConst::DistNormal, TQConst::LinkIdentity, 1, {{1.0, 0}, {2.9, 1}, {5.2, 2}, {6.8, 3}, {9.1, 4}});
    auto& opt = m.Fit();
    ASSERT_TRUE(opt.GetStatus().IsOK());
    EXPECT_EQ(opt.GetIterationNumber(), 0);
    EXPECT_TRUE(opt.IsConverged());
    // Least squares by hand: slope = Sxy / Sxx, intercept = ybar - slope xbar.
    const double xs[] = {0, 1, 2, 3, 4}, ys[] = {1.0, 2.9, 5.2, 6.8, 9.1};
    double sxy = 0, sxx = 0;
    for (int i = 0; i < 5; ++i) {
      sxy += (xs[i] - 2) * (ys[i] - 5.0);
      sxx += (xs[i] - 2) * (xs[i] - 2);
    }
    const double slope = sxy / sxx, icpt = 5.0 - slope * 2;
    EXPECT_NEAR(opt.GetParamEstimates()[0], icpt, 1e-12);
    EXPECT_NEAR(opt.GetParamEstimates()[1], slope, 1e-12);
    double rss = 0;
    for (int i = 0; i < 5; ++i) rss += std::pow(ys[i] - icpt - slope * xs[i], 2);
    EXPECT_NEAR(opt.GetPhi(), rss / 5, 1e-12);
    // The Hessian handed out is that of the log-likelihood: -N/2 in log(phi) at the ML scale.
    EXPECT_NEAR(opt.GetHessian()(2, 2), -2.5, 1e-9);
  }
  // An exact line: the scale vanishes; covariance and Hessian are missing.
  {
    Model m(TQConst::DistNormal, TQConst::LinkIdentity, 1, {{2, 0}, {5, 1}, {8, 2}, {11, 3}});
    auto& opt = m.Fit();
    EXPECT_FALSE(opt.GetStatus().IsError());
    EXPECT_EQ(opt.GetPhi(), 0.0);
    EXPECT_TRUE(HasWarning(opt, GZLStatusCode::ScaleIsZero));
    EXPECT_TRUE(HasWarning(opt, GZLStatusCode::PerfectFit));
    EXPECT_TRUE(opt.IsPerfectFit());
    EXPECT_TRUE(TQMV::IsMissing(opt.GetInverseHessian()(0, 0)));
    EXPECT_TRUE(TQMV::IsMissing(opt.GetHessian()(1, 0)));
    EXPECT_NEAR(opt.GetParamEstimates()[1], 3.0, 1e-12);
  }
  // With a fixed scale the same line is no perfect-fit case.
  {
    Model m(TQConst::DistNormal, TQConst::LinkIdentity, 1, {{2, 0}, {5, 1}, {8, 2}, {11, 3}});
    m.s.SetScaleType(GZLConst_940::ScaleFixed);
    auto& opt = m.Fit();
    EXPECT_TRUE(opt.GetStatus().IsOK());
    EXPECT_FALSE(opt.IsPerfectFit());
    EXPECT_NEAR(-opt.GetInverseHessian()(1, 1), 1.0 / 5.0, 1e-12);  // 1 / Sxx
  }
}

TEST(Optimizer, IterationLimitAndNoIterations) {
  Model m(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  m.s.SetMaxIterations(1);
  auto& opt = m.Fit();
  EXPECT_EQ(opt.GetStoppingCriterion(), GZLConst_940::MaxIterationsReached);
  EXPECT_TRUE(HasWarning(opt, GZLStatusCode::LoopIterLargeMaxIter));
  EXPECT_EQ(opt.GetIterationNumber(), 1);
  EXPECT_FALSE(opt.IsConverged());

  Model z(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  z.s.SetMaxIterations(0);
  auto& none = z.Fit();
  EXPECT_EQ(none.GetStoppingCriterion(), GZLConst_940::NoIterations);
  EXPECT_EQ(none.GetIterationNumber(), 0);
  // The starting values themselves: estimates of the weighted least squares step, with a
  // covariance from the starting information.
  EXPECT_TRUE(none.IsEstimated());
  EXPECT_LT(none.GetInverseHessian()(1, 1), 0.0);
}

TEST(Optimizer, StepHalvingExhausted) {
  // Starting values far out: the Newton step from there overshoots and one halving does not
  // recover the log-likelihood; the previous estimates are kept.
  Model m(TQConst::DistBinomial, TQConst::LinkLogit, 1,
          {{1, 0.9}, {0, -0.8}, {1, 0.3}, {0, 0.2}, {1, -0.1}, {0, 0.6}, {1, 0.5}, {0, -0.4}});
  m.s.SetInitParams({0.0, 40.0});
  m.s.SetMaxStepHalvingValue(1);
  auto& opt = m.Fit();
  EXPECT_EQ(opt.GetStoppingCriterion(), GZLConst_940::StepHalvingExhausted);
  EXPECT_TRUE(HasWarning(opt, GZLStatusCode::StepHalvingProblem));
  EXPECT_EQ(opt.GetStepHalvingNumber(), 1);
  EXPECT_DOUBLE_EQ(opt.GetParamEstimates()[1], 40.0);
  EXPECT_EQ(opt.GetKernelLogLikelihood(), opt.GetStartLogLikelihood());
  // With enough halvings the same start converges.
  Model ok(TQConst::DistBinomial, TQConst::LinkLogit, 1,
           {{1, 0.9}, {0, -0.8}, {1, 0.3}, {0, 0.2}, {1, -0.1}, {0, 0.6}, {1, 0.5}, {0, -0.4}});
  ok.s.SetInitParams({0.0, 40.0});
  ok.s.SetMaxStepHalvingValue(30);
  EXPECT_EQ(ok.Fit().GetStoppingCriterion(), GZLConst_940::AllConverged);
}

TEST(Optimizer, CompleteAndQuasiCompleteSeparation) {
  Model m(TQConst::DistBinomial, TQConst::LinkLogit, 1, SeparatedBinary());
  m.s.SetCSIteration(1);
  auto& opt = m.Fit();
  EXPECT_EQ(opt.GetStoppingCriterion(), GZLConst_940::CompleteSeparation);
  EXPECT_TRUE(HasWarning(opt, GZLStatusCode::CompleteSeparation));
  EXPECT_GT(opt.GetStatFactory().GetMinObservedProb(), 0.99);

  // Tied records at x = 0 with both responses: no longer complete, but quasi-complete.
  Rows quasi = SeparatedBinary();
  quasi.push_back({0.0, 0.0});
  quasi.push_back({1.0, 0.0});
  Model q(TQConst::DistBinomial, TQConst::LinkLogit, 1, quasi);
  q.s.SetCSIteration(1);
  auto& qo = q.Fit();
  EXPECT_EQ(qo.GetStoppingCriterion(), GZLConst_940::QuasiCompleteSeparation);
  EXPECT_TRUE(HasWarning(qo, GZLStatusCode::QuasiCompleteSeparation));
  EXPECT_FALSE(HasWarning(qo, GZLStatusCode::CompleteSeparation));

  // Without a start iteration (the default 0) separation is never checked.
  Model off(TQConst::DistBinomial, TQConst::LinkLogit, 1, SeparatedBinary());
  auto& oo = off.Fit();
  EXPECT_NE(oo.GetStoppingCriterion(), GZLConst_940::CompleteSeparation);
  EXPECT_FALSE(HasWarning(oo, GZLStatusCode::CompleteSeparation));
}

TEST(Optimizer, HybridSwitchesToObservedInformation) {
  // Gamma with log link is not canonical: convergence under Fisher scoring is withdrawn once.
  Model m(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  m.s.SetHessianCompMethod(TQConst::HessianHybrid);
  m.s.SetFNIteration(50);
  auto& opt = m.Fit();
  EXPECT_EQ(opt.GetStoppingCriterion(), GZLConst_940::AllConverged);
  EXPECT_FALSE(opt.IsExpectedHessian());
  EXPECT_GT(opt.GetTotalIterations(), 50);
  EXPECT_LT(opt.GetIterationNumber(), 30);

  Model f(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  auto& fisher = f.Fit();
  EXPECT_TRUE(fisher.IsExpectedHessian());
  for (int j = 0; j < 2; ++j) EXPECT_NEAR(opt.GetParamEstimates()[j], fisher.GetParamEstimates()[j], 1e-5);

  // A canonical link never switches: expected and observed information coincide.
  Model p(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  p.s.SetHessianCompMethod(TQConst::HessianHybrid);
  p.s.SetFNIteration(50);
  EXPECT_LE(p.Fit().GetTotalIterations(), 50);
}

TEST(Optimizer, ConvergenceCriteria) {
  // Relative log-likelihood measure over a negative previous value: always met, so with the
  // parameter and Hessian criteria off the fit stops after one iteration, flagging the unmet
  // Hessian measure.
  Model rel(TQConst::DistBinomial, TQConst::LinkLogit, 1,
            {{1, 0.9}, {0, -0.8}, {1, 0.3}, {0, 0.2}, {1, -0.1}, {0, 0.6}, {1, 0.5}, {0, -0.4}});
  rel.s.SetLLConCriterion(1e-12);
  rel.s.SetLConvergeType(TQConst::ConvRelative);
  rel.s.SetParamEstConCriterion(0.0);
  rel.s.SetToleranceHessian(0.0);
  rel.s.SetInitParams({0.0, 3.0});
  auto& r = rel.Fit();
  EXPECT_LT(r.GetPrevKernelLogLikelihood(), 0.0);
  EXPECT_EQ(r.GetIterationNumber(), 1);
  EXPECT_TRUE(r.IsConverged());
  EXPECT_EQ(r.GetStoppingCriterion(), GZLConst_940::HessianCriterionUnmet);
  EXPECT_TRUE(HasWarning(r, GZLStatusCode::HessianCriterionUnmet));

  // The absolute measure needs several iterations for the same tolerance.
  Model abs(TQConst::DistBinomial, TQConst::LinkLogit, 1,
            {{1, 0.9}, {0, -0.8}, {1, 0.3}, {0, 0.2}, {1, -0.1}, {0, 0.6}, {1, 0.5}, {0, -0.4}});
  abs.s.SetLLConCriterion(1e-12);
  abs.s.SetParamEstConCriterion(0.0);
  abs.s.SetToleranceHessian(0.0);
  abs.s.SetInitParams({0.0, 3.0});
  auto& a = abs.Fit();
  EXPECT_GT(a.GetIterationNumber(), 2);
  EXPECT_EQ(a.GetStoppingCriterion(), GZLConst_940::AllConverged);

  // The Hessian criterion alone: g' H^-1 g below the tolerance at the last iteration.
  Model h(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  h.s.SetLLConCriterion(0.0);
  h.s.SetParamEstConCriterion(0.0);
  h.s.SetToleranceHessian(1e-12);
  auto& ho = h.Fit();
  EXPECT_TRUE(ho.IsConverged());
  // The stored matrices are Hessian and minus covariance: g' (-inverse) g is the measure.
  EXPECT_LT(-ho.GetInverseHessian().ComputeVSV(ho.GetGradient()), 1e-12);
}

TEST(Optimizer, InitialValues) {
  // Wrong count: P + 1 values without an estimated scale.
  Model w(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  w.s.SetInitParams({0.1, 0.2, 0.3});
  auto& wo = w.Fit();
  EXPECT_TRUE(wo.GetStatus().IsError());
  EXPECT_EQ(wo.GetStatus().GetErrorCode(), GZLStatusCode::InitialParameterNumberInvalid);
  EXPECT_FALSE(wo.IsEstimated());

  // P + 1 values with the scale estimated: the last is ignored; the fit equals the one from
  // data-driven starting values.
  Model g(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  g.s.SetInitParams({0.5, 0.5, 123.0});
  auto& go = g.Fit();
  ASSERT_FALSE(go.GetStatus().IsError());
  Model d(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  auto& dd = d.Fit();
  for (int j = 0; j < 2; ++j) EXPECT_NEAR(go.GetParamEstimates()[j], dd.GetParamEstimates()[j], 1e-5);
  EXPECT_NEAR(go.GetPhi(), dd.GetPhi(), 1e-5);
  EXPECT_TRUE(go.GetInitHessian().IsEmpty());
  EXPECT_EQ(dd.GetInitHessian().GetNumRows(), 3);  // X'WX with the working response appended

  // Scale and a distribution parameter both by maximum likelihood.
  Model b(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  b.s.SetDistParamType(GZLConst_940::DistParamMLE);
  auto& bo = b.Fit();
  EXPECT_EQ(bo.GetStatus().GetErrorCode(), GZLStatusCode::ScaleAndKBothMle);
  EXPECT_TRUE(bo.GetStatus().IsError());
}

TEST(Optimizer, RecordsInvalidForTheLink) {
  // Poisson with identity link from a start where the first record's mean is negative: that
  // record is refused (130072) and the fit goes on.
  Model some(TQConst::DistPoisson, TQConst::LinkIdentity, 1,
             {{0, 0}, {2, 1}, {3, 2}, {5, 3}, {6, 4}, {8, 5}, {9, 6}});
  some.s.SetInitParams({-1.0, 1.5});
  some.s.SetMaxIterations(1);
  auto& so = some.Fit();
  EXPECT_FALSE(so.GetStatus().IsError());
  EXPECT_TRUE(so.IsInvalidForLink());
  EXPECT_TRUE(HasWarning(so, GZLStatusCode::InvalidRecordsForLinkFunction));

  // Every mean negative at the start: no valid record, 130073 re-issued as a warning; no
  // estimates.
  Model all(TQConst::DistPoisson, TQConst::LinkIdentity, 1, {{1, 0}, {2, 1}, {3, 2}, {4, 3}});
  all.s.SetInitParams({-10.0, 0.0});
  auto& ao = all.Fit();
  EXPECT_EQ(ao.GetStatus().GetErrorCode(), GZLStatusCode::AllInvalidRecordsForLinkFunction);
  EXPECT_TRUE(ao.GetStatus().IsWarning());
  EXPECT_TRUE(HasWarning(ao, GZLStatusCode::AllInvalidRecordsForLinkFunction));
  EXPECT_TRUE(HasWarning(ao, GZLStatusCode::InvalidRecordsForLinkFunction));
  EXPECT_FALSE(ao.IsEstimated());

  // Through the algorithm: the status is 130073 and the model is not built.
  Model alg(TQConst::DistPoisson, TQConst::LinkIdentity, 1, {{1, 0}, {2, 1}, {3, 2}, {4, 3}});
  alg.s.SetInitParams({-10.0, 0.0});
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(alg.s, false));
  const TQStatus st = a->BuildModel(*alg.src);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::AllInvalidRecordsForLinkFunction);
  EXPECT_FALSE(a->IsModelBuilt());
}

namespace {

class CancelAfter : public TQQueryCancel {
 public:
  explicit CancelAfter(int n) : fLeft(n) {}
  bool IsCancelled() override { return --fLeft < 0; }
  int fLeft;
};

class Collect : public ProgressListener {
 public:
  void OnProgress(const ProgressReport& report) override {
    const auto& r = dynamic_cast<const GZLReporter&>(report);
    iterations.push_back(r.DiscreteMeasure("iterNum"));
    loglike.push_back(r.ScaleMeasure("loglike"));
    const std::vector<double>* est = r.VectorMeasure("paramEstim");
    sizes.push_back(est == nullptr ? -1 : static_cast<int>(est->size()));
  }
  std::vector<int> iterations;
  std::vector<double> loglike;
  std::vector<int> sizes;
};

}  // namespace

TEST(Optimizer, CancellationAndProgress) {
  // Cancelled in the middle of the iterations (the dictionary pass asks about 11 times, each
  // estimation pass 11 times for 10 records).
  Model m(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  CancelAfter cancel(60);
  m.s.SetCancelPointer(&cancel);
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(m.s, false));
  const TQStatus st = a->BuildModel(*m.src);
  EXPECT_TRUE(st.IsError());
  EXPECT_EQ(st.GetErrorCode(), 1);
  EXPECT_FALSE(a->IsModelBuilt());
  EXPECT_LT(cancel.fLeft, 0);

  // Progress every second iteration, plus the last one; full log-likelihoods.
  Model p(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  Collect listener;
  p.s.SetIterProgressListener(&listener);
  p.s.SetIterationFrequency(2);
  p.s.SetParamEstConCriterion(1e-12);
  auto& po = p.Fit();
  ASSERT_FALSE(listener.iterations.empty());
  for (std::size_t i = 0; i + 1 < listener.iterations.size(); ++i)
    EXPECT_EQ(listener.iterations[i], 2 * static_cast<int>(i + 1));
  EXPECT_EQ(listener.iterations.back(), po.GetIterationNumber());
  EXPECT_EQ(listener.sizes.back(), 2);
  po.PostEstimation();
  EXPECT_NEAR(listener.loglike.back(), po.GetFullLogLikelihood(), 1e-9);
  // A silent optimizer reports nothing.
  Collect silent;
  Model q(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  q.s.SetIterProgressListener(&silent);
  q.design = std::make_unique<GZLDesignMatrix>(q.s);
  TQStatus dst;
  q.design->RunDictionaryPass(dst, *q.src);
  q.design->SetRecordSource(q.src.get());
  GZLDesignRowSource rows(*q.design);
  GZLOptimizerForGZLM quiet(rows, q.s, false);
  quiet.Estimate();
  EXPECT_TRUE(silent.iterations.empty());
}

TEST(StatFactory, InformationAgainstFiniteDifferences) {
  // Observed information of a non-canonical link (gamma, log) and the row of log(phi) are
  // minus the derivatives of the gradient.
  Model m(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  m.Prepare();
  GZLStatFactory& f = m.opt->GetStatFactory();
  const std::vector<double> beta{0.4, 0.9};
  const double phi = 0.3;
  TQStatus st;
  f.ComputeLLGradHessian(st, beta, phi, false, false, false);
  ASSERT_TRUE(st.IsOK());
  const TQSymMatrix info = f.GetHessian();
  ASSERT_EQ(info.GetNumRows(), 3);
  const double h = 1e-6;
  for (int j = 0; j < 3; ++j) {
    std::vector<double> bp = beta, bm = beta;
    double pp = phi, pm = phi;
    if (j < 2) {
      bp[j] += h;
      bm[j] -= h;
    } else {
      pp = phi * std::exp(h);
      pm = phi * std::exp(-h);
    }
    f.ComputeLLGradHessian(st, bp, pp, false, false, false);
    const std::vector<double> gp = f.GetGradient();
    f.ComputeLLGradHessian(st, bm, pm, false, false, false);
    const std::vector<double> gm = f.GetGradient();
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(info(i, j), -(gp[i] - gm[i]) / (2 * h), 1e-5 * (1 + std::fabs(info(i, j))));
  }
  // The gradient is the derivative of the log-likelihood.
  f.ComputeLLGradHessian(st, beta, phi, false, false, false);
  const std::vector<double> g = f.GetGradient();
  for (int j = 0; j < 2; ++j) {
    std::vector<double> bp = beta, bm = beta;
    bp[j] += h;
    bm[j] -= h;
    f.ComputeLLGradHessian(st, bp, phi, true, true, false);
    const double lp = f.GetLogLikelihood();
    f.ComputeLLGradHessian(st, bm, phi, true, true, false);
    const double lm = f.GetLogLikelihood();
    EXPECT_NEAR(g[j], (lp - lm) / (2 * h), 1e-5 * (1 + std::fabs(g[j])));
  }
  // Expected information differs from the observed one away from the fit.
  f.ComputeLLGradHessian(st, beta, phi, true, false, true);
  EXPECT_EQ(f.GetHessian().GetNumRows(), 2);  // plain matrices
  EXPECT_GT(std::fabs(f.GetHessian()(1, 1) - info(1, 1)), 1e-3);
}

TEST(StatFactory, CompiledStepsMatchTheGenericStep) {
  struct Case {
    TQConst::DistType dist;
    TQConst::LinkType link;
    Rows data;
    GZLStatFactory::StepKind kind;
  };
  const std::vector<Case> cases{
      {TQConst::DistPoisson, TQConst::LinkLog, PoissonData(), GZLStatFactory::StepPoissonLog},
      {TQConst::DistGamma, TQConst::LinkLog, GammaData(), GZLStatFactory::StepGammaLog},
      {TQConst::DistBinomial, TQConst::LinkLogit, SeparatedBinary(), GZLStatFactory::StepBinomialLogit},
      {TQConst::DistNormal, TQConst::LinkIdentity, GammaData(), GZLStatFactory::StepNormalIdentity}};
  for (const auto& c : cases) {
    Model m(c.dist, c.link, 1, c.data);
    m.Prepare();
    GZLStatFactory& f = m.opt->GetStatFactory();
    EXPECT_EQ(f.GetStepKind(), c.kind);
    const std::vector<double> beta{0.2, 0.7};
    for (bool expected : {true, false}) {
      TQStatus st;
      f.SetUseGenericStep(false);
      f.ComputeLLGradHessian(st, beta, 0.8, expected, false, false);
      ASSERT_TRUE(st.IsOK());
      const double ll = f.GetLogLikelihood();
      const std::vector<double> g = f.GetGradient();
      const TQSymMatrix H = f.GetHessian();
      f.SetUseGenericStep(true);
      f.ComputeLLGradHessian(st, beta, 0.8, expected, false, false);
      EXPECT_EQ(ll, f.GetLogLikelihood());
      EXPECT_EQ(g, f.GetGradient());
      EXPECT_EQ(H, f.GetHessian());
    }
  }
}

TEST(StatFactory, CanonicalLinkIgnoresTheInformationType) {
  Model m(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  m.Prepare();
  GZLStatFactory& f = m.opt->GetStatFactory();
  TQStatus st;
  f.ComputeLLGradHessian(st, {0.3, 0.5}, 1.0, true, false, false);
  const TQSymMatrix expected = f.GetHessian();
  f.ComputeLLGradHessian(st, {0.3, 0.5}, 1.0, false, false, false);
  EXPECT_EQ(expected, f.GetHessian());
  // Binomial records fitted at exactly 0 or 1 (identity link) count as valid.
  Model b(TQConst::DistBinomial, TQConst::LinkIdentity, 1, {{1, 1.0}, {0, 0.0}, {1, 0.5}, {0, 0.25}});
  b.Prepare();
  GZLStatFactory& fb = b.opt->GetStatFactory();
  fb.ComputeLLGradHessian(st, {0.0, 1.0}, 1.0, true, false, false);
  EXPECT_TRUE(st.IsOK());
  EXPECT_EQ(fb.GetNumInvalidRecords(), 0);
  EXPECT_EQ(fb.GetNumValidRecords(), 4);
}

TEST(LLGradHessian, PassInverseAndUpdate) {
  Model m(TQConst::DistGamma, TQConst::LinkLog, 1, GammaData());
  auto& opt = m.Fit();
  ASSERT_TRUE(opt.IsEstimated());
  GZLLLGradHessian lgh(m.s, opt, *m.rows);
  std::vector<double> params = opt.GetParamEstimates();
  params.push_back(std::log(opt.GetPhi()));
  TQStatus st;
  double ll = 0.0;
  std::vector<double> g;
  TQSymMatrix H;
  lgh.ComputeLLGradHessian(st, params, opt.GetPhi(), TQMV::Missing, ll, g, H, false);
  ASSERT_FALSE(st.IsError());
  EXPECT_NEAR(ll, opt.GetKernelLogLikelihood(), 1e-9);
  ASSERT_EQ(g.size(), 3u);
  for (double gj : g) EXPECT_NEAR(gj, 0.0, 1e-5);
  EXPECT_LT(H(0, 0), 0.0);                    // Hessian of the log-likelihood
  EXPECT_GT(lgh.GetInformation()(0, 0), 0.0);  // the object keeps the information
  lgh.ComputeInverse(st);
  EXPECT_TRUE(st.IsOK());
  // A unit step from a displaced point goes back (nearly) to the maximum.
  std::vector<double> off = opt.GetParamEstimates();
  off[1] += 0.05;
  params = off;
  params.push_back(std::log(opt.GetPhi()));
  lgh.ComputeLLGradHessian(st, params, opt.GetPhi(), TQMV::Missing, ll, g, H, false);
  lgh.ComputeInverse(st);
  double phi = opt.GetPhi(), k = TQMV::Missing;
  lgh.UpdateParameters(st, off, phi, k, 1.0);
  EXPECT_TRUE(st.IsOK());
  EXPECT_NEAR(off[1], opt.GetParamEstimates()[1], 5e-3);
  // The moment estimate of the scale is positive.
  lgh.ComputeInitialScale(st, opt.GetParamEstimates());
  EXPECT_GT(lgh.GetInitialScale(), 0.0);
}

TEST(Optimizer, DisplayAndMultinomialSeam) {
  Model m(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  auto& opt = m.Fit();
  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    opt.Display();
  }
  const std::string text = out.str();
  EXPECT_EQ(text.rfind("GZLOptimizerForGZLM display start", 0), 0u);
  EXPECT_NE(text.find("GZLOptimizer display start"), std::string::npos);
  EXPECT_NE(text.find("Vector of parameter estimates"), std::string::npos);
  EXPECT_NE(text.find("Hessian matrix is computed using fish or not"), std::string::npos);
  EXPECT_NE(text.find("GZLStatFactory display start"), std::string::npos);
  const std::string last = "GZLOptimizerForGZLM display end";
  ASSERT_GE(text.size(), last.size() + 1);
  EXPECT_EQ(text.substr(text.size() - last.size() - 1), last + "\n");

  // A nominal model's pass goes through its accumulator: at zero parameters every one of the
  // three categories has probability 1/3.
  GZLSettings s;
  s.SetDistType(TQConst::DistNominalMultinomial);
  s.SetLinkType(TQConst::LinkLogit);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetDependentSize(3);
  s.SetInterceptUse(true);
  GZLMemorySource src({{0, 1}, {1, 2}, {2, 3}, {1, 1}, {0, 2}, {2, 2}});
  GZLDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, src);
  design.SetRecordSource(&src);
  GZLDesignRowSource rows(design);
  GZLStatFactory f(rows, s);
  f.ComputeLLGradHessian(st, std::vector<double>(static_cast<std::size_t>(f.GetNumParams()), 0.0), 1.0, true, false,
                         false);
  ASSERT_TRUE(st.IsOK()) << st.GetErrorCode();
  EXPECT_EQ(f.GetNumParams(), 2);
  EXPECT_NEAR(f.GetLogLikelihood(), 6.0 * std::log(1.0 / 3.0), 1e-14);
  EXPECT_EQ(f.GetNumValidRecords(), 6);
}

TEST(LLGradHessian, SeparationIsCheckedWhenDue) {
  Model m(TQConst::DistBinomial, TQConst::LinkLogit, 1, SeparatedBinary());
  m.s.SetCSIteration(3);
  m.s.SetMaxIterations(8);
  auto& opt = m.Fit();
  GZLLLGradHessian lgh(m.s, opt, *m.rows);
  TQStatus st;
  double ll = 0.0;
  std::vector<double> g;
  TQSymMatrix H;
  lgh.ComputeLLGradHessian(st, {0.0, 60.0}, 1.0, TQMV::Missing, ll, g, H, false);
  auto crit = GZLConst_940::NoCriterionSatisfied;
  // Not due before the start iteration, except for the check at the end of a short fit.
  lgh.CheckSeparation(st, 0, 2, false, crit);
  EXPECT_TRUE(st.IsOK());
  EXPECT_EQ(crit, GZLConst_940::NoCriterionSatisfied);
  lgh.CheckSeparation(st, 0, 3, false, crit);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::CompleteSeparation);
  EXPECT_EQ(crit, GZLConst_940::CompleteSeparation);
  crit = GZLConst_940::NoCriterionSatisfied;
  lgh.CheckSeparation(st, 0, 3, true, crit);
  EXPECT_TRUE(st.IsOK());
  lgh.CheckSeparation(st, 0, 2, true, crit);
  EXPECT_EQ(crit, GZLConst_940::CompleteSeparation);
}

TEST(Optimizer, ModelWithoutParameters) {
  // No intercept and no effect: the log-likelihood at mu = exp(offset) is the whole fit.
  GZLSettings s;
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetOffset(1);
  const Rows data{{2, 0.5}, {3, 1.0}, {7, 2.0}, {4, 1.5}, {1, 0.2}};
  GZLMemorySource src(data);
  GZLDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, src);
  design.SetRecordSource(&src);
  GZLDesignRowSource rows(design);
  ASSERT_EQ(rows.GetNumParameters(), 0);
  GZLOptimizerForGZLM opt(rows, s);
  st = opt.Estimate();
  ASSERT_FALSE(st.IsError()) << st.GetErrorCode();
  EXPECT_TRUE(opt.IsEstimated());
  opt.PostEstimation();
  double ll = 0.0;
  for (const auto& r : data) ll += r[0] * r[1] - std::exp(r[1]) - std::lgamma(r[0] + 1.0);
  EXPECT_NEAR(opt.GetFullLogLikelihood(), ll, 1e-10);
}

TEST(Optimizer, ScaledDesignIsMappedBack) {
  // Centred and scaled columns give the same model: estimates, covariance, Hessian and
  // log-likelihood of the design as specified agree with the fit of the unscaled design.
  const Rows data{{2, 0.1, 10}, {3, 0.4, 12}, {6, 0.9, 11}, {4, 0.5, 15}, {9, 1.3, 13},
                  {1, 0.0, 9},  {12, 1.6, 14}, {5, 0.7, 10}, {0, -0.2, 8}, {3, 0.3, 12}};
  for (auto dist : {TQConst::DistPoisson, TQConst::DistNormal}) {
    const auto link = dist == TQConst::DistPoisson ? TQConst::LinkLog : TQConst::LinkIdentity;
    Model plain(dist, link, 2, data);
    Model scaled(dist, link, 2, data);
    scaled.s.SetTransformEffects(true);
    auto& a = plain.Fit();
    auto& b = scaled.Fit();
    ASSERT_TRUE(a.IsEstimated());
    ASSERT_TRUE(b.IsEstimated());
    EXPECT_FALSE(a.IsRTransformed());
    ASSERT_TRUE(b.IsRTransformed());
    a.PostEstimation();
    b.PostEstimation();
    for (int j = 0; j < 3; ++j) {
      EXPECT_NEAR(b.GetParamEstimates()[j], a.GetParamEstimates()[j], 1e-8 * (1 + std::fabs(a.GetParamEstimates()[j])));
      for (int k = 0; k <= j; ++k) {
        EXPECT_NEAR(b.GetInverseHessian()(j, k), a.GetInverseHessian()(j, k), 1e-8 * (1 + std::fabs(a.GetInverseHessian()(j, k))));
        EXPECT_NEAR(b.GetHessian()(j, k), a.GetHessian()(j, k), 1e-7 * (1 + std::fabs(a.GetHessian()(j, k))));
      }
    }
    // The scaled estimates are different numbers for the same fit.
    EXPECT_GT(std::fabs(b.GetScaledParamEstimates()[1] - b.GetParamEstimates()[1]), 1e-3);
    EXPECT_NEAR(b.GetFullLogLikelihood(), a.GetFullLogLikelihood(), 1e-8);
    EXPECT_NEAR(b.GetDeviance(), a.GetDeviance(), 1e-8);
  }
}

TEST(Optimizer, RefitThroughTheAlgorithm) {
  // A second BuildModel refits from scratch: the warnings of the first fit do not linger.
  Model m(TQConst::DistPoisson, TQConst::LinkLog, 1, PoissonData());
  m.s.SetMaxIterations(1);
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(m.s, false));
  TQStatus st = a->BuildModel(*m.src);
  EXPECT_EQ(st, TQStatus::Warning(GZLStatusCode::LoopIterLargeMaxIter));
  EXPECT_TRUE(a->IsModelBuilt());
  const auto* first = dynamic_cast<const GZLOptimizerForGZLM*>(a->GetOptimizer());
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->GetIterationNumber(), 1);
  m.s.SetMaxIterations(100);
  m.src->Rewind();  // the host hands the source back at its start
  st = a->BuildModel(*m.src);
  EXPECT_TRUE(st.IsOK()) << st.GetErrorCode();
  EXPECT_TRUE(a->GetBuildModelWarnings().empty());
  const auto* second = dynamic_cast<const GZLOptimizerForGZLM*>(a->GetOptimizer());
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->GetStoppingCriterion(), GZLConst_940::AllConverged);
  EXPECT_GT(second->GetIterationNumber(), 1);
  // A source that cannot start over ends the fit with NewPass.
  GZLMemorySource once(PoissonData(), false);
  std::unique_ptr<IGZLAlgorithm> b(GZLFactory::CreateAlgorithm(m.s, false));
  st = b->BuildModel(once);
  EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::NewPass);
  EXPECT_FALSE(b->IsModelBuilt());
}

TEST(StatFactory, NegativeBinomialKRowAgainstFiniteDifferences) {
  // k estimated (log link): the row of log(k) in the information is minus the derivative of the
  // gradient in log(k), and the gradient's last entry the derivative of the log-likelihood.
  Model m(TQConst::DistNegBinomial, TQConst::LinkLog, 1, PoissonData());
  m.s.SetScaleType(GZLConst_940::ScaleFixed);
  m.s.SetDistParam(0.7);
  m.s.SetDistParamType(GZLConst_940::DistParamMLE);
  m.Prepare();
  GZLStatFactory& f = m.opt->GetStatFactory();
  const std::vector<double> beta{0.9, 0.8};
  const double k = 0.7, h = 1e-6;
  TQStatus st;
  f.SetDistParam(k);
  f.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
  ASSERT_TRUE(st.IsOK());
  const TQSymMatrix info = f.GetHessian();
  const std::vector<double> g = f.GetGradient();
  ASSERT_EQ(info.GetNumRows(), 3);
  f.SetDistParam(k * std::exp(h));
  f.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
  const std::vector<double> gp = f.GetGradient();
  const double lp = f.GetLogLikelihood();
  f.SetDistParam(k * std::exp(-h));
  f.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
  const std::vector<double> gm = f.GetGradient();
  const double lm = f.GetLogLikelihood();
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(info(i, 2), -(gp[i] - gm[i]) / (2 * h), 1e-5 * (1 + std::fabs(info(i, 2))));
  EXPECT_NEAR(g[2], (lp - lm) / (2 * h), 1e-5 * (1 + std::fabs(g[2])));
  // The fit itself converges with k moving on the log scale.
  f.SetDistParam(k);
  auto& opt = *m.opt;
  opt.Estimate();
  EXPECT_TRUE(opt.IsEstimated());
  EXPECT_GT(opt.GetK(), 0.0);
  EXPECT_NE(opt.GetK(), 0.7);
  EXPECT_EQ(opt.GetGradient().size(), 3u);
  for (double gj : opt.GetGradient()) EXPECT_NEAR(gj, 0.0, 1e-4);
}
