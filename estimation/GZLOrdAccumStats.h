#pragma once
// Log-likelihood, gradient and information of the ordinal multinomial model (cumulative links)
// over one data pass.
//
// With C ordered response categories the parameters are [theta_0 .. theta_{C-2}, beta_1 ..
// beta_q]: the C - 1 thresholds, then one parameter per design column (the design row holds the
// effect columns only; the thresholds stand in for the intercept). For a record with linear
// part lambda = x'beta - o, P(Y <= j) = F(theta_j - lambda), F the link's distribution function,
// and the probability of category y is P = F(theta_y - lambda) - F(theta_{y-1} - lambda)
// (F = 0 below the first category, 1 above the last). The log-likelihood term is w' log P with
// w' = f s / phi; gradient and information are those of log P in the thresholds and beta:
// observed (the second derivatives of log P) or expected (summed over every category with its
// probability).
//
// Probabilities are differences of the link's two tails computed each on its own, so they keep
// their precision far from the centre. A probability that is not positive (it underflows, or a
// step put the thresholds out of order) enters the log-likelihood as the smallest normal double
// and adds no gradient or information: such a step is refused by step-halving instead of being
// rewarded.
//
// Per record the beta block of the information is W x x' for one scalar W, accumulated like the
// information of a binary model; the threshold rows are a C - 1 by q block of cross terms and a
// tridiagonal threshold block. Rows are read in sparse form; two accumulators of the same model
// over disjoint rows merge into the accumulator of all of them.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <memory>
#include <type_traits>
#include <vector>

#include "estimation/GZLRankOne.h"
#include "estimation/GZLRowTally.h"
#include "support/LinkFunctions.h"
#include "support/TQBitSet.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
struct GZLDesignRow;

class GZLOrdAccumStatsBase {
 public:
  // The model's cumulative link and nParams parameters, thresholds included.
  GZLOrdAccumStatsBase(const GZLSettings& settings, int nParams);
  virtual ~GZLOrdAccumStatsBase();
  GZLOrdAccumStatsBase(const GZLOrdAccumStatsBase&) = delete;
  GZLOrdAccumStatsBase& operator=(const GZLOrdAccumStatsBase&) = delete;

  int GetNCategories() const noexcept { return fNCategories; }
  // Index of the first covariate parameter (C - 1).
  int GetOffsetOfIndex() const noexcept { return fOffsetOfIndex; }
  // Index of the last parameter.
  int GetParamSize() const noexcept { return fParamSize; }
  // Null when the settings' link is not a cumulative link.
  const TQCumulativeLinkFunc* GetLink() const noexcept { return fpLinkFunc.get(); }

  // The C = T + 1 category probabilities at the T cumulative predictors eta_j = theta_j -
  // lambda: points (T + 2 entries) receives the link's values at each predictor in entries 1 ..
  // T, between the bottom (entry 0) and the top (entry T + 1) of the scale, which it sets; pi
  // receives the probabilities. False when the link cannot take a predictor. Allocates nothing.
  static bool CategoryProbabilities(const TQCumulativeLinkFunc& link, const double* eta, int nThresholds,
                                    TQCumulativePoint* points, double* pi) noexcept;
  // The probabilities from points already set (entries 0 .. T + 1); returns the smallest.
  static double CategoryProbabilities(const TQCumulativePoint* points, int nThresholds, double* pi) noexcept;

 protected:
  int fNCategories;
  int fOffsetOfIndex;
  int fParamSize;
  std::unique_ptr<TQCumulativeLinkFunc> fpLinkFunc;
};

class GZLOrdAccumStats final : public GZLOrdAccumStatsBase {
 public:
  GZLOrdAccumStats(const GZLSettings& settings, int nParams);

  // nParams bits, thresholds first; a set bit is a parameter in the model. Only parameters in
  // the model receive gradient and information.
  void SetRedundancy(const TQBitSet& inModel);

  // Back to an empty pass at phi, with expected or observed information; llOnly: only the
  // log-likelihood and the counts.
  void Clear(double phi, bool useExpected, bool llOnly = false);

