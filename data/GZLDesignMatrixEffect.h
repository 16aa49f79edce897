#pragma once
// One model effect inside the design matrix: its factors and covariates, its dictionary of
// observed category combinations, its block of columns, and (with the scaled design) the
// centring and scaling of those columns.
#include <vector>

#include "GZLDataStats.h"
#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "data/GZLDictionary.h"

class GZLSettings;

class GZLDesignMatrixEffect {
 public:
  GZLDesignMatrixEffect(const GZLSettings& settings, const GZLModelEffect& effect, bool scaledDesign);

  // Dictionary pass: the record's combination (factor values truncated toward zero) enters the
  // dictionary; with the scaled design the covariate product feeds that combination's column
  // statistics with weight freqWeight.
  void AddDictionaryRecord(const Record& record, double freqWeight);
  // Ranks the combinations and takes its first column. Returns the number of columns.
  int Finalize(int start);

  // Row building. The column of the record within the row (start + dictionary column), or -1
  // when the combination is not in the dictionary (factor values: +0.5 truncated, a negative
  // value gives -1). Allocation free.
  int LookupColumn(const Record& record) noexcept { return FindColumn(record, fKey); }
  // The same with a key buffer of the caller's, sized to GetNFactors() (a reader of its own,
  // outside the row building).
  int FindColumn(const Record& record, std::vector<int>& key) const noexcept;
  // Product over the covariates of value^multiplicity with overflow-safe arithmetic; 1.0
  // without covariates; missing on a missing value or an overflow.
  double CovariateProduct(const Record& record) const noexcept;

  // Scaled design: centre and scale of every column from the column statistics (or the data
  // statistics of the covariate). totalWeight is the sum of frequency weights of the complete
  // records. False when a value is not finite.
  bool ComputeScaling(const GZLDataStats& dataStats, double totalWeight, bool intercept, bool multinomial);
  // Writes the effect's values into the row: the record's column gets the product, and with
  // the scaled design every column of the block is centred and scaled. False when there is no
  // column or the product is missing (nothing written then).
  bool WriteColumns(const Record& record, std::vector<double>& values) noexcept;

  // After Finalize: the effect is one covariate to the first power without factors (no scaled
  // design), so its single column fStart takes the covariate's value as it is.
  bool IsPlainCovariate() const noexcept { return fRowKind == RowKind::SingleCovariate; }

  const std::vector<int>& GetFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetFactorLevels() const noexcept { return fFactorLevels; }
  int GetNFactors() const noexcept { return fNFactors; }
  int GetNCombinationsPossible() const noexcept { return fNCombinationsPossible; }
  const std::vector<int>& GetCovariates() const noexcept { return fCovariates; }
  const std::vector<int>& GetCovMultiplicities() const noexcept { return fCovMultiplicities; }
  int GetStart() const noexcept { return fStart; }
  int GetNColumns() const noexcept { return fNColumns; }
  const GZLDictionary& GetDictionary() const noexcept { return fDictionary; }
  // Column combinations in column order, factors in nesting order (see GZLEffectInfo).
  const std::vector<std::vector<int>>& GetCombinations() const noexcept { return fDictionary.GetColumnKeys(); }
  const std::vector<double>& GetCentres() const noexcept { return fCentres; }
  const std::vector<double>& GetScales() const noexcept { return fScales; }
  // Weighted statistics of each column's non-zero values (scaled design only), column order.
  const std::vector<DataStat>& GetColumnStats() const noexcept { return fColumnStats; }

  void Display() const;

 private:
  std::vector<int> fFactors;
  std::vector<int> fFactorLevels;
  int fNFactors = 0;
  int fNCombinationsPossible = 1;
  std::vector<int> fCovariates;
  std::vector<int> fCovMultiplicities;
  int fStart = -1;
  int fNColumns = 1;
  GZLDictionary fDictionary;
  std::vector<double> fCentres;
  std::vector<double> fScales;
  std::vector<DataStat> fColumnStats;
  int fFreqWeightVar = -1;
  bool fbIntercept = false;
  const GZLSettings* fpSettings = nullptr;
  bool fbScaled = false;
  // Factor field indices in key order, and the reused key buffer of the row lookups.
  std::vector<int> fKeyFactors;
  std::vector<int> fKey;
  // The shape of the effect, fixed by Finalize, that picks the row writer: most effects are a
  // single covariate to the first power or factors alone, which need neither the product loop
  // nor (for the covariate) a lookup.
  enum class RowKind { General, SingleCovariate, FactorsOnly };
  RowKind fRowKind = RowKind::General;
};
