#include "data/GZLDesignMatrixEffect.h"

#include <algorithm>
#include <cmath>

#include "GZLSettings.h"
#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"
#include "support/TQPower.h"

using GZLRecordAccess::Read;

namespace {
bool IsFinite(double x) noexcept { return std::isfinite(x) && !TQMV::IsMissing(x); }
}  // namespace

GZLDesignMatrixEffect::GZLDesignMatrixEffect(const GZLSettings& settings, const GZLModelEffect& effect,
                                             bool scaledDesign)
    : fFactors(effect.GetFactors()),
      fFactorLevels(effect.GetFactorLevels()),
      fCovariates(effect.GetCovariates()),
      fCovMultiplicities(effect.GetCovMultiplicities()),
      fFreqWeightVar(settings.GetFrequencyWeightVar()),
      fbIntercept(settings.GetInterceptUse()),
      fpSettings(&settings),
      fbScaled(scaledDesign) {
  fNFactors = static_cast<int>(fFactors.size());
  // The number of combinations possible, over the sizes of the factors used in effects.
  const std::vector<int>& used = settings.GetEffectFactors();
  const std::vector<int>& sizes = settings.GetEffectFactorSizes();
  fNCombinationsPossible = 1;
  for (int f : fFactors) {
    const auto it = std::find(used.begin(), used.end(), f);
    const std::size_t pos = static_cast<std::size_t>(it - used.begin());
    if (it != used.end() && pos < sizes.size()) fNCombinationsPossible *= sizes[pos];
  }
  fDictionary.Setup(fFactorLevels);
  fKeyFactors.resize(fFactors.size());
  for (std::size_t k = 0; k < fFactors.size(); ++k)
    fKeyFactors[k] = fFactors[static_cast<std::size_t>(fDictionary.GetSortingOrder()[k])];
  fKey.resize(fFactors.size());
  // A valid record's code of a factor with n categories truncates to -1 .. n-1 (see
  // AddDictionaryRecord): the dictionary pass can find keys in a flat table over that box.
  std::vector<int> lo, hi;
  for (int f : fKeyFactors) {
    const auto it = std::find(used.begin(), used.end(), f);
    const std::size_t pos = static_cast<std::size_t>(it - used.begin());
    if (it == used.end() || pos >= sizes.size() || sizes[pos] < 1) return;
    lo.push_back(-1);
    hi.push_back(sizes[pos] - 1);
  }
  fDictionary.SetKeyRange(lo, hi);
}

void GZLDesignMatrixEffect::AddDictionaryRecord(const Record& record, double freqWeight) {
  // The dictionary pass truncates factor values without the 0.5 of the row lookup: both agree
  // on integer codes only (0.7 is entered as 0 but looked up as 1; kept on purpose).
  for (std::size_t k = 0; k < fKeyFactors.size(); ++k) fKey[k] = static_cast<int>(Read(record, fKeyFactors[k]));
  // Without factors the empty key is the only one: once entered it is entry 0 (first
  // appearance and column alike), and the dictionary need not be asked again.
  const int index = (fNFactors == 0 && fDictionary.GetSize() == 1) ? 0 : fDictionary.Add(fKey);
  if (!fbScaled) return;
  if (static_cast<std::size_t>(index) >= fColumnStats.size()) fColumnStats.resize(static_cast<std::size_t>(index) + 1, DataStat(0));
  fColumnStats[static_cast<std::size_t>(index)].Update(CovariateProduct(record), freqWeight);
}

int GZLDesignMatrixEffect::Finalize(int start) {
  fStart = start;
  const std::vector<int> columnOf = fDictionary.Finalize();
  fNColumns = fNFactors == 0 ? 1 : fDictionary.GetSize();
  if (fbScaled) {
    // Column statistics from order of appearance into column order.
    std::vector<DataStat> byColumn(static_cast<std::size_t>(fNColumns), DataStat(0));
    for (std::size_t i = 0; i < columnOf.size() && i < fColumnStats.size(); ++i)
      if (columnOf[i] >= 0 && columnOf[i] < fNColumns) byColumn[static_cast<std::size_t>(columnOf[i])] = fColumnStats[i];
    fColumnStats = std::move(byColumn);
  }
  fRowKind = RowKind::General;
  if (!fbScaled) {
    if (fNFactors == 0 && fCovariates.size() == 1 && fCovMultiplicities.size() == 1 && fCovMultiplicities[0] == 1)
      fRowKind = RowKind::SingleCovariate;
    else if (fNFactors > 0 && fCovariates.empty())
      fRowKind = RowKind::FactorsOnly;
  }
  return fNColumns;
}

int GZLDesignMatrixEffect::FindColumn(const Record& record, std::vector<int>& key) const noexcept {
  for (std::size_t k = 0; k < fKeyFactors.size(); ++k) {
    const double v = Read(record, fKeyFactors[k]);
    key[k] = v >= 0.0 ? static_cast<int>(v + 0.5) : -1;
  }
  const int column = fNFactors == 0 ? 0 : fDictionary.Lookup(key);
  return column < 0 ? -1 : fStart + column;
}

