#include "gee/GEEDesignMatrix.h"

#include <algorithm>

#include "GZLProgress.h"
#include "GZLSettings.h"
#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"

namespace {

// Positions are looked up in a flat table when the within-subject variables span at most this
// many combinations.
constexpr long long kMaxPositionTable = 1 << 16;

bool ValidGroupingValues(const Record& record, const std::vector<int>& vars, const std::vector<int>& sizes) {
  for (std::size_t i = 0; i < vars.size(); ++i) {
    if (vars[i] < 0 || static_cast<std::size_t>(vars[i]) >= record.Size()) return false;
    const int size = i < sizes.size() ? sizes[i] : 0;
    if (GZLRecordAccess::RoundCategory(record[static_cast<std::size_t>(vars[i])], size) < 0) return false;
  }
  return true;
}

}  // namespace

GZLDesignRow& GEESubject::Slot(int j) {
  const std::size_t k = static_cast<std::size_t>(j);
  if (fRows.size() <= k) {
    fRows.resize(k + 1);
    fPositions.resize(k + 1, -1);
  }
  return fRows[k];
}

GEEDesignMatrix::GEEDesignMatrix(const GZLSettings& settings)
    : GZLDesignMatrix(settings),
      fSubjectVars(settings.GetGEESubjectVars()),
      fSubjectVarSizes(settings.GetGEESubjectVarSizes()),
      fWSVars(settings.GetGEEWSVars()),
      fWSVarSizes(settings.GetGEEWSVarSizes()),
      fNWSVars(static_cast<int>(settings.GetGEEWSVars().size())),
      fSubjectCounts(fSubjectVars, fSubjectVarSizes, settings.GetFrequencyWeightVar(), -1, 0, -1, TQMV::Missing,
                     TQConst::OffsetNone),
      fWSCounts(fWSVars, fWSVarSizes, settings.GetFrequencyWeightVar(), -1, 0, -1, TQMV::Missing,
                TQConst::OffsetNone),
      fpCancel(settings.GetCancelPointer()) {
  const int fw = settings.GetFrequencyWeightVar();
  if (settings.IsGEESortBySubjectWS())
    fpNumSubject = std::make_unique<GEENumSubjSorted>(fSubjectVars, fWSVars, fw);
  else
    fpNumSubject = std::make_unique<GEENumSubjUnSorted>(fSubjectVars, fWSVars, fw);
  fSubjectKey.assign(fSubjectVars.size(), -1);
  fWSKey.assign(fWSVars.size(), -1);
}

GEEDesignMatrix::~GEEDesignMatrix() = default;

bool GEEDesignMatrix::IsValidGrouping(const Record& record) const noexcept {
  return ValidGroupingValues(record, fSubjectVars, fSubjectVarSizes) &&
         ValidGroupingValues(record, fWSVars, fWSVarSizes);
}

TQStatus GEEDesignMatrix::ValidateRecord(TQStatus& status, const Record& record, bool skipWeights) {
  GZLDesignMatrix::ValidateRecord(status, record, skipWeights);
  if (status.IsOK() && !IsValidGrouping(record)) status = TQStatus::Warning(GZLStatusCode::InvalidRecords);
  return status;
}

void GEEDesignMatrix::ProcessDictionaryRecord(TQStatus& status, const Record& record) {
  GZLDesignMatrix::ProcessDictionaryRecord(status, record);
  if (!status.IsOK()) return;
  fpNumSubject->AddRecord(record);
  fSubjectCounts.Update(record);
  fWSCounts.Update(record);
  if (fNWSVars > 0) {
    IGEENumSubject::BuildKey(record, fWSVars, fWSKey);
    if (fWSCombinationMap.find(fWSKey) == fWSCombinationMap.end()) fWSCombinationMap.emplace(fWSKey, 0);
  }
}

