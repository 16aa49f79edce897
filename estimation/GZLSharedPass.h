#pragma once
// One data pass shared between the calling thread and a second thread.
//
// Contract:
// - The calling thread alone reads the host's source (the host never sees another thread) and
//   builds the rows. It deals them, in their order, to two states of the same kind: the rows
//   it keeps go to `here` on the calling thread (as the design row itself), the others are
//   copied into a fixed ring of flat batches and go to `there` on the second thread (as a
//   GZLFlatRow with the same members). Each side writes only to its own state.
// - Which rows go where depends only on their position in the pass: rows are dealt in units,
//   and the units of every kRowsPerBatch rows go to one side, one such run in `keepEvery` to
//   the calling thread. By default every row is a unit; a pass whose consecutive rows belong
//   together (the records of one subject) says where each unit starts, and a unit is then
//   never split between the threads. The consumer sees the rows of its side in their order.
// - When the pass ends the caller merges the second state into the first, always in that order
//   (GZLRunSharedPass does it). The results therefore do not vary from run to run; they differ
//   from those of one thread by rounding only. A state must be mergeable from its value alone
//   (no pointer into the other state), so that the same merge can later combine states built
//   by other processes.
// - Cancellation is polled after every row on the calling thread; the rows read until then are
//   consumed by both sides before Deal returns.
// - Nothing is allocated per pass or per row: the ring and the thread are made once by Start.
#include <cstddef>
#include <memory>

#include "GZLProgress.h"
#include "GZLRecord.h"
#include "estimation/GZLPassWorker.h"
#include "estimation/GZLRowPipeline.h"
#include "estimation/IGZLRowSource.h"

class GZLSharedPass {
 public:
  // Every row is a unit of its own.
  struct EveryRow {
    bool operator()(const GZLDesignRow&) const noexcept { return true; }
  };

  // Rows of nValues design values (a row of another length reaches the second side flagged
  // invalid).
  explicit GZLSharedPass(std::size_t nValues) : fNValues(nValues) {}
  GZLSharedPass(const GZLSharedPass&) = delete;
  GZLSharedPass& operator=(const GZLSharedPass&) = delete;

  // Makes the ring and starts the second thread, once; false when either cannot be had (the
  // pass must then run on the calling thread).
  bool Start() noexcept {
    if (fpWorker && fpWorker->IsRunning()) return true;
    try {
      fpPipeline = std::make_unique<GZLRowPipeline>(fNValues);
      fpWorker = std::make_unique<GZLPassWorker>();
    } catch (...) {
      fpWorker.reset();
      return false;
    }
    if (!fpWorker->Start()) {
      fpWorker.reset();
      return false;
    }
    return true;
  }
  bool IsStarted() const noexcept { return fpWorker && fpWorker->IsRunning(); }
  std::size_t GetNumValues() const noexcept { return fNValues; }
  void Display() const;

  // Deals the rows of one pass of `source` (restarted by the caller). here(const GZLDesignRow&)
  // runs on this thread; a copy of `there`, taken on the second thread when the pass starts, is
  // called with each const GZLFlatRow& there. unitStart(row) tells whether a row begins a new
  // unit. Returns true when the host cancelled. Start must have succeeded.
  template <class Here, class There, class UnitStart = EveryRow>
  bool Deal(IGZLRowSource& source, TQQueryCancel* cancel, Here& here, const There& there, long keepEvery,
            UnitStart unitStart = UnitStart()) {
    struct Task {
      GZLRowPipeline* rows;
      const There* there;
      static void Run(void* context) {
        // The function object is copied to the worker's own stack: the caller's stack lines
        // keep changing under it, and reading them per row would stall both threads.
        const Task t = *static_cast<const Task*>(context);
        There fn = *t.there;
        t.rows->Consume([&fn](const GZLFlatRow& row) { fn(row); });
      }
    };
    GZLRowPipeline& pipeline = *fpPipeline;
    pipeline.Restart();
    Task task{&pipeline, &there};
    fpWorker->Post(&Task::Run, &task);
    bool cancelled = false;
    long index = 0;
    bool toHere = false;
    while (const GZLDesignRow* row = source.GetNextRow()) {
      if (unitStart(*row))
        toHere = keepEvery > 0 && (index / GZLRowPipeline::kRowsPerBatch) % keepEvery == keepEvery - 1;
      ++index;
      if (toHere)
        here(*row);
      else
        pipeline.Push(*row);
      if (cancel != nullptr && cancel->IsCancelled()) {
        cancelled = true;
        break;
      }
    }
    pipeline.Finish();
    fpWorker->Wait();
    return cancelled;
  }

 private:
  std::size_t fNValues;
  std::unique_ptr<GZLRowPipeline> fpPipeline;
  std::unique_ptr<GZLPassWorker> fpWorker;
};

// One pass over two states of a kind with Merge(const State&): step(state, row) consumes a row
// into a state (row: a design row on this thread, a flat row on the second); afterwards
// main.Merge(second). `step` is copied to the second thread and must not write to anything but
// the state it is given. Returns true when the host cancelled.
template <class State, class Step>
bool GZLRunSharedPass(GZLSharedPass& sharing, IGZLRowSource& source, TQQueryCancel* cancel, State& main,
                      State& second, const Step& step, long keepEvery) {
  auto here = [&main, &step](const GZLDesignRow& row) { step(main, row); };
  State* other = &second;
  auto there = [other, step](const GZLFlatRow& row) { step(*other, row); };
  const bool cancelled = sharing.Deal(source, cancel, here, there, keepEvery);
  main.Merge(second);
  return cancelled;
}
