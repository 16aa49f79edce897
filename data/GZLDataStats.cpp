#include "GZLDataStats.h"

#include <cmath>

#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

namespace {
constexpr double kEpsilon = 2.220446049250313e-16;
}

bool DataStat::Accumulate(double x, double w) noexcept {
  // A weight that is missing or not positive carries no observation (such records never pass
  // the validity tests; the guard keeps the divisions below finite).
  if (fVarIndex < 0 || TQMV::IsMissing(x) || TQMV::IsMissing(w) || !(w > 0.0)) return false;
  const double oldWeight = fWeightedN;
  const double weight = oldWeight + w;
  fWeightedN = weight;
  fUnweightedN += 1.0;
  if (x < fMin) fMin = x;
  if (x > fMax) fMax = x;
  const double d = (x - fMean) * (w / weight);
  double mean = fMean + d;
  // Cancellation to a residue of rounding: store an exact zero.
  if (std::fabs(mean) < 2.0 * std::fabs(fMean) * kEpsilon) mean = 0.0;
  fMean = mean;
  fSumSqDev += (weight / w) * d * oldWeight * d;
  return true;
}

void DataStat::FinishStdDev() noexcept {
  if (fWeightedN > 1.0) fStdDev = std::sqrt(fSumSqDev / (fWeightedN - 1.0));
}

void DataStat::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "DataStat display start");
  DisplayI("Variable index", fVarIndex);
  DisplayD("Weighted number of cases", fWeightedN);
  DisplayD("Unweighted number of cases", fUnweightedN);
  DisplayD("Minimum value", fMin);
  DisplayD("Maximum value", fMax);
  DisplayD("Mean value", fMean);
  DisplayD("Standard deviation", fStdDev);
  DisplayText(1, "DataStat display end");
}

GZLDataStats::GZLDataStats(const std::vector<int>& covariates, int offsetVar, int scaleWeightVar, int freqWeightVar,
                           int responseVar)
    : fOffsetStat(offsetVar),
      fScaleWeightStat(scaleWeightVar),
      fDependentStat(responseVar),
      fDependentW2Stat(responseVar),
      fFreqWeightVar(freqWeightVar),
      fScaleWeightVar(scaleWeightVar),
      fNCovariates(static_cast<int>(covariates.size())) {
  fCovariateStats.reserve(covariates.size());
  for (int c : covariates) fCovariateStats.emplace_back(c);
}

void GZLDataStats::Update(const Record& record) noexcept {
  using GZLRecordAccess::Read;
  const double w = fFreqWeightVar >= 0 ? Read(record, fFreqWeightVar) : 1.0;
  if (TQMV::IsMissing(w)) return;
  fbPending = true;
  for (DataStat& s : fCovariateStats) s.Accumulate(Read(record, s.fVarIndex), w);
  fOffsetStat.Accumulate(Read(record, fOffsetStat.fVarIndex), w);
  fScaleWeightStat.Accumulate(Read(record, fScaleWeightStat.fVarIndex), w);
  const double y = Read(record, fDependentStat.fVarIndex);
  fDependentStat.Accumulate(y, w);
  double wSum = w;
  if (fScaleWeightVar >= 0) {
    const double sw = Read(record, fScaleWeightVar);
    if (!TQMV::IsMissing(sw)) {
      const double w2 = w * sw;
      fDependentW2Stat.Accumulate(y, w2);
      wSum = w2;
    }
  }
  if (!TQMV::IsMissing(y)) fDependentSum += y * wSum;
}

void GZLDataStats::Finish() const noexcept {
  if (!fbPending) return;
  for (DataStat& s : fCovariateStats) s.FinishStdDev();
  fOffsetStat.FinishStdDev();
  fScaleWeightStat.FinishStdDev();
  fDependentStat.FinishStdDev();
  fDependentW2Stat.FinishStdDev();
  fbPending = false;
}

DataStat GZLDataStats::GetStatOfNthCov(int n) const {
  Finish();
  if (n < 0 || n >= static_cast<int>(fCovariateStats.size())) return DataStat(-1);
  return fCovariateStats[static_cast<std::size_t>(n)];
}

DataStat GZLDataStats::GetCovariateStat(int variable) const {
  Finish();
  for (const DataStat& s : fCovariateStats)
    if (s.fVarIndex == variable && variable >= 0) return s;
  return DataStat(-1);
}

void GZLDataStats::Display() const {
  using namespace TQDisplay_940;
  Finish();
  DisplayText(1, "GZLDataStats display start");
  DisplayI("Number of covariate variables", fNCovariates);
  DisplayText(1, "Covariate data statistics");
  for (const DataStat& s : fCovariateStats) s.Display();
  DisplayText(1, "Offset data statistics");
  fOffsetStat.Display();
  DisplayText(1, "Omega (scale) weight data statistics");
  fScaleWeightStat.Display();
  DisplayI("Index of the frequency weight variable", fFreqWeightVar);
  DisplayText(1, "Dependent data statistics");
  fDependentStat.Display();
  DisplayText(1, "Dependent data statistics computed with 2 weights");
  fDependentW2Stat.Display();
  DisplayText(1, "GZLDataStats display end");
}
