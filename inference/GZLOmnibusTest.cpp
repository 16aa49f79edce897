#include "inference/GZLOmnibusTest.h"

#include <cmath>

#include "GZLFactorCounts.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {

bool IsScaleFromFit(GZLConst_940::ScaleMethod m) {
  return m == GZLConst_940::ScaleDeviance || m == GZLConst_940::ScalePearson;
}

}  // namespace

GZLOmnibusTest::GZLOmnibusTest(const GZLSettings& settings, GZLDesignMatrix& design,
                               const GZLOptimizerForGZLM& fitted)
    : fSettings(settings), fpDesign(&design), fpFitted(&fitted) {}

GZLOmnibusTest::~GZLOmnibusTest() = default;

TQStatus GZLOmnibusTest::Run() {
  fDist = fDF = fSig = TQMV::Missing;
  fbFailedInitModel = false;
  fNullLogLikelihood = TQMV::Missing;
  if (!fSettings.IsValid()) {
    fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);
    return fStatus;
  }
  const GZLConst_940::ScaleMethod scaleMethod = fSettings.GetScaleType();

  // The fitted model's log-likelihood; with a deviance or Pearson scale the one at that scale,
  // so that both models are compared at the same scale.
  fFittedLogLikelihood =
      IsScaleFromFit(scaleMethod) ? fpFitted->GetLogLikelihoodScaleFixed() : fpFitted->GetLogLikelihood();
  if (TQMV::IsMissingOrInfinite(fFittedLogLikelihood)) {
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    return fStatus;
  }
  const int fittedParams = fpFitted->GetInitRedunInfo().Count();

  double nullLL = TQMV::Missing;
  int nullParams = 0;
  if (fSettings.GetDistType() == TQConst::DistOrdinalMultinomial) {
    // The thresholds alone reproduce the observed category proportions.
    std::vector<double> counts;
    if (const auto* dep = fpDesign->GetFactorCounts().GetDependCountsPtr())
      for (const auto& c : *dep) counts.push_back(c.first);
    nullLL = OrdinalNullLogLikelihood(counts, nullParams);
  } else {
    const TQStatus refit = RunRefit(nullLL, nullParams);
    fbFailedInitModel = refit.IsError();
    if (refit.IsError()) {
      fStatus = refit;
      return fStatus;
    }
  }
  fNullLogLikelihood = nullLL;
  if (TQMV::IsMissingOrInfinite(nullLL)) {
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    return fStatus;
  }
  fStatus = ComputeStatistic(fFittedLogLikelihood, nullLL, static_cast<double>(fittedParams - nullParams), fDist,
                             fDF, fSig);
  return fStatus;
}

TQStatus GZLOmnibusTest::FitNullModel(const GZLSettings& nullSettings, double& nullLL, int& nullParams) {
  const GZLConst_940::ScaleMethod scaleMethod = fSettings.GetScaleType();
  nullLL = TQMV::Missing;
  nullParams = 0;
  fbLastFitNotConverged = true;
  GZLDesignRowSource rows(*fpDesign);
  GZLOptimizerForGZLM nullFit(rows, nullSettings, false);
  TQStatus status = nullFit.Estimate();
  if (status.GetErrorCode() == 1 || status.GetErrorCode() == GZLStatusCode::NewPass) {
    fbLastFitNotConverged = false;  // cancelled or no data: trying again will not help
    return status;
  }
  const GZLConst_940::StoppingCriteria criterion = nullFit.GetStoppingCriterion();
  fbLastFitNotConverged = status.IsError() || (criterion != GZLConst_940::AllConverged &&
                                               criterion != GZLConst_940::HessianCriterionUnmet &&
                                               criterion != GZLConst_940::NoIterations);
  if (status.GetErrorCode() == GZLStatusCode::AllInvalidRecordsForLinkFunction) {
    status = TQStatus::Error(GZLStatusCode::AllInvalidRecordsForLinkFunction);
  } else if (!status.IsError() && !(nullFit.GetPhi() > 0.0)) {
    status = TQStatus::Error(GZLStatusCode::ScaleIsZero);
  } else if (!status.IsError() && nullFit.IsInvalidForLink()) {
    status = TQStatus::Error(GZLStatusCode::InvalidRecordsForLinkFunction);
  }
  if (!status.IsError()) {
    // With a deviance or Pearson scale the null model is evaluated at the fitted model's scale.
    const TQStatus post = nullFit.PostEstimation(IsScaleFromFit(scaleMethod) ? fpFitted->GetPhi() : TQMV::Missing);
    if (post.IsError()) status = post;
  }
  if (!status.IsError()) {
    nullLL = IsScaleFromFit(scaleMethod) ? nullFit.GetLogLikelihoodScaleFixed() : nullFit.GetLogLikelihood();
    nullParams = nullFit.GetInitRedunInfo().Count();
  }
  return status;
}

