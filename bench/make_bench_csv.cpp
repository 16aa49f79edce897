// Writes the CSV file of the large-file runs of `gzl fit` (see bench_csv.h):
//
//   make_bench_csv RECORDS FILE [SEED]
//   gzl fit FILE -y y -d poisson -f a,b -c x1,x2,x3,x4,x5,x6,x7,x8,x9,x10
#include <cstdio>
#include <cstdlib>

#include "bench_csv.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: make_bench_csv RECORDS FILE [SEED]\n");
    return 2;
  }
  const long long records = std::atoll(argv[1]);
  if (records < 0) {
    std::fprintf(stderr, "make_bench_csv: RECORDS must be 0 or more\n");
    return 2;
  }
  const bool written = argc > 3 ? WriteBenchCsv(argv[2], records, std::strtoull(argv[3], nullptr, 10))
                                : WriteBenchCsv(argv[2], records);
  if (!written) {
    std::perror(argv[2]);
    return 1;
  }
  return 0;
}
