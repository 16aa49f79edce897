// Fitting speed: a Poisson log model on 1,000,000 generated records with 10 covariates and two
// factors of 10 and 5 levels (1 + 10 + 10 + 5 = 26 design columns), served from memory.
//
// Reported: the dictionary pass; one estimation pass (design rows, log-likelihood, gradient and
// information); the design rows alone and the accumulation alone (over prebuilt rows), which
// split a pass between the design matrix and the estimation; the estimation over prebuilt rows;
// and the whole fit (dictionary pass, starting values, iterations and post-estimation) with its
// number of passes; and the Wald tests of the effects after a fit (one pass for X'WX, then the
// hypotheses and statistics of both types). The estimation pass and the whole fit run on the calling thread alone
// (argument 0) and with the second thread that large passes use by default (argument 1). Nothing in the fit keeps records: its memory does not grow with their
// number.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "GZLSettings.h"
#include "bench_model.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "inference/GZLInference.h"

namespace {

using namespace bench_model;

struct Prepared {
  std::unique_ptr<GZLSettings> settings = MakeSettings();
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLDesignRowSource> rows;
  Prepared() {
    design = std::make_unique<GZLDesignMatrix>(*settings);
    TQStatus st;
    Source().Rewind();
    design->RunDictionaryPass(st, Source());
    design->SetRecordSource(&Source());
    rows = std::make_unique<GZLDesignRowSource>(*design);
  }
};

Prepared& Ready() {
  static Prepared p;
  return p;
}

void BM_DictionaryPass(benchmark::State& state) {
  auto settings = MakeSettings();
  Source();  // the records are generated once, outside the timing
  for (auto _ : state) {
    GZLDesignMatrix design(*settings);
    TQStatus st;
    Source().Rewind();
    design.RunDictionaryPass(st, Source());
    benchmark::DoNotOptimize(design.GetNumOfParams());
  }
}

void BM_DesignRowsOnly(benchmark::State& state) {
  Prepared& p = Ready();
  for (auto _ : state) {
    p.rows->RestartPass();
    double sum = 0.0;
    while (const GZLDesignRow* row = p.rows->GetNextRow()) sum += row->fResponse;
    benchmark::DoNotOptimize(sum);
  }
}

// Argument: 1 to share the pass with a second thread, 0 for the calling thread alone.
void BM_EstimationPass(benchmark::State& state) {
  Prepared& p = Ready();
  GZLStatFactory factory(*p.rows, *p.settings);
  factory.SetParallelThreshold(state.range(0) != 0 ? 0.0 : -1.0);
  std::vector<double> beta(static_cast<std::size_t>(factory.GetNumParams()), 0.01);
  TQBitSet inModel(factory.GetNumParams(), true);
  inModel.Clear(10 + 1 + kCovariates);  // last level of each factor aliased, as in a fit
  inModel.Clear(factory.GetNumParams() - 1);
  factory.SetRedundancy(inModel);
  for (auto _ : state) {
    TQStatus st;
    factory.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
    benchmark::DoNotOptimize(factory.GetLogLikelihood());
  }
  state.counters["columns"] = factory.GetNumParams();
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

// The accumulation alone: 1,000,000 design rows served from a block of 4096 rows built once by
// the design matrix, so that the design matrix's share of a pass is left out.
class CachedRows final : public IGZLRowSource {
 public:
  explicit CachedRows(GZLDesignRowSource& rows) : fpRows(&rows) {
    rows.RestartPass();
    while (fRows.size() < 4096)
      if (const GZLDesignRow* r = rows.GetNextRow()) fRows.push_back(*r);
  }
  bool RestartPass() override {
    fNext = 0;
    return true;
  }
  const GZLDesignRow* GetNextRow() override {
    if (fNext >= kRecords) return nullptr;
    return &fRows[static_cast<std::size_t>(fNext++) & 4095u];
  }
  int GetNumParameters() const override { return fpRows->GetNumParameters(); }
  double GetNumObservations() const override { return kRecords; }
  double GetResponseSumOfSquares(bool c, bool w) const override { return fpRows->GetResponseSumOfSquares(c, w); }

 private:
  GZLDesignRowSource* fpRows;
  std::vector<GZLDesignRow> fRows;
  int fNext = 0;
};

void BM_AccumulationOnly(benchmark::State& state) {
  Prepared& p = Ready();
  CachedRows cached(*p.rows);
  GZLStatFactory factory(cached, *p.settings);
  std::vector<double> beta(static_cast<std::size_t>(factory.GetNumParams()), 0.01);
  TQBitSet inModel(factory.GetNumParams(), true);
  inModel.Clear(10 + 1 + kCovariates);
  inModel.Clear(factory.GetNumParams() - 1);
  factory.SetRedundancy(inModel);
  factory.SetUseGenericStep(state.range(0) != 0);
  factory.SetParallelThreshold(-1.0);  // the cost of the accumulation on one thread
  for (auto _ : state) {
    TQStatus st;
    factory.ComputeLLGradHessian(st, beta, 1.0, true, state.range(1) != 0, false);
    benchmark::DoNotOptimize(factory.GetLogLikelihood());
  }
}

// Argument: 1 to share the larger passes with a second thread, 0 for the calling thread alone.
void BM_WholeFit(benchmark::State& state) {
  auto settings = MakeSettings();
  Source();  // the records are generated once, outside the timing
  int iterations = 0, passes = 0;
  for (auto _ : state) {
    const int rewinds = Source().fRewinds;
    GZLDesignMatrix design(*settings);
    TQStatus st;
    Source().Rewind();
    design.RunDictionaryPass(st, Source());
    design.SetRecordSource(&Source());
    GZLDesignRowSource rows(design);
    GZLOptimizerForGZLM opt(rows, *settings, false);
    opt.GetStatFactory().SetParallelThreshold(state.range(0) != 0 ? GZLStatFactory::kDefaultParallelThreshold : -1.0);
    opt.Estimate();
    opt.PostEstimation();
    iterations = opt.GetIterationNumber();
    passes = Source().fRewinds - rewinds;  // the dictionary pass included
    benchmark::DoNotOptimize(opt.GetDeviance());
  }
  state.counters["iterations"] = iterations;
  state.counters["passes"] = passes;
}

// The Wald tests of the 12 effects after a fit: the pass for X'WX of every column, then the type I
// and type III hypotheses and their statistics.
void BM_WaldEffectTests(benchmark::State& state) {
  Prepared& p = Ready();
  GZLOptimizerForGZLM opt(*p.rows, *p.settings, false);
  opt.Estimate();
  opt.PostEstimation();
  std::vector<GZLEffectInfo> info;
  for (int i = 0; i < p.design->GetNumEffects(); ++i)
    info.push_back({i, p.design->GetEffect(i).GetStart(), p.design->GetEffect(i).GetNColumns(), {}});
  const int P = opt.GetNumParams();
  TQSymMatrix covariance(P);
  for (int i = 0; i < P; ++i)
    for (int j = 0; j <= i; ++j) covariance(i, j) = -opt.GetInverseHessian()(i, j);
  GZLSettings settings(*p.settings);
  settings.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  double sum = 0.0;
  for (auto _ : state) {
    TQSymMatrix sscp;
    opt.ComputeSSCP(sscp);
    GZLInference inference(settings);
    inference.SetEffectTestData(std::make_unique<GZLModelEffectTestData>(settings, info, P, sscp));
    std::vector<TQStatus> warnings;
    inference.ComputeEffectTests(opt.GetParamEstimates(), opt.GetInitRedunInfo(), &covariance, TQMV::Missing,
                                 warnings);
    sum += inference.GetTypeIIITestStats()->GetTest(1).fChiSquare;
  }
  benchmark::DoNotOptimize(sum);
}

// The whole estimation (starting values, iterations, post-estimation) over rows that cost
// nothing to build: the estimation's own share of the whole fit.
void BM_EstimationOnCachedRows(benchmark::State& state) {
  Prepared& p = Ready();
  CachedRows cached(*p.rows);
  int iterations = 0;
  for (auto _ : state) {
    GZLOptimizerForGZLM opt(cached, *p.settings, false);
    opt.Estimate();
    opt.PostEstimation();
    iterations = opt.GetIterationNumber();
    benchmark::DoNotOptimize(opt.GetDeviance());
  }
  state.counters["iterations"] = iterations;
}

}  // namespace

BENCHMARK(BM_EstimationOnCachedRows)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_DictionaryPass)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_DesignRowsOnly)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_EstimationPass)->Unit(benchmark::kMillisecond)->Iterations(5)->Arg(0)->Arg(1);
// Arguments: generic (virtual) record step, log-likelihood only.
BENCHMARK(BM_AccumulationOnly)->Unit(benchmark::kMillisecond)->Iterations(5)->Args({0, 0})->Args({1, 0})->Args({0, 1});
BENCHMARK(BM_WaldEffectTests)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_WholeFit)->Unit(benchmark::kMillisecond)->Iterations(3)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
