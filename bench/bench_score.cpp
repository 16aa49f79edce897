// Scoring speed: the records of the 26-column Poisson log model of bench_fit scored one at a
// time through IGZLAlgorithm::Score after the fit (made once, outside the timing), with every
// score type (mask 65535) and with the predictions alone (linear predictor and mean). Reported
// as records scored per second on the calling thread.
#include <benchmark/benchmark.h>

#include <memory>

#include "GZLFactory.h"
#include "GZLScoreStats.h"
#include "IGZLAlgorithm.h"
#include "bench_model.h"

namespace {

using namespace bench_model;

struct Fitted {
  std::unique_ptr<GZLSettings> settings = MakeSettings();
  std::unique_ptr<IGZLAlgorithm> algorithm;
  Fitted() {
    settings->SetModelFittingTest(false);
    algorithm.reset(GZLFactory::CreateAlgorithm(*settings, false));
    Source().Rewind();
    algorithm->BuildModel(Source());
  }
};

Fitted& Ready() {
  static Fitted f;
  return f;
}

// Argument: the score-type mask.
void BM_ScoreRecords(benchmark::State& state) {
  Fitted& f = Ready();
  if (!f.algorithm->IsModelBuilt()) {
    state.SkipWithError("the fit failed");
    return;
  }
  const int mask = static_cast<int>(state.range(0));
  GZLScoreStats scores;
  double sum = 0.0;
  long failed = 0;
  for (auto _ : state) {
    Source().Rewind();
    while (const Record* r = Source().NextRecord()) {
      if (!f.algorithm->Score(*r, scores, &mask).IsOK()) ++failed;
      sum += scores.GetMEANPRED();
    }
  }
  benchmark::DoNotOptimize(sum);
  state.counters["failed"] = static_cast<double>(failed);
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(BM_ScoreRecords)->Unit(benchmark::kMillisecond)->Iterations(3)->Arg(0xFFFF)->Arg(0x5);

BENCHMARK_MAIN();
