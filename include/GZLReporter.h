#pragma once
// The progress report the engine hands to the host's listeners: the record count of the
// dictionary pass, or one step of an iteration history (model fitting, profile likelihood
// intervals, likelihood-ratio tests, GEE). A listener receives it as a ProgressReport, casts it
// to GZLReporter and queries measures by name. The report is only valid during the call.
//
// Measure names are compared exactly (case-sensitive):
//   discrete: "iterNum", "stepHalving", "records", "badCases", "goodCase", "upperBoundary",
//             "paramIndex" (unknown names give -1)
//   scale:    "loglike", "scale", "distParameter", "elapsedTime" (seconds; unknown names give
//             the missing value)
//   vector:   "paramEstim" (unknown names give null)
#include <string_view>
#include <vector>

#include "GZLProgress.h"

class GZLReporter : public ProgressReport {
 public:
  GZLReporter();
  GZLReporter(const GZLReporter&) = default;
  GZLReporter(GZLReporter&&) = default;
  GZLReporter& operator=(const GZLReporter&) = default;
  GZLReporter& operator=(GZLReporter&&) = default;
  ~GZLReporter() override = default;

  virtual int DiscreteMeasure(std::string_view name) const;
  virtual double ScaleMeasure(std::string_view name) const;
  virtual const std::vector<double>* VectorMeasure(std::string_view name) const;
  // Back to the values of a fresh report (no estimates, iteration -1, missing log-likelihood,
  // good cases 1, ...).
  virtual void Reset();
  // Reports carry no state worth a diagnostic dump; writes nothing.
  virtual void Display() const;

  // Milliseconds of a steady clock: the unit of the start and current times.
  static double Clock();

  void SetStartTime(double time) noexcept { fStartTime = time; }
  // Stores the current time; "records" also stores the value as the record count.
  void SetValues(std::string_view name, int value, double time);

  // Model fitting.
  void SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
               int stepHalving, double logLikelihood, double time, int badCases, int goodCases);
  // Step-halving count 0, log-likelihood missing.
  void SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
               double time, int badCases, int goodCases);
  // Profile likelihood intervals; step-halving count 0.
  void SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
               int paramIndex, double logLikelihood, double time, int badCases, int goodCases,
               int upperBoundary);

 private:
  const std::vector<double>* fpParamEstimates;
  int fIterNum;
  int fStepHalving;
  double fLogLike;
  int fReserved;
  int fRecords;
  double fStartTime;
  double fCurrentTime;
  double fScale;
  double fDistParameter;
  int fBadCases;
  int fGoodCases;
  int fUpperBoundary;
  int fParamIndex;
};
