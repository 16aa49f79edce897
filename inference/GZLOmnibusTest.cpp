#include "inference/GZLOmnibusTest.h"

#include <cmath>

#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

GZLOmnibusTest::GZLOmnibusTest(const GZLSettings& settings, GZLDesignMatrix& design,
                               const GZLOptimizerForGZLM& fitted)
    : fSettings(settings), fpDesign(&design), fpFitted(&fitted) {}

GZLOmnibusTest::~GZLOmnibusTest() = default;

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
