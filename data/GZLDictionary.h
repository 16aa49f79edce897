#pragma once
// The category dictionary of one model effect: which combinations of factor categories occur,
// and which column each gets. Keys are stored with the effect's factors reordered by nesting
// level (innermost level 0 first, equal levels in model order); after the dictionary pass the
// observed keys are ranked in ascending lexicographic order and the rank is the column.
#include <map>
#include <vector>

class GZLDictionary {
 public:
  // levels: nesting level of each factor of the effect, in model order.
  void Setup(const std::vector<int>& levels);

  // Number of key sorting levels: the largest nesting level plus 1 (0 without factors).
  int GetNLevels() const noexcept { return fNLevels; }
  // Key position -> factor position in model order.
  const std::vector<int>& GetSortingOrder() const noexcept { return fSortingOrder; }
  // Factor position in model order -> key position.
  const std::vector<int>& GetOriginalOrder() const noexcept { return fOriginalOrder; }

  // Dictionary pass: enters the key (already in key order) when it is new. Returns the key's
  // index in order of first appearance.
  int Add(const std::vector<int>& key);
  // Ranks the keys; afterwards Lookup answers columns. Returns, for every key in order of first
  // appearance, its column.
  std::vector<int> Finalize();
  bool IsFinalized() const noexcept { return fbFinalized; }
  // Column of the key, or -1 when it was never seen (before Finalize: first-appearance index).
  int Lookup(const std::vector<int>& key) const;
  int GetSize() const noexcept { return static_cast<int>(fMap.size()); }
  // Keys in column order (valid after Finalize).
  const std::vector<std::vector<int>>& GetColumnKeys() const noexcept { return fColumnKeys; }
  // Keys in order of first appearance.
  const std::vector<std::vector<int>>& GetKeysInAppearanceOrder() const noexcept { return fAppearance; }

  void Display() const;

 private:
  std::map<std::vector<int>, int> fMap;
  std::vector<std::vector<int>> fAppearance;
  std::vector<std::vector<int>> fColumnKeys;
  int fNLevels = 0;
  std::vector<int> fSortingOrder;
  std::vector<int> fOriginalOrder;
  bool fbFinalized = false;
};
