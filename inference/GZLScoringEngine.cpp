#include "inference/GZLScoringEngine.h"

#include <algorithm>
#include <cmath>

#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "GZLVarianceFunc.h"
#include "data/GZLDesignMatrix.h"
#include "data/GZLRecordAccess.h"
#include "estimation/GZLNomAccumStats.h"
#include "estimation/GZLOrdAccumStats.h"
#include "families/GZLDevianceFunc.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"
#include "support/TQSymMatrix.h"

using GZLRecordAccess::Read;
using GZLRecordAccess::RoundCategory;

namespace {

constexpr double kMissing = TQMV::Missing;

bool Usable(double x) noexcept { return !TQMV::IsMissingOrInfinite(x); }
bool Integral(double x) noexcept { return Usable(x) && x == std::floor(x); }
// A weight that counts: present, finite and positive.
bool PositiveWeight(double w) noexcept { return Usable(w) && w > 0.0; }

// The outputs built on the leverage, which need a plain GZLM and the inverse information.
constexpr int kLeverageFamily = GZLScoringEngine::ScoreLEVERAGE | GZLScoringEngine::ScoreDEVIANCERESID |
                                GZLScoringEngine::ScoreSTDPEARSONRESID | GZLScoringEngine::ScoreSTDDEVIANCERESID |
                                GZLScoringEngine::ScoreLIKELIHOODRESID | GZLScoringEngine::ScoreCOOK;
constexpr int kNeedLeverage = GZLScoringEngine::ScoreLEVERAGE | GZLScoringEngine::ScoreSTDPEARSONRESID |
                              GZLScoringEngine::ScoreSTDDEVIANCERESID | GZLScoringEngine::ScoreLIKELIHOODRESID |
                              GZLScoringEngine::ScoreCOOK;

// The leading n x n block of sign * matrix as a packed lower triangle. False (out emptied) when
// a value cannot be used (a fit whose scale vanished has no usable covariance): the quantities
// built on the matrix are then missing.
bool CopyLeadingBlock(const TQSymMatrix& matrix, double sign, int n, std::vector<double>& out) {
  const std::size_t size = static_cast<std::size_t>(n) * (n + 1) / 2;
  const double* data = matrix.Data();
  out.assign(data, data + size);
  for (double& v : out) {
    if (!Usable(v)) {
      out.clear();
      return false;
    }
    v *= sign;
  }
  return true;
}

// Whether a fit's matrix covers the design row.
bool Covers(const TQSymMatrix* matrix, int n) { return matrix != nullptr && matrix->GetNumRows() >= n; }

}  // namespace

GZLScoringEngine::GZLScoringEngine(GZLDesignMatrix& design, const GZLSettings& settings)
    : fpDesign(&design), fpSettings(&settings), fDistType(settings.GetDistType()) {
  fbBinarySingle = settings.IsSingleDependentForBinomial();
  fbEventsTrials = settings.IsEventsTrialsForBinomial();
  fbMultinomial = settings.IsMultinomial();
  fRefCategory = settings.GetDependentRefCateg();
  // The event of a binary response is 1 against reference category 0, else 0.
  fEventValue = fRefCategory == 0 ? 1.0 : 0.0;
  fEventCategory = fEventValue;
  fCentre = design.IsResponseCentred() ? design.GetResponseCentre() : 0.0;
  fConfidenceLevel = settings.GetConfidenceLevel();
  fTestType = settings.GetTestType();
  fModelType = settings.GetGZLModelType();

  const double distParam = settings.GetDistParam();
  fpLink.reset(CreateLinkFunction(settings.GetLinkType(), settings.GetLinkParam()));
  fpVariance.reset(CreateVarianceFunction(fDistType, distParam));
  fpDeviance.reset(CreateDevianceFunction(fDistType, distParam));
  fbOrdinal = fDistType == TQConst::DistOrdinalMultinomial;
  if (fbOrdinal) fpCumulativeLink = dynamic_cast<const TQCumulativeLinkFunc*>(fpLink.get());

  const TQFactorCounts& counts = design.GetFactorCounts();
  const std::vector<int>& fields = settings.GetFactors();
  for (int f = 0; f < static_cast<int>(fields.size()); ++f) {
    FactorCheck check;
    check.fField = fields[static_cast<std::size_t>(f)];
    // A factor without counts admits no category.
    if (const auto* c = counts.GetCountsPtr(f))
      for (const auto& pair : *c) check.fUsed.push_back(pair.first > 0.0 ? 1 : 0);
    fFactors.push_back(std::move(check));
  }
  const auto* responseCounts = counts.GetDependCountsPtr();
  fbHaveResponseCounts = responseCounts != nullptr && !responseCounts->empty();

  const std::size_t rowSize = static_cast<std::size_t>(std::max(0, design.GetRowSize()));
  fRow.Reset(rowSize);
  fNonZero.resize(rowSize);
  fNonZeroValues.resize(rowSize);
}

GZLScoringEngine::~GZLScoringEngine() = default;

