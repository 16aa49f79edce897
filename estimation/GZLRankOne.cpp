#include "estimation/GZLRankOne.h"

#include <algorithm>
#include <cstring>

#include "support/TQSymMatrix.h"

void GZLBatchedRankOne::Resize(int n) {
  fN = std::max(n, 0);
  fMaxDense = std::min(fN, kMaxDense);
  fRowStart.resize(static_cast<std::size_t>(fN));
  for (int i = 0; i < fN; ++i) fRowStart[static_cast<std::size_t>(i)] = TQSymMatrix::Index(i, 0);
  fX.assign(static_cast<std::size_t>(fMaxDense) * kBatch, 0.0);
  fWX.assign(static_cast<std::size_t>(fMaxDense) * kBatch, 0.0);
  fDense = std::min(fDense, fMaxDense);
  fPending = 0;
}

namespace {

// Whole-batch dot products in explicit vectors of four doubles (two registers on plain
// x86-64), several independent sums at once so that consecutive additions overlap. Built twice
// where the compiler can choose at load time: for processors with AVX2 and FMA, and for any
// x86-64.
typedef double V4 __attribute__((vector_size(32)));

inline void Load(V4& v, const double* p) noexcept { std::memcpy(&v, p, sizeof v); }
inline double Sum(const V4& v) noexcept { return (v[0] + v[1]) + (v[2] + v[3]); }

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
#define GZL_RANK_ONE_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define GZL_RANK_ONE_CLONES
#endif

GZL_RANK_ONE_CLONES
void FlushBatch(double* __restrict packed, const std::size_t* __restrict rowStart, const double* __restrict x,
                const double* __restrict wx, int dense) noexcept {
  constexpr int B = GZLBatchedRankOne::kBatch;
  for (int a = 0; a < dense; ++a) {
    const double* wa = wx + static_cast<std::size_t>(a) * B;
    double* __restrict row = packed + rowStart[a];
    int b = 0;
    // Four entries of the row at once share the loads of wa.
    for (; b + 4 <= a + 1; b += 4) {
      const double* x0 = x + static_cast<std::size_t>(b) * B;
      V4 s0 = {0, 0, 0, 0}, s1 = s0, s2 = s0, s3 = s0, w, v;
      for (int k = 0; k < B; k += 4) {
        Load(w, wa + k);
        Load(v, x0 + k);
        s0 += w * v;
        Load(v, x0 + B + k);
        s1 += w * v;
        Load(v, x0 + 2 * B + k);
        s2 += w * v;
        Load(v, x0 + 3 * B + k);
        s3 += w * v;
      }
      row[b] += Sum(s0);
      row[b + 1] += Sum(s1);
      row[b + 2] += Sum(s2);
      row[b + 3] += Sum(s3);
    }
    for (; b <= a; ++b) {
      const double* xb = x + static_cast<std::size_t>(b) * B;
      V4 s0 = {0, 0, 0, 0}, s1 = s0, w, v;
      for (int k = 0; k < B; k += 8) {
        Load(w, wa + k);
        Load(v, xb + k);
        s0 += w * v;
        Load(w, wa + k + 4);
        Load(v, xb + k + 4);
        s1 += w * v;
      }
      row[b] += Sum(s0 + s1);
    }
  }
}

}  // namespace

void GZLBatchedRankOne::Flush(double* packed) noexcept {
  if (fPending == 0) return;
  if (fPending < kBatch) {
    // A partial batch: the unused places must not carry records of an earlier batch.
    for (int b = 0; b < fDense; ++b) {
      double* x = fX.data() + static_cast<std::size_t>(b) * kBatch;
      double* wx = fWX.data() + static_cast<std::size_t>(b) * kBatch;
      std::fill(x + fPending, x + kBatch, 0.0);
      std::fill(wx + fPending, wx + kBatch, 0.0);
    }
  }
  FlushBatch(packed, fRowStart.data(), fX.data(), fWX.data(), fDense);
  fPending = 0;
}
