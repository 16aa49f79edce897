#pragma once
// The CSV file of the large-file runs of `gzl fit`: a Poisson response y with a log link on 10
// covariates x1..x10 and two factors, a (10 levels, a0..a9) and b (5 levels, b0..b4), about 105
// bytes a record (1,000,000 records make about 100 MB). The same records and seed always give
// the same file.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

// False when the file cannot be written.
inline bool WriteBenchCsv(const std::string& path, long long records, unsigned long long seed = 20240611ULL) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) return false;
  constexpr int kCovariates = 10;
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> normal(0.0, 0.3);
  std::uniform_int_distribution<int> levelA(0, 9), levelB(0, 4);

  std::string line = "y";
  for (int c = 1; c <= kCovariates; ++c) line += ",x" + std::to_string(c);
  line += ",a,b\n";
  std::fputs(line.c_str(), out);
  char cells[kCovariates][32];
  for (long long i = 0; i < records; ++i) {
    double eta = 0.5;
    for (int c = 0; c < kCovariates; ++c) {
      // Six significant digits, as data files usually hold; the model sees the rounded value.
      std::snprintf(cells[c], sizeof cells[c], "%.6g", normal(rng));
      eta += (0.1 * (c + 1) - 0.5) * std::strtod(cells[c], nullptr);
    }
    const int a = levelA(rng), b = levelB(rng);
    eta += 0.05 * a - 0.1 * b;
    std::poisson_distribution<int> y(std::exp(eta));
    std::fprintf(out, "%d", y(rng));
    for (int c = 0; c < kCovariates; ++c) std::fprintf(out, ",%s", cells[c]);
    std::fprintf(out, ",a%d,b%d\n", a, b);
  }
  return std::fclose(out) == 0;
}
