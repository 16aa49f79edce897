#include "tools/FitCommand.h"

#include <functional>
#include <string>
#include <vector>

#include "tools/CsvTable.h"
#include "tools/FitControl.h"
#include "tools/JsonWriter.h"
#include "tools/ModelInfo.h"
#include "tools/ModelSpec.h"

namespace {

int Fail(std::ostream& err, const std::string& message) {
  err << "gzl: " << message << '\n';
  return 1;
}

}  // namespace

int RunFitCommand(const FitOptions& options, const FitHooks& hooks, std::ostream& out, std::ostream& err) {
  std::string error;
  if (!CheckFitOptions(options, error)) return Fail(err, error);

  std::vector<ModelTerm> terms;
  if (options.effects.empty()) {
    terms = MainEffectTerms(options.factors, options.covariates);
  } else if (!ParseEffectList(options.effects, options.factors, options.covariates, terms, error)) {
    return Fail(err, "--effects: " + error);
  }

  CsvTable table;
  CsvReadOptions readOptions;
  readOptions.separator = options.separator;
  readOptions.cancel = hooks.cancel;
  ReadProgressPrinter readProgress(hooks.progress, hooks.progressIsTerminal);
  if (hooks.progress != nullptr) readOptions.progress = std::ref(readProgress);
  const bool read = CsvTable::ReadFile(options.dataPath, FitColumnRequests(options), readOptions, table, error);
  readProgress.Finish();
  if (!read) {
    // Ctrl-C gives one message whether it comes while the file is read or while the model is fitted.
    if (error == kCsvReadCancelled) return Fail(err, "the fit was cancelled");
    return Fail(err, options.dataPath + ": " + error);
  }
  if (table.NumRows() == 0) return Fail(err, options.dataPath + ": no data records");
  if (!CheckFitData(options, table, error)) return Fail(err, error);

  if (options.dryRun) {
    if (options.json) {
      JsonWriter json(out);
      json.BeginObject();
      json.Key("model");
      WriteModelInfoJson(json, options, table, terms);
      json.EndObject();
      out << '\n';
    } else {
      WriteModelInfoText(out, options, table, terms);
    }
    return 0;
  }

  if (!options.json) {
    WriteModelInfoText(out, options, table, terms);
    out << '\n';
  }
  // The model description is out before a long fit starts.
  out.flush();
  if (!RunFit(options, table, terms, out, error, hooks)) return Fail(err, error);
  return 0;
}