void GEEDesignMatrix::NumberWSCombinations() {
  // The map's order is the lexicographic order of the combinations.
  fWSCombinations.clear();
  int position = 0;
  for (auto& [combination, number] : fWSCombinationMap) {
    number = position++;
    fWSCombinations.push_back(combination);
  }
  fPositionTable.clear();
  if (fNWSVars == 0) return;
  long long cells = 1;
  for (int size : fWSVarSizes) {
    cells *= std::max(size, 1);
    if (cells > kMaxPositionTable) return;
  }
  fPositionTable.assign(static_cast<std::size_t>(cells), -1);
  for (const auto& [combination, number] : fWSCombinationMap) {
    long long code = 0;
    for (std::size_t i = 0; i < combination.size(); ++i) code = code * fWSVarSizes[i] + combination[i];
    fPositionTable[static_cast<std::size_t>(code)] = number;
  }
}

int GEEDesignMatrix::GetCorrDimension() {
  if (fNWSVars > 0) return static_cast<int>(fWSCombinationMap.size());
  fpNumSubject->Compute();
  return fpNumSubject->GetMaxSubjectSize();
}

int GEEDesignMatrix::LookUpPosition() const {
  if (fNWSVars == 0) return -1;
  if (!fPositionTable.empty()) {
    long long code = 0;
    for (std::size_t i = 0; i < fWSKey.size(); ++i) code = code * fWSVarSizes[i] + fWSKey[i];
    return fPositionTable[static_cast<std::size_t>(code)];
  }
  const auto found = fWSCombinationMap.find(fWSKey);
  return found == fWSCombinationMap.end() ? -1 : found->second;
}

void GEEDesignMatrix::BuildRow(TQStatus& status, const Record& record, GZLDesignRow& row, bool skipWeights) {
  GZLDesignMatrix::BuildRow(status, record, row, skipWeights);
  if (!status.IsOK()) return;
  IGEENumSubject::BuildKey(record, fSubjectVars, fSubjectKey);
  IGEENumSubject::BuildKey(record, fWSVars, fWSKey);
  fPosition = LookUpPosition();
}

bool GEEDesignMatrix::RestartPass() {
  fbPending = false;
  fbCancelled = false;
  return GZLDesignMatrix::RestartPass();
}

bool GEEDesignMatrix::NextSubject(GEESubject& subject) {
  subject.Clear();
  if (fbCancelled || fpSource == nullptr) return false;
  if (fbPending) {
    std::swap(subject.Slot(0), fPendingRow);
    subject.fPositions[0] = fPendingPosition;
    subject.fNRecords = 1;
    fCurrentKey = fPendingKey;
    fbPending = false;
  }
  // Rows are built straight into the subject's storage; the first row of the next subject
  // changes places with the pending row, so that no row is copied.
  TQStatus status;
  while (fpSource->HasMoreRecords()) {
    const Record* record = fpSource->NextRecord();
    if (record == nullptr) continue;
    GZLDesignRow& row = subject.Slot(subject.fNRecords);
    BuildRow(status, *record, row, false);
    if (!status.IsOK()) {
      ++fNRejectedInPass;
      continue;
    }
    if (fpCancel != nullptr && fpCancel->IsCancelled()) {
      fbCancelled = true;
      return false;
    }
    if (subject.fNRecords > 0 && fSubjectKey != fCurrentKey) {
      std::swap(row, fPendingRow);
      fPendingKey = fSubjectKey;
      fPendingPosition = fPosition;
      fbPending = true;
      return true;
    }
    if (subject.fNRecords == 0) fCurrentKey = fSubjectKey;
    subject.fPositions[static_cast<std::size_t>(subject.fNRecords)] = fPosition;
    ++subject.fNRecords;
  }
  return subject.fNRecords > 0;
}

void GEEDesignMatrix::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GEEDesignMatrix display start");
  GZLDesignMatrix::Display();
  DisplayIV("Subject variables", fSubjectVars);
  DisplayIV("Subject variables sizes", fSubjectVarSizes);
  DisplayIV("Within subject variables", fWSVars);
  DisplayIV("Within subject variables sizes", fWSVarSizes);
  DisplayI("Number of subjects", fpNumSubject->GetNumSubjects());
  DisplayI("Minimum subject size", fpNumSubject->GetMinSubjectSize());
  DisplayI("Maximum subject size", fpNumSubject->GetMaxSubjectSize());
  DisplayI("Number of within subject combinations", static_cast<int>(fWSCombinations.size()));
  fSubjectCounts.Display();
  fWSCounts.Display();
  DisplayText(1, "GEEDesignMatrix display end");
}
