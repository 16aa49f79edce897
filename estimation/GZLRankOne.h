#pragma once
// Rank-one updates of a packed symmetric matrix by records, the dominant cost of an estimation
// pass.
#include <cstddef>
#include <vector>

// A record split for the accumulators: a dense leading block x[0 .. lead-1] (the intercept and
// covariates, in the model and seldom zero) and, in sparse form, the further parameters in the
// model with a non-zero design value.
//
// The width of the leading block: taken from the first record of a pass, the part of the run
// 0, 1, ..., leadCount-1 of in-model columns over which that record is non-zero.
inline int GZLDenseLead(const double* x, int leadCount) noexcept {
  int lead = 0;
  while (lead < leadCount && x[lead] != 0.0) ++lead;
  return lead;
}
// The sparse part: the in-model columns modelIndex[lead .. nModel-1] whose value is non-zero,
// into idx / val; returns their number. Branch-free, because which factor level is set changes
// from record to record.
inline int GZLSparseTail(const double* __restrict x, const int* __restrict modelIndex, int nModel, int lead,
                         int* __restrict idx, double* __restrict val) noexcept {
  int m = 0;
  for (int k = lead; k < nModel; ++k) {
    const int j = modelIndex[k];
    const double xj = x[j];
    idx[m] = j;
    val[m] = xj;
    m += (xj != 0.0);
  }
  return m;
}

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

// The same sum of rank-one updates for records split into a dense leading block (entries
// 0 .. D-1, zeros included: the intercept and covariates) and sparse further entries (factor
// levels). The leading blocks are collected in batches of kBatch records, and each entry of the
// leading triangle then receives one dot product over the batch instead of kBatch scalar
// updates of short rows; the further entries are added at once.
//
// Pending records must be flushed (Flush) before the matrix is read. Buffers are sized once, so
// that adding a record never allocates.
class GZLBatchedRankOne {
 public:
  static constexpr int kBatch = 64;
  // The largest leading block taken in batches; a longer one is cut there, its rest scattered.
  static constexpr int kMaxDense = 128;

  GZLBatchedRankOne() = default;
  // A packed matrix of order n.
  explicit GZLBatchedRankOne(int n) { Resize(n); }
  void Resize(int n);

  // The width D of the leading block of the records that follow; pending records are flushed
  // first when it changes.
  void SetDense(double* packed, int dense) noexcept {
    const int d = dense < 0 ? 0 : (dense > fMaxDense ? fMaxDense : dense);
    if (d == fDense) return;
    Flush(packed);
    fDense = d;
  }
  int GetDense() const noexcept { return fDense; }
  // Forgets the pending records (a new pass starts on a zeroed matrix).
  void Clear() noexcept { fPending = 0; }

  // packed += W v v' for the record v with leading block lead[0 .. D-1] and further entries
  // (indices increasing, all at least D).
  void Add(double* __restrict packed, const double* __restrict lead, const int* __restrict indices,
           const double* __restrict values, int count, double W) noexcept {
    const int D = fDense;
    if (D > 0) {
      double* __restrict x = fX.data() + fPending;
      double* __restrict wx = fWX.data() + fPending;
      for (int b = 0; b < D; ++b) {
        x[static_cast<std::size_t>(b) * kBatch] = lead[b];
        wx[static_cast<std::size_t>(b) * kBatch] = W * lead[b];
      }
      if (++fPending == kBatch) Flush(packed);
    }
    for (int a = 0; a < count; ++a) {
      const double xa = W * values[a];
      double* __restrict row = packed + fRowStart[static_cast<std::size_t>(indices[a])];
      for (int b = 0; b < D; ++b) row[b] += xa * lead[b];
      for (int b = 0; b <= a; ++b) row[indices[b]] += xa * values[b];
    }
  }

  // Offsets of the rows in the packed triangle.
  const std::size_t* RowStarts() const noexcept { return fRowStart.data(); }

  // Adds the pending records' leading blocks to the matrix.
  void Flush(double* packed) noexcept;

  // to += from for two packed matrices of packedSize entries, each flushed of its pending
  // records first: the merge of two accumulators of disjoint records.
  static void AddFlushed(double* to, GZLBatchedRankOne& toBatch, double* from, GZLBatchedRankOne& fromBatch,
                         std::size_t packedSize) noexcept {
    toBatch.Flush(to);
    fromBatch.Flush(from);
    for (std::size_t i = 0; i < packedSize; ++i) to[i] += from[i];
  }

 private:
  int fN = 0;
  int fMaxDense = 0;
  int fDense = 0;
  int fPending = 0;
  std::vector<std::size_t> fRowStart;
  // Column-major batches: fX[b * kBatch + k] is entry b of pending record k, fWX the same times W.
  std::vector<double> fX;
  std::vector<double> fWX;
};
