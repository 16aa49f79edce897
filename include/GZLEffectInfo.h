#pragma once
// Per-effect layout of the design, and the cancellation handle the algorithm passes to the
// objects it creates.
#include <cstdint>
#include <vector>

#include "GZLProgress.h"

// One model effect's block of design columns.
struct GZLEffectInfo {
  // Position of the effect among the settings' effects.
  int32_t fIndex = 0;
  // First design column of the effect (for an ordinal response counted after the thresholds).
  int32_t fStart = 0;
  // Number of design columns the effect spans.
  int32_t fNValues = 0;
  // One list per column: the category of each factor of the effect in that column. The factors
  // are taken in nesting order (innermost level first, equal levels in model order), which is
  // the factor order of the column's regression parameter, so a combination can be copied
  // straight into the parameter's categories. Empty lists for an effect without factors.
  std::vector<std::vector<int>> fCombinations;

  bool operator==(const GZLEffectInfo&) const = default;
  // "Effect info:" is printed by the owner; this prints one entry under its number.
  void Display(int number) const;
};

struct GZLCancelInfo {
  TQQueryCancel* fpCancel = nullptr;
  int32_t fValue = 0;

  bool IsCancelled() const { return fpCancel != nullptr && fpCancel->IsCancelled(); }
};