void GZLScoringEngine::SetFit(const GZLScoringFit& fit) {
  const std::vector<double> empty;
  const std::vector<double>& estimates = fit.fpEstimates != nullptr ? *fit.fpEstimates : empty;
  if (fit.fFitCount != fFitCount || estimates != fEstimates) {
    fFitCount = fit.fFitCount;
    fEstimates = estimates;
    fbValidated = false;
    if (fbMultinomial) SetCategoryLayout(fit);
    // The matrices cover every parameter: the row's columns, or the thresholds or logit blocks
    // of a multinomial model.
    const int n = fbMultinomial ? static_cast<int>(fNParameters) : static_cast<int>(fRow.fValues.size());
    fbHaveCovariance = Covers(fit.fpCovariance, n);
    fbCovarianceUsable = fbHaveCovariance && CopyLeadingBlock(*fit.fpCovariance, fit.fCovarianceSign, n, fCovariance);
    // The model-based covariance is the inverse information itself: one matrix, and one
    // quadratic form per record, serves both.
    fbInfoIsCovariance = fit.fpInverseInformation != nullptr && fit.fpInverseInformation == fit.fpCovariance &&
                         fit.fInverseInformationSign == fit.fCovarianceSign;
    fInverseInfo.clear();
    fbHaveInverseInfo = Covers(fit.fpInverseInformation, n);
    fbInverseInfoUsable = fbInfoIsCovariance ? fbCovarianceUsable
                          : fbHaveInverseInfo &&
                                CopyLeadingBlock(*fit.fpInverseInformation, fit.fInverseInformationSign, n, fInverseInfo);
  }
  fModelType = fit.fModelType;
  fPhi = fit.fPhi;
  fNNonRedundant = fit.fNNonRedundant;
  fPropensityCategory = fit.fPropensityCategory;
  if (Usable(fit.fK) && fit.fK != fK) {
    // Every function that depends on k follows the fit's k.
    fK = fit.fK;
    if (fpVariance) fpVariance->SetParam(fK);
    if (fpDeviance) fpDeviance->SetParam(fK);
    if (fpLink && fpSettings->GetLinkType() == TQConst::LinkNegBinomial) fpLink->SetParam(fK);
  }
  if (fTestType == TQConst::TestType2) {
    if (TQMV::IsMissing(fCritical)) ComputeCriticalValue(TQMV::Missing);
  } else if (fTestType == TQConst::TestType0 && !(fit.fDF == fDF)) {
    ComputeCriticalValue(fit.fDF);
  }
  fDF = fit.fDF;
}

void GZLScoringEngine::ComputeCriticalValue(double df) {
  const double p = fConfidenceLevel * 0.5 + 0.5;
  if (fTestType == TQConst::TestType2)
    fCritical = TQDistFun::IdfStdNorm(p);
  else if (fTestType == TQConst::TestType0 && Usable(df))
    fCritical = TQDistFun::IdfT(p, df);
  else
    fCritical = kMissing;
}

bool GZLScoringEngine::Validate(int mask) const {
  if (mask < 1 || (mask & ~ScoreAll) != 0) return false;
  if ((mask & kLeverageFamily) != 0 && fModelType != GZLConst_940::GZLM) return false;
  if ((mask & (ScoreXBSTDERROR | ScoreCIMEANPRED)) != 0 && !fbHaveCovariance) return false;
  if ((mask & kNeedLeverage) != 0 && (!fbHaveCovariance || !fbHaveInverseInfo)) return false;
  if ((mask & ScoreCOOK) != 0 && fNNonRedundant < 1) return false;
  if ((mask & ScoreCATPRED) != 0 && fbMultinomial && !fbHaveResponseCounts) return false;
  return true;
}

TQStatus GZLScoringEngine::SetScoreType(int mask) {
  if (mask != fMask) {
    fMask = mask;
    fbValidated = false;
  }
  if (!fbValidated) fbValidated = Validate(fMask);
  return fbValidated ? TQStatus() : TQStatus::Error(GZLStatusCode::InvalidScoreType);
}

void GZLScoringEngine::ScoreRecord(TQStatus& status, const Record& record, GZLScoreStats& scores) {
  status = TQStatus();
  fCache = 0;
  scores.Initialize();
  if (!fbValidated) fbValidated = Validate(fMask);
  if (!fbValidated) {
    status = TQStatus::Error(GZLStatusCode::NoScoreSettings);
    return;
  }
  for (const FactorCheck& f : fFactors) {
    const int c = RoundCategory(Read(record, f.fField), static_cast<int>(f.fUsed.size()));
    if (c < 0 || f.fUsed[static_cast<std::size_t>(c)] == 0) {
      status = TQStatus::Error(GZLStatusCode::CaseWithUnusedCategory);
      return;
    }
  }
  // Scoring asks nothing of the response and the weights: a record is scored whatever they
  // hold, and only the outputs that need them go missing.
  fpDesign->BuildRow(status, record, fRow, true);
  if (!status.IsOK()) return;
  fbGathered = false;
  if (fbMultinomial)
    ScoreCategories(status, scores);
  else
    ScoreScalar(status, scores);
}

