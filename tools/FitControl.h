#pragma once
// What the tool hangs on the data read and the engine while a fit runs: a progress display on a
// text stream (bytes read from a large file, the records of the first pass, then each iteration
// with its log-likelihood) and cancellation by Ctrl-C.
#include <csignal>
#include <ostream>

#include "GZLProgress.h"
#include "tools/CsvTable.h"

// Writes the engine's progress reports as lines of text. On a terminal the lines overwrite one
// another (carriage return) and Finish clears the last one; elsewhere every report is a line of
// its own. Also remembers the last iteration number, which the results report.
class FitProgressPrinter : public ProgressListener {
 public:
  enum class Kind { Records, Iterations };

  // out may be null: then nothing is written and only the iteration count is kept.
  FitProgressPrinter(Kind kind, std::ostream* out, bool terminal) noexcept
      : fKind(kind), fpOut(out), fbTerminal(terminal) {}

  void OnProgress(const ProgressReport& report) override;
  // Ends an overwritten line so that later output starts on a clean line.
  void Finish();

  // The last iteration number reported, -1 when none.
  int LastIteration() const noexcept { return fLastIteration; }
  int Reports() const noexcept { return fReports; }

 private:
  Kind fKind;
  std::ostream* fpOut;
  bool fbTerminal;
  bool fbLineOpen = false;
  int fLastIteration = -1;
  int fReports = 0;
};

// Writes the progress of a long read of the data file as lines of text: bytes and records read
// and the rate, then a closing line with the time taken. On a terminal the lines overwrite one
// another until the closing one; elsewhere (a log) a line comes every few seconds.
class ReadProgressPrinter {
 public:
  ReadProgressPrinter(std::ostream* out, bool terminal) noexcept : fpOut(out), fbTerminal(terminal) {}
  void operator()(const CsvReadProgress& progress);
  // Ends a line left open on the terminal by a read that stopped early.
  void Finish();

 private:
  std::ostream* fpOut;
  bool fbTerminal;
  bool fbLineOpen = false;
  double fLastLine = 0.0;      // seconds into the read of the last line written to a log
  std::size_t fLastWidth = 0;  // length of the last line written to a terminal
};

// Answers the engine's cancellation query from a flag that a signal handler sets.
class FlagCancel : public TQQueryCancel {
 public:
  explicit FlagCancel(const volatile std::sig_atomic_t* flag) noexcept : fpFlag(flag) {}
  bool IsCancelled() override { return fpFlag != nullptr && *fpFlag != 0; }

 private:
  const volatile std::sig_atomic_t* fpFlag;
};

// Ctrl-C during a fit: the first SIGINT only sets the flag, so that the engine stops at its next
// record or iteration and the tool exits with a message; the handler then gives way to the
// default action, so a second Ctrl-C ends the process at once. The flag is the one piece of
// process-wide state, as a signal handler can reach nothing else.
namespace InterruptFlag {
// Installs the handler (once) and clears the flag. False when the handler cannot be installed.
bool Install() noexcept;
// Sets the flag by hand, as the handler would.
void Raise() noexcept;
void Clear() noexcept;
bool IsSet() noexcept;
const volatile std::sig_atomic_t* Pointer() noexcept;
}  // namespace InterruptFlag
