#include "data/GZLDesignMatrix.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <typeinfo>

#include "GZLConst_940.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"

using GZLRecordAccess::Read;
using GZLRecordAccess::RoundCategory;

namespace {

TQStatus InvalidRecord() { return TQStatus::Warning(GZLStatusCode::InvalidRecords); }

// Outside the finite double range (an infinity), or not a number at all.
bool OutOfRange(double x) noexcept { return std::isnan(x) || x > DBL_MAX || x < -DBL_MAX; }

bool IsOrdinal(TQConst::DistType d) { return d == TQConst::DistOrdinalMultinomial; }
bool IsMultinomial(TQConst::DistType d) {
  return d == TQConst::DistOrdinalMultinomial || d == TQConst::DistNominalMultinomial;
}

}  // namespace

GZLDesignMatrix::GZLDesignMatrix(const GZLSettings& settings)
    : fpSettings(&settings),
      fpFactors(&settings.GetFactors()),
      fpFactorSizes(&settings.GetFactorSizes()),
      fNFactors(static_cast<int>(settings.GetFactors().size())),
      fCovariates(settings.GetCovariates()),
      fNCovariates(static_cast<int>(settings.GetCovariates().size())),
      fFactorCounts(settings.GetFactors(), settings.GetFactorSizes(), settings.GetFrequencyWeightVar(),
                    settings.GetDependent(), settings.GetDependentSize(),
                    settings.GetOffsetType() == TQConst::OffsetVariable ? settings.GetOffset() : -1,
                    settings.GetOffsetValue(), settings.GetOffsetType()),
      fEffectFactorCounts(settings.GetEffectFactors(), settings.GetEffectFactorSizes(),
                          settings.GetFrequencyWeightVar(), -1, 0, -1, TQMV::Missing, TQConst::OffsetNone),
      fDataStats(settings.GetCovariates(), settings.GetOffsetType() == TQConst::OffsetVariable ? settings.GetOffset() : -1,
                 settings.GetRegrWeightVar(), settings.GetFrequencyWeightVar(), settings.GetDependent()),
      fResponseType(settings.GetDependentType()),
      fDistType(settings.GetDistType()),
      fNResponseCategs(settings.GetDependentSize()) {
  fStrategies = GZLRecordStrategies::Create(settings, *this);
  {
    // The strategies that only answer "valid" and fill nothing are left out of the per-record
    // path (the subpopulation base class serves every model without covariate patterns).
    const auto& fw = *fStrategies.fpFreqWeight;
    const auto& ow = *fStrategies.fpScaleWeight;
    const auto& of = *fStrategies.fpOffset;
    const auto& bi = *fStrategies.fpSubpopulation;
    fbFreqWeightVar = typeid(fw) != typeid(GZLFWNone);
    fbScaleWeightVar = typeid(ow) != typeid(GZLOWNone);
    fbOffsetTested = typeid(of) != typeid(GZLOFNone) && typeid(of) != typeid(GZLOFValue);
    fbOffsetFilled = typeid(of) != typeid(GZLOFNone);
    fbSubpopulationActive = typeid(bi) != typeid(GZLBIStrategy);
  }
  if (fResponseType == TQConst::DependentEventsTrials) {
    fEventsCount.Setup(settings.GetDependent(), settings.GetTrials(), -1);
    fTrialsVar = settings.GetTrials();
  } else if (fResponseType == TQConst::DependentEventsConstTrials) {
    fEventsCount.Setup(settings.GetDependent(), settings.GetTrialsValue(), -1);
    fConstantTrials = settings.GetTrialsValue();
  }
  fbScaledDesign = settings.GetTransformEffects();
  fbIntercept = settings.GetInterceptUse();
  fbResponseCentring = fbScaledDesign && fbIntercept && fDistType == TQConst::DistNormal &&
                       settings.GetLinkType() == TQConst::LinkIdentity;
  for (const GZLModelEffect& effect : settings.GetModelEffects())
    fEffects.push_back(std::make_unique<GZLDesignMatrixEffect>(settings, effect, fbScaledDesign));
  fNEffects = static_cast<int>(fEffects.size());
  if (fNResponseCategs > 0) fRow.fCategoryWeights.reserve(static_cast<std::size_t>(fNResponseCategs));
}

