#pragma once
// Event and trial totals of a binomial events/trials response.
#include <utility>

#include "support/TQMV.h"

class Record;

class GZLEventsCount {
 public:
  using Count = std::pair<double, double>;  // (weighted, unweighted)

  GZLEventsCount() = default;
  GZLEventsCount(const GZLEventsCount&) = default;
  GZLEventsCount(GZLEventsCount&&) = default;
  GZLEventsCount& operator=(const GZLEventsCount&) = default;
  GZLEventsCount& operator=(GZLEventsCount&&) = default;

  // Trials from a variable; false when events or trials is negative.
  bool Setup(int events, int trials, int weight) noexcept;
  // Constant trials; false when events is negative or the constant is missing.
  bool Setup(int events, double constantTrials, int weight) noexcept;

  // False, changing nothing, when events (or trials) are not available on the record.
  bool Update(const Record& record) noexcept;

  Count GetEventsCount() const noexcept { return {fWeightedEvents, fUnweightedEvents}; }
  // Trials minus events, weighted and unweighted; both missing when a total is missing.
  Count GetNonEventsCount() const noexcept;
  Count GetTrialsCount() const noexcept { return {fWeightedTrials, fUnweightedTrials}; }
  int GetEventsVar() const noexcept { return fEventsVar; }
  int GetTrialsVar() const noexcept { return fTrialsVar; }
  double GetConstantTrials() const noexcept { return fConstantTrials; }

  void Display() const;

 private:
  int fEventsVar = -1;
  int fTrialsVar = -1;
  double fConstantTrials = TQMV::Missing;
  int fWeightVar = -1;
  double fWeightedEvents = 0.0;
  double fUnweightedEvents = 0.0;
  double fWeightedTrials = 0.0;
  double fUnweightedTrials = 0.0;
};
