#pragma once
// The category dictionary of one model effect: which combinations of factor categories occur,
// and which column each gets. Keys are stored with the effect's factors reordered by nesting
// level (innermost level 0 first, equal levels in model order); after the dictionary pass the
// observed keys are ranked in ascending lexicographic order and the rank is the column.
//
// Row building looks a key up once per record: after Finalize the columns are also laid out in
// a flat table indexed by the key's mixed-radix position within the box spanned by the observed
// keys (when that box is small enough), so that a lookup costs a few multiplications instead of
// a tree search over vectors.
#include <cstdint>
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

  // Before the dictionary pass: the range lo[k] .. hi[k] the codes of key position k can take,
  // so that Add finds keys by their place in a flat table instead of searching the tree (when
  // the box is small enough; keys outside it still go to the tree).
  void SetKeyRange(const std::vector<int>& lo, const std::vector<int>& hi);
  // Dictionary pass: enters the key (already in key order) when it is new. Returns the key's
  // index in order of first appearance.
  int Add(const std::vector<int>& key);
  // Ranks the keys; afterwards Lookup answers columns. Returns, for every key in order of first
  // appearance, its column.
  std::vector<int> Finalize();
  bool IsFinalized() const noexcept { return fbFinalized; }
  // Column of the key, or -1 when it was never seen (before Finalize: first-appearance index).
  int Lookup(const std::vector<int>& key) const {
    return fTable.empty() ? MapLookup(key) : TableLookup(key);
  }
  int GetSize() const noexcept { return static_cast<int>(fMap.size()); }
  // Keys in column order (valid after Finalize).
  const std::vector<std::vector<int>>& GetColumnKeys() const noexcept { return fColumnKeys; }
  // Keys in order of first appearance.
  const std::vector<std::vector<int>>& GetKeysInAppearanceOrder() const noexcept { return fAppearance; }

  void Display() const;

  // Largest flat table built by Finalize (entries); a larger box keeps the tree lookup.
  static constexpr std::int64_t kMaxTableSize = std::int64_t{1} << 20;
  // Whether lookups currently go through the flat table.
  bool HasTable() const noexcept { return !fTable.empty(); }

 private:
  int MapLookup(const std::vector<int>& key) const;
  int TableLookup(const std::vector<int>& key) const noexcept {
    const std::size_t n = fTableMin.size();
    if (key.size() != n) return -1;
    std::int64_t index = 0;
    for (std::size_t k = 0; k < n; ++k) {
      // Outside the observed range of a position: a key that was never seen.
      const std::int64_t offset = static_cast<std::int64_t>(key[k]) - fTableMin[k];
      if (offset < 0 || offset >= fTableRadix[k]) return -1;
      index = index * fTableRadix[k] + offset;
    }
    return fTable[static_cast<std::size_t>(index)];
  }
  void BuildTable();
  void ClearTable() noexcept;
  int Enter(const std::vector<int>& key);


  std::map<std::vector<int>, int> fMap;
  std::vector<std::vector<int>> fAppearance;
  std::vector<std::vector<int>> fColumnKeys;
  int fNLevels = 0;
  std::vector<int> fSortingOrder;
  std::vector<int> fOriginalOrder;
  bool fbFinalized = false;
  // The entry of the previous Add: consecutive records often repeat a combination (always so
  // for an effect without factors), and then the tree is not searched.
  std::vector<int> fLastKey;
  int fLastValue = -1;
  bool fbLastAddedValid = false;
  // Flat lookup (empty when not built): per key position the smallest observed value and the
  // number of values up to the largest; entries hold the column or -1.
  std::vector<std::int64_t> fTableMin;
  std::vector<std::int64_t> fTableRadix;
  std::vector<int> fTable;
  // The dictionary pass's flat table over the declared key range (empty when none): the
  // appearance index of every key seen, -1 elsewhere. Used until Finalize.
  std::vector<std::int64_t> fAddMin;
  std::vector<std::int64_t> fAddRadix;
  std::vector<int> fAddTable;
};
