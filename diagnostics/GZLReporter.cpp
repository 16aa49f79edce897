#include "GZLReporter.h"

#include <chrono>

#include "support/TQMV.h"

GZLReporter::GZLReporter() { Reset(); }

void GZLReporter::Reset() {
  fpParamEstimates = nullptr;
  fIterNum = -1;
  fStepHalving = -1;
  fLogLike = TQMV::Missing;
  fReserved = 0;
  fRecords = 0;
  fStartTime = 0.0;
  fCurrentTime = 0.0;
  fScale = TQMV::Missing;
  fDistParameter = TQMV::Missing;
  fBadCases = 0;
  fGoodCases = 1;
  fUpperBoundary = 1;
  fParamIndex = -1;
}

void GZLReporter::Display() const {}

double GZLReporter::Clock() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

int GZLReporter::DiscreteMeasure(std::string_view name) const {
  if (name == "iterNum") return fIterNum;
  if (name == "stepHalving") return fStepHalving;
  if (name == "records") return fRecords;
  if (name == "badCases") return fBadCases;
  if (name == "goodCase") return fGoodCases;
  if (name == "upperBoundary") return fUpperBoundary;
  if (name == "paramIndex") return fParamIndex;
  return -1;
}

double GZLReporter::ScaleMeasure(std::string_view name) const {
  if (name == "loglike") return fLogLike;
  if (name == "scale") return fScale;
  if (name == "distParameter") return fDistParameter;
  if (name == "elapsedTime") return (fCurrentTime - fStartTime) / 1000.0;
  return TQMV::Missing;
}

const std::vector<double>* GZLReporter::VectorMeasure(std::string_view name) const {
  return name == "paramEstim" ? fpParamEstimates : nullptr;
}

void GZLReporter::SetValues(std::string_view name, int value, double time) {
  fCurrentTime = time;
  if (name == "records") fRecords = value;
}

void GZLReporter::SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
                          int stepHalving, double logLikelihood, double time, int badCases, int goodCases) {
  fpParamEstimates = estimates;
  fScale = scale;
  fDistParameter = distParameter;
  fIterNum = iteration;
  fStepHalving = stepHalving;
  fLogLike = logLikelihood;
  fCurrentTime = time;
  fBadCases = badCases;
  fGoodCases = goodCases;
}

void GZLReporter::SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
                          double time, int badCases, int goodCases) {
  SetInfo(estimates, scale, distParameter, iteration, 0, TQMV::Missing, time, badCases, goodCases);
}

void GZLReporter::SetInfo(const std::vector<double>* estimates, double scale, double distParameter, int iteration,
                          int paramIndex, double logLikelihood, double time, int badCases, int goodCases,
                          int upperBoundary) {
  SetInfo(estimates, scale, distParameter, iteration, 0, logLikelihood, time, badCases, goodCases);
  fParamIndex = paramIndex;
  fUpperBoundary = upperBoundary;
}
