#pragma once
// What a multinomial accumulator counts over a pass besides its gradient and information: the
// rows taken and refused, their weight, the log-likelihood and the fitted-probability extremes
// of the separation check. Mergeable: two tallies of disjoint rows add up to the tally of both.
#include <algorithm>
#include <cfloat>

#include "estimation/GZLCompensatedSum.h"

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