void GZLScoringEngine::ScoreScalar(TQStatus& status, GZLScoreStats& scores) {
  const int mask = fMask;
  // The design may have centred the response: predictions are reported on the response's own
  // scale.
  if (mask & ScoreXBPRED) {
    const double eta = Eta();
    if (TQMV::IsMissing(eta))
      status = TQStatus::Error(GZLStatusCode::ScoringFailed);
    else
      scores.SetXBPRED(eta + fCentre);
  }
  if (mask & ScoreXBSTDERROR) scores.SetXBSTDERROR(StdErr());
  if (mask & ScoreMEANPRED) {
    const double mu = Mean();
    if (!TQMV::IsMissing(mu)) scores.SetMEANPRED(fbEventsTrials ? mu * fRow.fTrials : mu + fCentre);
  }
  if (mask & ScoreCIMEANPRED) {
    double lower, upper;
    Interval(lower, upper);
    scores.SetCIMEANPRED({lower, upper});
  }
  if (mask & ScoreLEVERAGE) scores.SetLEVERAGE(Leverage());
  if (mask & ScoreRESID) scores.SetRESID(Resid());
  if (mask & ScorePEARSONRESID) scores.SetPEARSONRESID(Pearson());
  if (mask & ScoreDEVIANCERESID) scores.SetDEVIANCERESID(DevianceResid());
  if (mask & ScoreSTDPEARSONRESID) scores.SetSTDPEARSONRESID(StdPearson());
  if (mask & ScoreSTDDEVIANCERESID) scores.SetSTDDEVIANCERESID(StdDeviance());
  if (mask & ScoreLIKELIHOODRESID) scores.SetLIKELIHOODRESID(LikelihoodResid());
  if (mask & ScoreCOOK) scores.SetCOOK(Cook());
  if (!fbBinarySingle || (mask & (ScoreCATPRED | ScoreConf1 | ScoreConf2 | ScoreRawPropensity)) == 0) return;
  const double mu = Mean();
  if (TQMV::IsMissing(mu)) return;
  const bool event = mu >= 0.5;
  if (mask & ScoreCATPRED) scores.SetCATPRED(event ? fEventCategory : static_cast<double>(fRefCategory));
  if (mask & ScoreConf1) scores.SetConf1(event ? mu : 1.0 - mu);
  if (mask & ScoreConf2) scores.SetConf2(std::fabs(mu - (1.0 - mu)));
  if (mask & ScoreRawPropensity) {
    if (fPropensityCategory == 0)
      scores.SetRawPropensity(1.0 - mu);
    else if (fPropensityCategory == 1)
      scores.SetRawPropensity(mu);
  }
}

void GZLScoringEngine::SetCategoryLayout(const GZLScoringFit& fit) {
  const std::size_t rowSize = fRow.fValues.size();
  const std::size_t nEstimates = fEstimates.size();
  const std::size_t nCodes = fit.fpCategories != nullptr ? fit.fpCategories->size() : 0;
  // Ordinal: the thresholds ahead of the row's columns; nominal: one block of the row's width
  // per logit (no block at all when the row is empty: every category is then equally likely).
  std::size_t predictors = 0;
  bool usable = false;
  if (fbOrdinal) {
    predictors = nEstimates > rowSize ? nEstimates - rowSize : 0;
    usable = predictors > 0 && fpCumulativeLink != nullptr;
  } else if (rowSize > 0) {
    predictors = nEstimates / rowSize;
    usable = predictors > 0 && predictors * rowSize == nEstimates;
  } else {
    predictors = nCodes > 1 ? nCodes - 1 : 0;
    usable = predictors > 0 && nEstimates == 0;
  }
  fbCategoriesUsable = usable;
  fNPredictors = usable ? static_cast<int>(predictors) : 0;
  fNParameters = usable ? nEstimates : 0;
  const std::size_t K = usable ? predictors + 1 : 0;

  // The category codes, when the fit names one per probability, and their weighted counts in
  // the fit for the tie rule of the predicted category.
  fCategoryCodes.clear();
  fCategoryCounts.clear();
  if (usable && nCodes == K) {
    fCategoryCodes = *fit.fpCategories;
    const auto* counts = fpDesign->GetFactorCounts().GetDependCountsPtr();
    for (int code : fCategoryCodes)
      fCategoryCounts.push_back(counts != nullptr && code >= 0 && static_cast<std::size_t>(code) < counts->size()
                                    ? (*counts)[static_cast<std::size_t>(code)].first
                                    : 0.0);
  }
  fCatEta.assign(predictors, kMissing);
  fCatStdErr.assign(predictors, kMissing);
  fCatProb.assign(K, kMissing);
  fCatExp.assign(K, 0.0);
  fCatInterval.assign(K, {kMissing, kMissing});
  fCatPoints.assign(K + 1, TQCumulativePoint());
  fCatForms.assign(fbOrdinal ? predictors : predictors * predictors, 0.0);
}

