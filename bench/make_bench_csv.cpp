// Writes the CSV file of the large-file benchmarks of `gzl fit`: a Poisson response y with a log
// link on 10 covariates x1..x10 and two factors, a (10 levels, a0..a9) and b (5 levels, b0..b4).
// About 105 bytes a record, so 1,000,000 records make about 100 MB.
//
//   make_bench_csv RECORDS FILE [SEED]
//
// The same records and seed always give the same file. Then, for example:
//   gzl fit FILE -y y -d poisson -f a,b -c x1,x2,x3,x4,x5,x6,x7,x8,x9,x10
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: make_bench_csv RECORDS FILE [SEED]\n");
    return 2;
  }
  const long long records = std::atoll(argv[1]);
  const unsigned long long seed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 20240611ULL;
  if (records < 0) {
    std::fprintf(stderr, "make_bench_csv: RECORDS must be 0 or more\n");
    return 2;
  }
  std::FILE* out = std::fopen(argv[2], "wb");
  if (out == nullptr) {
    std::perror(argv[2]);
    return 1;
  }
  constexpr int kCovariates = 10;
  constexpr int kLevelsA = 10;
  constexpr int kLevelsB = 5;
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> normal(0.0, 0.3);
  std::uniform_int_distribution<int> levelA(0, kLevelsA - 1), levelB(0, kLevelsB - 1);

  std::string line = "y";
  for (int c = 1; c <= kCovariates; ++c) line += ",x" + std::to_string(c);
  line += ",a,b\n";
  std::fputs(line.c_str(), out);

  std::vector<double> x(kCovariates);
  char cell[32];
  for (long long i = 0; i < records; ++i) {
    double eta = 0.5;
    for (int c = 0; c < kCovariates; ++c) {
      // Six significant digits, as data files usually hold; the model sees the rounded value.
      std::snprintf(cell, sizeof cell, "%.6g", normal(rng));
      x[c] = std::strtod(cell, nullptr);
      eta += (0.1 * (c + 1) - 0.5) * x[c];
    }
    const int a = levelA(rng), b = levelB(rng);
    eta += 0.05 * a - 0.1 * b;
    std::poisson_distribution<int> y(std::exp(eta));
    line = std::to_string(y(rng));
    for (int c = 0; c < kCovariates; ++c) {
      std::snprintf(cell, sizeof cell, ",%.6g", x[c]);
      line += cell;
    }
    line += ",a" + std::to_string(a) + ",b" + std::to_string(b) + "\n";
    std::fputs(line.c_str(), out);
  }
  if (std::fclose(out) != 0) {
    std::perror(argv[2]);
    return 1;
  }
  return 0;
}
