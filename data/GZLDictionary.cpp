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
  fbLastAddedValid = false;
  ClearTable();
  fAddMin.clear();
  fAddRadix.clear();
  fAddTable.clear();
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

void GZLDictionary::SetKeyRange(const std::vector<int>& lo, const std::vector<int>& hi) {
  fAddMin.clear();
  fAddRadix.clear();
  fAddTable.clear();
  if (lo.size() != hi.size() || lo.empty() || fbFinalized || !fMap.empty()) return;
  std::int64_t size = 1;
  for (std::size_t k = 0; k < lo.size(); ++k) {
    const std::int64_t radix = static_cast<std::int64_t>(hi[k]) - lo[k] + 1;
    if (radix < 1 || radix > kMaxTableSize || size > kMaxTableSize / radix) {
      fAddMin.clear();
      fAddRadix.clear();
      return;
    }
    size *= radix;
    fAddMin.push_back(lo[k]);
    fAddRadix.push_back(radix);
  }
  fAddTable.assign(static_cast<std::size_t>(size), -1);
}

int GZLDictionary::Enter(const std::vector<int>& key) {
  const int index = static_cast<int>(fAppearance.size());
  fMap.emplace(key, index);
  // A new key after Finalize would be missing from the table: back to the tree until the next
  // Finalize.
  ClearTable();
  fAppearance.push_back(key);
  return index;
}

int GZLDictionary::Add(const std::vector<int>& key) {
  if (fbLastAddedValid && fLastKey == key) return fLastValue;
  if (!fbFinalized && !fAddTable.empty() && key.size() == fAddRadix.size()) {
    std::int64_t place = 0;
    bool inside = true;
    for (std::size_t k = 0; k < key.size() && inside; ++k) {
      const std::int64_t offset = static_cast<std::int64_t>(key[k]) - fAddMin[k];
      inside = offset >= 0 && offset < fAddRadix[k];
      place = place * fAddRadix[k] + offset;
    }
    if (inside) {
      int& entry = fAddTable[static_cast<std::size_t>(place)];
      if (entry < 0) entry = Enter(key);
      fLastKey = key;
      fbLastAddedValid = true;
      return fLastValue = entry;
    }
  }
  const auto it = fMap.find(key);
  fLastKey = key;  // same length every time: the storage is reused
  fbLastAddedValid = true;
  if (it != fMap.end()) return fLastValue = it->second;
  return fLastValue = Enter(key);
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
  fbLastAddedValid = false;  // the values are columns now
  fAddMin.clear();
  fAddRadix.clear();
  fAddTable = std::vector<int>();
  BuildTable();
  return columnOfAppearance;
}

void GZLDictionary::ClearTable() noexcept {
  fTable.clear();
  fTableMin.clear();
  fTableRadix.clear();
}

void GZLDictionary::BuildTable() {
  ClearTable();
  if (fMap.empty()) return;
  const std::size_t n = fMap.begin()->first.size();
  // An effect without factors has one empty key: its column is known without a lookup.
  if (n == 0) return;
  std::vector<std::int64_t> lo(n), hi(n);
  bool first = true;
  for (const auto& [key, column] : fMap) {
    if (key.size() != n) return;  // keys of unequal length: keep the tree
    for (std::size_t k = 0; k < n; ++k) {
      const std::int64_t v = key[k];
      if (first || v < lo[k]) lo[k] = v;
      if (first || v > hi[k]) hi[k] = v;
    }
    first = false;
  }
  std::vector<std::int64_t> radix(n);
  std::int64_t size = 1;
  for (std::size_t k = 0; k < n; ++k) {
    radix[k] = hi[k] - lo[k] + 1;
    if (radix[k] > kMaxTableSize || size > kMaxTableSize / radix[k]) return;
    size *= radix[k];
  }
  std::vector<int> table(static_cast<std::size_t>(size), -1);
  for (const auto& [key, column] : fMap) {
    std::int64_t index = 0;
    for (std::size_t k = 0; k < n; ++k) index = index * radix[k] + (key[k] - lo[k]);
    table[static_cast<std::size_t>(index)] = column;
  }
  fTableMin = std::move(lo);
  fTableRadix = std::move(radix);
  fTable = std::move(table);
}

int GZLDictionary::MapLookup(const std::vector<int>& key) const {
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