GZLDesignMatrix::~GZLDesignMatrix() = default;

int GZLDesignMatrix::GetMaxVariableIndex() const {
  const std::vector<int32_t>& roles = fpSettings->GetRoleTable();
  for (int i = static_cast<int>(roles.size()) - 1; i >= 0; --i)
    if (roles[static_cast<std::size_t>(i)] != 0) return i;
  return -1;
}

TQStatus GZLDesignMatrix::ValidateRecord(TQStatus& status, const Record& record, bool skipWeights) {
  status = TQStatus();
  if (!skipWeights) {
    if (!fStrategies.fpResponse->IsValid(record) || (fbFreqWeightVar && !fStrategies.fpFreqWeight->IsValid(record)) ||
        (fbScaleWeightVar && !fStrategies.fpScaleWeight->IsValid(record)))
      return status = InvalidRecord();
  }
  if ((fbOffsetTested && !fStrategies.fpOffset->IsValid(record)) ||
      (fbSubpopulationActive && !fStrategies.fpSubpopulation->IsValid(record)))
    return status = InvalidRecord();
  const std::vector<int>& factors = *fpFactors;
  const std::vector<int>& sizes = *fpFactorSizes;
  for (int f = 0; f < fNFactors; ++f) {
    const std::size_t i = static_cast<std::size_t>(f);
    if (RoundCategory(Read(record, factors[i]), i < sizes.size() ? sizes[i] : 0) < 0) return status = InvalidRecord();
  }
  for (int c = 0; c < fNCovariates; ++c)
    if (TQMV::IsMissing(Read(record, fCovariates[static_cast<std::size_t>(c)]))) return status = InvalidRecord();
  return status;
}

void GZLDesignMatrix::FillResponseAndWeights(const Record& record, GZLDesignRow& row) const {
  fStrategies.fpResponse->Fill(record, row);
  fStrategies.fpFreqWeight->Fill(record, row);
  fStrategies.fpScaleWeight->Fill(record, row);
}

void GZLDesignMatrix::ProcessDictionaryRecord(TQStatus& status, const Record& record) {
  ++fNRecords;
  ValidateRecord(status, record, false);
  if (!status.IsOK()) return;
  fRow.fResponse = TQMV::Missing;
  fRow.fEvents = TQMV::Missing;
  fRow.fTrials = TQMV::Missing;
  fRow.fFreqWeight = 1.0;
  fStrategies.fpResponse->Fill(record, fRow);
  fStrategies.fpFreqWeight->Fill(record, fRow);
  const double fw = fRow.fFreqWeight;
  ++fNCompleteRecords;
  fSumFreqWeights += fw;
  if (fResponseType == TQConst::DependentEventsTrials)
    fWeightedTrials += Read(record, fTrialsVar) * fw;
  else if (fResponseType == TQConst::DependentEventsConstTrials)
    fWeightedTrials += fConstantTrials * fw;
  fDataStats.Update(record);
  for (auto& effect : fEffects) effect->AddDictionaryRecord(record, fw);
  fStrategies.fpSubpopulation->Accumulate(record);
  fFactorCounts.Update(record);
  fEffectFactorCounts.Update(record);
  fEventsCount.Update(record);
}

