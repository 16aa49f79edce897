#include "inference/GZLLRStats.h"

#include <algorithm>
#include <cmath>

#include "GZLSettings.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLSeqQuad.h"
#include "estimation/IGZLRowSource.h"
#include "inference/GZLModelEffectTest.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {

// The starting point of the refits: the fit's estimates (of its rows' design) with log(phi) or
// log(k) appended when one of them is estimated.
std::vector<double> UnconstrainedPoint(const GZLOptimizerForGZLM& optimizer) {
  std::vector<double> theta = optimizer.GetScaledParamEstimates();
  if (optimizer.IsUpdatePhi()) theta.push_back(std::log(optimizer.GetPhi()));
  if (optimizer.IsUpdateK()) theta.push_back(std::log(optimizer.GetK()));
  return theta;
}

}  // namespace

GZLLRStatsBase::GZLLRStatsBase(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer, double df2)
    : fpSettings(&settings), fpOptimizer(&optimizer), fDF2(df2) {
  const GZLConst_940::ScaleMethod method = settings.GetScaleType();
  fbDP = method == GZLConst_940::ScaleDeviance || method == GZLConst_940::ScalePearson;
  // The fit iterated at unit scale under the deviance and Pearson methods; the refits do too.
  fPhiRefit = fbDP ? 1.0 : optimizer.GetPhi();
}

GZLLRStatsBase::~GZLLRStatsBase() = default;

TQStatus GZLLRStatsBase::Compute(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) {
  const int nTests = static_cast<int>(hypotheses.size());
  fStats.assign(static_cast<std::size_t>(nTests), std::vector<double>(kNValues, TQMV::Missing));
  fStatusEff.assign(static_cast<std::size_t>(nTests), TQStatus());
  fCriteria.assign(static_cast<std::size_t>(nTests), GZLConst_940::NoCriterionSatisfied);
  fNPasses = fNRefits = 0;
  fbCancelled = false;
  fLLUnconstrained = TQMV::Missing;
  const GZLOptimizerForGZLM& opt = *fpOptimizer;
  if (opt.IsPerfectFit() || !(opt.GetPhi() > 0.0)) {
    std::fill(fStatusEff.begin(), fStatusEff.end(), TQStatus::Error(GZLStatusCode::PerfectFit));
    return fStatus = TQStatus::Error(GZLStatusCode::NoValidLRTests);
  }
  if (!opt.IsEstimated() || data.GetNumTests() != nTests) return fStatus = TQStatus::Error(GZLStatusCode::InternalError);

  GZLLLGradHessian model(*fpSettings, *fpOptimizer, opt.GetSource());
  fpModel = &model;
  // The unconstrained maximum from the same accumulation as the refits.
  TQStatus st;
  double ll = TQMV::Missing;
  std::vector<double> g;
  TQSymMatrix h;
  model.ComputeLLGradHessian(st, UnconstrainedPoint(opt), fPhiRefit, opt.GetK(), ll, g, h, true);
  ++fNPasses;
  if (st.GetErrorCode() == 1) {
    fpModel = nullptr;
    return fStatus = st;
  }
  if (st.IsError() || TQMV::IsMissingOrInfinite(ll)) {
    fpModel = nullptr;
    return fStatus = TQStatus::Error(GZLStatusCode::InternalError);
  }
  fLLUnconstrained = ll;
  RunTests(data, hypotheses);
  fpModel = nullptr;
  if (fbCancelled) return fStatus = TQStatus::Error(1);

  bool allErrors = nTests > 0, allMissingL = true;
  for (const TQStatus& s : fStatusEff) {
    if (!s.IsError()) allErrors = false;
    if (s.GetErrorCode() != GZLStatusCode::LMatrixNotExist) allMissingL = false;
  }
  fStatus = (allErrors && !allMissingL) ? TQStatus::Error(GZLStatusCode::NoValidLRTests) : TQStatus();
  return fStatus;
}

