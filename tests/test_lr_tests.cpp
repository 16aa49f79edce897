// Inference that refits: likelihood-ratio tests of effects (type I and III), profile likelihood
// intervals and Lagrange multiplier tests against the reference figures; the constrained
// estimation on its own; statuses of perfect fits and of profiles that cannot close;
// cancellation and progress of the refit loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLLagrangeMultiplierTest.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLSeqQuad.h"
#include "families/GZLDevianceFunc.h"
#include "families/GZLLogLikeFunc.h"
#include "inference/GZLLRStats.h"
#include "output_reference_models.h"

using output_test::LoadCase;
using output_test::ReferenceCase;
using output_test::TableSource;

namespace {

// Relative 1e-6, absolute 1e-9 near zero: the tolerance of the reference figures.
void ExpectClose(const nlohmann::json& expected, double actual, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_TRUE(TQMV::IsMissing(actual)) << what << ": engine " << actual << ", reference null";
    return;
  }
  const double e = expected.get<double>();
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - e), std::max(1e-9, 1e-6 * std::fabs(e))) << what << ": engine " << actual
                                                                          << ", reference " << e;
}

// The refit and profile tolerances tightened so that the figures can be compared.
void AskForRefits(GZLSettings& s) {
  s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  s.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  s.SetCIType(GZLConst_940::Profile);
  s.SetTolLogLikeTypeIandIII(1e-11);
  s.SetLConvergeTypeTypeIandIII(TQConst::ConvRelative);
  s.SetMaxIterationsPLCI(100);
  s.SetToleranceLogLikePLCI(1e-9);
  s.SetToleranceHessianPLCI(1e-9);
  s.SetMaxStepHalvingValue(20);
}

struct Fit {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<GZLAlgorithm> algorithm;
  const GZLOutputStats* stats = nullptr;
  TQStatus status;
};

std::unique_ptr<Fit> FitCase(std::unique_ptr<ReferenceCase> c) {
  auto f = std::make_unique<Fit>();
  f->c = std::move(c);
  f->algorithm = std::make_unique<GZLAlgorithm>(f->c->settings);
  f->status = f->algorithm->BuildModel(*f->c->source);
  if (!f->status.IsError()) f->algorithm->GetOutputStats(f->stats);
  return f;
}

void ExpectLRTests(const nlohmann::json& expected, const std::vector<std::vector<double>>& got,
                   const std::vector<TQStatus>& statuses, const std::string& what) {
  ASSERT_EQ(got.size(), expected.size()) << what;
  ASSERT_EQ(statuses.size(), expected.size()) << what;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const auto& e = expected[i];
    const std::vector<double>& v = got[i];
    SCOPED_TRACE(what + " " + e["term"].get<std::string>());
    ASSERT_EQ(v.size(), 7u);
    if (e["chisq"].is_null()) {
      // No hypothesis: its own error status and no statistic at all.
      EXPECT_EQ(statuses[i].GetErrorCode(), GZLStatusCode::LMatrixNotExist);
      for (double x : v) EXPECT_TRUE(TQMV::IsMissing(x));
      continue;
    }
    EXPECT_FALSE(statuses[i].IsError()) << statuses[i].GetErrorCode();
    ExpectClose(e["chisq"], v[0], "chi-square");
    EXPECT_EQ(v[1], e["df"].get<double>());
    ExpectClose(e["sig"], v[2], "significance");
    ExpectClose(e["f"], v[3], "F");
    ExpectClose(e["df2"], v[4], "df2");
    ExpectClose(e["f_sig"], v[5], "F significance");
    ExpectClose(e["deviance"], v[6], "deviance");
  }
}

}  // namespace

