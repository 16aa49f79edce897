#include "data/GZLDictionary.h"

#include <algorithm>
#include <numeric>
#include <string>

#include "support/TQDisplay_940.h"

void GZLDictionary::Setup(const std::vector<int>& levels) {
  fMap.clear();
  fAppearance.clear();
  fColumnKeys.clear();
  fbFinalized = false;
  const int n = static_cast<int>(levels.size());
  fNLevels = n == 0 ? 0 : *std::max_element(levels.begin(), levels.end()) + 1;
  fSortingOrder.resize(static_cast<std::size_t>(n));
  std::iota(fSortingOrder.begin(), fSortingOrder.end(), 0);
  if (fNLevels >= 2) {
    // Innermost level first; a stable sort keeps model order within a level.
    std::stable_sort(fSortingOrder.begin(), fSortingOrder.end(), [&levels](int a, int b) {
      return levels[static_cast<std::size_t>(a)] < levels[static_cast<std::size_t>(b)];
    });
  }
  fOriginalOrder.assign(static_cast<std::size_t>(n), 0);
  for (int k = 0; k < n; ++k) fOriginalOrder[static_cast<std::size_t>(fSortingOrder[static_cast<std::size_t>(k)])] = k;
}

int GZLDictionary::Add(const std::vector<int>& key) {
  const auto it = fMap.find(key);
  if (it != fMap.end()) return it->second;
  const int index = static_cast<int>(fAppearance.size());
  fMap.emplace(key, index);
  fAppearance.push_back(key);
  return index;
}

std::vector<int> GZLDictionary::Finalize() {
  std::vector<int> columnOfAppearance(fAppearance.size(), -1);
  fColumnKeys.clear();
  fColumnKeys.reserve(fMap.size());
  int column = 0;
  // The map iterates its keys in ascending lexicographic order: the rank is the column.
  for (auto& [key, value] : fMap) {
    if (!fbFinalized) columnOfAppearance[static_cast<std::size_t>(value)] = column;
    value = column++;
    fColumnKeys.push_back(key);
  }
  if (fbFinalized) {
    for (std::size_t i = 0; i < fAppearance.size(); ++i) columnOfAppearance[i] = fMap.find(fAppearance[i])->second;
  }
  fbFinalized = true;
  return columnOfAppearance;
}

int GZLDictionary::Lookup(const std::vector<int>& key) const {
  const auto it = fMap.find(key);
  return it == fMap.end() ? -1 : it->second;
}

void GZLDictionary::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLDictionary display start");
  DisplayText(1, "Contents of the dictionary:");
  for (const auto& [key, value] : fMap) DisplayIV("Combination -> " + std::to_string(value), key);
  DisplayI("Number of key sorting levels", fNLevels);
  DisplayIV("Sorting order", fSortingOrder);
  DisplayIV("Original order", fOriginalOrder);
  DisplayText(1, "GZLDictionary display end");
}
