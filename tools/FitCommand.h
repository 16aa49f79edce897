#pragma once
// Everything `gzl fit` does once its command line has been read: the checks of the options, the
// effect list, the data, the model description and the fit. Kept apart from main so that the
// whole command can be run in-process.
#include <ostream>

#include "tools/FitOptions.h"
#include "tools/FitRunner.h"

// Writes the results to out and a one-line message "gzl: ..." to err on failure. Returns the
// exit status: 0 on success, 1 on bad input or a failed fit.
int RunFitCommand(const FitOptions& options, const FitHooks& hooks, std::ostream& out, std::ostream& err);
