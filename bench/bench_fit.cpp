// Fitting speed on 1,000,000 generated records with 10 covariates and two factors of 10 and 5
// levels (1 + 10 + 10 + 5 = 26 design columns), served from memory: a Poisson log model, and on
// the same design a binary logit model, an ordinal model of 5 categories (cumulative logit:
// 4 thresholds and 25 columns) and a nominal model of 4 categories (3 logits of 26 columns).
//
// Reported: the dictionary pass; one estimation pass (design rows, log-likelihood, gradient and
// information); the design rows alone and the accumulation alone (over prebuilt rows), which
// split a pass between the design matrix and the estimation; the estimation over prebuilt rows;
// and the whole fit (dictionary pass, starting values, iterations and post-estimation) with its
// number of passes. The estimation pass and the whole fit run on the calling thread alone and
// with the second thread that large passes use by default. Nothing in the fit keeps records: its
// memory does not grow with their number.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"

namespace {

constexpr int kRecords = 1000000;
constexpr int kCovariates = 10;
constexpr int kLevelsA = 10;
constexpr int kLevelsB = 5;
constexpr int kOrdinalCategories = 5;
constexpr int kNominalCategories = 4;
// Fields: y, x1..x10, A, B; the response models' source adds the ordinal and nominal responses
// (y is then the binary one).
constexpr int kFields = 1 + kCovariates + 2;
constexpr int kOrdinalField = kFields;
constexpr int kNominalField = kFields + 1;

// The models of the benchmarks (their argument).
enum Model : int { kPoisson = 0, kBinaryLogit, kOrdinal, kNominal };

// Records in one contiguous block of doubles: the Poisson records, or those of the response
// models (the same predictors, drawn with the same generator).
class FlatSource final : public IGZLRecordSource {
 public:
  explicit FlatSource(bool responseModels)
      : fFields(responseModels ? kFields + 2 : kFields), fData(static_cast<std::size_t>(kRecords) * fFields) {
    std::mt19937_64 rng(20240611);
    std::normal_distribution<double> normal(0.0, 0.3);
    std::uniform_int_distribution<int> levelA(0, kLevelsA - 1), levelB(0, kLevelsB - 1);
    std::uniform_real_distribution<double> uniform(1e-12, 1.0 - 1e-12);
    for (int i = 0; i < kRecords; ++i) {
      double* r = &fData[static_cast<std::size_t>(i) * fFields];
      double eta = 0.5;
      for (int c = 0; c < kCovariates; ++c) {
        r[1 + c] = normal(rng);
        eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
      }
      const int a = levelA(rng), b = levelB(rng);
      r[1 + kCovariates] = a;
      r[2 + kCovariates] = b;
      eta += 0.05 * a - 0.1 * b;
      if (!responseModels) {
        std::poisson_distribution<int> y(std::exp(eta));
        r[0] = y(rng);
        continue;
      }
      const double u0 = uniform(rng);
      const double logistic = std::log(u0) - std::log1p(-u0);
      r[0] = uniform(rng) < 1.0 / (1.0 + std::exp(-(eta - 0.5))) ? 1.0 : 0.0;
      // Ordinal: a logistic latent variable cut into five categories.
      const double latent = eta + logistic;
      r[kOrdinalField] = (latent > -1.0) + (latent > 0.0) + (latent > 1.0) + (latent > 2.0);
      // Nominal: three logits against the last category.
      const double e[3] = {std::exp(0.5 * eta), std::exp(0.2 - 0.5 * eta), std::exp(0.3 * r[1] - 0.1 * a)};
      const double total = 1.0 + e[0] + e[1] + e[2];
      const double u = uniform(rng) * total;
      r[kNominalField] = u < e[0] ? 0.0 : (u < e[0] + e[1] ? 1.0 : (u < e[0] + e[1] + e[2] ? 2.0 : 3.0));
    }
  }
  bool HasMoreRecords() override { return fNext < kRecords; }
  const Record* NextRecord() override {
    if (fNext >= kRecords) return nullptr;
    fRecord.Reset(&fData[static_cast<std::size_t>(fNext++) * fFields], fFields);
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
  int fFields;
  std::vector<double> fData;
  int fNext = 0;
  Record fRecord;
};

// The records of a model, generated once, outside the timing.
FlatSource& Source(int model = kPoisson) {
  static FlatSource poisson(false);
  if (model == kPoisson) return poisson;
  static FlatSource responses(true);
  return responses;
}

std::unique_ptr<GZLSettings> MakeSettings(int model = kPoisson) {
  auto s = std::make_unique<GZLSettings>();
  s->SetScaleType(GZLConst_940::ScaleFixed);
  s->SetInterceptUse(true);
  switch (model) {
    case kBinaryLogit:
      s->SetDistType(TQConst::DistBinomial);
      s->SetLinkType(TQConst::LinkLogit);
      s->SetDependent(0);
      break;
    case kOrdinal:
      s->SetDistType(TQConst::DistOrdinalMultinomial);
      s->SetLinkType(TQConst::LinkCumLogit);
      s->SetDependent(kOrdinalField);
      s->SetDependentSize(kOrdinalCategories);
      break;
    case kNominal:
      s->SetDistType(TQConst::DistNominalMultinomial);
      s->SetLinkType(TQConst::LinkLogit);
      s->SetDependent(kNominalField);
      s->SetDependentSize(kNominalCategories);
      s->SetDependentRefCateg(kNominalCategories - 1);
      break;
    default:
      s->SetDistType(TQConst::DistPoisson);
      s->SetLinkType(TQConst::LinkLog);
      s->SetDependent(0);
      break;
  }
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
  return s;
}

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
BENCHMARK(BM_WholeFit)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->ArgsProduct({{kPoisson, kBinaryLogit, kOrdinal, kNominal}, {0, 1}});

BENCHMARK_MAIN();
