#pragma once
// Hooks the host implements: progress listeners and a cancellation query. The engine borrows
// them through the settings (never owns them) and calls them on the thread that runs the fit.

// A progress report handed to a listener. Concrete reports (the engine's reporter) answer
// queries by measure name; a listener that needs them casts to the concrete type. A report is
// only valid during the listener call: copy what you want to keep.
class ProgressReport {
 public:
  virtual ~ProgressReport() = 0;

 protected:
  ProgressReport() = default;
  ProgressReport(const ProgressReport&) = default;
  ProgressReport& operator=(const ProgressReport&) = default;
};
inline ProgressReport::~ProgressReport() = default;

// Receives progress reports: record counts of the dictionary pass and iteration histories.
class ProgressListener {
 public:
  virtual ~ProgressListener() = default;
  virtual void OnProgress(const ProgressReport& report) = 0;
};

// Asked once per record and once per iteration; answering true stops the running operation
// with status code 1. A host that cancels from another thread only sets a flag read here.
class TQQueryCancel {
 public:
  virtual ~TQQueryCancel() = default;
  virtual bool IsCancelled() = 0;
};
