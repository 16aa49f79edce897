#include "tools/FitControl.h"

#include <signal.h>

#include <cstdio>
#include <string>

#include "GZLReporter.h"
#include "support/TQMV.h"

namespace {

volatile std::sig_atomic_t gInterrupted = 0;

extern "C" void OnInterrupt(int) { gInterrupted = 1; }

std::string Fixed(double value, int decimals) {
  if (TQMV::IsMissingOrInfinite(value)) return ".";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
  return buffer;
}

std::string General(double value) {
  if (TQMV::IsMissingOrInfinite(value)) return ".";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.10g", value);
  return buffer;
}

}  // namespace

void FitProgressPrinter::OnProgress(const ProgressReport& report) {
  const auto* reporter = dynamic_cast<const GZLReporter*>(&report);
  if (reporter == nullptr) return;
  ++fReports;
  std::string line;
  if (fKind == Kind::Records) {
    line = "gzl: records read: " + std::to_string(reporter->DiscreteMeasure("records"));
  } else {
    fLastIteration = reporter->DiscreteMeasure("iterNum");
    line = "gzl: iteration " + std::to_string(fLastIteration) + ", log-likelihood " +
           General(reporter->ScaleMeasure("loglike"));
    const int halvings = reporter->DiscreteMeasure("stepHalving");
    if (halvings > 0) line += ", step-halvings " + std::to_string(halvings);
    line += " (" + Fixed(reporter->ScaleMeasure("elapsedTime"), 1) + " s)";
  }
  if (fpOut == nullptr) return;
  if (fbTerminal) {
    // Pad to clear what a longer previous line left behind.
    if (line.size() < 72) line.append(72 - line.size(), ' ');
    *fpOut << '\r' << line << std::flush;
    fbLineOpen = true;
  } else {
    *fpOut << line << '\n' << std::flush;
  }
}

void ReadProgressPrinter::operator()(const CsvReadProgress& p) {
  constexpr double kSecondsBetweenLogLines = 5.0;
  if (fpOut == nullptr) return;
  if (!fbTerminal && !p.finished) {
    if (p.seconds < fLastLine + kSecondsBetweenLogLines) return;
    fLastLine = p.seconds;
  }
  const double megabytes = static_cast<double>(p.bytesRead) / 1e6;
  const double perSecond = p.seconds > 0.0 ? static_cast<double>(p.records) / p.seconds / 1e6 : 0.0;
  std::string line;
  if (p.finished) {
    line = "gzl: read " + Fixed(megabytes, 1) + " MB, " + std::to_string(p.records) + " records in " +
           Fixed(p.seconds, 2) + " s";
  } else {
    line = "gzl: reading " + Fixed(megabytes, 1);
    if (p.totalBytes > 0) line += " of " + Fixed(static_cast<double>(p.totalBytes) / 1e6, 1);
    line += " MB, " + std::to_string(p.records) + " records";
  }
  line += " (" + Fixed(perSecond, 2) + " million records per second)";
  if (!fbTerminal) {
    *fpOut << line << '\n' << std::flush;
    return;
  }
  // Pad to clear what a longer previous line left behind.
  const std::size_t width = line.size();
  if (line.size() < fLastWidth) line.append(fLastWidth - line.size(), ' ');
  fLastWidth = width;
  *fpOut << '\r' << line << (p.finished ? "\n" : "") << std::flush;
  fbLineOpen = !p.finished;
}

void ReadProgressPrinter::Finish() {
  if (fpOut != nullptr && fbLineOpen) *fpOut << '\n' << std::flush;
  fbLineOpen = false;
}

void FitProgressPrinter::Finish() {
  if (fpOut != nullptr && fbLineOpen) *fpOut << '\n' << std::flush;
  fbLineOpen = false;
}

namespace InterruptFlag {

bool Install() noexcept {
  gInterrupted = 0;
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  // After the first Ctrl-C the default action is back, so a second one ends the process.
  action.sa_flags = SA_RESETHAND;
  return sigaction(SIGINT, &action, nullptr) == 0;
}

void Raise() noexcept { gInterrupted = 1; }
void Clear() noexcept { gInterrupted = 0; }
bool IsSet() noexcept { return gInterrupted != 0; }
const volatile std::sig_atomic_t* Pointer() noexcept { return &gInterrupted; }

}  // namespace InterruptFlag