void GZLScoringEngine::ScoreCategories(TQStatus& status, GZLScoreStats& scores) {
  const int mask = fMask;
  // A requested list that cannot be formed stays empty and fails the record; the others are
  // still delivered.
  bool failed = false;
  const auto deliver = [this, mask, &failed](int bit, bool (GZLScoringEngine::*ready)(), auto store) {
    if ((mask & bit) == 0) return;
    if ((this->*ready)())
      store();
    else
      failed = true;
  };
  deliver(ScoreXBPRED, &GZLScoringEngine::CategoryPredictors, [&] { scores.SetXBPREDNOMINAL(fCatEta); });
  deliver(ScoreXBSTDERROR, &GZLScoringEngine::CategoryStdErrs, [&] { scores.SetXBSTDERRORNOMINAL(fCatStdErr); });
  deliver(ScoreMEANPRED, &GZLScoringEngine::CategoryProbabilities, [&] { scores.SetMEANPREDNOMINAL(fCatProb); });
  deliver(ScoreCIMEANPRED, &GZLScoringEngine::CategoryIntervals,
          [&] { scores.SetCIMEANPREDNOMINAL(fCatInterval); });
  if (failed) status = TQStatus::Error(GZLStatusCode::ScoringFailed);
  if ((mask & (ScoreCATPRED | ScoreConf1 | ScoreConf2)) == 0 || !CategoryProbabilities()) return;
  const int pick = PickCategory(fCatProb, fCategoryCounts);
  if (pick < 0) return;
  if ((mask & ScoreCATPRED) && !fCategoryCodes.empty())
    scores.SetCATPRED(static_cast<double>(fCategoryCodes[static_cast<std::size_t>(pick)]));
  if (mask & ScoreConf1) scores.SetConf1(fCatProb[static_cast<std::size_t>(pick)]);
  if (mask & ScoreConf2) {
    double first = -1.0, second = -1.0;
    for (double p : fCatProb) {
      if (p > first) {
        second = first;
        first = p;
      } else if (p > second) {
        second = p;
      }
    }
    scores.SetConf2(second < 0.0 ? kMissing : first - second);
  }
}

bool GZLScoringEngine::CategoryPredictors() {
  if (fCache & CacheEta) return !TQMV::IsMissing(fEta);
  fCache |= CacheEta;
  // fEta marks whether the predictors exist (0) or not (missing).
  fEta = kMissing;
  if (!fbCategoriesUsable || fRow.fbInvalid) return false;
  const std::size_t p = fRow.fValues.size();
  const double* x = fRow.fValues.data();
  const double* b = fEstimates.data();
  const int J = fNPredictors;
  if (fbOrdinal) {
    // The fit's cumulative argument theta_j - (x'beta - o): the offset raises every cumulative
    // predictor, as in the fit's record step and the PMML document, so that the scores are the
    // probabilities of the model that was fitted (not theta_j - (x'beta + o)).
    if (!Usable(fRow.fOffset)) return false;
    const double* beta = b + J;
    double lambda = -fRow.fOffset;
    for (std::size_t i = 0; i < p; ++i) lambda += beta[i] * x[i];
    for (int j = 0; j < J; ++j) fCatEta[static_cast<std::size_t>(j)] = b[j] - lambda;
  } else {
    for (int j = 0; j < J; ++j) {
      const double* bj = b + static_cast<std::size_t>(j) * p;
      double eta = 0.0;
      for (std::size_t i = 0; i < p; ++i) eta += bj[i] * x[i];
      fCatEta[static_cast<std::size_t>(j)] = eta;
    }
  }
  for (double eta : fCatEta)
    if (!Usable(eta)) return false;
  fEta = 0.0;
  return true;
}

bool GZLScoringEngine::CategoryProbabilities() {
  if (fCache & CacheMean) return !TQMV::IsMissing(fMean);
  fCache |= CacheMean;
  fMean = kMissing;
  if (!CategoryPredictors()) return false;
  if (fbOrdinal) {
    if (!GZLOrdAccumStatsBase::CategoryProbabilities(*fpCumulativeLink, fCatEta.data(), fNPredictors,
                                                     fCatPoints.data(), fCatProb.data()))
      return false;
  } else {
    double top = 0.0, sum = 0.0;
    GZLNomAccumStats::Probabilities(fCatEta.data(), fNPredictors, fCatExp.data(), fCatProb.data(), top, sum);
  }
  for (double p : fCatProb)
    if (!Usable(p)) return false;
  fMean = 0.0;
  return true;
}

namespace {
// Entry (r, c), r >= c, of a packed lower triangle.
inline double Packed(const double* a, std::size_t r, std::size_t c) noexcept { return a[r * (r + 1) / 2 + c]; }
}  // namespace