  // One record at beta (nParams values): false, counted as invalid, when the row is flagged,
  // has the wrong length, its response is not a category 0 .. C-1 or a probability cannot be
  // formed. Link: the concrete class of the link (calls bind statically), or the base class.
  template <class Link, class Row>
  bool UpdateForRow(const Link* link, const Row& row, const double* beta);
  bool UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta);

  void Merge(const GZLOrdAccumStats& other);

  // ---- results of the pass ----
  const GZLRowTally& GetTally() const noexcept { return fTally; }
  // Missing when a term was not finite.
  double GetLogLikelihood() const noexcept { return fTally.GetLogLikelihood(); }
  const std::vector<double>& GetGradient() const;
  void GetInformation(TQSymMatrix& out) const;
  // Probabilities of the C categories at one design row (effect columns only) and beta; false
  // for a row of the wrong length or an argument the link cannot take.
  bool ComputeProbabilities(const double* x, std::size_t n, double offset, const double* beta,
                            std::vector<double>& pi) const;
  int GetNumParams() const noexcept { return fParamSize + 1; }
  void Display() const;

 private:
  void SetModelIndices();
  // Category probabilities from the points at the thresholds (fPoints): fProbs, and the
  // smallest of them.
  double CategoryProbabilities() noexcept;
  void AddThresholdCross(int t, double c, const double* x, int lead, int m);

  int fNThresholds;
  int fNColumns;
  TQBitSet fInModel;
  std::vector<int> fModelIndices;
  int fLeadCount = 0;
  int fLead = -1;
  double fPhi = 1.0;
  bool fbUseExpected = true;
  bool fbLLOnly = false;
  GZLRowTally fTally;
  std::vector<double> fGradient;
  mutable std::vector<double> fMaskedGradient;
  // Information: beta block (with its pending batch), cross terms (row t: threshold t against
  // every design column), threshold diagonal and the entries (t + 1, t).
  mutable TQSymMatrix fBeta;
  mutable GZLBatchedRankOne fBatch;
  std::vector<double> fCross;
  std::vector<double> fThresholdDiag;
  std::vector<double> fThresholdSub;
  // Per-record scratch, sized once.
  std::vector<int> fIdx;
  std::vector<double> fVal;
  std::vector<TQCumulativePoint> fPoints;
  std::vector<double> fProbs;
  std::vector<double> fCrossFactor;
};

