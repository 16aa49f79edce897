#include "GZLEventsCount.h"

#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"

bool GZLEventsCount::Setup(int events, int trials, int weight) noexcept {
  if (events < 0 || trials < 0) return false;
  fEventsVar = events;
  fTrialsVar = trials;
  fConstantTrials = TQMV::Missing;
  fWeightVar = weight;
  return true;
}

bool GZLEventsCount::Setup(int events, double constantTrials, int weight) noexcept {
  if (events < 0 || TQMV::IsMissing(constantTrials)) return false;
  fEventsVar = events;
  fTrialsVar = -1;
  fConstantTrials = constantTrials;
  fWeightVar = weight;
  return true;
}

bool GZLEventsCount::Update(const Record& record) noexcept {
  using GZLRecordAccess::Read;
  if (fEventsVar < 0) return false;
  const double e = Read(record, fEventsVar);
  if (TQMV::IsMissing(e)) return false;
  double t;
  if (fTrialsVar >= 0) {
    t = Read(record, fTrialsVar);
  } else {
    t = fConstantTrials;
  }
  if (TQMV::IsMissing(t)) return false;
  const double w = fWeightVar >= 0 ? Read(record, fWeightVar) : 1.0;
  fWeightedEvents += w * e;
  fUnweightedEvents += e;
  fWeightedTrials += w * t;
  fUnweightedTrials += t;
  return true;
}

GZLEventsCount::Count GZLEventsCount::GetNonEventsCount() const noexcept {
  if (TQMV::IsMissing(fWeightedEvents) || TQMV::IsMissing(fUnweightedEvents) || TQMV::IsMissing(fWeightedTrials) ||
      TQMV::IsMissing(fUnweightedTrials))
    return {TQMV::Missing, TQMV::Missing};
  return {fWeightedTrials - fWeightedEvents, fUnweightedTrials - fUnweightedEvents};
}

void GZLEventsCount::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLEventsCount display start");
  DisplayI("Index of events variable", fEventsVar);
  DisplayI("Index of trials variable", fTrialsVar);
  DisplayD("Constant value of trials variable", fConstantTrials);
  DisplayD("The count of weighted events", fWeightedEvents);
  DisplayD("The count of unweighted events", fUnweightedEvents);
  DisplayD("The count of weighted trials", fWeightedTrials);
  DisplayD("The count of unweighted trials", fUnweightedTrials);
  DisplayText(1, "GZLEventsCount display end");
}
