#include "estimation/GZLOrdAccumStats.h"

#include "GZLSettings.h"
#include "data/GZLDesignRow.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

GZLOrdAccumStatsBase::GZLOrdAccumStatsBase(const GZLSettings& settings, int nParams)
    : fNCategories(std::max(settings.GetDependentSize(), 0)),
      fOffsetOfIndex(std::max(fNCategories - 1, 0)),
      fParamSize(std::max(nParams, 0) - 1) {
  std::unique_ptr<ITQLinkFunc> link(CreateLinkFunction(settings.GetLinkType(), settings.GetLinkParam()));
  if (auto* cumulative = dynamic_cast<TQCumulativeLinkFunc*>(link.get())) {
    link.release();
    fpLinkFunc.reset(cumulative);
  }
}

GZLOrdAccumStatsBase::~GZLOrdAccumStatsBase() = default;

GZLOrdAccumStats::GZLOrdAccumStats(const GZLSettings& settings, int nParams)
    : GZLOrdAccumStatsBase(settings, nParams),
      fNThresholds(fOffsetOfIndex),
      fNColumns(std::max(fParamSize + 1 - fOffsetOfIndex, 0)),
      fInModel(fParamSize + 1, true) {
  const std::size_t P = static_cast<std::size_t>(fParamSize + 1);
  const std::size_t T = static_cast<std::size_t>(fNThresholds);
  const std::size_t q = static_cast<std::size_t>(fNColumns);
  fGradient.assign(P, 0.0);
  fBeta = TQSymMatrix(fNColumns);
  fBatch.Resize(fNColumns);
  fCross.assign(T * q, 0.0);
  fThresholdDiag.assign(T, 0.0);
  fThresholdSub.assign(T, 0.0);
  fIdx.assign(q, 0);
  fVal.assign(q, 0.0);
  // The bottom and the top of the scale around the thresholds' points.
  fPoints.assign(T + 2, TQCumulativePoint());
  fPoints.back().lower = 1.0;
  fPoints.back().upper = 0.0;
  fProbs.assign(T + 1, 0.0);
  fCrossFactor.assign(T, 0.0);
  SetModelIndices();
}

void GZLOrdAccumStats::SetRedundancy(const TQBitSet& inModel) {
  fInModel = inModel;
  fInModel.Resize(fParamSize + 1, false);
  SetModelIndices();
}

void GZLOrdAccumStats::SetModelIndices() {
  fModelIndices.clear();
  for (int j = 0; j < fNColumns; ++j)
    if (fInModel.Test(fOffsetOfIndex + j)) fModelIndices.push_back(j);
  fLeadCount = 0;
  while (fLeadCount < static_cast<int>(fModelIndices.size()) &&
         fModelIndices[static_cast<std::size_t>(fLeadCount)] == fLeadCount)
    ++fLeadCount;
  fLead = -1;
}

void GZLOrdAccumStats::Clear(double phi, bool useExpected, bool llOnly) {
  fTally.Clear();
  fPhi = phi;
  fbUseExpected = useExpected;
  fbLLOnly = llOnly;
  fLead = -1;
  std::fill(fGradient.begin(), fGradient.end(), 0.0);
  fBeta.Zero();
  fBatch.Clear();
  std::fill(fCross.begin(), fCross.end(), 0.0);
  std::fill(fThresholdDiag.begin(), fThresholdDiag.end(), 0.0);
  std::fill(fThresholdSub.begin(), fThresholdSub.end(), 0.0);
}

bool GZLOrdAccumStats::UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta) {
  if (beta.size() < static_cast<std::size_t>(GetNumParams())) {
    ++fTally.invalid;
    return false;
  }
  return UpdateForRow<TQCumulativeLinkFunc, GZLDesignRow>(fpLinkFunc.get(), row, beta.data());
}

double GZLOrdAccumStats::CategoryProbabilities() noexcept {
  return GZLOrdAccumStatsBase::CategoryProbabilities(fPoints.data(), fNThresholds, fProbs.data());
}

