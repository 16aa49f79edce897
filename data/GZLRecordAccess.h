#pragma once
// Reading one field of a record: the value, or the missing value when the field lies beyond
// the record's end or holds a missing value (a NaN counts as missing).
#include <cstddef>

#include "GZLRecord.h"
#include "support/TQMV.h"

namespace GZLRecordAccess {

inline double Read(const Record& record, int index) noexcept {
  if (index < 0 || static_cast<std::size_t>(index) >= record.Size()) return TQMV::Missing;
  const double v = record[static_cast<std::size_t>(index)];
  return TQMV::IsMissing(v) ? TQMV::Missing : v;
}

// A categorical value becomes a category index by adding 0.5 and truncating toward zero, so
// everything in (-1.5, 0.5) lands in category 0. Returns -1 when the result is not in
// 0 .. nCategories-1 (or the value is missing).
inline int RoundCategory(double value, int nCategories) noexcept {
  if (TQMV::IsMissing(value)) return -1;
  const double shifted = value + 0.5;
  // Truncation toward zero maps (-1, 0) to 0 as well: compare before converting.
  if (!(shifted > -1.0) || !(shifted < static_cast<double>(nCategories))) return -1;
  return static_cast<int>(shifted);
}

}  // namespace GZLRecordAccess