TQStatus GZLDesignMatrix::RunDictionaryPass(TQStatus& status, IGZLRecordSource& source) {
  fpSource = &source;
  status = TQStatus();
  if (!source.HasMoreRecords()) return status = TQStatus::Error(GZLStatusCode::NoValidRecords);
  const Record* record = source.NextRecord();
  const int maxIndex = GetMaxVariableIndex();
  if (record != nullptr && static_cast<long long>(record->Size()) <= static_cast<long long>(maxIndex))
    return status = TQStatus::Error(GZLStatusCode::NoValidRecords);
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (cancel != nullptr && cancel->IsCancelled()) return status = TQStatus::Error(GZLStatusCode::Cancelled);

  GZLReporter reporter;
  reporter.SetStartTime(GZLReporter::Clock());
  ProgressListener* listener = fpSettings->GetRecProgressListener();
  const int reportEvery = fpSettings->GetNSkippedReports();
  int countdown = reportEvery;

  TQStatus recordStatus;
  for (; record != nullptr; record = source.NextRecord()) {
    ProcessDictionaryRecord(recordStatus, *record);
    if (recordStatus.IsError()) return status = recordStatus;
    if (listener != nullptr && --countdown < 1) {
      reporter.SetValues("records", fNCompleteRecords, GZLReporter::Clock());
      listener->OnProgress(reporter);
      countdown = reportEvery;
    }
    if (cancel != nullptr && cancel->IsCancelled()) return status = TQStatus::Error(GZLStatusCode::Cancelled);
  }
  if (fNCompleteRecords == 0) return status = TQStatus::Error(GZLStatusCode::NoValidRecords);
  // Deliberately the status of the last record alone.
  status = recordStatus;

  for (const DataStat& s : fDataStats.GetCovariateStats()) {
    if (OutOfRange(s.fMin) || OutOfRange(s.fMax) || OutOfRange(s.fMean) || OutOfRange(s.fStdDev) ||
        OutOfRange(s.fSumSqDev))
      return status = TQStatus::Error(GZLStatusCode::InvalidRecordsOverflow);
  }

  AssignColumns();

  if (fbScaledDesign) {
    const bool multinomial = IsMultinomial(fDistType);
    for (auto& effect : fEffects)
      if (!effect->ComputeScaling(fDataStats, fSumFreqWeights, fbIntercept, multinomial))
        return status = TQStatus::Error(GZLStatusCode::InvalidRecordsOverflow);
    if (fbResponseCentring) {
      fResponseCentre = fDataStats.GetDependentStat().fMean;
      fResponseCentreCompanion = fDataStats.GetDependentStat().fStdDev;
      if (OutOfRange(fResponseCentre)) return status = TQStatus::Error(GZLStatusCode::InvalidRecordsOverflow);
    }
    if (!BuildTransforms()) return status = TQStatus::Error(GZLStatusCode::InvalidRecordsOverflow);
  }
  return status;
}

void GZLDesignMatrix::AssignColumns() {
  const bool ordinal = IsOrdinal(fDistType);
  // Ordinal: the K-1 thresholds are parameters but not row columns, so effect columns count
  // from 0 within the row and the parameter count adds the thresholds.
  int column = (!ordinal && fbIntercept) ? 1 : 0;
  for (auto& effect : fEffects) column += effect->Finalize(column);
  fRowSize = column;
  fNParams = ordinal ? column + (fNResponseCategs - 1) : column;
  fNParamsNominal = fDistType == TQConst::DistNominalMultinomial ? (fNResponseCategs - 1) * fNParams : 0;
  fRow.Reset(static_cast<std::size_t>(fRowSize));
  fDirectColumns.clear();
  fWrittenEffects.clear();
  for (auto& effect : fEffects) {
    if (effect->IsPlainCovariate() && effect->GetStart() >= 0 && effect->GetStart() < fRowSize)
      fDirectColumns.push_back({effect->GetCovariates()[0], static_cast<std::size_t>(effect->GetStart())});
    else
      fWrittenEffects.push_back(effect.get());
  }
  fbRowPlan = true;
}

