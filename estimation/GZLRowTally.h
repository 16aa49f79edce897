#pragma once
// What a multinomial accumulator counts over a pass besides its gradient and information: the
// rows taken and refused, their weight, the log-likelihood and the fitted-probability extremes
// of the separation check. Mergeable: two tallies of disjoint rows add up to the tally of both.
#include <algorithm>
#include <cfloat>

#include <vector>

#include "estimation/GZLCompensatedSum.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"

class TQSymMatrix;

struct GZLRowTally {
  GZLCompensatedSum logLike;
  // A term of the log-likelihood was not a finite number.
  bool logLikeBad = false;
  int valid = 0;
  int invalid = 0;
  // Among the invalid rows: those the design matrix could not complete.
  int flagged = 0;
  double weight = 0.0;
  // Smallest and largest fitted probability of the observed category, smallest fitted
  // probability of any category.
  double minP = DBL_MAX;
  double maxP = -DBL_MAX;
  double minPi = DBL_MAX;

  void Clear() noexcept { *this = GZLRowTally(); }
  // The log-likelihood, missing when a term was not finite.
  double GetLogLikelihood() const noexcept { return logLikeBad ? TQMV::Missing : logLike.Get(); }
  void Merge(const GZLRowTally& other) noexcept {
    logLike.Merge(other.logLike);
    logLikeBad = logLikeBad || other.logLikeBad;
    valid += other.valid;
    invalid += other.invalid;
    flagged += other.flagged;
    weight += other.weight;
    minP = std::min(minP, other.minP);
    maxP = std::max(maxP, other.maxP);
    minPi = std::min(minPi, other.minPi);
  }
};

// What an accumulator hands out of a vector over the parameters: `all` with the entries of
// parameters out of the model (clear bits of inModel) set to 0, written to `out`.
inline const std::vector<double>& GZLInModelOnly(const std::vector<double>& all, const TQBitSet& inModel,
                                                 std::vector<double>& out) {
  out = all;
  for (std::size_t i = 0; i < out.size(); ++i)
    if (!inModel.Test(static_cast<int>(i))) out[i] = 0.0;
  return out;
}

// The display lines of a multinomial accumulator's sums: log-likelihood, gradient, information
// and the counts of rows.
void GZLDisplayPassSums(const GZLRowTally& tally, const std::vector<double>& gradient, const TQSymMatrix& information);
