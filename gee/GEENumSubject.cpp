#include "gee/GEENumSubject.h"

#include <algorithm>

#include "data/GZLRecordAccess.h"
#include "support/TQMV.h"

namespace {

// A missing weight on either side counts as a different weight, so two missing weights differ
// too.
bool DifferentWeights(double a, double b) noexcept { return TQMV::IsMissing(a) || TQMV::IsMissing(b) || a != b; }

}  // namespace

IGEENumSubject::IGEENumSubject(const std::vector<int>& subjectVars, const std::vector<int>& wsVars, int freqWeightVar)
    : fSubjectVars(subjectVars),
      fNSubjectVars(static_cast<int>(subjectVars.size())),
      fWSVars(wsVars),
      fNWSVars(static_cast<int>(wsVars.size())),
      fFreqWeightVar(freqWeightVar) {}

void IGEENumSubject::BuildKey(const Record& record, const std::vector<int>& vars, std::vector<int>& key) {
  key.resize(vars.size());
  for (std::size_t i = 0; i < vars.size(); ++i) {
    const double v = GZLRecordAccess::Read(record, vars[i]);
    // The record check has refused missing and out-of-range values before a record gets here.
    key[i] = TQMV::IsMissing(v) ? -1 : static_cast<int>(v + 0.5);
  }
}

void IGEENumSubject::ReadRecord(const Record& record) {
  BuildKey(record, fSubjectVars, fSubjectKey);
  BuildKey(record, fWSVars, fWSKey);
  fFreqWeight = fFreqWeightVar >= 0 ? GZLRecordAccess::Read(record, fFreqWeightVar) : 1.0;
}

void GEENumSubjSorted::AddRecord(const Record& record) {
  ReadRecord(record);
  auto found = fCounts.find(fSubjectKey);
  if (found == fCounts.end())
    fCounts.emplace(fSubjectKey, 1);
  else
    ++found->second;
  auto weight = fFirstWeights.find(fSubjectKey);
  if (weight == fFirstWeights.end())
    fFirstWeights.emplace(fSubjectKey, fFreqWeight);
  else if (DifferentWeights(weight->second, fFreqWeight))
    fbMixedWeight = true;
  if (fNWSVars > 0) {
    fJoined = fSubjectKey;
    fJoined.insert(fJoined.end(), fWSKey.begin(), fWSKey.end());
    if (!fJoinedKeys.insert(fJoined).second) fbRepeatedWS = true;
  }
  fbComputed = false;
}

void GEENumSubjSorted::Compute() {
  if (fbComputed) return;
  fNSubjects = static_cast<int>(fCounts.size());
  if (!fCounts.empty()) {
    fMinSize = fMaxSize = fCounts.begin()->second;
    for (const auto& [key, n] : fCounts) {
      fMinSize = std::min(fMinSize, n);
      fMaxSize = std::max(fMaxSize, n);
    }
  }
  fbComputed = true;
}

void GEENumSubjUnSorted::AddRecord(const Record& record) {
  ReadRecord(record);
  if (!fSizes.empty() && fSubjectKey == fPrevSubjectKey) {
    ++fSizes.back();
    if (DifferentWeights(fPrevWeight, fFreqWeight)) fbMixedWeight = true;
  } else {
    fSizes.push_back(1);
    fPrevSubjectKey = fSubjectKey;
    fPrevWeight = fFreqWeight;
    fWSKeys.clear();
  }
  if (fNWSVars > 0 && !fWSKeys.insert(fWSKey).second) fbRepeatedWS = true;
  fbComputed = false;
}

void GEENumSubjUnSorted::Compute() {
  if (fbComputed) return;
  fNSubjects = static_cast<int>(fSizes.size());
  if (!fSizes.empty()) {
    const auto [lo, hi] = std::minmax_element(fSizes.begin(), fSizes.end());
    fMinSize = *lo;
    fMaxSize = *hi;
  }
  fbComputed = true;
}
