#pragma once
// Descriptive statistics gathered in the dictionary pass: of every model covariate, the
// offset, the scale weight and the response, weighted by the frequency weight.
#include <cfloat>
#include <vector>

class Record;

// Weighted count, range, mean and standard deviation of one variable. The variance uses the
// frequency-weight convention (divisor: total weight - 1), so a total weight of 1 or less
// reports a standard deviation of 0.
struct DataStat {
  explicit DataStat(int index = -1) noexcept : fVarIndex(index) {}
  DataStat(const DataStat&) = default;
  DataStat(DataStat&&) = default;
  DataStat& operator=(const DataStat&) = default;
  DataStat& operator=(DataStat&&) = default;

  // One observation x with weight w; skipped when the variable index is negative or x is
  // missing. Numerically stable running update of mean and squared deviations.
  void Update(double x, double w) noexcept {
    if (Accumulate(x, w)) FinishStdDev();
  }
  // Update without the standard deviation (false when nothing was added); FinishStdDev brings
  // it up to date. Streaming callers defer the square root to the end of the pass.
  bool Accumulate(double x, double w) noexcept;
  void FinishStdDev() noexcept;
  void Display() const;

  int fVarIndex;
  double fWeightedN = 0.0;
  double fUnweightedN = 0.0;
  double fMin = DBL_MAX;
  double fMax = -DBL_MAX;
  double fMean = 0.0;
  double fStdDev = 0.0;
  double fSumSqDev = 0.0;
};

class GZLDataStats {
 public:
  GZLDataStats() = default;
  GZLDataStats(const std::vector<int>& covariates, int offsetVar, int scaleWeightVar, int freqWeightVar,
               int responseVar);
  GZLDataStats(const GZLDataStats&) = default;
  GZLDataStats(GZLDataStats&&) = default;
  GZLDataStats& operator=(const GZLDataStats&) = default;
  GZLDataStats& operator=(GZLDataStats&&) = default;

  // One record that passed the validity tests. A missing frequency weight changes nothing.
  void Update(const Record& record) noexcept;

  const std::vector<DataStat>& GetCovariateStats() const noexcept {
    Finish();
    return fCovariateStats;
  }
  // A copy of the n-th covariate's statistics, or a fresh statistic with index -1.
  DataStat GetStatOfNthCov(int n) const;
  // A copy of the statistics of that covariate variable, or a fresh statistic with index -1.
  DataStat GetCovariateStat(int variable) const;
  const DataStat& GetOffsetStat() const noexcept {
    Finish();
    return fOffsetStat;
  }
  // The scale weight's statistics.
  const DataStat& GetWeightStat() const noexcept {
    Finish();
    return fScaleWeightStat;
  }
  const DataStat& GetDependentStat() const noexcept {
    Finish();
    return fDependentStat;
  }
  // The response weighted by frequency weight times scale weight (only with a scale weight).
  const DataStat& GetDependentW2Stat() const noexcept {
    Finish();
    return fDependentW2Stat;
  }
  // Sum of response times weight (frequency weight, times the scale weight when there is one).
  double GetDependentSS() const noexcept { return fDependentSum; }
  int GetNCovariates() const noexcept { return fNCovariates; }

  void Display() const;

 private:
  // The standard deviations are derived from the sums when first read after records came in,
  // not per record (a square root per variable per record is most of the pass's arithmetic).
  void Finish() const noexcept;

  mutable std::vector<DataStat> fCovariateStats;
  mutable DataStat fOffsetStat;
  mutable DataStat fScaleWeightStat;
  mutable DataStat fDependentStat;
  mutable DataStat fDependentW2Stat;
  mutable bool fbPending = false;
  int fFreqWeightVar = -1;
  int fScaleWeightVar = -1;
  int fNCovariates = 0;
  double fDependentSum = 0.0;
};
