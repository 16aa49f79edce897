// GEE fitting speed: the Poisson log model of bench_fit (10 covariates, factors of 10 and 5
// levels: 26 design columns) on 1,000,000 generated records in 100,000 subjects of 10 occasions,
// with a subject effect so that the records of a subject are correlated; served from memory.
//
// Reported, for the exchangeable and the AR(1) working correlation: one subject pass of the
// estimating equations (U and H), one pass of the working-correlation estimator, and the whole
// GEE fit (setup pass, the inner GZLM fit of the initial values, the iterations and the robust
// pass) with its passes and iterations; and, for comparison on the same records, one estimation
// pass of the generalized linear model on the calling thread. The same for the ordinal model of
// 5 categories (cumulative logit, 4 thresholds and 25 columns; a block working correlation of 4
// indicators per occasion) on the same layout. Nothing of the fit keeps records beyond one
// subject.
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
#include "gee/GEEWorkCorrForMultinomial.h"
#include "gee/GEEWorkCorrelation.h"
#include "bench_model.h"

namespace {

using bench_model::FlatSource;

constexpr int kSubjects = 100000;
constexpr int kOccasions = 10;
constexpr int kRecords = kSubjects * kOccasions;
using bench_model::kCovariates;
using bench_model::kLevelsA;
// Fields: y, x1..x10, A, B, subject, occasion; the ordinal model's records carry the ordinal and
// nominal responses before the subject and occasion.
int SubjectField(bool ordinal) { return bench_model::kFields + (ordinal ? 2 : 0); }

FlatSource& Source(bool ordinal = false) {
  auto make = [](bool ord) {
    FlatSource s(kRecords, SubjectField(ord) + 2);
    bench_model::RecordGenerator generator(20261123);
    std::normal_distribution<double> subjectEffect(0.0, 0.4);
    for (int i = 0; i < kSubjects; ++i) {
      const double b = subjectEffect(generator.Rng());
      for (int t = 0; t < kOccasions; ++t) {
        double* r = s.Row(i * kOccasions + t);
        if (ord)
          generator.FillResponseModels(r, b);
        else
          generator.Fill(r, b);
        r[SubjectField(ord)] = i;
        r[SubjectField(ord) + 1] = t;
      }
    }
    return s;
  };
  if (!ordinal) {
    static FlatSource poisson = make(false);
    return poisson;
  }
  static FlatSource cumulative = make(true);
  return cumulative;
}

std::unique_ptr<GZLSettings> MakeSettings(GZLConst_940::CorrType corr, bool ordinal) {
  auto s = std::make_unique<GZLSettings>();
  bench_model::AddModel(*s, ordinal ? bench_model::kOrdinal : bench_model::kPoisson);
  s->SetGZLModelType(GZLConst_940::GEE);
  s->AddGEESubjectVar(SubjectField(ordinal), kSubjects);
  s->AddGEEWSVar(SubjectField(ordinal) + 1, kOccasions);
  s->SetGEECorrType(corr);
  return s;
}

GZLConst_940::CorrType Corr(const benchmark::State& state) {
  return state.range(0) == 0 ? GZLConst_940::Exchangeable : GZLConst_940::AR1;
}
bool Ordinal(const benchmark::State& state) { return state.range(1) != 0; }

// A design after its setup pass, with estimates near those of the fit.
struct Prepared {
  std::unique_ptr<GZLSettings> settings;
  std::unique_ptr<GEEDesignMatrix> design;
  std::vector<double> beta;
  TQBitSet inModel;
  TQSymMatrix R;
  Prepared(GZLConst_940::CorrType corr, bool ordinal) : settings(MakeSettings(corr, ordinal)) {
    design = std::make_unique<GEEDesignMatrix>(*settings);
    TQStatus st;
    FlatSource& source = Source(ordinal);
    source.Rewind();
    design->RunDictionaryPass(st, source);
    design->NumberWSCombinations();
    design->SetRecordSource(&source);
    const int P = design->GetNumOfParams();
    // Before the effect columns: the intercept, or the thresholds at the generator's cut points.
    const int lead = ordinal ? bench_model::kOrdinalCategories - 1 : 1;
    beta.assign(static_cast<std::size_t>(P), 0.01);
    for (int t = 0; ordinal && t < lead; ++t) beta[static_cast<std::size_t>(t)] = t - 1.0;
    inModel = TQBitSet(P, true);
    inModel.Clear(lead + kCovariates + kLevelsA - 1);  // last level of each factor aliased
    inModel.Clear(P - 1);
    if (ordinal) {
      // The block correlation as the estimator finds it at these estimates.
      GEEWorkCorrForMultinomial estimator(*design, *settings);
      estimator.Update(st, beta, inModel.Count(), R);
      return;
    }
    R = TQSymMatrix(kOccasions, 0.0);
    for (int i = 0; i < kOccasions; ++i)
      for (int j = 0; j <= i; ++j) R(i, j) = corr == GZLConst_940::AR1 ? std::pow(0.3, i - j) : (i == j ? 1.0 : 0.3);
  }
};

Prepared& Ready(GZLConst_940::CorrType corr, bool ordinal = false) {
  static Prepared exchangeable(GZLConst_940::Exchangeable, false), ar1(GZLConst_940::AR1, false);
  if (ordinal) {
    static Prepared ordExchangeable(GZLConst_940::Exchangeable, true), ordAr1(GZLConst_940::AR1, true);
    return corr == GZLConst_940::AR1 ? ordAr1 : ordExchangeable;
  }
  return corr == GZLConst_940::AR1 ? ar1 : exchangeable;
}

void BM_GEESubjectPass(benchmark::State& state) {
  Prepared& p = Ready(Corr(state), Ordinal(state));
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
  Prepared& p = Ready(Corr(state), Ordinal(state));
  std::unique_ptr<GEEWorkCorrelation> correlation;
  if (Ordinal(state))
    correlation = std::make_unique<GEEWorkCorrForMultinomial>(*p.design, *p.settings);
  else
    correlation = std::make_unique<GEEWorkCorrelation>(*p.design, *p.settings);
  for (auto _ : state) {
    TQStatus st;
    TQSymMatrix R;
    correlation->Update(st, p.beta, p.inModel.Count(), R);
    benchmark::DoNotOptimize(R);
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

// The generalized linear model's estimation pass over the same records and design rows, on the
// calling thread (the GEE passes use one thread).
void BM_GZLMPass(benchmark::State& state) {
  Prepared& p = Ready(GZLConst_940::Exchangeable, state.range(0) != 0);
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
  auto settings = MakeSettings(Corr(state), Ordinal(state));
  FlatSource& source = Source(Ordinal(state));  // the records are generated once, outside the timing
  int iterations = 0, passes = 0;
  for (auto _ : state) {
    const int rewinds = source.fRewinds;
    std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(*settings, false));
    source.Rewind();
    const TQStatus st = algorithm->BuildModel(source);
    if (st.IsError()) state.SkipWithError("the fit failed");
    iterations = algorithm->GetOptimizer()->GetIterationNumber();
    passes = source.fRewinds - rewinds;
    benchmark::DoNotOptimize(algorithm->GetOptimizer()->GetParamEstimates());
  }
  state.counters["iterations"] = iterations;
  state.counters["passes"] = passes;
}

}  // namespace

// Arguments: 0 exchangeable, 1 AR(1); then 0 the Poisson model, 1 the ordinal one.
BENCHMARK(BM_GZLMPass)->Unit(benchmark::kMillisecond)->Iterations(5)->Arg(0)->Arg(1);
BENCHMARK(BM_GEESubjectPass)->Unit(benchmark::kMillisecond)->Iterations(5)->ArgsProduct({{0, 1}, {0, 1}});
BENCHMARK(BM_GEECorrelationPass)->Unit(benchmark::kMillisecond)->Iterations(5)->ArgsProduct({{0, 1}, {0, 1}});
BENCHMARK(BM_GEEWholeFit)->Unit(benchmark::kMillisecond)->Iterations(1)->ArgsProduct({{0, 1}, {0, 1}});

BENCHMARK_MAIN();
