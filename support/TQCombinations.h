#pragma once
// Every combination of one value from each of several lists, the last list varying fastest
// (so the first list varies slowest, as in a table read row by row):
//   TQCombinations c; c.Set(lists);
//   std::vector<int> combination;
//   while (c.Next(combination)) { ... }
// No list at all gives one empty combination; an empty list gives none.
#include <cstddef>
#include <vector>

class TQCombinations {
 public:
  void Set(std::vector<std::vector<int>> lists) {
    fLists = std::move(lists);
    Reset();
  }
  // Back to the first combination.
  void Reset() {
    fPositions.assign(fLists.size(), 0);
    fbStarted = false;
    fbDone = GetNCombinations() == 0;
  }
  long GetNCombinations() const noexcept {
    long n = 1;
    for (const std::vector<int>& list : fLists) n *= static_cast<long>(list.size());
    return n;
  }
  // The next combination into `combination` (one value per list); false after the last.
  bool Next(std::vector<int>& combination) {
    if (fbDone) return false;
    if (fbStarted) {
      std::size_t i = fLists.size();
      for (; i > 0; --i) {
        if (++fPositions[i - 1] < fLists[i - 1].size()) break;
        fPositions[i - 1] = 0;
      }
      if (i == 0) {
        fbDone = true;
        return false;
      }
    }
    fbStarted = true;
    combination.resize(fLists.size());
    for (std::size_t i = 0; i < fLists.size(); ++i) combination[i] = fLists[i][fPositions[i]];
    return true;
  }

 private:
  std::vector<std::vector<int>> fLists;
  std::vector<std::size_t> fPositions;
  bool fbStarted = false;
  bool fbDone = false;
};
