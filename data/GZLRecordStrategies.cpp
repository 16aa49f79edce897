#include "data/GZLRecordStrategies.h"

#include <cmath>

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

GZLBIDep::GZLBIDep(GZLDesignMatrix& design, const GZLSettings& settings) : GZLPatternStrategyBase(design, settings) {}

bool GZLBIDep::IsValid(const Record& record) const { return RoundCategory(Read(record, fResponse), 2) >= 0; }

void GZLBIDep::Accumulate(const Record& record) {
  const double w = FillWeights(record);
  // The event indicator compares exactly: 0.9 is valid (it rounds to 1) but is no event.
  const double e = fpSettings->CheckDepCategory(fScratch.fResponse) * w;
  BuildKey(record);
  const auto it = fPatterns.find(fCurrentKey);
  if (it != fPatterns.end()) {
    it->second.fEvents += e;
    it->second.fTrials += w;
    return;
  }
  const auto inserted = fPatterns.emplace(fCurrentKey, Totals{e, w}).first;
  fOrder.push_back(inserted);
  ++fNPatterns;
}

GZLDesignRow* GZLBIDep::NextPatternRow() {
  if (fNextPattern >= static_cast<int>(fOrder.size())) return nullptr;
  const auto& pattern = *fOrder[static_cast<std::size_t>(fNextPattern)];
  while (GZLDesignRow* row = fpDesign->GetNextRow()) {
    if (fCurrentKey != pattern.first) continue;
    row->fEvents = pattern.second.fEvents;
    row->fTrials = pattern.second.fTrials;
    row->fResponse = pattern.second.fEvents / pattern.second.fTrials;
    ++fNextPattern;
    return row;
  }
  return nullptr;
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
    : GZLPatternStrategyBase(design, settings), fNCategories(settings.GetDependentSize()) {}

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
  auto it = fPatterns.find(fCurrentKey);
  if (it == fPatterns.end()) {
    Totals totals;
    totals.fCategories.assign(static_cast<std::size_t>(fNCategories), 0.0);
    it = fPatterns.emplace(fCurrentKey, std::move(totals)).first;
    fOrder.push_back(it);
    ++fNPatterns;
  }
  if (c >= 0) it->second.fCategories[static_cast<std::size_t>(c)] += indicator * w;
  it->second.fTotal += w;
}

GZLDesignRow* GZLMultinomialStrategy::NextPatternRow() {
  if (fNextPattern >= static_cast<int>(fOrder.size())) return nullptr;
  const auto& pattern = *fOrder[static_cast<std::size_t>(fNextPattern)];
  while (GZLDesignRow* row = fpDesign->GetNextRow()) {
    if (fCurrentKey != pattern.first) continue;
    row->fCategoryWeights = pattern.second.fCategories;
    row->fPatternTotal = pattern.second.fTotal;
    ++fNextPattern;
    return row;
  }
  return nullptr;
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
