#include "data/GZLRecordStrategies.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "data/GZLRecordAccess.h"

using GZLRecordAccess::Read;
using GZLRecordAccess::RoundCategory;

// ---- response ----

bool GZLDPSingle::IsValid(const Record& record) const {
  const double y = Read(record, fResponse);
  if (TQMV::IsMissing(y)) return false;
  // -0.0 is not below 0 and stays valid.
  return fNonNegative == 0 || !(y < 0.0);
}

void GZLDPSingle::Fill(const Record& record, GZLDesignRow& row) const { row.fResponse = Read(record, fResponse); }

bool GZLDPEventsTrials::IsValid(const Record& record) const {
  const double e = Read(record, fEvents);
  const double t = Read(record, fTrials);
  if (TQMV::IsMissing(e) || TQMV::IsMissing(t)) return false;
  return e >= 0.0 && t > 0.0 && e <= t;
}

void GZLDPEventsTrials::Fill(const Record& record, GZLDesignRow& row) const {
  row.fEvents = Read(record, fEvents);
  row.fTrials = Read(record, fTrials);
  row.fResponse = (TQMV::IsMissing(row.fEvents) || TQMV::IsMissing(row.fTrials) || row.fTrials == 0.0)
                      ? TQMV::Missing
                      : row.fEvents / row.fTrials;
}

bool GZLDPEventsConstant::IsValid(const Record& record) const {
  const double e = Read(record, fEvents);
  if (TQMV::IsMissing(e)) return false;
  return e >= 0.0 && e <= fTrials;
}

void GZLDPEventsConstant::Fill(const Record& record, GZLDesignRow& row) const {
  row.fEvents = Read(record, fEvents);
  row.fTrials = fTrials;
  row.fResponse = (TQMV::IsMissing(row.fEvents) || !(fTrials > 0.0)) ? TQMV::Missing : row.fEvents / fTrials;
}

// ---- weights and offset ----

bool GZLFWVar::IsValid(const Record& record) const {
  const double w = Read(record, fWeight);
  return !TQMV::IsMissing(w) && w > 0.0;
}

void GZLFWVar::Fill(const Record& record, GZLDesignRow& row) const { row.fFreqWeight = Read(record, fWeight); }

bool GZLOWVar::IsValid(const Record& record) const {
  const double w = Read(record, fWeight);
  return !TQMV::IsMissing(w) && w > 0.0;
}

void GZLOWVar::Fill(const Record& record, GZLDesignRow& row) const { row.fScaleWeight = Read(record, fWeight); }

bool GZLOFVar::IsValid(const Record& record) const { return !TQMV::IsMissing(Read(record, fOffset)); }

void GZLOFVar::Fill(const Record& record, GZLDesignRow& row) const { row.fOffset = Read(record, fOffset); }

// ---- grouping strategies ----

GZLPatternTable::GZLPatternTable(int keySize, int valueSize)
    : fKeySize(static_cast<std::size_t>(std::max(keySize, 0))),
      fStride(fKeySize + static_cast<std::size_t>(std::max(valueSize, 0))),
      fSlots(64, 0) {}

std::uint32_t GZLPatternTable::Hash(const double* key) const noexcept {
  std::uint64_t h = 0x9E3779B97F4A7C15ULL;
  for (std::size_t i = 0; i < fKeySize; ++i) {
    // -0.0 and 0.0 are the same key.
    const double v = key[i] + 0.0;
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    h = (h ^ bits) * 0xBF58476D1CE4E5B9ULL;
    h ^= h >> 31;
  }
  return static_cast<std::uint32_t>(h >> 32);
}

void GZLPatternTable::Grow() {
  std::vector<std::uint64_t> slots(fSlots.size() * 2, 0);
  const std::size_t mask = slots.size() - 1;
  for (const std::uint64_t s : fSlots) {
    if (s == 0) continue;
    std::size_t i = static_cast<std::size_t>(s >> 32) & mask;
    while (slots[i] != 0) i = (i + 1) & mask;
    slots[i] = s;
  }
  fSlots.swap(slots);
}

double* GZLPatternTable::FindOrAdd(const double* key) {
  const std::uint32_t hash = Hash(key);
  const std::size_t mask = fSlots.size() - 1;
  std::size_t i = static_cast<std::size_t>(hash) & mask;
  for (; fSlots[i] != 0; i = (i + 1) & mask) {
    if (static_cast<std::uint32_t>(fSlots[i] >> 32) != hash) continue;
    const int p = static_cast<int>(fSlots[i] & 0xFFFFFFFFu) - 1;
    if (std::equal(key, key + fKeySize, Key(p))) return Entry(p) + fKeySize;
  }
  if ((fCount >> kBlockShift) >= static_cast<int>(fBlocks.size()))
    // Not zeroed here: every entry is written when its pattern is added.
    fBlocks.emplace_back(new double[(std::size_t{1} << kBlockShift) * fStride]);
  const int p = fCount++;
  double* entry = Entry(p);
  std::copy(key, key + fKeySize, entry);
  std::fill(entry + fKeySize, entry + fStride, 0.0);
  fSlots[i] = (static_cast<std::uint64_t>(hash) << 32) | static_cast<std::uint64_t>(p + 1);
  // At most half the slots taken, so that probes stay short.
  if (static_cast<std::size_t>(fCount) * 2 > fSlots.size()) Grow();
  return entry + fKeySize;
}