TEST(LRTests, ReferenceFigures) {
  int checked = 0;
  for (const std::string& file : output_test::CaseFiles("effects")) {
    auto c = LoadCase(file);
    AskForRefits(c->settings);
    auto f = FitCase(std::move(c));
    SCOPED_TRACE(f->c->name);
    ASSERT_TRUE(f->c->ok) << f->c->problem;
    ASSERT_NE(f->stats, nullptr) << f->status.GetErrorCode();
    const GZLOutputStats& st = *f->stats;
    const auto& e = f->c->expected;
    ExpectLRTests(e["lr_type1"], st.GetTypeILRStats(), st.GetTypeILRStatusEff(), "type I");
    ExpectLRTests(e["lr_type3"], st.GetTypeIIILRStats(), st.GetTypeIIILRStatusEff(), "type III");
    EXPECT_TRUE(st.GetTypeIIILRStatus().IsOK());

    // Profile intervals in place of the Wald limits.
    EXPECT_TRUE(st.GetPLCIStatus().IsOK()) << st.GetPLCIStatus().GetErrorCode();
    const auto& rows = st.GetParamStats();
    const auto& ci = e["profile_ci"];
    ASSERT_GE(rows.size(), ci.size());
    for (std::size_t j = 0; j < ci.size(); ++j) {
      SCOPED_TRACE("profile " + ci[j]["term"].get<std::string>());
      EXPECT_EQ(rows[j].IsRedundant(), ci[j]["redundant"].get<bool>());
      ExpectClose(ci[j]["lower"], rows[j].GetLowerBound(), "lower");
      ExpectClose(ci[j]["upper"], rows[j].GetUpperBound(), "upper");
    }
    const std::size_t p = ci.size();
    if (!e["profile_ci_scale"].is_null()) {
      ExpectClose(e["profile_ci_scale"]["lower"], rows[p].GetLowerBound(), "scale lower");
      ExpectClose(e["profile_ci_scale"]["upper"], rows[p].GetUpperBound(), "scale upper");
    }
    if (!e["profile_ci_k"].is_null()) {
      ExpectClose(e["profile_ci_k"]["lower"], rows[p + 1].GetLowerBound(), "k lower");
      ExpectClose(e["profile_ci_k"]["upper"], rows[p + 1].GetUpperBound(), "k upper");
    }

    // Lagrange multiplier tests.
    const auto& lm = e["lm_tests"];
    if (lm.is_array() && lm.empty()) {
      EXPECT_TRUE(TQMV::IsMissing(st.GetLagrangeMultDist()));
      EXPECT_TRUE(TQMV::IsMissing(st.GetLagrangeMultDF()));
    } else if (lm.is_array()) {
      ExpectClose(lm[0]["statistic"], st.GetLagrangeMultDist(), "LM statistic");
      ExpectClose(lm[0]["sig"], st.GetLagrangeMultSig(), "LM significance");
      EXPECT_EQ(st.GetLagrangeMultDF(), 1.0);
      ExpectClose(lm[0]["sig_greater"], st.GetLagrangeSigGreaterZero(), "LM greater");
      ExpectClose(lm[0]["sig_less"], st.GetLagrangeSigLessZero(), "LM less");
      ExpectClose(lm[0]["sig_nondirectional"], st.GetLagrangeSigNonDir(), "LM non-directional");
    }
    ++checked;
  }
  EXPECT_EQ(checked, 10);
}

