#pragma once
// The rank-one update of a packed symmetric matrix by one sparse record, the dominant cost of an
// estimation pass.
#include <cstddef>

// packed += W v v' over the listed entries: indices increasing, values the non-zero entries,
// rowStart[i] the offset of row i in the packed lower triangle. The leading indices 0, 1, 2, ...
// that are all present (the intercept and a block of covariates, typically) occupy the first
// rows of the triangle and the first places of every later row, so they are updated as
// contiguous vectors; only the remaining entries (factor levels) are scattered.
inline void GZLSparseRankOneUpdate(double* __restrict packed, const std::size_t* __restrict rowStart,
                                   const int* __restrict indices, const double* __restrict values, int count,
                                   double W) noexcept {
  int d = 0;
  while (d < count && indices[d] == d) ++d;
  for (int a = 0; a < d; ++a) {
    const double xa = W * values[a];
    double* __restrict row = packed + rowStart[a];
    for (int b = 0; b <= a; ++b) row[b] += xa * values[b];
  }
  for (int a = d; a < count; ++a) {
    const double xa = W * values[a];
    double* __restrict row = packed + rowStart[indices[a]];
    for (int b = 0; b < d; ++b) row[b] += xa * values[b];
    for (int b = d; b <= a; ++b) row[indices[b]] += xa * values[b];
  }
}