GZLLRStatsBase::Refit GZLLRStatsBase::Fit(const TQRectMatrix& constraints) {
  Refit result;
  const GZLOptimizerForGZLM& opt = *fpOptimizer;
  // A scaled design's rows carry the scaled columns: beta = A beta_scaled.
  TQRectMatrix C = constraints;
  if (const TQRectMatrix* back = opt.GetSource().GetBackTransform(); back != nullptr && opt.IsRTransformed()) {
    if (!constraints.Multiply(*back, C)) {
      result.status = TQStatus::Error(GZLStatusCode::InternalError);
      return result;
    }
  }
  const std::vector<double> rhs(static_cast<std::size_t>(C.GetNumRows()), 0.0);
  GZLSeqQuad sqp(*fpSettings, *fpModel, C, rhs, opt.GetScaledParamEstimates(), fPhiRefit, opt.GetK());
  sqp.SetProgressListener(GetListener());
  if (sqp.IsValidLMatrix()) {
    sqp.ComputeInitial();
    sqp.Estimate();
  }
  ++fNRefits;
  fNPasses += sqp.GetNumPasses();
  result.status = sqp.GetStatus();
  result.criterion = sqp.GetStoppingCriterion();
  result.logLikelihood = sqp.GetLogLikelihood();
  if (result.status.GetErrorCode() == 1) fbCancelled = true;
  if (!result.status.IsError() && TQMV::IsMissingOrInfinite(result.logLikelihood))
    result.status = TQStatus::Error(GZLStatusCode::LRStatisticProblem);
  return result;
}

void GZLLRStatsBase::SetValues(int e, double llWith, double llWithout, double df) {
  std::vector<double>& v = fStats[static_cast<std::size_t>(e)];
  std::fill(v.begin(), v.end(), TQMV::Missing);
  double X = TQMV::Missing;
  if (!TQMV::IsMissingOrInfinite(llWith) && !TQMV::IsMissingOrInfinite(llWithout)) {
    X = 2.0 * (llWith - llWithout);
    if (fbDP) X /= fpOptimizer->GetPhi();
    if (!std::isfinite(X)) X = TQMV::Missing;
    // A constrained maximum above the unconstrained one is rounding: no evidence at all.
    if (!TQMV::IsMissing(X) && X < 0.0) X = 0.0;
  }
  v[0] = X;
  v[1] = df;
  if (df > 0.0 && !TQMV::IsMissing(X)) {
    const double cdf = TQDistFun::CdfChi(X, df);
    v[2] = TQMV::IsMissing(cdf) ? TQMV::Missing : 1.0 - cdf;
  }
  if (fbDP && df > 0.0 && !TQMV::IsMissing(X)) {
    v[3] = X / df;
    if (fDF2 > 0.0 && !TQMV::IsMissing(fDF2)) {
      v[4] = fDF2;
      const double cdf = TQDistFun::CdfF(X / df, df, fDF2);
      v[5] = TQMV::IsMissing(cdf) ? TQMV::Missing : std::max(0.0, 1.0 - cdf);
    }
    // Deviance and log-likelihood at unit scale differ by twice the saturated log-likelihood,
    // the same for every fit of the data: the constrained deviance follows from the fit's.
    const double deviance = fpOptimizer->GetDeviance();
    if (!TQMV::IsMissing(deviance)) v[6] = deviance + 2.0 * fPhiRefit * (fLLUnconstrained - llWithout);
  }
}

void GZLLRStatsBase::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, std::string(ClassName()) + " display start");
  DisplayText(1, "Vector of computed statistics: 7 values for each effect");
  DisplayText(1, "Value 1: Chi-square statistic");
  DisplayText(1, "Value 2: Number of degrees of freedom");
  DisplayText(1, "Value 3: P-value for the chi-square statistic");
  DisplayText(1, "Value 4: Deviance");
  DisplayText(1, "Value 5: F statistic");
  DisplayText(1, "Value 6: Second number of degrees of freedom for F statistic");
  DisplayText(1, "Value 7: P-value for F statistic");
  for (std::size_t e = 0; e < fStats.size(); ++e) {
    DisplayDV("Effect " + std::to_string(e), fStats[e], false);
    GZLComponentDisplay_940::DisplayStatus("Status", fStatusEff[e]);
    GZLComponentDisplay_940::DisplayC("Stopping criteria", fCriteria[e]);
  }
  DisplayD("Loglikelihood for unconstrained estimates", fLLUnconstrained);
  DisplayDV("Unconstrained beta:", fpOptimizer->GetParamEstimates(), false);
  DisplayD("Unconstrained scale", fpOptimizer->GetPhi());
  DisplayD("Unconstrained K", fpOptimizer->GetK());
  DisplayD("Second number of degrees of freedom for F distribution", fDF2);
  DisplayText(1, "Redundancies based on data:");
  fpOptimizer->GetInitRedunInfo().Display();
  GZLComponentDisplay_940::DisplayStatus("Status", fStatus);
  DisplayText(1, std::string(ClassName()) + " display end");
}