bool GZLScoringEngine::CategoryForms() {
  if (fCache & CacheXCX) return !TQMV::IsMissing(fCatXCX);
  fCache |= CacheXCX;
  fCatXCX = kMissing;
  if (!fbCovarianceUsable || !fbCategoriesUsable || fRow.fbInvalid) return false;
  GatherNonZero();
  const std::size_t J = static_cast<std::size_t>(fNPredictors);
  double check = 0.0;
  if (fbOrdinal) {
    const double* a = fCovariance.data();
    fCatXCX = QuadraticForm(fCovariance, J, J);
    for (std::size_t j = 0; j < J; ++j) {
      double u = 0.0;
      for (std::size_t s = 0; s < fNNonZero; ++s) u += fNonZeroValues[s] * Packed(a, J + static_cast<std::size_t>(fNonZero[s]), j);
      fCatForms[j] = u;
      check += u;
    }
  } else {
    const std::size_t p = fRow.fValues.size();
    for (std::size_t c = 0; c < J; ++c) {
      fCatForms[c * J + c] = QuadraticForm(fCovariance, c * p, c * p);
      for (std::size_t c2 = 0; c2 < c; ++c2)
        fCatForms[c * J + c2] = fCatForms[c2 * J + c] = QuadraticForm(fCovariance, c * p, c2 * p);
    }
    for (double q : fCatForms) check += q;
    fCatXCX = 0.0;
  }
  if (!Usable(check) || !Usable(fCatXCX)) fCatXCX = kMissing;
  return !TQMV::IsMissing(fCatXCX);
}

bool GZLScoringEngine::CategoryStdErrs() {
  if (fCache & CacheStdErr) return !TQMV::IsMissing(fStdErr);
  fCache |= CacheStdErr;
  fStdErr = kMissing;
  if (!CategoryPredictors()) return false;
  fStdErr = 0.0;
  const bool forms = CategoryForms();
  const std::size_t J = static_cast<std::size_t>(fNPredictors);
  for (std::size_t j = 0; j < J; ++j) {
    double v = kMissing;
    if (forms)
      v = fbOrdinal ? Packed(fCovariance.data(), j, j) - 2.0 * fCatForms[j] + fCatXCX : fCatForms[j * J + j];
    // Rounding can leave a form a little below 0.
    fCatStdErr[j] = !Usable(v) ? kMissing : (v < 0.0 ? 0.0 : std::sqrt(v));
  }
  return true;
}

double GZLScoringEngine::CategoryProbabilityVariance(int k) {
  if (!CategoryForms()) return kMissing;
  const double* a = fCovariance.data();
  const int J = fNPredictors;
  double v = 0.0;
  if (fbOrdinal) {
    // P_k = F(eta_k) - F(eta_{k-1}): its gradient is f_k at theta_k, -f_{k-1} at theta_{k-1}
    // and -(f_k - f_{k-1}) x at beta.
    const double hi = k < J ? fCatPoints[static_cast<std::size_t>(k + 1)].density : 0.0;
    const double lo = k > 0 ? fCatPoints[static_cast<std::size_t>(k)].density : 0.0;
    const double g = hi - lo;
    const std::size_t uk = static_cast<std::size_t>(k);
    if (k < J) v += hi * hi * Packed(a, uk, uk) - 2.0 * g * hi * fCatForms[uk];
    if (k > 0) v += lo * lo * Packed(a, uk - 1, uk - 1) + 2.0 * g * lo * fCatForms[uk - 1];
    if (k > 0 && k < J) v -= 2.0 * hi * lo * Packed(a, uk, uk - 1);
    v += g * g * fCatXCX;
  } else {
    // d pi_k / d beta_c = pi_k (1{k = c} - pi_c) x.
    const double pk = fCatProb[static_cast<std::size_t>(k)];
    for (int c = 0; c < J; ++c) {
      const double dc = pk * ((c == k ? 1.0 : 0.0) - fCatProb[static_cast<std::size_t>(c)]);
      for (int c2 = 0; c2 < J; ++c2) {
        const double dc2 = pk * ((c2 == k ? 1.0 : 0.0) - fCatProb[static_cast<std::size_t>(c2)]);
        v += dc * dc2 * fCatForms[static_cast<std::size_t>(c) * J + c2];
      }
    }
  }
  return Usable(v) ? (v < 0.0 ? 0.0 : v) : kMissing;
}

bool GZLScoringEngine::CategoryIntervals() {
  if (fCache & CacheInterval) return !TQMV::IsMissing(fLower);
  fCache |= CacheInterval;
  fLower = kMissing;
  if (!CategoryProbabilities()) return false;
  fLower = 0.0;
  for (std::size_t k = 0; k < fCatProb.size(); ++k) {
    auto& interval = fCatInterval[k];
    interval = {kMissing, kMissing};
    const double p = fCatProb[k];
    if (TQMV::IsMissing(fCritical) || !(p > 0.0 && p < 1.0)) continue;
    const double v = CategoryProbabilityVariance(static_cast<int>(k));
    if (TQMV::IsMissing(v)) continue;
    const double logit = std::log(p) - std::log1p(-p);
    const double d = fCritical * std::sqrt(v) / (p * (1.0 - p));
    if (!Usable(d)) continue;
    interval = {1.0 / (1.0 + std::exp(-(logit - d))), 1.0 / (1.0 + std::exp(-(logit + d)))};
  }
  return true;
}