namespace {

// A model of y on one factor a (two levels) and a covariate x, built from rows (a, x, y).
struct SmallModel {
  GZLSettings settings;
  std::vector<int> vars{0, 1};
  GZLMemorySource source;
  SmallModel(TQConst::DistType dist, TQConst::LinkType link, GZLConst_940::ScaleMethod scale,
             std::vector<std::vector<double>> rows)
      : source(std::move(rows)) {
    settings.SetDistType(dist);
    settings.SetLinkType(link);
    settings.SetScaleType(scale);
    settings.SetDependent(2);
    settings.SetInterceptUse(true);
    if (dist == TQConst::DistBinomial) settings.SetDependentRefCateg(0);
    settings.AddFactor(0, 2);
    settings.AddCovariate(1);
    GZLModelEffect a(1, 1, &vars), x(1, 1, &vars);
    a.AddNewFactor(0, false);
    x.AddCovariate(1);
    settings.AddModelEffect(a);
    settings.AddModelEffect(x);
    AskForRefits(settings);
  }
};

// Sets the cancel flag from a listener: the refit loop that reports is the one cancelled.
class CancelOnReport : public ProgressListener, public TQQueryCancel {
 public:
  void OnProgress(const ProgressReport& report) override {
    const auto& r = dynamic_cast<const GZLReporter&>(report);
    ++reports;
    paramIndex = r.DiscreteMeasure("paramIndex");
    upperBoundary = r.DiscreteMeasure("upperBoundary");
    iterNum = r.DiscreteMeasure("iterNum");
    if (cancelOnReport) cancelled = true;
  }
  bool IsCancelled() override { return cancelled; }
  bool cancelOnReport = true;
  bool cancelled = false;
  int reports = 0, paramIndex = -2, upperBoundary = -2, iterNum = -2;
};

class ExposedLRStats : public GZLLRStatsBase {
 public:
  using GZLLRStatsBase::GZLLRStatsBase;
  const std::vector<double>& Values(double llWith, double llWithout, double df) {
    fStats.assign(1, std::vector<double>(kNValues, 0.0));
    SetValues(0, llWith, llWithout, df);
    return fStats[0];
  }

 protected:
  void RunTests(const GZLModelEffectTestData&, const std::vector<TQRectMatrix>&) override {}
  ProgressListener* GetListener() const override { return nullptr; }
  const char* ClassName() const override { return "ExposedLRStats"; }
};

std::vector<std::vector<double>> PoissonRows() {
  std::vector<std::vector<double>> rows;
  const double y[] = {2, 3, 6, 7, 8, 9, 10, 12, 15, 4, 5, 3, 9, 11, 14, 16};
  for (int i = 0; i < 16; ++i) rows.push_back({static_cast<double>(i % 2), 0.25 * i, y[i]});
  return rows;
}

}  // namespace

// The 7 values: a constrained maximum above the unconstrained one is no evidence (chi-square
// 0, not negative); the F form and the deviance exist only for the deviance and Pearson scale
// methods, where the chi-square is divided by the fitted scale.
TEST(LRTests, ValuesOfAnEffect) {
  SmallModel ml(TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleFixed, PoissonRows());
  GZLAlgorithm a(ml.settings);
  ASSERT_FALSE(a.BuildModel(ml.source).IsError());
  ExposedLRStats fixed(ml.settings, *a.GetGZLOptimizer(), 13.0);
  std::vector<double> v = fixed.Values(-30.0, -29.999999, 2.0);
  EXPECT_EQ(v[0], 0.0);
  EXPECT_EQ(v[1], 2.0);
  EXPECT_DOUBLE_EQ(v[2], 1.0);
  for (int i = 3; i < 7; ++i) EXPECT_TRUE(TQMV::IsMissing(v[static_cast<std::size_t>(i)])) << i;
  v = fixed.Values(-30.0, -33.0, 1.0);
  EXPECT_DOUBLE_EQ(v[0], 6.0);

  SmallModel dp(TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleDeviance, PoissonRows());
  GZLAlgorithm b(dp.settings);
  ASSERT_FALSE(b.BuildModel(dp.source).IsError());
  const GZLOptimizerForGZLM& opt = *b.GetGZLOptimizer();
  ExposedLRStats scaled(dp.settings, *b.GetGZLOptimizer(), 13.0);
  v = scaled.Values(-30.0, -33.0, 2.0);
  EXPECT_DOUBLE_EQ(v[0], 6.0 / opt.GetPhi());
  EXPECT_DOUBLE_EQ(v[3], v[0] / 2.0);
  EXPECT_EQ(v[4], 13.0);
  EXPECT_GT(v[5], 0.0);
  EXPECT_FALSE(TQMV::IsMissing(v[6]));
  // The refits of an effect of this fit agree with its deviance: dropping x raises it.
  const GZLOutputStats* st = nullptr;
  ASSERT_TRUE(b.GetOutputStats(st).IsOK());
  const auto& x = st->GetTypeIIILRStats().back();
  EXPECT_GT(x[6], opt.GetDeviance());
  EXPECT_NEAR(x[0] * opt.GetPhi(), x[6] - opt.GetDeviance(), 1e-8);
}

