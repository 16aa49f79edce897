#include "GZLFactory.h"

#include <memory>

#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "gee/GEEAlgorithm.h"

bool GZLFactory::NeedsInnerGZLM(const GZLSettings& settings, bool flag) {
  if (settings.GetMaxIterations() != 0) return true;
  return (flag || !settings.GetInitParams().empty()) &&
         settings.GetEffectAnalysisStat() == GZLConst_940::EffectStatLR &&
         settings.GetEffectAnalysisType() != TQConst::EffectNone;
}

IGZLAlgorithm* GZLFactory::CreateAlgorithm(const GZLSettings& settings, bool flag) {
  if (!settings.IsValid()) return nullptr;
  if (settings.GetGZLModelType() == GZLConst_940::GZLM || settings.GetGZLModelType() == GZLConst_940::GZLMMM)
    return new GZLAlgorithm(settings);
  // GEE: the inner GZLM for the initial values is made first, on the same settings.
  std::unique_ptr<GZLAlgorithm> inner;
  if (NeedsInnerGZLM(settings, flag)) inner = std::make_unique<GZLAlgorithm>(settings);
  return new GEEAlgorithm(settings, std::move(inner));
}