int GZLScoringEngine::PickCategory(const std::vector<double>& probabilities, const std::vector<double>& counts) {
  const std::size_t k = probabilities.size();
  if (k == 0) return -1;
  for (double p : probabilities)
    if (TQMV::IsMissing(p)) return -1;
  const double tolerance = std::sqrt(2.220446049250313e-16) / static_cast<double>(k + 1);
  double maximum = probabilities[0];
  // The first and last index of the tie list are enough: ties are kept in scan order.
  std::size_t best = 0;
  double bestCount = counts.empty() ? 0.0 : counts[0];
  for (std::size_t j = 1; j < k; ++j) {
    const double p = probabilities[j];
    const double count = j < counts.size() ? counts[j] : 0.0;
    if (p - maximum > tolerance) {
      // A clear new maximum restarts the ties.
      maximum = p;
      best = j;
      bestCount = count;
    } else if (std::fabs(p - maximum) < tolerance && count > bestCount) {
      // Among tied categories the larger count wins; an equal count keeps the earlier one.
      best = j;
      bestCount = count;
    }
  }
  return static_cast<int>(best);
}

// ---- per-record ingredients ----------------------------------------------------------------

double GZLScoringEngine::Eta() {
  if (fCache & CacheEta) return fEta;
  fCache |= CacheEta;
  fEta = kMissing;
  const std::size_t n = fRow.fValues.size();
  if (fRow.fbInvalid || !Usable(fRow.fOffset) || fEstimates.size() < n) return fEta;
  const double* x = fRow.fValues.data();
  const double* b = fEstimates.data();
  double eta = fRow.fOffset;
  for (std::size_t j = 0; j < n; ++j) eta += b[j] * x[j];
  if (Usable(eta)) fEta = eta;
  return fEta;
}

void GZLScoringEngine::GatherNonZero() {
  if (fbGathered) return;
  fbGathered = true;
  std::size_t k = 0;
  const std::size_t n = fRow.fValues.size();
  const double* x = fRow.fValues.data();
  for (std::size_t j = 0; j < n; ++j) {
    if (x[j] != 0.0) {
      fNonZero[k] = static_cast<int>(j);
      fNonZeroValues[k] = x[j];
      ++k;
    }
  }
  fNNonZero = k;
}

double GZLScoringEngine::QuadraticForm(const std::vector<double>& packed, std::size_t rowOffset,
                                       std::size_t colOffset) const {
  // x'Ax over the non-zero columns: a factor's block adds one column, not its whole width. A
  // diagonal block (equal offsets) is read from its lower triangle, an off-diagonal one (the row
  // block after the column block) whole.
  const bool diagonal = rowOffset == colOffset;
  const double* a = packed.data();
  const int* idx = fNonZero.data();
  const double* v = fNonZeroValues.data();
  double q = 0.0;
  for (std::size_t s = 0; s < fNNonZero; ++s) {
    const std::size_t i = rowOffset + static_cast<std::size_t>(idx[s]);
    const double* rowI = a + i * (i + 1) / 2 + colOffset;
    const std::size_t end = diagonal ? s : fNNonZero;
    double inner = 0.0;
    for (std::size_t t = 0; t < end; ++t) inner += rowI[idx[t]] * v[t];
    q += diagonal ? v[s] * (2.0 * inner + rowI[idx[s]] * v[s]) : v[s] * inner;
  }
  return q;
}

double GZLScoringEngine::XCX() {
  if (fCache & CacheXCX) return fXCX;
  fCache |= CacheXCX;
  fXCX = kMissing;
  if (fRow.fbInvalid || !fbCovarianceUsable) return fXCX;
  GatherNonZero();
  const double q = QuadraticForm(fCovariance);
  if (Usable(q)) fXCX = q;
  return fXCX;
}

double GZLScoringEngine::XIX() {
  if (fCache & CacheXIX) return fXIX;
  if (fbInfoIsCovariance) {
    fXIX = XCX();
    fCache |= CacheXIX;
    return fXIX;
  }
  fCache |= CacheXIX;
  fXIX = kMissing;
  if (fRow.fbInvalid || !fbInverseInfoUsable) return fXIX;
  GatherNonZero();
  const double q = QuadraticForm(fInverseInfo);
  if (Usable(q)) fXIX = q;
  return fXIX;
}

double GZLScoringEngine::StdErr() {
  if (fCache & CacheStdErr) return fStdErr;
  fCache |= CacheStdErr;
  const double q = fEstimates.empty() ? kMissing : XCX();
  // Rounding can leave the form of a row in the null space of the covariance a little below 0.
  fStdErr = TQMV::IsMissing(q) ? kMissing : (q < 0.0 ? 0.0 : std::sqrt(q));
  return fStdErr;
}

double GZLScoringEngine::Mean() {
  if (fCache & CacheMean) return fMean;
  fCache |= CacheMean;
  fMean = kMissing;
  const double eta = Eta();
  if (TQMV::IsMissing(eta) || !fpLink) return fMean;
  // The expected events need a positive whole number of trials.
  if (fbEventsTrials && !(Integral(fRow.fTrials) && fRow.fTrials > 0.0)) return fMean;
  int linkStatus = 0;
  const double mu = fpLink->GetMu(eta, &linkStatus);
  if (linkStatus == 0 && Usable(mu)) fMean = mu;
  return fMean;
}