template <class Link, class Row>
bool GZLOrdAccumStats::UpdateForRow(const Link* link, const Row& row, const double* beta) {
  const int T = fNThresholds;
  const int C = fNCategories;
  int y = -1;
  if (row.fbInvalid || row.fValues.size() != static_cast<std::size_t>(fNColumns) || link == nullptr) {
    ++fTally.flagged;
  } else {
    const double shifted = row.fResponse + 0.5;
    if (shifted > -1.0 && shifted < static_cast<double>(C)) y = static_cast<int>(shifted);
  }
  if (y < 0 || T < 1) {
    ++fTally.invalid;
    return false;
  }
  const double* x = row.fValues.data();
  if (fLead < 0) {
    fLead = GZLDenseLead(x, fLeadCount);
    fBatch.SetDense(fBeta.Data(), fLead);
  }
  const int lead = fLead;
  const int m = GZLSparseTail(x, fModelIndices.data(), static_cast<int>(fModelIndices.size()), lead, fIdx.data(),
                              fVal.data());
  const double* b = beta + T;
  double lambda = 0.0;
  for (int j = 0; j < lead; ++j) lambda += x[j] * b[j];
  for (int a = 0; a < m; ++a) lambda += fVal[static_cast<std::size_t>(a)] * b[fIdx[static_cast<std::size_t>(a)]];
  lambda -= row.fOffset;
  for (int t = 0; t < T; ++t) {
    bool ok;
    if constexpr (std::is_abstract_v<Link>)
      ok = link->Evaluate(beta[t] - lambda, fPoints[static_cast<std::size_t>(t + 1)]);
    else
      ok = link->Link::Evaluate(beta[t] - lambda, fPoints[static_cast<std::size_t>(t + 1)]);
    if (!ok) {
      ++fTally.invalid;
      return false;
    }
  }
  const double minPi = CategoryProbabilities();
  const double P = fProbs[static_cast<std::size_t>(y)];
  const double w = row.fFreqWeight * row.fScaleWeight / fPhi;
  ++fTally.valid;
  fTally.weight += row.fFreqWeight * row.fScaleWeight;
  fTally.minP = std::min(fTally.minP, P);
  fTally.maxP = std::max(fTally.maxP, P);
  fTally.minPi = std::min(fTally.minPi, minPi);
  const double term = w * std::log(P > DBL_MIN ? P : DBL_MIN);
  fTally.logLike.Add(term);
  if (!std::isfinite(term)) fTally.logLikeBad = true;
  if (fbLLOnly || !(P > 0.0)) return true;

  // fPoints[k] is the point at theta_{k-1}: entry 0 is the bottom of the scale, entry C its top.
  const TQCumulativePoint& lo = fPoints[static_cast<std::size_t>(y)];
  const TQCumulativePoint& hi = fPoints[static_cast<std::size_t>(y + 1)];
  const double invP = 1.0 / P;
  const double d = hi.density - lo.density;
  double* g = fGradient.data();
  if (y > 0) g[y - 1] -= w * lo.density * invP;
  if (y < T) g[y] += w * hi.density * invP;
  const double r = -w * d * invP;
  double* gb = g + T;
  for (int j = 0; j < lead; ++j) gb[j] += r * x[j];
  for (int a = 0; a < m; ++a) gb[fIdx[static_cast<std::size_t>(a)]] += r * fVal[static_cast<std::size_t>(a)];

  double W = 0.0;
  std::fill(fCrossFactor.begin(), fCrossFactor.end(), 0.0);
  if (fbUseExpected) {
    // Sum over the categories k of (1 / P_k) dP_k dP_k', with f_k the density at theta_k.
    for (int k = 0; k <= T; ++k) {
      const double Pk = fProbs[static_cast<std::size_t>(k)];
      if (!(Pk > 0.0)) continue;
      const double fk = fPoints[static_cast<std::size_t>(k + 1)].density;
      const double fk1 = fPoints[static_cast<std::size_t>(k)].density;
      const double dk = fk - fk1;
      W += dk * dk / Pk;
      // Category k involves thresholds k - 1 (dP = -f_{k-1}) and k (dP = f_k).
      if (k < T) {
        fCrossFactor[static_cast<std::size_t>(k)] -= w * fk * dk / Pk;
        fThresholdDiag[static_cast<std::size_t>(k)] += w * fk * fk / Pk;
      }
      if (k > 0) {
        fCrossFactor[static_cast<std::size_t>(k - 1)] += w * fk1 * dk / Pk;
        fThresholdDiag[static_cast<std::size_t>(k - 1)] += w * fk1 * fk1 / Pk;
        if (k < T) fThresholdSub[static_cast<std::size_t>(k - 1)] -= w * fk * fk1 / Pk;
      }
    }
    W *= w;
  } else {
    // Minus the second derivatives of log P.
    const double dd = hi.densityDeriv - lo.densityDeriv;
    W = w * (d * d * invP * invP - dd * invP);
    if (y < T) {
      fCrossFactor[static_cast<std::size_t>(y)] = w * (hi.densityDeriv * invP - hi.density * d * invP * invP);
      fThresholdDiag[static_cast<std::size_t>(y)] +=
          w * (hi.density * hi.density * invP * invP - hi.densityDeriv * invP);
    }
    if (y > 0) {
      fCrossFactor[static_cast<std::size_t>(y - 1)] =
          w * (lo.density * d * invP * invP - lo.densityDeriv * invP);
      fThresholdDiag[static_cast<std::size_t>(y - 1)] +=
          w * (lo.density * lo.density * invP * invP + lo.densityDeriv * invP);
    }
    if (y > 0 && y < T) fThresholdSub[static_cast<std::size_t>(y - 1)] -= w * hi.density * lo.density * invP * invP;
  }
  fBatch.Add(fBeta.Data(), x, fIdx.data(), fVal.data(), m, W);
  for (int t = 0; t < T; ++t)
    if (fCrossFactor[static_cast<std::size_t>(t)] != 0.0)
      AddThresholdCross(t, fCrossFactor[static_cast<std::size_t>(t)], x, lead, m);
  return true;
}

inline void GZLOrdAccumStats::AddThresholdCross(int t, double c, const double* x, int lead, int m) {
  double* __restrict row = fCross.data() + static_cast<std::size_t>(t) * fNColumns;
  for (int j = 0; j < lead; ++j) row[j] += c * x[j];
  for (int a = 0; a < m; ++a) row[fIdx[static_cast<std::size_t>(a)]] += c * fVal[static_cast<std::size_t>(a)];
}
