#pragma once
// What the design matrix produces for one record and the accumulators consume: the design
// column values and the record's response, events, trials, weights and offset. One row object
// lives in the design matrix and is reused for every record of every pass.
#include <cstddef>
#include <vector>

#include "support/TQMV.h"

struct GZLDesignRow {
  // Column values: intercept (1.0) in column 0 when the model has one, then every effect's
  // block. For an ordinal response only the effect columns (the thresholds are not columns).
  std::vector<double> fValues;
  // The value the likelihood sees: the raw response, or events / trials.
  double fResponse = TQMV::Missing;
  double fEvents = TQMV::Missing;
  double fTrials = TQMV::Missing;
  double fFreqWeight = 1.0;
  double fScaleWeight = 1.0;
  double fOffset = 0.0;
  // Set when an effect's column could not be filled (combination not in the dictionary, or a
  // covariate product that overflowed): the accumulators refuse such a row.
  bool fbInvalid = false;
  // Aggregates of a multinomial covariate pattern (written only into pattern rows): the
  // weight of every response category and their total.
  std::vector<double> fCategoryWeights;
  double fPatternTotal = 0.0;

  // Back to the state before a record: nColumns zeros, no response, unit weights, no offset.
  // Reuses the storage: no allocation once the row has held nColumns values.
  void Reset(std::size_t nColumns) {
    fValues.assign(nColumns, 0.0);
    fResponse = TQMV::Missing;
    fEvents = TQMV::Missing;
    fTrials = TQMV::Missing;
    fFreqWeight = 1.0;
    fScaleWeight = 1.0;
    fOffset = 0.0;
    fbInvalid = false;
  }
};