// A perfectly fitting model (the scale vanishes) reports 130075 for every effect and no test.
TEST(LRTests, PerfectFit) {
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < 10; ++i) rows.push_back({static_cast<double>(i % 2), 1.0 * i, 1.0 + 2.0 * i + 3.0 * (i % 2)});
  SmallModel m(TQConst::DistNormal, TQConst::LinkIdentity, GZLConst_940::ScaleMLE, rows);
  GZLAlgorithm a(m.settings);
  ASSERT_FALSE(a.BuildModel(m.source).IsError());
  const GZLOutputStats* st = nullptr;
  ASSERT_TRUE(a.GetOutputStats(st).IsOK());
  ASSERT_TRUE(st->IsPerfectFit());
  for (const auto* statuses : {&st->GetTypeIIILRStatusEff(), &st->GetTypeILRStatusEff()}) {
    ASSERT_EQ(statuses->size(), 3u);
    for (const TQStatus& s : *statuses) EXPECT_EQ(s.GetErrorCode(), GZLStatusCode::PerfectFit);
  }
  EXPECT_EQ(st->GetTypeIIILRStatus().GetErrorCode(), GZLStatusCode::NoValidLRTests);
  for (const auto& v : st->GetTypeIIILRStats()) EXPECT_TRUE(TQMV::IsMissing(v[0]));
}

// The lower end of a negative binomial k interval when the Poisson limit (k -> 0) fits nearly
// as well: the profile levels off above its target, so that end point cannot close. It is
// reported missing with its status and criterion, and the search ends; the others close.
TEST(LRTests, ProfileThatCannotClose) {
  std::vector<std::vector<double>> rows;
  const double y[] = {0, 5, 9, 3, 12, 5, 10, 2, 6, 1, 8, 3, 14, 5, 6, 2, 4, 9, 5, 6};
  for (int i = 0; i < 20; ++i) rows.push_back({static_cast<double>(i % 2), 0.1 * i, y[i]});
  SmallModel m(TQConst::DistNegBinomial, TQConst::LinkLog, GZLConst_940::ScaleFixed, rows);
  m.settings.SetDistParamType(GZLConst_940::DistParamMLE);
  m.settings.SetDistParam(1.0);
  m.settings.SetEffectAnalysisType(TQConst::EffectNone);
  m.settings.SetMaxIterationsPLCI(30);
  GZLAlgorithm a(m.settings);
  ASSERT_FALSE(a.BuildModel(m.source).IsError());
  const GZLOutputStats* st = nullptr;
  ASSERT_TRUE(a.GetOutputStats(st).IsOK());
  EXPECT_TRUE(st->GetPLCIStatus().IsOK());
  // Rows: 4 parameters (the third redundant), the scale, k; profiled: the 4 parameters, k.
  const auto& k = st->GetParamStats()[5];
  EXPECT_TRUE(TQMV::IsMissing(k.GetLowerBound()));
  EXPECT_GT(k.GetUpperBound(), k.GetEstimate());
  ASSERT_EQ(st->GetPLCIStatusForParam().size(), 5u);
  EXPECT_NE(st->GetPLCIStoppingCrits()[4].first, GZLConst_940::AllConverged);
  EXPECT_FALSE(st->GetPLCIStatusForParam()[4].first.IsOK());
  EXPECT_EQ(st->GetPLCIStoppingCrits()[4].second, GZLConst_940::AllConverged);
  for (int j : {0, 1, 3}) {
    EXPECT_EQ(st->GetPLCIStoppingCrits()[j].first, GZLConst_940::AllConverged) << j;
    EXPECT_EQ(st->GetPLCIStoppingCrits()[j].second, GZLConst_940::AllConverged) << j;
    EXPECT_LT(st->GetParamStats()[j].GetLowerBound(), st->GetParamEstimates()[j]);
    EXPECT_GT(st->GetParamStats()[j].GetUpperBound(), st->GetParamEstimates()[j]);
  }
  EXPECT_TRUE(TQMV::IsMissing(st->GetParamStats()[2].GetLowerBound()));
}

