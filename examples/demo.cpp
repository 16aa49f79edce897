// Demo: specifies a Poisson log-linear model with one factor and one covariate, validates it
// and prints the settings as the engine sees them. (Fitting arrives with the algorithm layer.)
#include <iostream>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLSettings.h"
#include "diagnostics/GZLComponentDisplay_940.h"

int main() {
  // Record layout: 0 count (response), 1 group (factor, 3 levels), 2 exposure age (covariate).
  constexpr int kCount = 0, kGroup = 1, kAge = 2;

  GZLSettings settings;
  settings.SetDistType(TQConst::DistPoisson);
  settings.SetLinkType(TQConst::LinkLog);
  settings.SetScaleType(GZLConst_940::ScaleFixed);  // the Poisson scale is 1, not estimated
  settings.SetDependent(kCount);
  settings.SetInterceptUse(true);
  settings.AddFactor(kGroup, 3);
  settings.AddCovariate(kAge);
  settings.SetEffectAnalysisType(TQConst::EffectTypeIII);
  settings.SetEffectAnalysisStat(GZLConst_940::EffectStatWald);

  // Effects are described against the model's variables: factors first, then covariates.
  const std::vector<int> modelVars = {kGroup, kAge};
  GZLModelEffect group(1, 1, &modelVars);
  group.AddNewFactor(kGroup, false);
  GZLModelEffect age(1, 1, &modelVars);
  age.AddCovariate(kAge);
  settings.AddModelEffect(group);
  settings.AddModelEffect(age);

  const TQStatus status = settings.IsValidSettings(true);
  GZLComponentDisplay_940::DisplayStatus("Settings validation", status);
  std::cout << "Canonical link: " << (settings.IsCanonicalLink() ? "yes" : "no") << "\n\n";
  settings.Display();
  return status.IsOK() ? 0 : 1;
}
