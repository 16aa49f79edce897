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
#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "GZLSettings.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLStatFactory.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEESubjectPass.h"
#include "gee/GEEWorkCorrelation.h"

namespace {

constexpr int kSubjects = 100000;
constexpr int kOccasions = 10;
constexpr int kRecords = kSubjects * kOccasions;
constexpr int kCovariates = 10;
constexpr int kLevelsA = 10;
constexpr int kLevelsB = 5;
// Fields: y, x1..x10, A, B, subject, occasion.
constexpr int kSubjectField = 3 + kCovariates;
constexpr int kFields = kSubjectField + 2;

class FlatSource final : public IGZLRecordSource {
 public:
  FlatSource() : fData(static_cast<std::size_t>(kRecords) * kFields) {
    std::mt19937_64 rng(20261123);
    std::normal_distribution<double> normal(0.0, 0.3), subjectEffect(0.0, 0.4);
    std::uniform_int_distribution<int> levelA(0, kLevelsA - 1), levelB(0, kLevelsB - 1);
    for (int s = 0; s < kSubjects; ++s) {
      const double b = subjectEffect(rng);
      for (int t = 0; t < kOccasions; ++t) {
        double* r = &fData[(static_cast<std::size_t>(s) * kOccasions + t) * kFields];
        double eta = 0.5 + b;
        for (int c = 0; c < kCovariates; ++c) {
          r[1 + c] = normal(rng);
          eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
        }
        const int a = levelA(rng), bl = levelB(rng);
        r[1 + kCovariates] = a;
        r[2 + kCovariates] = bl;
        eta += 0.05 * a - 0.1 * bl;
        std::poisson_distribution<int> y(std::exp(eta));
        r[0] = y(rng);
        r[kSubjectField] = s;
        r[kSubjectField + 1] = t;
      }
    }
  }
  bool HasMoreRecords() override { return fNext < kRecords; }
  const Record* NextRecord() override {
    if (fNext >= kRecords) return nullptr;
    fRecord.Reset(&fData[static_cast<std::size_t>(fNext++) * kFields], kFields);
    return &fRecord;
  }
  long RecordCount() override { return kRecords; }
  int Rewind() override {
    ++fRewinds;
    fNext = 0;
    return 0;
  }
  int fRewinds = 0;

 private:
  std::vector<double> fData;
  int fNext = 0;
  Record fRecord;
};

FlatSource& Source() {
  static FlatSource source;
  return source;
}

std::unique_ptr<GZLSettings> MakeSettings(GZLConst_940::CorrType corr) {
  auto s = std::make_unique<GZLSettings>();
  s->SetDistType(TQConst::DistPoisson);
  s->SetLinkType(TQConst::LinkLog);
  s->SetScaleType(GZLConst_940::ScaleFixed);
  s->SetDependent(0);
  s->SetInterceptUse(true);
  const int fa = 1 + kCovariates, fb = 2 + kCovariates;
  s->AddFactor(fa, kLevelsA);
  s->AddFactor(fb, kLevelsB);
  static std::vector<int> vars;
  vars = {fa, fb};
  for (int c = 0; c < kCovariates; ++c) {
    s->AddCovariate(1 + c);
    vars.push_back(1 + c);
  }
  for (int c = 0; c < kCovariates; ++c) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddCovariate(1 + c);
    s->AddModelEffect(e);
  }
  for (int f : {fa, fb}) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddNewFactor(f, false);
    s->AddModelEffect(e);
  }
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