void GZLScoringEngine::Interval(double& lower, double& upper) {
  if (fCache & CacheInterval) {
    lower = fLower;
    upper = fUpper;
    return;
  }
  fCache |= CacheInterval;
  fLower = fUpper = kMissing;
  lower = upper = kMissing;
  const double eta = Eta();
  const double se = StdErr();
  const double mu = Mean();
  if (TQMV::IsMissing(eta) || TQMV::IsMissing(se) || TQMV::IsMissing(fCritical) || TQMV::IsMissing(mu)) return;
  const double d = se * fCritical;
  const double n = fbEventsTrials ? fRow.fTrials : 1.0;
  auto endpoint = [&](double at) {
    int linkStatus = 0;
    const double m = fpLink->GetMu(at, &linkStatus);
    return (linkStatus != 0 || !Usable(m)) ? kMissing : m * n + fCentre;
  };
  double lo = endpoint(eta - d);
  double hi = endpoint(eta + d);
  const bool haveLo = !TQMV::IsMissing(lo), haveHi = !TQMV::IsMissing(hi);
  if (haveLo && haveHi) {
    // A decreasing inverse link turns the limits round.
    if (lo > hi) std::swap(lo, hi);
  } else if (haveLo != haveHi) {
    // A single limit goes to its side of the predicted mean.
    const double only = haveLo ? lo : hi;
    const double centre = mu * n + fCentre;
    lo = hi = kMissing;
    (only <= centre ? lo : hi) = only;
  }
  fLower = lower = lo;
  fUpper = upper = hi;
}

bool GZLScoringEngine::ValidCase() {
  if (fCache & CacheValidCase) return fbValidCase;
  fCache |= CacheValidCase;
  const double y = fRow.fResponse;
  bool valid = false;
  if (fbEventsTrials) {
    const double e = fRow.fEvents, n = fRow.fTrials;
    valid = Integral(n) && n > 0.0 && Integral(e) && e >= 0.0 && e <= n;
  } else if (Usable(y)) {
    switch (fDistType) {
      case TQConst::DistBinomial: valid = y == 0.0 || y == 1.0; break;
      case TQConst::DistPoisson:
      case TQConst::DistNegBinomial: valid = y >= 0.0 && Integral(y); break;
      case TQConst::DistGamma:
      case TQConst::DistInvGaussian: valid = y > 0.0; break;
      case TQConst::DistTweedie: valid = y >= 0.0; break;
      default: valid = true; break;
    }
  }
  fbValidCase = valid;
  return fbValidCase;
}

double GZLScoringEngine::Resid() {
  if (fCache & CacheResid) return fResid;
  fCache |= CacheResid;
  fResid = kMissing;
  const double mu = Mean();
  if (!ValidCase() || TQMV::IsMissing(mu)) return fResid;
  if (fbEventsTrials)
    fResid = fRow.fEvents - mu * fRow.fTrials;
  else if (fbBinarySingle)
    fResid = (fRow.fResponse == fEventValue ? 1.0 : 0.0) - mu;
  else
    fResid = fRow.fResponse - mu;
  if (!Usable(fResid)) fResid = kMissing;
  return fResid;
}

double GZLScoringEngine::Pearson() {
  if (fCache & CachePearson) return fPearson;
  fCache |= CachePearson;
  fPearson = kMissing;
  const double r = Resid();
  const double omega = fRow.fScaleWeight;
  if (TQMV::IsMissing(r) || !PositiveWeight(omega)) return fPearson;
  if (r == 0.0) return fPearson = 0.0;
  const double mu = Mean();
  double v, w;
  if (fbEventsTrials) {
    // Variance of the events: (1 - m/n) m with m the expected events; the row's scale weight
    // carries the trials.
    const double n = fRow.fTrials, m = mu * n;
    v = (1.0 - m / n) * m;
    w = omega / n;
  } else {
    v = fpVariance ? fpVariance->GetVariance(mu) : kMissing;
    w = omega;
  }
  if (!Usable(v) || !(v > 0.0)) return fPearson;
  double rp = std::sqrt(w / v) * r;
  if (fModelType == GZLConst_940::GZLMMM) {
    if (!(fPhi > 0.0)) return fPearson;
    rp /= std::sqrt(fPhi);
  }
  if (Usable(rp)) fPearson = rp;
  return fPearson;
}

double GZLScoringEngine::Leverage() {
  if (fCache & CacheLeverage) return fLeverage;
  fCache |= CacheLeverage;
  fLeverage = kMissing;
  // The per-trial mean; the row's scale weight of an events/trials response carries the trials.
  const double mu = Mean();
  const double omega = fRow.fScaleWeight;
  if (TQMV::IsMissing(mu) || !PositiveWeight(omega) || !(fPhi > 0.0) || !fpVariance) return fLeverage;
  const double v = fpVariance->GetVariance(mu);
  const double g1 = fpLink->GetFirstDeriv(mu, nullptr);
  if (!Usable(v) || v == 0.0 || !Usable(g1) || g1 == 0.0) return fLeverage;
  const double q = XIX();
  if (TQMV::IsMissing(q)) return fLeverage;
  const double h = omega / fPhi / v / (g1 * g1) * q;
  if (std::isnan(h)) return fLeverage;
  fLeverage = std::clamp(h, 0.0, 1.0);
  return fLeverage;
}