template <class Fill>
GZLDesignRow* GZLPatternStrategyBase::NextRowOf(const GZLPatternTable& table, Fill fill) {
  if (fNextPattern >= table.Size()) return nullptr;
  const double* key = table.Key(fNextPattern);
  while (GZLDesignRow* row = fpDesign->GetNextRow()) {
    if (!std::equal(fCurrentKey.begin(), fCurrentKey.end(), key)) continue;
    fill(*row, table.Values(fNextPattern));
    ++fNextPattern;
    return row;
  }
  return nullptr;
}

GZLPatternStrategyBase::GZLPatternStrategyBase(GZLDesignMatrix& design, const GZLSettings& settings)
    : fResponse(settings.GetDependent()), fpDesign(&design), fpSettings(&settings) {
  fVariables = settings.GetFactors();
  fVariables.insert(fVariables.end(), settings.GetCovariates().begin(), settings.GetCovariates().end());
  fNVariables = static_cast<int>(fVariables.size());
  fCurrentKey.assign(fVariables.size(), -1.0);
}

void GZLPatternStrategyBase::BuildKey(const Record& record) noexcept {
  for (int i = 0; i < fNVariables; ++i)
    fCurrentKey[static_cast<std::size_t>(i)] = Read(record, fVariables[static_cast<std::size_t>(i)]);
}

void GZLPatternStrategyBase::PrepareRow(const Record& record, GZLDesignRow&) { BuildKey(record); }

double GZLPatternStrategyBase::FillWeights(const Record& record) {
  fScratch.fFreqWeight = 1.0;
  fScratch.fScaleWeight = 1.0;
  fpDesign->FillResponseAndWeights(record, fScratch);
  return fScratch.fFreqWeight * fScratch.fScaleWeight;
}

GZLBIDep::GZLBIDep(GZLDesignMatrix& design, const GZLSettings& settings)
    : GZLPatternStrategyBase(design, settings), fPatterns(fNVariables, 2) {}

bool GZLBIDep::IsValid(const Record& record) const { return RoundCategory(Read(record, fResponse), 2) >= 0; }

void GZLBIDep::Accumulate(const Record& record) {
  const double w = FillWeights(record);
  // The event indicator compares exactly: 0.9 is valid (it rounds to 1) but is no event.
  const double e = fpSettings->CheckDepCategory(fScratch.fResponse) * w;
  BuildKey(record);
  double* totals = fPatterns.FindOrAdd(fCurrentKey.data());
  totals[0] += e;
  totals[1] += w;
  fNPatterns = fPatterns.Size();
}

GZLDesignRow* GZLBIDep::NextPatternRow() {
  return NextRowOf(fPatterns, [](GZLDesignRow& row, const double* totals) {
    row.fEvents = totals[0];
    row.fTrials = totals[1];
    row.fResponse = totals[0] / totals[1];
  });
}

GZLBIDepNullModel::GZLBIDepNullModel(GZLDesignMatrix& design, const GZLSettings& settings)
    : GZLPatternStrategyBase(design, settings) {
  if (settings.GetInterceptUse()) fRow.fValues.assign(1, 1.0);
  fRow.fEvents = 0.0;
  fRow.fTrials = 0.0;
}

bool GZLBIDepNullModel::IsValid(const Record& record) const {
  return RoundCategory(Read(record, fResponse), 2) >= 0;
}

void GZLBIDepNullModel::Accumulate(const Record& record) {
  const double w = FillWeights(record);
  fEvents += fpSettings->CheckDepCategory(fScratch.fResponse) * w;
  fTrials += w;
}

GZLDesignRow* GZLBIDepNullModel::NextPatternRow() {
  if (fNextPattern >= 1) return nullptr;
  fpDesign->ResetRow(fRow);
  fRow.fEvents = fEvents;
  fRow.fTrials = fTrials;
  fRow.fResponse = fTrials > 0.0 ? fEvents / fTrials : TQMV::Missing;
  ++fNextPattern;
  return &fRow;
}

GZLMultinomialStrategy::GZLMultinomialStrategy(GZLDesignMatrix& design, const GZLSettings& settings)
    : GZLPatternStrategyBase(design, settings),
      fNCategories(settings.GetDependentSize()),
      fPatterns(fNVariables, 1 + std::max(fNCategories, 0)) {}

bool GZLMultinomialStrategy::IsValid(const Record& record) const {
  return RoundCategory(Read(record, fResponse), fNCategories) >= 0;
}

namespace {
// The category a multinomial record adds to: the response truncated toward zero (no 0.5 here,
// unlike the validity test), or -1 outside 0 .. K-1.
int TruncatedCategory(double y, int nCategories) noexcept {
  if (TQMV::IsMissing(y) || !(y > -1.0) || !(y < static_cast<double>(nCategories))) return -1;
  return static_cast<int>(y);
}
}  // namespace

