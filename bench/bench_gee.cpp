// GEE fitting speed: the Poisson log model of bench_fit (10 covariates, factors of 10 and 5
// levels: 26 design columns) on 1,000,000 generated records in 100,000 subjects of 10 occasions,
// with a subject effect so that the records of a subject are correlated; served from memory.
//
// Reported, for the exchangeable and the AR(1) working correlation: one subject pass of the
// estimating equations (U and H), one pass of the working-correlation estimator, and the whole
// GEE fit (setup pass, the inner GZLM fit of the initial values, the iterations and the robust
// pass) with its passes and iterations; and, for comparison on the same records, one estimation
// pass of the generalized linear model on the calling thread. Nothing of the fit keeps records
// beyond one subject.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "GZLFactory.h"
#include "GZLRecord.h"
#include "GZLSettings.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLStatFactory.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEESubjectPass.h"
#include "gee/GEEWorkCorrelation.h"
#include "bench_model.h"

namespace {

using bench_model::FlatSource;

constexpr int kSubjects = 100000;
constexpr int kOccasions = 10;
constexpr int kRecords = kSubjects * kOccasions;
using bench_model::kCovariates;
using bench_model::kLevelsA;
// Fields: y, x1..x10, A, B, subject, occasion.
constexpr int kSubjectField = bench_model::kFields;
constexpr int kFields = kSubjectField + 2;

FlatSource& Source() {
  static FlatSource source = [] {
    FlatSource s(kRecords, kFields);
    bench_model::RecordGenerator generator(20261123);
    std::normal_distribution<double> subjectEffect(0.0, 0.4);
    for (int i = 0; i < kSubjects; ++i) {
      const double b = subjectEffect(generator.Rng());
      for (int t = 0; t < kOccasions; ++t) {
        double* r = s.Row(i * kOccasions + t);
        generator.Fill(r, b);
        r[kSubjectField] = i;
        r[kSubjectField + 1] = t;
      }
    }
    return s;
  }();
  return source;
}

std::unique_ptr<GZLSettings> MakeSettings(GZLConst_940::CorrType corr) {
  auto s = std::make_unique<GZLSettings>();
  bench_model::AddModel(*s);
  s->SetGZLModelType(GZLConst_940::GEE);
  s->AddGEESubjectVar(kSubjectField, kSubjects);
  s->AddGEEWSVar(kSubjectField + 1, kOccasions);
  s->SetGEECorrType(corr);
  return s;
}

GZLConst_940::CorrType Corr(const benchmark::State& state) {
  return state.range(0) == 0 ? GZLConst_940::Exchangeable : GZLConst_940::AR1;
}

// A design after its setup pass, with estimates near those of the fit.
struct Prepared {
  std::unique_ptr<GZLSettings> settings;
  std::unique_ptr<GEEDesignMatrix> design;
  std::vector<double> beta;
  TQBitSet inModel;
  TQSymMatrix R;
  explicit Prepared(GZLConst_940::CorrType corr) : settings(MakeSettings(corr)) {
    design = std::make_unique<GEEDesignMatrix>(*settings);
    TQStatus st;
    Source().Rewind();
    design->RunDictionaryPass(st, Source());
    design->NumberWSCombinations();
    design->SetRecordSource(&Source());
    const int P = design->GetNumOfParams();
    beta.assign(static_cast<std::size_t>(P), 0.01);
    inModel = TQBitSet(P, true);
    inModel.Clear(1 + kCovariates + kLevelsA - 1);  // last level of each factor aliased
    inModel.Clear(P - 1);
    R = TQSymMatrix(kOccasions, 0.0);
    for (int i = 0; i < kOccasions; ++i)
      for (int j = 0; j <= i; ++j) R(i, j) = corr == GZLConst_940::AR1 ? std::pow(0.3, i - j) : (i == j ? 1.0 : 0.3);
  }
};

Prepared& Ready(GZLConst_940::CorrType corr) {
  static Prepared exchangeable(GZLConst_940::Exchangeable), ar1(GZLConst_940::AR1);
  return corr == GZLConst_940::AR1 ? ar1 : exchangeable;
}

void BM_GEESubjectPass(benchmark::State& state) {
  Prepared& p = Ready(Corr(state));
  GEESubjectPass pass(*p.settings);
  pass.SetActive(p.inModel);
  for (auto _ : state) {
    bool transformed = false;
    const TQStatus st = pass.Run(*p.design, p.beta, p.R, 1.0, false, transformed);
    benchmark::DoNotOptimize(st);
    benchmark::DoNotOptimize(pass.GetPearson());
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_GEECorrelationPass(benchmark::State& state) {
  Prepared& p = Ready(Corr(state));
  GEEWorkCorrelation correlation(*p.design, *p.settings);
  for (auto _ : state) {
    TQStatus st;
    TQSymMatrix R;
    correlation.Update(st, p.beta, p.inModel.Count(), R);
    benchmark::DoNotOptimize(R);
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

// The generalized linear model's estimation pass over the same records and design rows, on the
// calling thread (the GEE passes use one thread).
void BM_GZLMPass(benchmark::State& state) {
  Prepared& p = Ready(GZLConst_940::Exchangeable);
  GZLDesignRowSource rows(*p.design);
  GZLStatFactory factory(rows, *p.settings);
  factory.SetParallelThreshold(-1.0);
  factory.SetRedundancy(p.inModel);
  for (auto _ : state) {
    TQStatus st;
    factory.ComputeLLGradHessian(st, p.beta, 1.0, true, false, false);
    benchmark::DoNotOptimize(factory.GetLogLikelihood());
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_GEEWholeFit(benchmark::State& state) {
  auto settings = MakeSettings(Corr(state));
  Source();  // the records are generated once, outside the timing
  int iterations = 0, passes = 0;
  for (auto _ : state) {
    const int rewinds = Source().fRewinds;
    std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(*settings, false));
    Source().Rewind();
    const TQStatus st = algorithm->BuildModel(Source());
    if (st.IsError()) state.SkipWithError("the fit failed");
    iterations = algorithm->GetOptimizer()->GetIterationNumber();
    passes = Source().fRewinds - rewinds;
    benchmark::DoNotOptimize(algorithm->GetOptimizer()->GetParamEstimates());
  }
  state.counters["iterations"] = iterations;
  state.counters["passes"] = passes;
}

}  // namespace

// Argument: 0 exchangeable, 1 AR(1).
BENCHMARK(BM_GZLMPass)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_GEESubjectPass)->Unit(benchmark::kMillisecond)->Iterations(5)->Arg(0)->Arg(1);
BENCHMARK(BM_GEECorrelationPass)->Unit(benchmark::kMillisecond)->Iterations(5)->Arg(0)->Arg(1);
BENCHMARK(BM_GEEWholeFit)->Unit(benchmark::kMillisecond)->Iterations(1)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
