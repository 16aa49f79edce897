// Scoring speed: the records of bench_fit's models scored one at a time through
// IGZLAlgorithm::Score after the fit (made once per model, outside the timing): the 26-column
// Poisson log model with every score type (mask 65535) and with the predictions alone (linear
// predictor and mean, mask 5); the ordinal model of 5 categories (cumulative logit, 4
// thresholds) and the nominal model of 4 categories (3 logits of 26 columns) with every
// per-category output (mask 28687: predictors and their standard errors, probabilities and
// their intervals, predicted category and both confidences) and with the probabilities alone
// (mask 4). Reported as records scored per second on the calling thread.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

#include "GZLFactory.h"
#include "GZLScoreStats.h"
#include "IGZLAlgorithm.h"
#include "bench_model.h"

namespace {

using namespace bench_model;

struct Fitted {
  std::unique_ptr<GZLSettings> settings;
  std::unique_ptr<IGZLAlgorithm> algorithm;
  explicit Fitted(int model) : settings(MakeSettings(model)) {
    settings->SetModelFittingTest(false);
    algorithm.reset(GZLFactory::CreateAlgorithm(*settings, false));
    Source(model).Rewind();
    algorithm->BuildModel(Source(model));
  }
};

Fitted& Ready(int model) {
  static std::map<int, std::unique_ptr<Fitted>> fitted;
  auto& f = fitted[model];
  if (!f) f = std::make_unique<Fitted>(model);
  return *f;
}

// Arguments: the model (bench_model::Model) and the score-type mask.
void BM_ScoreRecords(benchmark::State& state) {
  const int model = static_cast<int>(state.range(0));
  Fitted& f = Ready(model);
  if (!f.algorithm->IsModelBuilt()) {
    state.SkipWithError("the fit failed");
    return;
  }
  const int mask = static_cast<int>(state.range(1));
  FlatSource& source = Source(model);
  GZLScoreStats scores;
  double sum = 0.0;
  long failed = 0;
  for (auto _ : state) {
    source.Rewind();
    while (const Record* r = source.NextRecord()) {
      if (!f.algorithm->Score(*r, scores, &mask).IsOK()) ++failed;
      sum += model == kPoisson ? scores.GetMEANPRED() : scores.GetMEANPREDNOMINAL()[0];
    }
  }
  benchmark::DoNotOptimize(sum);
  state.counters["failed"] = static_cast<double>(failed);
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(BM_ScoreRecords)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Args({kPoisson, 0xFFFF})
    ->Args({kPoisson, 0x5})
    ->Args({kOrdinal, 28687})
    ->Args({kOrdinal, 0x4})
    ->Args({kNominal, 28687})
    ->Args({kNominal, 0x4});

BENCHMARK_MAIN();