// A cancel during the type III refits or during a profile interval ends the fit with status 1
// and publishes nothing; the loops report their progress to their own listeners first.
TEST(LRTests, CancelDuringRefitsAndProfiles) {
  for (int which = 0; which < 3; ++which) {
    SmallModel m(TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleFixed, PoissonRows());
    CancelOnReport cancel;
    m.settings.SetCancelPointer(&cancel);
    if (which == 0) m.settings.SetIterProgressListenerTypeIII(&cancel);
    if (which == 1) m.settings.SetIterProgressListenerPLCI(&cancel);
    if (which == 2) m.settings.SetIterProgressListenerTypeI(&cancel);
    GZLAlgorithm a(m.settings);
    const TQStatus status = a.BuildModel(m.source);
    SCOPED_TRACE(which);
    EXPECT_EQ(status.GetErrorCode(), 1);
    EXPECT_EQ(cancel.reports, 1);
    EXPECT_GE(cancel.iterNum, 1);
    if (which == 1) {
      EXPECT_EQ(cancel.paramIndex, 0);
      EXPECT_EQ(cancel.upperBoundary, 0);
    }
    EXPECT_FALSE(a.IsModelBuilt());
    const GZLOutputStats* st = nullptr;
    EXPECT_EQ(a.GetOutputStats(st).GetErrorCode(), GZLStatusCode::ModelNotBuilt);
    EXPECT_EQ(st, nullptr);
  }
}

// The constrained fit on its own: a single-entry constraint holds exactly, a tolerance of 0
// converges at the first iteration, an iteration limit of 0 makes no pass; redundant
// constraint rows are dropped.
TEST(LRTests, ConstrainedEstimation) {
  SmallModel m(TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleFixed, PoissonRows());
  m.settings.SetEffectAnalysisType(TQConst::EffectNone);
  m.settings.SetCIType(GZLConst_940::Wald);
  GZLAlgorithm a(m.settings);
  ASSERT_FALSE(a.BuildModel(m.source).IsError());
  GZLOptimizerForGZLM& opt = *a.GetGZLOptimizer();
  GZLLLGradHessian model(m.settings, opt, opt.GetSource());
  // x (parameter 3) held at 0, twice over.
  TQRectMatrix L(2, 4, 0.0);
  L(0, 3) = 1.0;
  L(1, 3) = 2.0;
  GZLSeqQuad sqp(m.settings, model, L, {}, opt.GetParamEstimates(), 1.0, TQMV::Missing);
  ASSERT_TRUE(sqp.IsValidLMatrix());
  EXPECT_EQ(sqp.GetNumConstraints(), 1);
  sqp.ComputeInitial();
  EXPECT_TRUE(sqp.Estimate().IsOK());
  EXPECT_EQ(sqp.GetStoppingCriterion(), GZLConst_940::AllConverged);
  EXPECT_EQ(sqp.GetParamEstimates()[3], 0.0);
  EXPECT_LT(sqp.GetLogLikelihood(), opt.GetKernelLogLikelihood());

  GZLSettings once = m.settings;
  once.SetTolLogLikeTypeIandIII(0.0);
  GZLSeqQuad first(once, model, L, {}, opt.GetParamEstimates(), 1.0, TQMV::Missing);
  first.IsValidLMatrix();
  first.ComputeInitial();
  first.Estimate();
  EXPECT_EQ(first.GetStoppingCriterion(), GZLConst_940::AllConverged);
  EXPECT_EQ(first.GetLastIteration(), 1);

  GZLSettings none = m.settings;
  none.SetMaxIterations(0);
  GZLSeqQuad never(none, model, L, {}, opt.GetParamEstimates(), 1.0, TQMV::Missing);
  never.IsValidLMatrix();
  never.ComputeInitial();
  never.Estimate();
  EXPECT_EQ(never.GetStoppingCriterion(), GZLConst_940::MaxIterationsReached);
  EXPECT_EQ(never.GetNumPasses(), 0);

  // An L that does not fit the parameters.
  GZLSeqQuad wrong(m.settings, model, TQRectMatrix(1, 7, 1.0), {}, opt.GetParamEstimates(), 1.0, TQMV::Missing);
  EXPECT_FALSE(wrong.IsValidLMatrix());
  EXPECT_EQ(wrong.Estimate().GetErrorCode(), GZLStatusCode::InternalError);
}