bool GZLDesignMatrix::BuildTransforms() {
  const int p = fNParams;
  const bool ordinal = IsOrdinal(fDistType);
  const int nThresholds = ordinal ? fNResponseCategs - 1 : 0;
  // Parameter index of a row column.
  const int shift = nThresholds;
  TQRectMatrix back(p, p, 0.0);
  TQRectMatrix forward(p, p, 0.0);
  std::vector<double> centres(static_cast<std::size_t>(p), 0.0);
  std::vector<double> scales(static_cast<std::size_t>(p), 1.0);
  for (const auto& effect : fEffects) {
    for (int k = 0; k < effect->GetNColumns(); ++k) {
      const int j = shift + effect->GetStart() + k;
      if (j < 0 || j >= p) continue;
      centres[static_cast<std::size_t>(j)] = effect->GetCentres()[static_cast<std::size_t>(k)];
      scales[static_cast<std::size_t>(j)] = effect->GetScales()[static_cast<std::size_t>(k)];
    }
  }
  const int firstColumn = ordinal ? nThresholds : (fbIntercept ? 1 : 0);
  for (int t = 0; t < firstColumn; ++t) {
    back(t, t) = 1.0;
    forward(t, t) = 1.0;
  }
  for (int j = firstColumn; j < p; ++j) {
    const double c = centres[static_cast<std::size_t>(j)];
    const double s = scales[static_cast<std::size_t>(j)];
    back(j, j) = 1.0 / s;
    forward(j, j) = s;
    if (ordinal) {
      // Cumulative predictors are theta_t - x'beta: centring moves every threshold by +c/s.
      for (int t = 0; t < nThresholds; ++t) {
        back(t, j) = c / s;
        forward(t, j) = -c;
      }
    } else if (fbIntercept) {
      back(0, j) = -c / s;
      forward(0, j) = c;
    }
  }
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j)
      if (OutOfRange(back(i, j)) || OutOfRange(forward(i, j))) return false;
  if (fDistType == TQConst::DistNominalMultinomial && fNResponseCategs > 1) {
    back.CreateBlockDiagonal(fNResponseCategs - 1, fBackTransform);
    forward.CreateBlockDiagonal(fNResponseCategs - 1, fForwardTransform);
  } else {
    fBackTransform = std::move(back);
    fForwardTransform = std::move(forward);
  }
  return true;
}

void GZLDesignMatrix::ResetRow(GZLDesignRow& row) const {
  row.Reset(static_cast<std::size_t>(fRowSize));
  if (fbIntercept && !IsOrdinal(fDistType) && fRowSize > 0) row.fValues[0] = 1.0;
}

void GZLDesignMatrix::BuildRow(TQStatus& status, const Record& record, GZLDesignRow& row, bool skipWeights) {
  ValidateRecord(status, record, skipWeights);
  if (!status.IsOK()) return;
  ResetRow(row);
  if (fbRowPlan) {
    // Each effect writes its own columns, so the order of the two groups does not matter.
    double* values = row.fValues.data();
    const std::size_t size = row.fValues.size();
    for (const DirectColumn& d : fDirectColumns) {
      // The covariate's product is the value itself; missing or infinite leaves the column
      // unwritten and the row flagged.
      const double x = Read(record, d.fField);
      if (TQMV::IsMissing(x) || !std::isfinite(x) || d.fColumn >= size)
        row.fbInvalid = true;
      else
        values[d.fColumn] = x;
    }
    for (GZLDesignMatrixEffect* effect : fWrittenEffects)
      if (!effect->WriteColumns(record, row.fValues)) row.fbInvalid = true;
  } else {
    for (auto& effect : fEffects)
      if (!effect->WriteColumns(record, row.fValues)) row.fbInvalid = true;
  }
  fStrategies.fpResponse->Fill(record, row);
  if (fbOffsetFilled) fStrategies.fpOffset->Fill(record, row);
  if (fbResponseCentring && fResponseCentre != 0.0) {
    if (!TQMV::IsMissing(row.fResponse)) row.fResponse -= fResponseCentre;
    row.fOffset -= fResponseCentre;
  }
  if (fbFreqWeightVar) fStrategies.fpFreqWeight->Fill(record, row);
  if (fbScaleWeightVar) fStrategies.fpScaleWeight->Fill(record, row);
  if (fbSubpopulationActive) fStrategies.fpSubpopulation->PrepareRow(record, row);
}

