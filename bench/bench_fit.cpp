// Fitting speed on the benchmark models (bench_model.h): the Poisson log model, and on the same
// design and records a binary logit model, an ordinal model of 5 categories (4 thresholds and 25
// columns) and a nominal model of 4 categories (3 logits of 26 columns).
//
// Reported: the dictionary pass; one estimation pass (design rows, log-likelihood, gradient and
// information); the design rows alone and the accumulation alone (over prebuilt rows), which
// split a pass between the design matrix and the estimation; the estimation over prebuilt rows;
// the whole fit (dictionary pass, starting values, iterations and post-estimation) with its
// number of passes; and the Wald tests of the effects after a fit (one pass for X'WX, then the
// hypotheses and statistics of both types); the marginal means after a fit, of a complete
// design and of an incomplete one (one pass for the frequencies); the type III likelihood-ratio
// tests of the effects (one constrained refit per effect) and the profile likelihood intervals of
// every parameter (two end points each), with their passes per effect and per end point. The
// estimation pass and the whole fit run on the calling thread alone and with the second thread
// that large passes use by default. Nothing in the fit keeps records: its memory does not grow
// with their number.
#include <benchmark/benchmark.h>

#include <algorithm>
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
#include "GZLMarginals.h"
#include "GZLOutputStats.h"
#include "data/GZLAlgorithm.h"
#include "inference/GZLInference.h"
#include "inference/GZLLRStats.h"
#include "inference/GZLProfileLikelihoodCI.h"

