#pragma once
// A single-producer, single-consumer ring of design-row batches: the thread that reads the
// record source copies rows in, a second thread takes whole batches out. Only whole batches
// change hands, so the two threads meet once per batch, not once per row. A batch is one flat
// block of doubles, read front to back by the consumer: rows written by one core and read by
// another cost a transfer per cache line, which only a contiguous layout lets the processor
// stream ahead of use. The blocks are allocated once with the ring and reused by every pass.
//
// A waiting thread spins rather than sleeping in the kernel: a batch takes microseconds, and
// a sleep and wake-up per batch (a system call each way, an interrupt to the other core) would
// cost more than the batch itself. After a long spin it yields its core, so that an
// overloaded machine still makes progress.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "data/GZLDesignRow.h"

// One row of a batch as the record step reads it: the same members as a design row, the
// values pointing into the batch.
struct GZLFlatRow {
  struct Values {
    const double* p = nullptr;
    std::size_t n = 0;
    const double* data() const noexcept { return p; }
    std::size_t size() const noexcept { return n; }
  };
  Values fValues;
  double fResponse;
  double fEvents;
  double fTrials;
  double fFreqWeight;
  double fScaleWeight;
  double fOffset;
  bool fbInvalid;
};

class GZLRowPipeline {
 public:
  // Rows per batch, and batches in flight: the ring takes a few hundred kilobytes for a few
  // dozen columns, whatever the number of records.
  static constexpr int kRowsPerBatch = 256;
  static constexpr int kBatchesInFlight = 8;

  // Rows of nValues design values; a row of another length is passed on as invalid.
  explicit GZLRowPipeline(std::size_t nValues)
      : fSlots(static_cast<std::size_t>(kBatchesInFlight)),
        fRowsPerSlot(kRowsPerBatch),
        fNValues(nValues),
        fStride((nValues + kScalars + 1) / 2 * 2) {
    for (Slot& s : fSlots) s.block.assign(static_cast<std::size_t>(fRowsPerSlot) * fStride, 0.0);
    fStaging.assign(fStride, 0.0);
  }
  GZLRowPipeline(const GZLRowPipeline&) = delete;
  GZLRowPipeline& operator=(const GZLRowPipeline&) = delete;

  // Before a pass, with no consumer running.
  void Restart() noexcept {
    fPublished.store(0, std::memory_order_relaxed);
    fConsumed.store(0, std::memory_order_relaxed);
    fFill = 0;
    fWritten = 0;
  }

  // Producer: copies the row into the batch being filled; a full batch is handed over, after
  // waiting for a free slot when the consumer is behind.
  void Push(const GZLDesignRow& row) noexcept {
    if (fFill == 0) WaitForFreeSlot();
    Slot& slot = fSlots[fWritten % fSlots.size()];
    double* out = slot.block.data() + static_cast<std::size_t>(fFill) * fStride;
    const bool fits = row.fValues.size() == fNValues;
    double* staged = fStaging.data();
    if (fits) std::memcpy(staged, row.fValues.data(), fNValues * sizeof(double));
    double* s = staged + fNValues;
    s[0] = row.fResponse;
    s[1] = row.fEvents;
    s[2] = row.fTrials;
    s[3] = row.fFreqWeight;
    s[4] = row.fScaleWeight;
    s[5] = row.fOffset;
    s[6] = (row.fbInvalid || !fits) ? 1.0 : 0.0;
    Store(out, staged, fStride);
    if (++fFill == fRowsPerSlot) Publish();
  }
  // Producer: hands over the last, partial batch and tells the consumer that no more follow.
  void Finish() noexcept {
    if (fFill > 0) Publish();
    fPublished.store(fWritten | kDone, std::memory_order_release);
  }

  // Consumer: calls f(row) for every row of every batch, in order, until Finish.
  template <class F>
  void Consume(F&& f) {
    std::uint64_t taken = 0;
    int spins = 0;
    GZLFlatRow row;
    row.fValues.n = fNValues;
    for (;;) {
      const std::uint64_t state = fPublished.load(std::memory_order_acquire);
      const std::uint64_t ready = state & ~kDone;
      if (taken < ready) {
        const Slot& slot = fSlots[taken % fSlots.size()];
        const double* in = slot.block.data();
        for (int i = 0; i < slot.count; ++i, in += fStride) {
          const double* s = in + fNValues;
          row.fValues.p = in;
          row.fResponse = s[0];
          row.fEvents = s[1];
          row.fTrials = s[2];
          row.fFreqWeight = s[3];
          row.fScaleWeight = s[4];
          row.fOffset = s[5];
          row.fbInvalid = s[6] != 0.0;
          f(row);
        }
        ++taken;
        fConsumed.store(taken, std::memory_order_release);
        spins = 0;
        continue;
      }
      if (state & kDone) return;
      Pause(spins);
    }
  }

 private:
  static constexpr std::uint64_t kDone = std::uint64_t{1} << 63;
  static constexpr std::size_t kScalars = 7;
  static constexpr int kSpinsBeforeYield = 1 << 16;
  struct Slot {
    std::vector<double> block;
    int count = 0;
  };

  // Copies a row into the ring past the caches where the processor allows: the consumer's
  // core holds the ring's lines from the previous round, and ordinary stores would first
  // have to fetch each line back from it.
  static void Store(double* to, const double* from, std::size_t n) noexcept {
#if defined(__x86_64__)
    for (std::size_t i = 0; i < n; i += 2) _mm_stream_pd(to + i, _mm_loadu_pd(from + i));
#else
    std::memcpy(to, from, n * sizeof(double));
#endif
  }
  static void Pause(int& spins) noexcept {
    if (++spins < kSpinsBeforeYield) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    } else {
      std::this_thread::yield();
    }
  }
  void WaitForFreeSlot() noexcept {
    int spins = 0;
    while (fWritten - fConsumed.load(std::memory_order_acquire) >= fSlots.size()) Pause(spins);
  }
  void Publish() noexcept {
#if defined(__x86_64__)
    _mm_sfence();  // the streamed rows are visible before the batch is
#endif
    fSlots[fWritten % fSlots.size()].count = fFill;
    fFill = 0;
    ++fWritten;
    fPublished.store(fWritten, std::memory_order_release);
  }

  // Each thread's counters on their own cache line, so that neither thread's writes evict what
  // the other reads.
  static constexpr std::size_t kLine = 128;
  std::vector<Slot> fSlots;
  int fRowsPerSlot;
  std::size_t fNValues;
  std::size_t fStride;
  std::vector<double> fStaging;
  // Producer side: rows in the batch being filled, batches handed over.
  alignas(kLine) int fFill = 0;
  std::uint64_t fWritten = 0;
  // Batches handed over (with kDone once the producer has finished) and batches taken.
  alignas(kLine) std::atomic<std::uint64_t> fPublished{0};
  alignas(kLine) std::atomic<std::uint64_t> fConsumed{0};
  alignas(kLine) char fEnd = 0;
};