TQStatus GZLOmnibusTest::RunRefit(double& nullLL, int& nullParams) {
  const GZLConst_940::ScaleMethod scaleMethod = fSettings.GetScaleType();
  const bool intercept = fSettings.GetInterceptUse();

  // The null model's settings: no effects; it starts from the fitted intercept(s) and, under
  // an ML scale, the fitted scale (which the optimizer takes as a placeholder only).
  GZLSettings nullSettings;
  nullSettings.Copy(fSettings, true);
  std::vector<double> start;
  const std::vector<double>& estimates = fpFitted->GetParamEstimates();
  if (intercept && !estimates.empty()) {
    if (fSettings.GetDistType() == TQConst::DistNominalMultinomial) {
      // One intercept per logit, at the head of each logit's block.
      const int perLogit = fpDesign->GetNumOfParams();
      for (int j = 0; perLogit > 0 && j < static_cast<int>(estimates.size()); j += perLogit)
        start.push_back(estimates[static_cast<std::size_t>(j)]);
    } else {
      start.push_back(estimates[0]);
    }
    if (scaleMethod == GZLConst_940::ScaleMLE) start.push_back(fpFitted->GetPhi());
  }
  nullSettings.SetInitParams(start);

  // The design cut down to its intercept column (or to nothing), restored afterwards.
  const bool wasReduced = fpDesign->IsReducedModel();
  const int previousReduced = fpDesign->GetReducedNParams();
  if (!fpDesign->SetReducedModel(intercept ? 1 : 0)) return TQStatus::Error(GZLStatusCode::InternalError);

  // The fitted intercept can be a poor start for the null model (a logit intercept that only
  // makes sense next to strong slopes leaves the null fit stranded where its information
  // vanishes); a null fit that does not converge from it is repeated from the data-driven start.
  TQStatus status = FitNullModel(nullSettings, nullLL, nullParams);
  if (!start.empty() && fbLastFitNotConverged) {
    nullSettings.SetInitParams(std::vector<double>());
    status = FitNullModel(nullSettings, nullLL, nullParams);
  }

  if (wasReduced)
    fpDesign->SetReducedModel(previousReduced);
  else
    fpDesign->ClearReducedModel();
  return status;
}

TQStatus GZLOmnibusTest::ComputeStatistic(double l1, double l0, double df, double& statistic, double& dfOut,
                                          double& significance) {
  statistic = TQMV::Missing;
  dfOut = TQMV::Missing;
  significance = TQMV::Missing;
  if (TQMV::IsMissingOrInfinite(l1) || TQMV::IsMissingOrInfinite(l0) || TQMV::IsMissing(df))
    return TQStatus::Error(130094);
  const double stat = 2.0 * (l1 - l0);
  if (!std::isfinite(stat)) return TQStatus::Error(130094);
  if (stat < 0.0) return TQStatus::Error(130076);
  statistic = stat;
  dfOut = df;
  const double cdf = TQDistFun::CdfChi(stat, df);
  significance = TQMV::IsMissing(cdf) ? TQMV::Missing : 1.0 - cdf;
  return TQStatus();
}

double GZLOmnibusTest::OrdinalNullLogLikelihood(const std::vector<double>& weightedCounts, int& nThresholds) {
  nThresholds = 0;
  double total = 0.0;
  int observed = 0;
  for (double w : weightedCounts) {
    if (!TQMV::IsMissingOrInfinite(w) && w > 0.0) {
      total += w;
      ++observed;
    }
  }
  if (observed == 0) return TQMV::Missing;
  double ll = 0.0;
  for (double w : weightedCounts)
    if (!TQMV::IsMissingOrInfinite(w) && w > 0.0) ll += w * std::log(w / total);
  nThresholds = observed - 1;
  return std::isfinite(ll) ? ll : TQMV::Missing;
}

void GZLOmnibusTest::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLOmnibusTest display start");
  DisplayI("Status", fStatus.GetErrorCode());
  DisplayDF("Loglikelihood of the fitted model", fFittedLogLikelihood);
  DisplayDF("Loglikelihood of the null model", fNullLogLikelihood);
  DisplayDF("Omnibus test chi-square", fDist);
  DisplayDF("Omnibus test degrees of freedom", fDF);
  DisplayDF("Omnibus test significance", fSig);
  DisplayB("Null model fit failed indicator", fbFailedInitModel);
  DisplayText(1, "GZLOmnibusTest display end");
}
