#pragma once
// Turns a validated GZLSettings into an algorithm.
#include "IGZLAlgorithm.h"

class GZLSettings;

class GZLFactory {
 public:
  // Null when the settings are not valid. GZLM and mixed-model-host models get a GZLAlgorithm
  // (the flag is ignored); GEE models a GEE algorithm, with an inner GZLM for initial values
  // when NeedsInnerGZLM says so. The settings must outlive the algorithm; the caller owns it.
  static IGZLAlgorithm* CreateAlgorithm(const GZLSettings& settings, bool flag);

  // Whether a GEE model needs an inner GZLM fit: a non-zero GZLM iteration limit; or, with no
  // GZLM iterations, (flag or initial values) together with likelihood-ratio tests of effects.
  static bool NeedsInnerGZLM(const GZLSettings& settings, bool flag);
};
