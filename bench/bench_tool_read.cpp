// The data path of `gzl fit` on the 1,000,000-record file of bench_csv.h (about 100 MB): the read
// of the CSV file into the record cache (on one thread and on one per core), one pass of the
// engine's record source over the cache, the sorted copy that subject-wise fits read, and the
// whole command with and without a file of record scores. The
// file is written once to the temporary directory, outside the timing, and removed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "bench_csv.h"
#include "tools/CsvTable.h"
#include "tools/FitCommand.h"
#include "tools/RecordCache.h"

namespace {

constexpr long long kRecords = 1000000;

struct BenchFile {
  std::string path;
  BenchFile() {
    const char* dir = std::getenv("TMPDIR");
    path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/gzl_bench_read.csv";
    if (!WriteBenchCsv(path, kRecords)) std::perror(path.c_str());
  }
  ~BenchFile() { std::remove(path.c_str()); }
};

const std::string& Path() {
  static BenchFile file;
  return file.path;
}

// The columns of the model y ~ a + b + x1..x10, in the order the tool asks for them.
std::vector<CsvColumnRequest> Columns() {
  std::vector<CsvColumnRequest> columns = {{"y", CsvColumnKind::Numeric}, {"a", CsvColumnKind::Factor},
                                           {"b", CsvColumnKind::Factor}};
  for (const char* name : {"x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10"}) {
    columns.push_back({name, CsvColumnKind::Numeric});
  }
  return columns;
}

CsvTable ReadOrSkip(benchmark::State& state, const CsvReadOptions& options) {
  CsvTable table;
  std::string error;
  if (!CsvTable::ReadFile(Path(), Columns(), options, table, error)) state.SkipWithError(error.c_str());
  return table;
}

// Argument: threads that tokenize the blocks (0: one per core).
void BM_ReadCsv(benchmark::State& state) {
  Path();
  CsvReadOptions options;
  options.threads = static_cast<unsigned>(state.range(0));
  for (auto _ : state) {
    CsvTable table = ReadOrSkip(state, options);
    benchmark::DoNotOptimize(table.NumRows());
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_CachePass(benchmark::State& state) {
  Path();
  const CsvTable table = ReadOrSkip(state, {});
  if (!table.Records()) return;
  CacheRecordSource source(*table.Records());
  for (auto _ : state) {
    source.Rewind();
    double sum = 0.0;
    while (const Record* r = source.NextRecord()) sum += (*r)[0] + (*r)[1];
    benchmark::DoNotOptimize(sum);
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

// Records ordered by b, then a (the file is in no such order): index, sort and copy.
void BM_SortedCopy(benchmark::State& state) {
  Path();
  const CsvTable table = ReadOrSkip(state, {});
  if (!table.Records()) return;
  for (auto _ : state) {
    std::shared_ptr<const RecordCache> sorted;
    std::string error;
    if (!RecordCache::SortedBy(table.Records(), {2, 1}, sorted, error)) state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(sorted.get());
  }
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

// The whole command on the file, a Poisson fit of y on a, b and x1..x10: without scores
// (argument 0), and with --save writing every record with its status and the default outputs
// (argument 1); the difference is the cost of the scores file.
void BM_FitCommand(benchmark::State& state) {
  FitOptions o;
  o.dataPath = Path();
  o.response = std::string("y");
  o.distribution = TQConst::DistPoisson;
  o.factors = {"a", "b"};
  o.covariates = {"x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10"};
  if (state.range(0) == 1) o.savePath = Path() + ".scores.csv";
  for (auto _ : state) {
    std::ostringstream out, err;
    if (RunFitCommand(o, {}, out, err) != 0) state.SkipWithError(err.str().c_str());
  }
  if (!o.savePath.empty()) std::remove(o.savePath.c_str());
  state.counters["records/s"] = benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(BM_FitCommand)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime()->Arg(0)->Arg(1);
BENCHMARK(BM_ReadCsv)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime()->Arg(1)->Arg(0);
BENCHMARK(BM_CachePass)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_SortedCopy)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

BENCHMARK_MAIN();