namespace {

using namespace bench_model;

struct Prepared {
  std::unique_ptr<GZLSettings> settings;
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLDesignRowSource> rows;
  explicit Prepared(int model) : settings(MakeSettings(model)) {
    design = std::make_unique<GZLDesignMatrix>(*settings);
    TQStatus st;
    Source(model).Rewind();
    design->RunDictionaryPass(st, Source(model));
    design->SetRecordSource(&Source(model));
    rows = std::make_unique<GZLDesignRowSource>(*design);
  }
};

Prepared& Ready(int model = kPoisson) {
  static std::unique_ptr<Prepared> prepared[4];
  if (!prepared[model]) prepared[model] = std::make_unique<Prepared>(model);
  return *prepared[model];
}

// Parameters at which a pass is timed, with the redundancy of a fit: the last level of each
// factor aliased (in every logit of a nominal model). Ordinal thresholds in increasing order.
std::vector<double> PassParameters(GZLStatFactory& factory, int model) {
  const int P = factory.GetNumParams();
  const int width = factory.GetRowWidth();
  const int blocks = model == kNominal ? kNominalCategories - 1 : 1;
  const int first = model == kOrdinal ? kOrdinalCategories - 1 : 0;
  TQBitSet inModel(P, true);
  for (int b = 0; b < blocks; ++b) {
    const int start = first + b * width;
    const int lastA = start + (model == kOrdinal ? 0 : 1) + kCovariates + kLevelsA - 1;
    inModel.Clear(lastA);
    inModel.Clear(lastA + kLevelsB);
  }
  factory.SetRedundancy(inModel);
  std::vector<double> beta(static_cast<std::size_t>(P), 0.01);
  for (int t = 0; t < first; ++t) beta[static_cast<std::size_t>(t)] = -1.0 + t;
  return beta;
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

// Arguments: the model; 1 to share the pass with a second thread, 0 for the calling thread alone.
void BM_EstimationPass(benchmark::State& state) {
  const int model = static_cast<int>(state.range(0));
  Prepared& p = Ready(model);
  GZLStatFactory factory(*p.rows, *p.settings);
  factory.SetParallelThreshold(state.range(1) != 0 ? 0.0 : -1.0);
  const std::vector<double> beta = PassParameters(factory, model);
  for (auto _ : state) {
    TQStatus st;
    factory.ComputeLLGradHessian(st, beta, 1.0, true, false, false);
    benchmark::DoNotOptimize(factory.GetLogLikelihood());
  }
  state.counters["parameters"] = factory.GetNumParams();
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
  const std::vector<double> beta = PassParameters(factory, kPoisson);
  factory.SetUseGenericStep(state.range(0) != 0);
  factory.SetParallelThreshold(-1.0);  // the cost of the accumulation on one thread
  for (auto _ : state) {
    TQStatus st;
    factory.ComputeLLGradHessian(st, beta, 1.0, true, state.range(1) != 0, false);
    benchmark::DoNotOptimize(factory.GetLogLikelihood());
  }
}

// Arguments: the model; 1 to share the larger passes with a second thread, 0 for the calling
// thread alone.
void BM_WholeFit(benchmark::State& state) {
  const int model = static_cast<int>(state.range(0));
  auto settings = MakeSettings(model);
  FlatSource& source = Source(model);  // the records are generated once, outside the timing
  int iterations = 0, passes = 0;
  for (auto _ : state) {
    const int rewinds = source.fRewinds;
    GZLDesignMatrix design(*settings);
    TQStatus st;
    source.Rewind();
    design.RunDictionaryPass(st, source);
    design.SetRecordSource(&source);
    GZLDesignRowSource rows(design);
    GZLOptimizerForGZLM opt(rows, *settings, false);
    opt.GetStatFactory().SetParallelThreshold(state.range(1) != 0 ? GZLStatFactory::kDefaultParallelThreshold : -1.0);
    opt.Estimate();
    opt.PostEstimation();
    iterations = opt.GetIterationNumber();
    passes = source.fRewinds - rewinds;  // the dictionary pass included
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

// Marginal means after a fit, for the cells of A by B (50 means) with A compared pairwise within
// each B (5 tables of 90 records, sequential Bonferroni) and the overall tests. Argument 0: the
// model of the other benchmarks (main effects: a complete design, no data pass); 1: the model
// with the A*B interaction on records without the cell (A = 9, B = 4), an incomplete design whose
// means weight the cells by their frequencies, counted in one pass over the records.
void BM_MarginalMeans(benchmark::State& state) {
  const bool incomplete = state.range(0) != 0;
  auto settings = MakeSettings();
  IGZLRecordSource* source = &Source();
  std::unique_ptr<FlatSource> own;
  std::vector<int> vars{1 + kCovariates, 2 + kCovariates};
  if (incomplete) {
    own = std::make_unique<FlatSource>(kRecords, kFields);
    RecordGenerator generator(20240611);
    for (int i = 0; i < kRecords; ++i) {
      double* r = own->Row(i);
      do generator.Fill(r, 0.0);
      while (r[1 + kCovariates] == kLevelsA - 1 && r[2 + kCovariates] == kLevelsB - 1);
    }
    source = own.get();
    for (int c = 0; c < kCovariates; ++c) vars.push_back(1 + c);
    GZLModelEffect ab(2, kCovariates, &vars);
    ab.AddNewFactor(vars[0], false);
    ab.AddNewFactor(vars[1], false);
    settings->AddModelEffect(ab);
  }
  TQEmmeansSpec spec;
  spec.fFactors = {1 + kCovariates, 2 + kCovariates};
  spec.fFactorsNestLevel = {0, 0};
  spec.fCompareFactors = {1 + kCovariates};
  spec.fContrastType = TQConst::ContrastPairwise;
  spec.fPAdjust = TQConst::PAdjSeqBonferroni;
  settings->SetEmmeans({spec});
  settings->SetTestType(TQConst::TestType2);
  GZLAlgorithm fit(*settings);
  fit.BuildModel(*source);
  const GZLOutputStats* stats = nullptr;
  fit.GetOutputStats(stats);
  GZLCancelInfo cancel;
  double sum = 0.0;
  for (auto _ : state) {
    GZLMarginals means(*settings, fit, *fit.GetDesignMatrix(), cancel);
    means.ComputeEmmeans();
    means.SetEmmeansTesting(fit.GetInference()->GetCovarianceMatrix(), *stats);
    const TQEmmeansSpec* used = nullptr;
    const TQRectMatrix* L = nullptr;
    std::vector<TQEmmeansStats> cells;
    means.GetEmmeansStats(0, used, L, cells);
    TQStatus status;
    for (int t = 0; t < means.GetNEmmeansTests(0, status); ++t) {
      std::vector<std::pair<int, int>> others;
      std::vector<int> levels;
      std::vector<GZLPairwiseRecord> records;
      TQTestStats overall;
      means.GetPairwiseEmmeansTests(0, t, others, levels, records);
      means.GetPairwiseOverallTest(0, t, others, overall);
      sum += records.empty() ? 0.0 : records[0].fSig + overall.GetWald();
    }
    sum += cells.empty() ? 0.0 : cells[0].fEstimate;
  }
  benchmark::DoNotOptimize(sum);
}

// The type III likelihood-ratio tests of the intercept and the 12 effects after a fit: one
// constrained refit each, started from the unconstrained estimates, at the engine's default
// refit tolerance (log-likelihood change below 1e-4).
void BM_TypeIIILRTests(benchmark::State& state) {
  Prepared& p = Ready();
  GZLSettings settings(*p.settings);
  settings.SetEffectAnalysisType(TQConst::EffectTypeIII);
  settings.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  GZLOptimizerForGZLM opt(*p.rows, settings, false);
  opt.Estimate();
  opt.PostEstimation();
  std::vector<GZLEffectInfo> info;
  for (int i = 0; i < p.design->GetNumEffects(); ++i)
    info.push_back({i, p.design->GetEffect(i).GetStart(), p.design->GetEffect(i).GetNColumns(), {}});
  TQSymMatrix sscp;
  opt.ComputeSSCP(sscp);
  GZLModelEffectTestData data(settings, info, opt.GetNumParams(), sscp);
  GZLModelEffectTestTypeIII hypotheses;
  hypotheses.SetData(&data);
  std::vector<TQRectMatrix> L;
  hypotheses.ComputeLMatrices(L);
  int passes = 0;
  double sum = 0.0;
  for (auto _ : state) {
    GZLTypeIIILRStats lr(settings, opt, 1e6);
    lr.Compute(data, L);
    passes = lr.GetNumPasses();
    sum += lr.GetStats()[1][0];
  }
  benchmark::DoNotOptimize(sum);
  const double tests = static_cast<double>(L.size());
  state.counters["tests"] = tests;
  state.counters["passes"] = passes;
  state.counters["passes_per_test"] = passes / tests;
  state.counters["s_per_test"] = benchmark::Counter(tests, benchmark::Counter::kIsIterationInvariantRate |
                                                               benchmark::Counter::kInvert);
}

// Profile likelihood intervals of the 26 parameters (24 in the model, so 48 end points) after
// a fit, at the engine's default tolerances (|LL - LL*| below 1e-4).
void BM_ProfileIntervals(benchmark::State& state) {
  Prepared& p = Ready();
  GZLSettings settings(*p.settings);
  settings.SetCIType(GZLConst_940::Profile);
  settings.SetMaxIterationsPLCI(100);
  GZLOptimizerForGZLM opt(*p.rows, settings, false);
  opt.Estimate();
  opt.PostEstimation();
  int passes = 0, endPoints = 0;
  double sum = 0.0;
  for (auto _ : state) {
    GZLProfileLikelihoodCI profile(settings, opt);
    profile.ComputeIntervals();
    passes = profile.GetNumPasses();
    endPoints = 0;
    for (double v : profile.GetLowerBounds()) endPoints += TQMV::IsMissing(v) ? 0 : 1;
    for (double v : profile.GetUpperBounds()) endPoints += TQMV::IsMissing(v) ? 0 : 1;
    sum += profile.GetUpperBounds()[1];
  }
  benchmark::DoNotOptimize(sum);
  state.counters["end_points"] = endPoints;
  state.counters["passes"] = passes;
  state.counters["passes_per_end_point"] = static_cast<double>(passes) / std::max(endPoints, 1);
  state.counters["s_per_end_point"] =
      benchmark::Counter(std::max(endPoints, 1), benchmark::Counter::kIsIterationInvariantRate |
                                                      benchmark::Counter::kInvert);
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
// Arguments: model (0 Poisson, 1 binary logit, 2 ordinal, 3 nominal), second thread.
BENCHMARK(BM_EstimationPass)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->ArgsProduct({{kPoisson, kBinaryLogit, kOrdinal, kNominal}, {0, 1}});
// Arguments: generic (virtual) record step, log-likelihood only.
BENCHMARK(BM_AccumulationOnly)->Unit(benchmark::kMillisecond)->Iterations(5)->Args({0, 0})->Args({1, 0})->Args({0, 1});
BENCHMARK(BM_WaldEffectTests)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_MarginalMeans)->Unit(benchmark::kMillisecond)->Iterations(3)->Arg(0)->Arg(1);
BENCHMARK(BM_WholeFit)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->ArgsProduct({{kPoisson, kBinaryLogit, kOrdinal, kNominal}, {0, 1}});
BENCHMARK(BM_TypeIIILRTests)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ProfileIntervals)->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
