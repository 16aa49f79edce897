#pragma once
// Test helper of the GEE suites: a fit of the settings on a source, with its status and, when the
// model was built, its output statistics.
#include <memory>

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "IGZLAlgorithm.h"

namespace gee_test {

struct Fit {
  std::unique_ptr<IGZLAlgorithm> algorithm;
  TQStatus status;
  const GZLOutputStats* stats = nullptr;
};

inline Fit RunFit(const GZLSettings& settings, IGZLRecordSource& source) {
  Fit f;
  f.algorithm.reset(GZLFactory::CreateAlgorithm(settings, false));
  if (!f.algorithm) return f;
  source.Rewind();
  f.status = f.algorithm->BuildModel(source);
  if (f.algorithm->IsModelBuilt()) f.algorithm->GetOutputStats(f.stats);
  return f;
}

}  // namespace gee_test