double GZLScoringEngine::DevianceResid() {
  if (fCache & CacheDeviance) return fDevianceResid;
  fCache |= CacheDeviance;
  fDevianceResid = kMissing;
  const double r = Resid();
  const double omega = fRow.fScaleWeight;
  if (TQMV::IsMissing(r) || !PositiveWeight(omega) || !fpDeviance) return fDevianceResid;
  const double mu = Mean();
  // The record's own contribution with frequency weight 1: per-trial mean and proportion with
  // the trials as multiplier for an events/trials response, the event indicator for a binary
  // one.
  double y = fRow.fResponse, w = omega, m = 1.0;
  if (fbEventsTrials) {
    m = fRow.fTrials;
    w = omega / m;
  } else if (fbBinarySingle) {
    y = y == fEventValue ? 1.0 : 0.0;
  }
  fpDeviance->Clear();
  const double d = fpDeviance->AddDeviance(mu, y, 1.0, w, m);
  if (!Usable(d) || d < 0.0) return fDevianceResid;
  fDevianceResid = r < 0.0 ? -std::sqrt(d) : std::sqrt(d);
  return fDevianceResid;
}

double GZLScoringEngine::StdFactor() {
  if (fCache & CacheStdFactor) return fStdFactor;
  fCache |= CacheStdFactor;
  fStdFactor = kMissing;
  const double h = Leverage();
  if (TQMV::IsMissing(h) || h == 1.0 || !(fPhi > 0.0)) return fStdFactor;
  fStdFactor = 1.0 / std::sqrt(fPhi * (1.0 - h));
  return fStdFactor;
}

double GZLScoringEngine::Standardize(double r) {
  if (TQMV::IsMissing(r)) return kMissing;
  if (r == 0.0) return 0.0;
  const double s = StdFactor();
  if (TQMV::IsMissing(s)) return kMissing;
  // A mixed-model host divides by sqrt(phi) once more, on top of the division inside its
  // Pearson residual (deliberate).
  return fModelType == GZLConst_940::GZLMMM ? r * s / std::sqrt(fPhi) : r * s;
}

double GZLScoringEngine::StdPearson() {
  if (!(fCache & CacheStdPearson)) {
    fCache |= CacheStdPearson;
    fStdPearson = Standardize(Pearson());
  }
  return fStdPearson;
}

double GZLScoringEngine::StdDeviance() {
  if (!(fCache & CacheStdDeviance)) {
    fCache |= CacheStdDeviance;
    fStdDeviance = Standardize(DevianceResid());
  }
  return fStdDeviance;
}

double GZLScoringEngine::LikelihoodResid() {
  if (fCache & CacheLikelihood) return fLikelihood;
  fCache |= CacheLikelihood;
  fLikelihood = kMissing;
  const double a = StdPearson(), b = StdDeviance();
  if (TQMV::IsMissing(a) || TQMV::IsMissing(b)) return fLikelihood;
  if (a == 0.0 && b == 0.0) return fLikelihood = 0.0;
  const double h = Leverage();
  if (TQMV::IsMissing(h)) return fLikelihood;
  const double x = h * a * a + (1.0 - h) * b * b;
  if (!Usable(x) || x < 0.0) return fLikelihood;
  fLikelihood = Resid() < 0.0 ? -std::sqrt(x) : std::sqrt(x);
  return fLikelihood;
}

double GZLScoringEngine::Cook() {
  if (fCache & CacheCook) return fCook;
  fCache |= CacheCook;
  fCook = kMissing;
  const double h = Leverage();
  if (TQMV::IsMissing(h) || h == 1.0) return fCook;
  const double a = StdPearson();
  if (TQMV::IsMissing(a)) return fCook;
  if (h == 0.0 || a == 0.0) return fCook = 0.0;
  if (fNNonRedundant < 1) return fCook;
  const double cook = a * a * h / (1.0 - h) / fNNonRedundant;
  if (Usable(cook)) fCook = cook;
  return fCook;
}

void GZLScoringEngine::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLScoringEngine display start");
  DisplayI("Score type", fMask);
  DisplayB("Score type validated", fbValidated);
  DisplayI("Model type", fModelType);
  DisplayDV("Parameter estimates", fEstimates, true);
  DisplayB("Covariance matrix is defined", fbHaveCovariance);
  DisplayB("Inverse information matrix is defined", fbHaveInverseInfo);
  DisplayDF("Scale parameter", fPhi);
  DisplayDF("Negative binomial k", fK);
  DisplayI("Number of non-redundant parameters", fNNonRedundant);
  DisplayDF("Confidence interval level", fConfidenceLevel);
  DisplayI("Test type", fTestType);
  DisplayDF("Degrees of freedom", fDF);
  DisplayDF("Critical value", fCritical);
  DisplayI("Propensity category", fPropensityCategory);
  DisplayText(1, "GZLScoringEngine display end");
}