// ---------------------------------------------------------------------------------------------

ProgressListener* GZLTypeIIILRStats::GetListener() const { return fpSettings->GetIterProgressListenerTypeIII(); }

void GZLTypeIIILRStats::RunTests(const GZLModelEffectTestData&, const std::vector<TQRectMatrix>& hypotheses) {
  for (std::size_t e = 0; e < hypotheses.size() && !fbCancelled; ++e) {
    const TQRectMatrix& L = hypotheses[e];
    if (L.GetNumRows() == 0) {
      fStatusEff[e] = TQStatus::Error(GZLStatusCode::LMatrixNotExist);
      continue;
    }
    const Refit r = Fit(L);
    fStatusEff[e] = r.status;
    fCriteria[e] = r.criterion;
    if (!r.status.IsError()) SetValues(static_cast<int>(e), fLLUnconstrained, r.logLikelihood, L.GetNumRows());
  }
}

ProgressListener* GZLTypeILRStats::GetListener() const { return fpSettings->GetIterProgressListenerTypeI(); }

void GZLTypeILRStats::RunTests(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) {
  const int nTests = static_cast<int>(hypotheses.size());
  const int n = data.GetBasicSize();
  // The model of the effects before effect e: every parameter of e and of the later effects
  // held at 0. Effects without a hypothesis add nothing to the model before them.
  std::vector<Refit> before(static_cast<std::size_t>(nTests));
  for (int e = 0; e < nTests && !fbCancelled; ++e) {
    if (hypotheses[static_cast<std::size_t>(e)].GetNumRows() == 0) continue;
    std::vector<int> columns;
    for (int t = e; t < nTests; ++t)
      for (int c = 0; c < data.GetNumColumns(t); ++c) columns.push_back(data.GetFirstColumn(t) + c);
    TQRectMatrix basic(static_cast<int>(columns.size()), n, 0.0), C;
    for (std::size_t i = 0; i < columns.size(); ++i) basic(static_cast<int>(i), columns[i]) = 1.0;
    if (!data.ExpandToParameters(basic, C)) {
      before[static_cast<std::size_t>(e)].status = TQStatus::Error(GZLStatusCode::InternalError);
      continue;
    }
    before[static_cast<std::size_t>(e)] = Fit(C);
  }
  if (fbCancelled) return;
  for (int e = 0; e < nTests; ++e) {
    const std::size_t k = static_cast<std::size_t>(e);
    const int rows = hypotheses[k].GetNumRows();
    if (rows == 0) {
      fStatusEff[k] = TQStatus::Error(GZLStatusCode::LMatrixNotExist);
      continue;
    }
    fStatusEff[k] = before[k].status;
    fCriteria[k] = before[k].criterion;
    // The model that adds effect e: that of the next tested effect, or the full model.
    int next = e + 1;
    while (next < nTests && hypotheses[static_cast<std::size_t>(next)].GetNumRows() == 0) ++next;
    double llWith = fLLUnconstrained;
    if (next < nTests) {
      const Refit& r = before[static_cast<std::size_t>(next)];
      if (r.status.IsError() && !fStatusEff[k].IsError()) fStatusEff[k] = r.status;
      llWith = r.logLikelihood;
    }
    if (!fStatusEff[k].IsError()) SetValues(e, llWith, before[k].logLikelihood, rows);
  }
}
