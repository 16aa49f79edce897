#pragma once
// The model of the benchmarks: a Poisson log model on 1,000,000 generated records with 10
// covariates and two factors of 10 and 5 levels (1 + 10 + 10 + 5 = 26 design columns), served
// from memory. The records are generated once, on first use, outside any timing.
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "GZLSettings.h"

namespace bench_model {

constexpr int kRecords = 1000000;
constexpr int kCovariates = 10;
constexpr int kLevelsA = 10;
constexpr int kLevelsB = 5;
// Fields: y, x1..x10, A, B.
constexpr int kFields = 1 + kCovariates + 2;

// Records in one contiguous block of doubles.
class FlatSource final : public IGZLRecordSource {
 public:
  FlatSource() : fData(static_cast<std::size_t>(kRecords) * kFields) {
    std::mt19937_64 rng(20240611);
    std::normal_distribution<double> normal(0.0, 0.3);
    std::uniform_int_distribution<int> levelA(0, kLevelsA - 1), levelB(0, kLevelsB - 1);
    for (int i = 0; i < kRecords; ++i) {
      double* r = &fData[static_cast<std::size_t>(i) * kFields];
      double eta = 0.5;
      for (int c = 0; c < kCovariates; ++c) {
        r[1 + c] = normal(rng);
        eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
      }
      const int a = levelA(rng), b = levelB(rng);
      r[1 + kCovariates] = a;
      r[2 + kCovariates] = b;
      eta += 0.05 * a - 0.1 * b;
      std::poisson_distribution<int> y(std::exp(eta));
      r[0] = y(rng);
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

inline FlatSource& Source() {
  static FlatSource source;
  return source;
}

inline std::unique_ptr<GZLSettings> MakeSettings() {
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
  return s;
}

}  // namespace bench_model