bool GZLOrdAccumStats::ComputeProbabilities(const double* x, std::size_t n, double offset, const double* beta,
                                            std::vector<double>& pi) const {
  if (n != static_cast<std::size_t>(fNColumns) || !fpLinkFunc || fNThresholds < 1) return false;
  double lambda = -offset;
  for (int j = 0; j < fNColumns; ++j) lambda += x[j] * beta[fNThresholds + j];
  std::vector<double> eta(static_cast<std::size_t>(fNThresholds));
  for (int t = 0; t < fNThresholds; ++t) eta[static_cast<std::size_t>(t)] = beta[t] - lambda;
  std::vector<TQCumulativePoint> points(fPoints.size());
  pi.resize(static_cast<std::size_t>(fNThresholds + 1));
  return GZLOrdAccumStatsBase::CategoryProbabilities(*fpLinkFunc, eta.data(), fNThresholds, points.data(), pi.data());
}

bool GZLOrdAccumStatsBase::CategoryProbabilities(const TQCumulativeLinkFunc& link, const double* eta, int nThresholds,
                                                 TQCumulativePoint* points, double* pi) noexcept {
  points[0] = TQCumulativePoint();
  TQCumulativePoint& top = points[nThresholds + 1];
  top = TQCumulativePoint();
  top.lower = 1.0;
  top.upper = 0.0;
  for (int t = 0; t < nThresholds; ++t)
    if (!link.Evaluate(eta[t], points[t + 1])) return false;
  CategoryProbabilities(points, nThresholds, pi);
  return true;
}

double GZLOrdAccumStatsBase::CategoryProbabilities(const TQCumulativePoint* points, int nThresholds,
                                                   double* pi) noexcept {
  double smallest = 1.0;
  for (int k = 0; k <= nThresholds; ++k) {
    pi[k] = TQCumulativeLinkFunc::IntervalProb(points[k], points[k + 1]);
    smallest = std::min(smallest, pi[k]);
  }
  return smallest;
}

void GZLOrdAccumStats::Merge(const GZLOrdAccumStats& other) {
  fTally.Merge(other.fTally);
  auto add = [](std::vector<double>& to, const std::vector<double>& from) {
    const std::size_t n = std::min(to.size(), from.size());
    for (std::size_t i = 0; i < n; ++i) to[i] += from[i];
  };
  add(fGradient, other.fGradient);
  add(fCross, other.fCross);
  add(fThresholdDiag, other.fThresholdDiag);
  add(fThresholdSub, other.fThresholdSub);
  GZLBatchedRankOne::AddFlushed(fBeta.Data(), fBatch, other.fBeta.Data(), other.fBatch,
                                std::min(fBeta.PackedSize(), other.fBeta.PackedSize()));
}

const std::vector<double>& GZLOrdAccumStats::GetGradient() const {
  return GZLInModelOnly(fGradient, fInModel, fMaskedGradient);
}

void GZLOrdAccumStats::GetInformation(TQSymMatrix& out) const {
  const int T = fNThresholds;
  const int P = fParamSize + 1;
  fBatch.Flush(fBeta.Data());
  out.Resize(P);
  out.Zero();
  for (int t = 0; t < T; ++t) {
    out(t, t) = fThresholdDiag[static_cast<std::size_t>(t)];
    if (t + 1 < T) out(t + 1, t) = fThresholdSub[static_cast<std::size_t>(t)];
    for (int j = 0; j < fNColumns; ++j) out(T + j, t) = fCross[static_cast<std::size_t>(t) * fNColumns + j];
  }
  for (int j = 0; j < fNColumns; ++j)
    for (int k = 0; k <= j; ++k) out(T + j, T + k) = fBeta(j, k);
  for (int i = 0; i < P; ++i) {
    if (fInModel.Test(i)) continue;
    for (int j = 0; j < P; ++j) out(std::max(i, j), std::min(i, j)) = 0.0;
  }
}

void GZLOrdAccumStats::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLOrdAccumStats display start");
  DisplayI("Number of categories", fNCategories);
  DisplayI("Index of the first covariate parameter", fOffsetOfIndex);
  DisplayI("Index of the last parameter", fParamSize);
  DisplayB("Expected information indicator", fbUseExpected);
  DisplayD("Phi (scale) parameter", fPhi);
  TQSymMatrix information;
  GetInformation(information);
  GZLDisplayPassSums(fTally, GetGradient(), information);
  DisplayText(1, "GZLOrdAccumStats display end");
}