bool GZLDesignMatrix::RestartPass() {
  fNRejectedInPass = 0;
  fStrategies.fpSubpopulation->ResetPatterns();
  return fpSource != nullptr && fpSource->Rewind() == 0;
}

TQStatus GZLDesignMatrix::BeginPass() {
  return RestartPass() ? TQStatus() : TQStatus::Error(GZLStatusCode::NewPass);
}

GZLDesignRow* GZLDesignMatrix::GetNextRow() {
  if (fpSource == nullptr) return nullptr;
  TQStatus status;
  while (fpSource->HasMoreRecords()) {
    const Record* record = fpSource->NextRecord();
    if (record == nullptr) continue;
    BuildRow(status, *record, fRow, false);
    if (!status.IsOK()) {
      ++fNRejectedInPass;
      continue;
    }
    if (fbReducedModel) fRow.fValues.resize(static_cast<std::size_t>(fReducedRowSize));
    fpCurrentRecord = record;
    return &fRow;
  }
  return nullptr;
}

bool GZLDesignMatrix::SetReducedModel(int n) {
  if (n < 0 || n > fNParams) return false;
  fbReducedModel = true;
  fReducedNParams = n;
  const int rowSize = IsOrdinal(fDistType) ? n - fNResponseCategs + 1 : n;
  fReducedRowSize = rowSize < 0 ? 0 : (rowSize > fRowSize ? fRowSize : rowSize);
  if (fDistType == TQConst::DistNominalMultinomial) fReducedNParamsNominal = (fNResponseCategs - 1) * n;
  return true;
}

TQStatus GZLDesignMatrix::GetNominalCategoryOrder(std::vector<int>& order) const {
  // Support-library codes of the nominal response categories.
  constexpr int kTooFewResponseCategories = 318;
  constexpr int kReferenceCategoryNotObserved = 319;
  order.clear();
  const std::vector<TQFactorCounts::Count>* counts = fFactorCounts.GetDependCountsPtr();
  const int k = counts != nullptr ? static_cast<int>(counts->size()) : 0;
  std::vector<int> kept;
  for (int c = 0; c < k; ++c)
    if ((*counts)[static_cast<std::size_t>(c)].first > 0.0) kept.push_back(c);
  if (kept.size() < 2) return TQStatus::Error(kTooFewResponseCategories);
  TQStatus status;
  const int setting = fpSettings->GetDependentRefCateg();
  int reference;
  if (std::find(kept.begin(), kept.end(), setting) != kept.end()) {
    reference = setting;
  } else if (setting < 0) {
    reference = kept.front();
  } else {
    reference = kept.back();
    if (setting > 0) status = TQStatus::Warning(kReferenceCategoryNotObserved);
  }
  for (int c : kept)
    if (c != reference) order.push_back(c);
  order.push_back(reference);
  return status;
}

void GZLDesignMatrix::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLDesignMatrix display start");
  DisplayText(1, "Data statistics");
  fDataStats.Display();
  DisplayI("Total number of records in data set", fNRecords);
  DisplayI("Number of complete records", fNCompleteRecords);
  DisplayD("Sum of frequency weights in complete cases", fSumFreqWeights);
  DisplayI("Parameter size", fNParams);
  DisplayI("Parameter size, nominal model", fNParamsNominal);
  DisplayText(1, "Effects: ");
  for (const auto& effect : fEffects) effect->Display();
  DisplayText(1, "GZLDesignMatrix display end");
}
