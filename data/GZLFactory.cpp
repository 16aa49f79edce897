#include "GZLFactory.h"

#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"

bool GZLFactory::NeedsInnerGZLM(const GZLSettings& settings, bool flag) {
  if (settings.GetMaxIterations() != 0) return true;
  return (flag || !settings.GetInitParams().empty()) &&
         settings.GetEffectAnalysisStat() == GZLConst_940::EffectStatLR &&
         settings.GetEffectAnalysisType() != TQConst::EffectNone;
}

IGZLAlgorithm* GZLFactory::CreateAlgorithm(const GZLSettings& settings, bool) {
  if (!settings.IsValid()) return nullptr;
  if (settings.GetGZLModelType() == GZLConst_940::GZLM || settings.GetGZLModelType() == GZLConst_940::GZLMMM)
    return new GZLAlgorithm(settings);
  // GEE models are driven by the GEE algorithm, which is not part of this library build yet.
  return nullptr;
}
