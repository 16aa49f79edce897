#include "GZLEffectInfo.h"

#include <string>

#include "support/TQDisplay_940.h"

void GZLEffectInfo::Display(int number) const {
  using namespace TQDisplay_940;
  DisplayI("Effect number", number);
  DisplayI("index", fIndex);
  DisplayI("start", fStart);
  DisplayI("number of values", fNValues);
  DisplayText(1, "Combinations:");
  for (std::size_t c = 0; c < fCombinations.size(); ++c) DisplayIV("Column " + std::to_string(c), fCombinations[c]);
}