// The overdispersion test: underdispersed data give a negative z; one observation leaves the
// standard error and the statistic missing.
TEST(LRTests, OverdispersionTest) {
  GZLDesignRow row;
  row.fFreqWeight = 1.0;
  GZLCTLMTest under(4.0);
  for (double y : {4.0, 5.0, 5.0, 6.0}) under.UpdateForRow(row, y, 5.0);
  EXPECT_LT(under.GetStatistic(), 0.0);
  EXPECT_GT(under.GetSigGreaterZero(), 0.5);
  EXPECT_LT(under.GetSigLessZero(), 0.5);
  EXPECT_NEAR(under.GetSigGreaterZero() + under.GetSigLessZero(), 1.0, 1e-15);
  EXPECT_EQ(under.GetDF(), 1.0);
  EXPECT_FALSE(under.UpdateForRow(row, 3.0, 0.0));  // mu = 0 is refused
  GZLCTLMTest one(1.0);
  one.UpdateForRow(row, 9.0, 5.0);
  EXPECT_FALSE(TQMV::IsMissing(one.GetAlpha()));
  EXPECT_TRUE(TQMV::IsMissing(one.GetStdError()));
  EXPECT_TRUE(TQMV::IsMissing(one.GetStatistic()));
  EXPECT_TRUE(TQMV::IsMissing(one.GetSigNonDir()));
}

// The deviance of a constrained fit is the fit's deviance plus twice the log-likelihood it
// lost (at unit scale): the deviance and the kernel of every family differ by a term of the
// response alone.
TEST(LRTests, DevianceFollowsTheKernel) {
  struct Family {
    TQConst::DistType dist;
    double param;
    double y;
  };
  const Family families[] = {{TQConst::DistNormal, 0.0, 2.5},        {TQConst::DistPoisson, 0.0, 3.0},
                             {TQConst::DistGamma, 0.0, 2.5},         {TQConst::DistInvGaussian, 0.0, 2.5},
                             {TQConst::DistNegBinomial, 0.7, 3.0},   {TQConst::DistBinomial, 0.0, 0.6}};
  for (const Family& fam : families) {
    SCOPED_TRACE(fam.dist);
    std::unique_ptr<IGZLDevianceFunc> dev(CreateDevianceFunction(fam.dist, fam.param));
    std::unique_ptr<IGZLLogLikeFunc> ll(CreateLogLikeFunction(fam.dist, 10.0, fam.param, TQConst::LinkLog));
    ASSERT_TRUE(dev && ll);
    auto deviance = [&](double mu) {
      dev->Clear();
      return dev->AddDeviance(mu, fam.y, 2.0, 1.5, 1.0);
    };
    auto kernel = [&](double mu) {
      ll->Reset(1.0);
      return ll->AddKernel(fam.y, mu, 2.0, 1.5);
    };
    const double mu1 = fam.dist == TQConst::DistBinomial ? 0.3 : 1.7, mu2 = fam.dist == TQConst::DistBinomial ? 0.8 : 4.2;
    EXPECT_NEAR(deviance(mu2) - deviance(mu1), 2.0 * (kernel(mu1) - kernel(mu2)), 1e-12);
  }
}
