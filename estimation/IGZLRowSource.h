#pragma once
// What the estimation passes need from the data: a restartable stream of design rows and a few
// totals of the dictionary pass. The design matrix offers it through GZLDesignRowSource; tests
// and benchmarks may serve rows of their own making.
#include <vector>

#include "data/GZLDesignRow.h"

class TQRectMatrix;

class IGZLRowSource {
 public:
  virtual ~IGZLRowSource() = default;

  // Back to the first record for a new pass; false when the host source cannot rewind (the
  // pass then ends with NewPass).
  virtual bool RestartPass() = 0;
  // The next complete row of the pass, or null at its end. The row stays valid until the next
  // call; rows flagged invalid are handed out too (the accumulators count them as refused).
  virtual const GZLDesignRow* GetNextRow() = 0;

  // P: the number of regression parameters: the design columns; for an ordinal response the
  // thresholds and the design columns, for a nominal response those of every logit.
  virtual int GetNumParameters() const = 0;
  // The observation total: the sum of frequency weights over the complete records.
  virtual double GetNumObservations() const = 0;
  // The sum-of-squares reference of the response from the dictionary pass: about its mean when
  // `corrected`, about 0 otherwise; weighted by the frequency weight, and also by the scale
  // weight when `withScaleWeight`.
  virtual double GetResponseSumOfSquares(bool corrected, bool withScaleWeight) const = 0;
  // Binomial and multinomial responses: the pass's covariate patterns, one row each with the
  // pattern's aggregated response (for multinomial responses the weight of every category, by
  // category code, and their total) on the design values of its first record; null at the end.
  // Call after RestartPass, not mixed with GetNextRow in the same pass. Sources without
  // patterns return null at once.
  virtual const GZLDesignRow* GetNextPatternRow() { return nullptr; }
  // Multinomial responses: the response categories in the model's order (ordinal: every
  // category the settings declare, ascending; nominal: the observed non-reference categories
  // ascending, then the reference), with their weighted counts and weighted offset totals from
  // the dictionary pass. False, with the lists emptied, for other responses.
  virtual bool GetResponseCategories(std::vector<int>& categories, std::vector<double>& counts,
                                     std::vector<double>& offsetTotals) const {
    categories.clear();
    counts.clear();
    offsetTotals.clear();
    return false;
  }
  // For rows of a scaled (centred and scaled) design: the back transform A (estimates of the
  // design as specified = A times those of the rows) and the forward transform B = A^-1, both
  // P x P. Null for rows of the design as specified.
  virtual const TQRectMatrix* GetBackTransform() const { return nullptr; }
  virtual const TQRectMatrix* GetForwardTransform() const { return nullptr; }
};