void GZLMultinomialStrategy::Accumulate(const Record& record) {
  const double w = FillWeights(record);
  const double indicator = fpSettings->CheckDepCategory(fScratch.fResponse);
  const int c = TruncatedCategory(fScratch.fResponse, fNCategories);
  BuildKey(record);
  double* totals = fPatterns.FindOrAdd(fCurrentKey.data());
  if (c >= 0) totals[1 + c] += indicator * w;
  totals[0] += w;
  fNPatterns = fPatterns.Size();
}

GZLDesignRow* GZLMultinomialStrategy::NextPatternRow() {
  const int K = fNCategories;
  return NextRowOf(fPatterns, [K](GZLDesignRow& row, const double* totals) {
    row.fCategoryWeights.assign(totals + 1, totals + 1 + K);
    row.fPatternTotal = totals[0];
  });
}

GZLMultinomialNullModel::GZLMultinomialNullModel(GZLDesignMatrix& design, const GZLSettings& settings)
    : GZLPatternStrategyBase(design, settings),
      fNCategories(settings.GetDependentSize()),
      fCategories(static_cast<std::size_t>(fNCategories > 0 ? fNCategories : 0), 0.0) {}

bool GZLMultinomialNullModel::IsValid(const Record& record) const {
  return RoundCategory(Read(record, fResponse), fNCategories) >= 0;
}

void GZLMultinomialNullModel::Accumulate(const Record& record) {
  const double w = FillWeights(record);
  const double indicator = fpSettings->CheckDepCategory(fScratch.fResponse);
  const int c = TruncatedCategory(fScratch.fResponse, fNCategories);
  if (c >= 0) fCategories[static_cast<std::size_t>(c)] += indicator * w;
  fTotal += w;
}

GZLDesignRow* GZLMultinomialNullModel::NextPatternRow() {
  if (fNextPattern >= 1) return nullptr;
  fpDesign->ResetRow(fRow);
  fRow.fCategoryWeights = fCategories;
  fRow.fPatternTotal = fTotal;
  ++fNextPattern;
  return &fRow;
}

// ---- selection ----

GZLRecordStrategies GZLRecordStrategies::Create(const GZLSettings& settings, GZLDesignMatrix& design) {
  GZLRecordStrategies s;
  switch (settings.GetDependentType()) {
    case TQConst::DependentEventsTrials:
      s.fpResponse = std::make_unique<GZLDPEventsTrials>(settings.GetDependent(), settings.GetTrials());
      break;
    case TQConst::DependentEventsConstTrials:
      s.fpResponse = std::make_unique<GZLDPEventsConstant>(settings.GetDependent(), settings.GetTrialsValue());
      break;
    default:
      s.fpResponse = std::make_unique<GZLDPSingle>(settings.GetDependent(), static_cast<int>(settings.GetDistType()));
      break;
  }
  if (settings.GetFrequencyWeightVar() >= 0)
    s.fpFreqWeight = std::make_unique<GZLFWVar>(settings.GetFrequencyWeightVar());
  else
    s.fpFreqWeight = std::make_unique<GZLFWNone>();
  if (settings.GetRegrWeightVar() >= 0)
    s.fpScaleWeight = std::make_unique<GZLOWVar>(settings.GetRegrWeightVar());
  else
    s.fpScaleWeight = std::make_unique<GZLOWNone>();
  switch (settings.GetOffsetType()) {
    case TQConst::OffsetVariable:
      s.fpOffset = std::make_unique<GZLOFVar>(settings.GetOffset());
      break;
    case TQConst::OffsetValue:
      s.fpOffset = std::make_unique<GZLOFValue>(settings.GetOffsetValue());
      break;
    default:
      s.fpOffset = std::make_unique<GZLOFNone>();
      break;
  }
  const bool hasPredictors = settings.GetNumOfFactors() + settings.GetNumOfCovariates() > 0;
  const TQConst::DistType dist = settings.GetDistType();
  if (dist == TQConst::DistBinomial) {
    if (settings.GetDependentType() == TQConst::DependentEventsTrials ||
        settings.GetDependentType() == TQConst::DependentEventsConstTrials)
      s.fpSubpopulation = std::make_unique<GZLBIRM>();
    else if (hasPredictors)
      s.fpSubpopulation = std::make_unique<GZLBIDep>(design, settings);
    else
      s.fpSubpopulation = std::make_unique<GZLBIDepNullModel>(design, settings);
  } else if (dist == TQConst::DistOrdinalMultinomial || dist == TQConst::DistNominalMultinomial) {
    if (hasPredictors)
      s.fpSubpopulation = std::make_unique<GZLMultinomialStrategy>(design, settings);
    else
      s.fpSubpopulation = std::make_unique<GZLMultinomialNullModel>(design, settings);
  } else {
    s.fpSubpopulation = std::make_unique<GZLBIStrategy>();
  }
  return s;
}