double GZLDesignMatrixEffect::CovariateProduct(const Record& record) const noexcept {
  double product = 1.0;
  for (std::size_t i = 0; i < fCovariates.size(); ++i) {
    const double x = Read(record, fCovariates[i]);
    if (TQMV::IsMissing(x)) return TQMV::Missing;
    double power = x;
    // Multiplicity 1 (nearly every covariate) skips the power: x itself, with the power's
    // refusal of an infinite x left to the finiteness test of the product below.
    if (fCovMultiplicities[i] != 1 &&
        (!TQPower::Power(x, static_cast<double>(fCovMultiplicities[i]), power) || TQMV::IsMissing(power)))
      return TQMV::Missing;
    // The overflow-safe product, inline: product is finite and not missing here.
    product *= power;
    if (!std::isfinite(product) || TQMV::IsMissing(product)) return TQMV::Missing;
  }
  return product;
}

bool GZLDesignMatrixEffect::WriteColumns(const Record& record, std::vector<double>& values) noexcept {
  // The same results as the general path below, without its loops.
  if (fRowKind == RowKind::SingleCovariate) {
    // Column fStart; the product 1.0 * x is x, missing when x is missing or infinite.
    const double x = Read(record, fCovariates[0]);
    if (TQMV::IsMissing(x) || !std::isfinite(x)) return false;
    const std::size_t col = static_cast<std::size_t>(fStart);
    if (fStart < 0 || col >= values.size()) return false;
    values[col] = x;
    return true;
  }
  if (fRowKind == RowKind::FactorsOnly) {
    // No covariates: the product is 1.0.
    const int column = LookupColumn(record);
    if (column < 0 || static_cast<std::size_t>(column) >= values.size()) return false;
    values[static_cast<std::size_t>(column)] = 1.0;
    return true;
  }
  const int column = LookupColumn(record);
  if (column < 0) return false;
  const double product = CovariateProduct(record);
  if (TQMV::IsMissing(product)) return false;
  const std::size_t col = static_cast<std::size_t>(column);
  if (col >= values.size()) return false;
  if (!fbScaled) {
    values[col] = product;
    return true;
  }
  // Centring shifts every column of the block, not only the record's: a column the record
  // does not fall in holds 0 before centring. Without this the back transform to the unscaled
  // estimates would not be exact.
  const std::size_t start = static_cast<std::size_t>(fStart);
  for (std::size_t k = 0; k < static_cast<std::size_t>(fNColumns) && start + k < values.size(); ++k) {
    const double raw = (start + k == col) ? product : 0.0;
    values[start + k] = (raw - fCentres[k]) / fScales[k];
  }
  return true;
}

bool GZLDesignMatrixEffect::ComputeScaling(const GZLDataStats& dataStats, double totalWeight, bool intercept,
                                           bool multinomial) {
  const std::size_t n = static_cast<std::size_t>(fNColumns);
  fCentres.assign(n, 0.0);
  fScales.assign(n, 1.0);
  if (fNFactors > 0 && fCovariates.empty()) return true;
  for (std::size_t c = 0; c < n; ++c) {
    double m;
    double s;
    if (fNFactors == 0 && fCovariates.size() <= 1) {
      const DataStat stat = fCovariates.empty() ? DataStat(-1) : dataStats.GetCovariateStat(fCovariates[0]);
      m = stat.fMean;
      s = stat.fStdDev;
    } else {
      const DataStat& stat = fColumnStats[c];
      if (fNFactors == 0) {
        m = stat.fMean;
        s = stat.fStdDev;
      } else {
        // The column holds 0 on every record outside its combination: fold those zeros into
        // the weighted mean and the squared deviations.
        const double wc = stat.fWeightedN;
        m = totalWeight > 0.0 ? wc * stat.fMean / totalWeight : 0.0;
        const double ss = stat.fSumSqDev + wc * stat.fMean * stat.fMean * (totalWeight > 0.0 ? 1.0 - wc / totalWeight : 0.0);
        s = totalWeight > 1.0 ? std::sqrt(std::max(ss, 0.0) / (totalWeight - 1.0)) : 0.0;
      }
    }
    double centre;
    double scale;
    if (s != 0.0) {  // also a NaN
      if (multinomial || intercept) {
        centre = m;
        scale = s;
      } else {
        centre = 0.0;
        scale = std::sqrt(s * s + m * m);
      }
    } else {
      centre = 0.0;
      scale = m != 0.0 ? m : 1.0;
    }
    if (!IsFinite(centre) || !IsFinite(scale) || scale == 0.0) return false;
    fCentres[c] = centre;
    fScales[c] = scale;
  }
  return true;
}

void GZLDesignMatrixEffect::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLDesignMatrixEffect display start");
  DisplayIV("Factors", fFactors);
  DisplayIV("Covariates", fCovariates);
  DisplayIV("Multiplicities", fCovMultiplicities);
  DisplayI("Start", fStart);
  DisplayI("Size", fNColumns);
  fDictionary.Display();
  DisplayText(1, "GZLDesignMatrixEffect display end");
}
