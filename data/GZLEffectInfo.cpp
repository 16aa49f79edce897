#include "GZLEffectInfo.h"

#include "support/TQDisplay_940.h"

void GZLEffectInfo::Display(int number) const {
  using namespace TQDisplay_940;
  DisplayI("Effect number", number);
  DisplayI("index", fIndex);
  DisplayI("start", fStart);
  DisplayI("number of values", fNValues);
  DisplayText(1, "Combinations:");
  for (const auto& combination : fCombinations) DisplayIV("", combination);
}
