#pragma once
// Category counts of the dictionary pass: per factor and category, and per response category
// (with the offset totals per response category), each as a (weighted, unweighted) pair.
#include <utility>
#include <vector>

#include "TQConst.h"
#include "support/TQMV.h"

class Record;

class GZLFactorCounts {
 public:
  using Count = std::pair<double, double>;  // (weighted, unweighted)

  GZLFactorCounts() = default;
  // Response counts and offset totals exist only when responseVar >= 0 and nResponseCategs >= 1.
  GZLFactorCounts(const std::vector<int>& factors, const std::vector<int>& factorSizes, int weightVar,
                  int responseVar, int nResponseCategs, int offsetVar, double offsetValue,
                  TQConst::TQOffsetType offsetType);
  GZLFactorCounts(const GZLFactorCounts&) = default;
  GZLFactorCounts(GZLFactorCounts&&) = default;
  GZLFactorCounts& operator=(const GZLFactorCounts&) = default;
  GZLFactorCounts& operator=(GZLFactorCounts&&) = default;

  // Adds one valid record. A factor value (rounded: +0.5, truncated) outside its categories
  // makes the result false while the other factors are still counted; a response outside its
  // categories makes it false too.
  bool Update(const Record& record) noexcept;

  int GetNFactors() const noexcept { return fNFactors; }
  // -1 for an index out of range.
  int GetNCategories(int factor) const noexcept;
  // Categories with a positive weighted count; -1 for an index out of range.
  int GetNActiveCategories(int factor) const noexcept;
  // The factor's counts per category, or null for an index out of range.
  const std::vector<Count>* GetCountsPtr(int factor) const noexcept;
  // Per response category, or null when the response is not counted.
  const std::vector<Count>* GetDependCountsPtr() const noexcept;
  // Per response category (offset x weight, weight), or null when the response is not counted.
  const std::vector<Count>* GetOffsetCountsForDepCatPtr() const noexcept;
  const std::vector<int>& GetFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetFactorSizes() const noexcept { return fFactorSizes; }
  int GetResponseVar() const noexcept { return fResponseVar; }
  int GetNResponseCategories() const noexcept { return fNResponseCategs; }

  void Display() const;

 private:
  std::vector<int> fFactors;
  std::vector<int> fFactorSizes;
  int fNFactors = 0;
  int fWeightVar = -1;
  int fResponseVar = -1;
  int fNResponseCategs = 0;
  std::vector<std::vector<Count>> fCounts;
  std::vector<Count> fResponseCounts;
  std::vector<Count> fOffsetCounts;
  bool fbHasResponseCounts = false;
  int fOffsetVar = -1;
  double fOffsetValue = TQMV::Missing;
  TQConst::TQOffsetType fOffsetType = TQConst::OffsetNone;
};

// The regression layer's factor counts are the same value class.
using TQFactorCounts = GZLFactorCounts;
